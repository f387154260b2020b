// SPDX-License-Identifier: Apache-2.0
// What every part of the simulator stands on: temporary trees, whole files, patterned bytes
// and runs of a program with its output caught.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

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
// memory is sampled at each of its reads, writes and ioctls and at its exit, by the
// preloaded flash library (which env must load).
run_result run_program(const std::string &program, const std::vector<std::string> &args,
                       const std::vector<std::string> &env = {}, bool watch_memory = false);
