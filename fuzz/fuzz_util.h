// What the fuzz targets share: quiet traces, the process-wide state of a new run, and the
// file through which an input reaches a reader that takes a path.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

// Sends standard output, where the tool traces, to /dev/null (unless VIREO_FUZZ_TRACE is
// set); libFuzzer reports on standard error.
void fuzz_quiet();
// The state a run of the tool starts with: the integrity checks' and the version test's.
void fuzz_reset_state();

// A file rewritten for every input, in memory-backed /dev/shm where there is one: on a
// disk file system, rewriting a file from empty makes it flush the data at every close.
struct fuzz_file {
    explicit fuzz_file(const std::string &name);
    ~fuzz_file();
    fuzz_file(const fuzz_file &) = delete;
    fuzz_file &operator=(const fuzz_file &) = delete;
    void write(const uint8_t *data, size_t size) const;
    std::string dir;
    std::string path;
};
