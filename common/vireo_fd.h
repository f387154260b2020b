// A file descriptor closed on every way out of the scope that opened it.
#pragma once

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
