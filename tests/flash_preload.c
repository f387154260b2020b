/* Preloaded into the tool by the upgrade tests, to make the fake device tree behave as flash.
 * Every "<VIREO_FLASH_ROOT>/dev/mtd<N>" file is an MTD character device of real flash:
 *  - it answers MEMGETINFO (erase blocks of VIREO_FLASH_ERASE bytes, default 64 KiB; pages
 *    of VIREO_FLASH_PAGE bytes, default 1), MEMERASE (the block reads 0xFF again) and
 *    MEMGETBADBLOCK;
 *  - with pages of 1 byte it is NOR: a write can only clear bits, so content written over
 *    bytes that were not erased comes out wrong;
 *  - with larger pages it is NAND: a write must cover whole pages, and each page is
 *    programmed once per erase (a page that does not read 0xFF refuses the write, EIO).
 * "/dev/mtdblock<N>" names (hard links to the same files) stay plain files, as the kernel's
 * block driver erases for its writer.
 * Also:
 *  - VIREO_WRITE_LOG: every write is logged as "<path> <bytes>" (the count per target);
 *  - VIREO_ERASE_LOG: every erase is logged as "<path> <offset> <length>";
 *  - VIREO_BAD_BLOCKS: colon-separated "<path>@<offset>" erase blocks that are bad: they
 *    refuse an erase, and MEMGETBADBLOCK says so (a write still lands, as on NAND);
 *  - VIREO_STUCK_BYTES: colon-separated "<path>@<offset>" bytes of worn-out flash that read
 *    0x00 whatever is programmed or erased, while the writes report success;
 *  - VIREO_FAIL_PATHS: colon-separated files whose writes and erases fail with EIO. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <mtd/mtd-user.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
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

static unsigned long env_number(const char *var, unsigned long fallback)
{
    const char *text = getenv(var);
    return text && *text ? strtoul(text, NULL, 0) : fallback;
}

/* The file behind fd (0 when fd is a standard stream or not a file). */
static int path_of(int fd, char *path, size_t size)
{
    char link[64];
    snprintf(link, sizeof(link), "/proc/self/fd/%d", fd);
    const ssize_t n = readlink(link, path, size - 1);
    if (n <= 0 || fd <= 2)
        return 0;
    path[n] = '\0';
    return 1;
}

/* Whether path is a flash file of the fake tree: "<root>/dev/mtd<digits>". */
static int is_flash(const char *path)
{
    const char *root = getenv("VIREO_FLASH_ROOT");
    if (!root || !*root)
        return 0;
    const size_t n = strlen(root);
    if (strncmp(path, root, n) != 0 || strncmp(path + n, "/dev/mtd", 8) != 0)
        return 0;
    const char *digits = path + n + 8;
    return *digits && strspn(digits, "0123456789") == strlen(digits);
}

static void log_line(const char *var, const char *fmt, const char *path, long a, long b)
{
    const char *log = getenv(var);
    FILE *f = log ? fopen(log, "a") : NULL;
    if (f) {
        fprintf(f, fmt, path, a, b);
        fclose(f);
    }
}

static int bad_block(const char *path, unsigned long offset)
{
    char entry[4200];
    snprintf(entry, sizeof(entry), "%s@0x%lx", path, offset);
    return listed("VIREO_BAD_BLOCKS", entry);
}

/* Sets the stuck bytes of path that lie in [at, at + count) to 0x00 in buf (buf[0] at at). */
static void stick(const char *path, unsigned char *buf, size_t count, off_t at)
{
    const char *list = getenv("VIREO_STUCK_BYTES");
    const size_t n = strlen(path);
    while (list && *list) {
        const char *end = strchr(list, ':');
        if (strncmp(list, path, n) == 0 && list[n] == '@') {
            const off_t byte = (off_t)strtoul(list + n + 1, NULL, 0);
            if (byte >= at && byte < at + (off_t)count)
                buf[byte - at] = 0;
        }
        list = end ? end + 1 : NULL;
    }
}

static ssize_t real_pwrite(int fd, const void *buf, size_t count, off_t at)
{
    static ssize_t (*real)(int, const void *, size_t, off_t);
    if (!real)
        real = (ssize_t(*)(int, const void *, size_t, off_t))dlsym(RTLD_NEXT, "pwrite");
    return real(fd, buf, count, at);
}

/* A program of count bytes at at onto the flash file behind fd, as the chip takes it. */
static ssize_t program(int fd, const char *path, const unsigned char *buf, size_t count, off_t at)
{
    const unsigned long page = env_number("VIREO_FLASH_PAGE", 1);
    if (page > 1 && (at % (off_t)page || count % page)) {
        errno = EINVAL;
        return -1;
    }
    unsigned char *merged = malloc(count ? count : 1);
    const int in = open(path, O_RDONLY);
    const ssize_t old = in >= 0 ? pread(in, merged, count, at) : -1;
    if (in >= 0)
        close(in);
    for (size_t i = 0; i < count; i++) {
        const int erased = (ssize_t)i >= old || merged[i] == 0xFF;
        if (page > 1 && !erased) {
            free(merged);
            errno = EIO;
            return -1;
        }
        merged[i] = (ssize_t)i < old ? (merged[i] & buf[i]) : buf[i];
    }
    stick(path, merged, count, at);
    const ssize_t r = real_pwrite(fd, merged, count, at);
    free(merged);
    return r;
}

static ssize_t write_at(int fd, const void *buf, size_t count, off_t at, int positioned)
{
    static ssize_t (*real_write)(int, const void *, size_t);
    if (!real_write)
        real_write = (ssize_t(*)(int, const void *, size_t))dlsym(RTLD_NEXT, "write");
    char path[4096];
    const int file = path_of(fd, path, sizeof(path)) && path[0] == '/';
    if (file) {
        log_line("VIREO_WRITE_LOG", "%s %ld\n", path, (long)count, 0);
        if (listed("VIREO_FAIL_PATHS", path)) {
            errno = EIO;
            return -1;
        }
    }
    if (!file || !is_flash(path))
        return positioned ? real_pwrite(fd, buf, count, at) : real_write(fd, buf, count);
    if (!positioned)
        at = lseek(fd, 0, SEEK_CUR);
    const ssize_t r = program(fd, path, buf, count, at);
    if (r > 0 && !positioned)
        lseek(fd, at + r, SEEK_SET);
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

static int flash_ioctl(int fd, const char *path, unsigned long request, void *arg)
{
    struct stat st;
    if (fstat(fd, &st) != 0)
        return -1;
    const unsigned long erase = env_number("VIREO_FLASH_ERASE", 0x10000);
    if (request == MEMGETINFO) {
        struct mtd_info_user *info = arg;
        memset(info, 0, sizeof(*info));
        const unsigned long page = env_number("VIREO_FLASH_PAGE", 1);
        info->type = page > 1 ? MTD_NANDFLASH : MTD_NORFLASH;
        info->flags = page > 1 ? MTD_CAP_NANDFLASH : MTD_CAP_NORFLASH;
        info->size = (__u32)st.st_size;
        info->erasesize = (__u32)erase;
        info->writesize = (__u32)page;
        return 0;
    }
    if (request == MEMGETBADBLOCK) {
        const long long at = *(const long long *)arg;
        return bad_block(path, (unsigned long)at);
    }
    if (request == MEMERASE) {
        const struct erase_info_user *e = arg;
        log_line("VIREO_ERASE_LOG", "%s %ld %ld\n", path, (long)e->start, (long)e->length);
        const unsigned long end = (unsigned long)e->start + e->length;
        if (e->start % erase || (e->length != erase && end != (unsigned long)st.st_size) ||
            end > (unsigned long)st.st_size) {
            errno = EINVAL;
            return -1;
        }
        if (listed("VIREO_FAIL_PATHS", path) || bad_block(path, e->start)) {
            errno = EIO;
            return -1;
        }
        unsigned char *ff = malloc(e->length);
        memset(ff, 0xFF, e->length);
        stick(path, ff, e->length, e->start);
        const ssize_t r = real_pwrite(fd, ff, e->length, e->start);
        free(ff);
        return r == (ssize_t)e->length ? 0 : -1;
    }
    errno = ENOTTY;
    return -1;
}

int ioctl(int fd, unsigned long request, ...)
{
    va_list ap;
    va_start(ap, request);
    void *arg = va_arg(ap, void *);
    va_end(ap);
    char path[4096];
    if (path_of(fd, path, sizeof(path)) && is_flash(path))
        return flash_ioctl(fd, path, request, arg);
    static int (*real_ioctl)(int, unsigned long, ...);
    if (!real_ioctl)
        real_ioctl = (int (*)(int, unsigned long, ...))dlsym(RTLD_NEXT, "ioctl");
    return real_ioctl(fd, request, arg);
}
