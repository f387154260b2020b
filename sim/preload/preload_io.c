// SPDX-License-Identifier: Apache-2.0
/* The calls this library interposes, and what all of its parts share:
 *  - VIREO_WRITE_LOG: every write to a file is logged as "<path> <bytes>";
 *  - VIREO_READ_LOG: every read of a flash node as "<path> <offset> <bytes>";
 *  - VIREO_FAIL_PATHS: colon-separated files whose writes and erases fail with EIO. */
#include "preload.h"

#include <dlfcn.h>
#include <errno.h>
#include <mtd/mtd-user.h>
#include <mtd/ubi-user.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

#define NEXT(name, type) ((type)dlsym(RTLD_NEXT, name))

ssize_t real_write(int fd, const void *buf, size_t count)
{
    static ssize_t (*f)(int, const void *, size_t);
    if (!f)
        f = NEXT("write", ssize_t(*)(int, const void *, size_t));
    return f(fd, buf, count);
}

ssize_t real_pwrite(int fd, const void *buf, size_t count, off_t at)
{
    static ssize_t (*f)(int, const void *, size_t, off_t);
    if (!f)
        f = NEXT("pwrite", ssize_t(*)(int, const void *, size_t, off_t));
    return f(fd, buf, count, at);
}

ssize_t real_read(int fd, void *buf, size_t count)
{
    static ssize_t (*f)(int, void *, size_t);
    if (!f)
        f = NEXT("read", ssize_t(*)(int, void *, size_t));
    return f(fd, buf, count);
}

ssize_t real_pread(int fd, void *buf, size_t count, off_t at)
{
    static ssize_t (*f)(int, void *, size_t, off_t);
    if (!f)
        f = NEXT("pread", ssize_t(*)(int, void *, size_t, off_t));
    return f(fd, buf, count, at);
}

int real_ioctl(int fd, unsigned long request, void *arg)
{
    static int (*f)(int, unsigned long, ...);
    if (!f)
        f = NEXT("ioctl", int (*)(int, unsigned long, ...));
    return f(fd, request, arg);
}

int listed(const char *var, const char *item)
{
    const char *list = getenv(var);
    const size_t n = strlen(item);
    while (list && *list) {
        const char *end = strchr(list, ':');
        const size_t len = end ? (size_t)(end - list) : strlen(list);
        if (len == n && strncmp(list, item, n) == 0)
            return 1;
        list = end ? end + 1 : NULL;
    }
    return 0;
}

unsigned long env_number(const char *var, unsigned long fallback)
{
    const char *text = getenv(var);
    return text && *text ? strtoul(text, NULL, 0) : fallback;
}

void log_line(const char *var, const char *fmt, ...)
{
    const char *log = getenv(var);
    FILE *f = log ? fopen(log, "a") : NULL;
    if (!f)
        return;
    va_list ap;
    va_start(ap, fmt);
    vfprintf(f, fmt, ap);
    va_end(ap);
    fclose(f);
}

int path_of(int fd, char *path, size_t size)
{
    char link[64];
    snprintf(link, sizeof(link), "/proc/self/fd/%d", fd);
    const ssize_t n = fd > 2 ? readlink(link, path, size - 1) : -1;
    if (n <= 0)
        return 0;
    path[n] = '\0';
    return path[0] == '/';
}

const char *fake_dev(const char *path)
{
    const char *root = getenv("VIREO_FLASH_ROOT");
    if (!root || !*root)
        return NULL;
    const size_t n = strlen(root);
    if (strncmp(path, root, n) != 0 || strncmp(path + n, "/dev/", 5) != 0)
        return NULL;
    return path + n + 5;
}

int node_named(const char *name, const char *prefix, int pair)
{
    const size_t n = strlen(prefix);
    if (strncmp(name, prefix, n) != 0)
        return 0;
    const char *p = name + n;
    const size_t digits = strspn(p, "0123456789");
    if (!digits)
        return 0;
    p += digits;
    if (pair) {
        if (*p++ != '_' || !strspn(p, "0123456789"))
            return 0;
        p += strspn(p, "0123456789");
    }
    return *p == '\0';
}

int flash_node(const char *path)
{
    const char *dev = NULL;
    for (const char *p = strstr(path, "/dev/"); p; p = strstr(p + 1, "/dev/"))
        dev = p + 5;
    return dev && (node_named(dev, "mtd", 0) || node_named(dev, "mtdblock", 0) ||
                   node_named(dev, "ubi", 1));
}

/* A write as the device behind path takes it. */
static ssize_t device_write(int fd, const char *path, const void *buf, size_t count, off_t at,
                            int positioned)
{
    log_line("VIREO_WRITE_LOG", "%s %zu\n", path, count);
    if (listed("VIREO_FAIL_PATHS", path)) {
        errno = EIO;
        return -1;
    }
    if (ubi_fake_volume(path))
        return ubi_update_write(fd, path, buf, count);
    if (!flash_file(path)) {
        // A block device of the flash writes as a file; its bytes are the flash's too.
        if (!positioned)
            at = lseek(fd, 0, SEEK_CUR);
        const ssize_t r = positioned ? real_pwrite(fd, buf, count, at) : real_write(fd, buf, count);
        if (r > 0 && at >= 0)
            flash_mirror(path, at, (size_t)r);
        return r;
    }
    if (!positioned)
        at = lseek(fd, 0, SEEK_CUR);
    const ssize_t r = flash_program(fd, path, buf, count, at);
    if (r > 0 && !positioned)
        lseek(fd, at + r, SEEK_SET);
    return r;
}

static ssize_t write_at(int fd, const void *buf, size_t count, off_t at, int positioned)
{
    memory_sample();
    char path[4096];
    if (!path_of(fd, path, sizeof(path)))
        return positioned ? real_pwrite(fd, buf, count, at) : real_write(fd, buf, count);
    const int cut = flash_node(path) ? cut_point("write", path, 1) : CUT_NONE;
    const ssize_t r =
        device_write(fd, path, buf, cut == CUT_TEAR ? count / 2 : count, at, positioned);
    if (cut != CUT_NONE)
        cut_now();
    return r;
}

ssize_t write(int fd, const void *buf, size_t count)
{
    return write_at(fd, buf, count, 0, 0);
}

ssize_t pwrite(int fd, const void *buf, size_t count, off_t at)
{
    return write_at(fd, buf, count, at, 1);
}

ssize_t pwrite64(int fd, const void *buf, size_t count, off_t at)
{
    return write_at(fd, buf, count, at, 1);
}

/* A read of a flash node, logged when asked; a damaged UBI volume refuses it, as the
 * kernel's does. at < 0: from the file's position. */
static int refused(int fd, size_t count, off_t at)
{
    memory_sample();
    const int logging = getenv("VIREO_READ_LOG") != NULL;
    char path[4096];
    if ((!logging && !getenv("VIREO_FLASH_ROOT")) || !path_of(fd, path, sizeof(path)))
        return 0;
    if (logging && flash_node(path))
        log_line("VIREO_READ_LOG", "%s %lld %zu\n", path,
                 (long long)(at < 0 ? lseek(fd, 0, SEEK_CUR) : at), count);
    if (!getenv("VIREO_FLASH_ROOT") || !ubi_damaged(path))
        return 0;
    errno = EBADF;
    return 1;
}

ssize_t read(int fd, void *buf, size_t count)
{
    return refused(fd, count, -1) ? -1 : real_read(fd, buf, count);
}

ssize_t pread(int fd, void *buf, size_t count, off_t at)
{
    return refused(fd, count, at) ? -1 : real_pread(fd, buf, count, at);
}

ssize_t pread64(int fd, void *buf, size_t count, off_t at)
{
    return refused(fd, count, at) ? -1 : real_pread(fd, buf, count, at);
}

int ioctl(int fd, unsigned long request, ...)
{
    va_list ap;
    va_start(ap, request);
    void *arg = va_arg(ap, void *);
    va_end(ap);
    memory_sample();
    char path[4096];
    if (!path_of(fd, path, sizeof(path)))
        return real_ioctl(fd, request, arg);
    int cut = CUT_NONE;
    if (flash_node(path) &&
        (request == MEMERASE || request == UBI_IOCVOLUP || request == UBI_IOCEBCH))
        cut = cut_point(request == MEMERASE       ? "erase"
                        : request == UBI_IOCVOLUP ? "volup"
                                                  : "ebch",
                        path, 0);
    int r;
    if (flash_file(path))
        r = flash_ioctl(fd, path, request, arg);
    else if (ubi_fake_volume(path) && request == UBI_IOCVOLUP)
        r = ubi_update_start(fd, path, *(const long long *)arg);
    else if (ubi_fake_volume(path) && request == UBI_IOCEBCH)
        r = ubi_change_start(fd, path, arg);
    else
        r = real_ioctl(fd, request, arg);
    if (cut != CUT_NONE)
        cut_now();
    return r;
}

int close(int fd)
{
    static int (*f)(int);
    if (!f)
        f = NEXT("close", int (*)(int));
    ubi_closed(fd);
    return f(fd);
}

static int stat_as_device(const char *path, struct stat *st, const char *name)
{
    static int (*f)(const char *, struct stat *);
    if (!f)
        f = NEXT(name, int (*)(const char *, struct stat *));
    const int r = f(path, st);
    if (r == 0)
        ubi_fake_node(path, st);
    return r;
}

int stat(const char *path, struct stat *st)
{
    return stat_as_device(path, st, "stat");
}

int stat64(const char *path, struct stat64 *st)
{
    return stat_as_device(path, (struct stat *)st, "stat64");
}

/* Each command is one flash operation of the tool's; the programs it runs are not the
 * tool, and neither count nor cut. */
int system(const char *command)
{
    static int (*f)(const char *);
    if (!f)
        f = NEXT("system", int (*)(const char *));
    const int cut = command ? cut_point("system", command, 0) : CUT_NONE;
    char *at = getenv("VIREO_CUT_AT") ? strdup(getenv("VIREO_CUT_AT")) : NULL;
    unsetenv("VIREO_CUT_AT");
    const int r = f(command);
    if (at) {
        setenv("VIREO_CUT_AT", at, 1);
        free(at);
    }
    if (cut != CUT_NONE)
        cut_now();
    return r;
}
