/* Preloaded into the tool by the upgrade tests, to see the fake device tree as flash:
 *  - VIREO_WRITE_LOG: every write() is logged as "<path> <bytes>" (the count per target);
 *  - VIREO_NOR_PATHS: colon-separated files that behave like NOR flash, where a write can
 *    only clear bits, so that content written without an erase comes out wrong;
 *  - VIREO_FAIL_PATHS: colon-separated files whose writes fail with EIO. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static int listed(const char *var, const char *path)
{
    const char *list = getenv(var);
    const size_t n = strlen(path);
    while (list && *list) {
        const char *end = strchr(list, ':');
        const size_t len = end ? (size_t)(end - list) : strlen(list);
        if (len == n && strncmp(list, path, n) == 0)
            return 1;
        list = end ? end + 1 : NULL;
    }
    return 0;
}

ssize_t write(int fd, const void *buf, size_t count)
{
    static ssize_t (*real_write)(int, const void *, size_t);
    if (!real_write)
        real_write = (ssize_t(*)(int, const void *, size_t))dlsym(RTLD_NEXT, "write");
    char link[64], path[4096];
    snprintf(link, sizeof(link), "/proc/self/fd/%d", fd);
    const ssize_t plen = readlink(link, path, sizeof(path) - 1);
    if (plen <= 0 || fd <= 2)
        return real_write(fd, buf, count);
    path[plen] = '\0';
    const char *log = getenv("VIREO_WRITE_LOG");
    if (log) {
        FILE *f = fopen(log, "a");
        if (f) {
            fprintf(f, "%s %zu\n", path, count);
            fclose(f);
        }
    }
    if (listed("VIREO_FAIL_PATHS", path)) {
        errno = EIO;
        return -1;
    }
    if (!listed("VIREO_NOR_PATHS", path))
        return real_write(fd, buf, count);
    const off_t at = lseek(fd, 0, SEEK_CUR);
    unsigned char *merged = malloc(count);
    const int in = open(path, O_RDONLY);
    const ssize_t old = in >= 0 ? pread(in, merged, count, at) : -1;
    if (in >= 0)
        close(in);
    for (size_t i = 0; i < count; i++)
        merged[i] = (ssize_t)i < old ? (merged[i] & ((const unsigned char *)buf)[i])
                                     : ((const unsigned char *)buf)[i];
    const ssize_t r = real_write(fd, merged, count);
    free(merged);
    return r;
}
