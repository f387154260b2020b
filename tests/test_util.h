// SPDX-License-Identifier: Apache-2.0
// Helpers shared by the tests: output capture and trace parsing; temporary trees and
// program runs come from the simulator.
#pragma once

#include "sim_util.h"

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
