// SPDX-License-Identifier: Apache-2.0
// File descriptors: one closed on every way out of the scope that opened it, and whole reads.
#pragma once

#include <cerrno>
#include <cstdint>
#include <unistd.h>

struct fd_guard {
    int fd;
    explicit fd_guard(int f) : fd(f) {}
    ~fd_guard()
    {
        if (fd >= 0)
            close(fd);
    }
    fd_guard(const fd_guard &) = delete;
    fd_guard &operator=(const fd_guard &) = delete;
};

// Reads n bytes from where fd stands, going on after short reads: the bytes read (fewer only
// at the end of the file), or -1 on an error.
inline int64_t vireo_read_up_to(int fd, uint8_t *dst, int64_t n)
{
    int64_t done = 0;
    while (done < n) {
        const ssize_t got = read(fd, dst + done, static_cast<size_t>(n - done));
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            return -1;
        if (got == 0)
            break;
        done += got;
    }
    return done;
}

// Reads n bytes at pos, going on after short reads; false on an error or the end of the file.
inline bool vireo_read_fully_at(int fd, uint8_t *dst, int64_t pos, int64_t n)
{
    while (n > 0) {
        const ssize_t got = pread(fd, dst, static_cast<size_t>(n), pos);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            return false;
        dst += got;
        pos += got;
        n -= got;
    }
    return true;
}
