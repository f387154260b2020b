// SPDX-License-Identifier: Apache-2.0
// Helpers shared by the tests: output capture, trace parsing, temporary trees, tool runs.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

// Runs fn with standard output (or standard error) sent to a file; returns what it wrote.
std::string capture_stdout(const std::function<void()> &fn);
std::string capture_stderr(const std::function<void()> &fn);
// Calls fn with its standard output caught; the output goes to *out when one is given.
template <typename F>
auto quietly(F &&fn, std::string *out = nullptr)
{
    decltype(fn()) result{};
    const std::string text = capture_stdout([&] { result = fn(); });
    if (out)
        *out = text;
    return result;
}

// The message parts (text after "| ") of the trace lines in out, in order, each without
// its line ending. Lines that are not trace lines are skipped; a trace line whose head is
// not "module:line: [TRACE]function() | " gives "malformed trace line: " and the line.
std::vector<std::string> trace_messages(const std::string &out);
// How many trace messages equal msg exactly; whether one does.
size_t count_trace(const std::string &out, const std::string &msg);
bool has_trace(const std::string &out, const std::string &msg);

// A fresh directory removed with its content at destruction.
struct temp_dir {
    temp_dir();
    ~temp_dir();
    temp_dir(const temp_dir &) = delete;
    temp_dir &operator=(const temp_dir &) = delete;
    std::string path;
    // Writes a file below the directory (creating parent directories); returns its path.
    std::string write(const std::string &rel, const std::string &content) const;
    std::string join(const std::string &rel) const;
};

std::string read_file(const std::string &path);
void write_file(const std::string &path, const std::string &content);
// n bytes that differ from seed to seed and repeat rarely.
std::string pattern(size_t n, int seed);

struct run_result {
    int status = -1; // exit status 0..255, or -1 when killed by a signal
    std::string out;
    std::string err;
    long peak_anon_kb = 0; // the largest private memory (RssAnon) seen, when watched
};

// Runs the program with the arguments (argv[0] is added), no standard input.
// env: NAME=VALUE settings for the program only. With watch_memory, the program's private
// memory is sampled at each of its reads, writes and ioctls and at its exit, by the tests'
// preloaded library (which env must load).
run_result run_program(const std::string &program, const std::vector<std::string> &args,
                       const std::vector<std::string> &env = {}, bool watch_memory = false);
