// SPDX-License-Identifier: Apache-2.0
#include "test_util.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <unistd.h>

static std::string capture_fd(int target, const std::function<void()> &fn)
{
    char name[] = "/tmp/vireo_capture_XXXXXX";
    const int tmp = mkstemp(name);
    if (tmp < 0)
        throw std::runtime_error("mkstemp failed");
    fflush(stdout);
    fflush(stderr);
    const int saved = dup(target);
    dup2(tmp, target);
    fn();
    fflush(stdout);
    fflush(stderr);
    dup2(saved, target);
    close(saved);
    close(tmp);
    std::string text = read_file(name);
    unlink(name);
    return text;
}

std::string capture_stdout(const std::function<void()> &fn)
{
    return capture_fd(STDOUT_FILENO, fn);
}
std::string capture_stderr(const std::function<void()> &fn)
{
    return capture_fd(STDERR_FILENO, fn);
}

std::vector<std::string> trace_messages(const std::string &out)
{
    std::vector<std::string> messages;
    // A trace line in any other form than "module:line: [TRACE]function() | " yields no
    // message that a test expects.
    static const std::regex head(
        "vireo_[a-z_]+:[1-9][0-9]*: \\[TRACE\\][A-Za-z_][A-Za-z0-9_]*\\(\\) \\| ");
    std::istringstream in(out);
    for (std::string line; std::getline(in, line);) {
        const size_t tag = line.find(": [TRACE]");
        const size_t bar = tag == std::string::npos ? tag : line.find("() | ", tag);
        if (bar != std::string::npos)
            messages.push_back(std::regex_match(line.substr(0, bar + 5), head)
                                   ? line.substr(bar + 5)
                                   : "malformed trace line: " + line);
    }
    return messages;
}

size_t count_trace(const std::string &out, const std::string &msg)
{
    const std::vector<std::string> all = trace_messages(out);
    return static_cast<size_t>(std::count(all.begin(), all.end(), msg));
}

bool has_trace(const std::string &out, const std::string &msg)
{
    return count_trace(out, msg) > 0;
}
