// SPDX-License-Identifier: Apache-2.0
/* Every "<VIREO_FLASH_ROOT>/dev/mtd<N>" file is an MTD character device of real flash:
 *  - it answers MEMGETINFO (erase blocks of VIREO_FLASH_ERASE bytes, default 64 KiB; pages of
 *    VIREO_FLASH_PAGE bytes, default 1), MEMERASE (the block reads 0xFF again) and
 *    MEMGETBADBLOCK;
 *  - with pages of 1 byte it is NOR: a write can only clear bits, so content written over
 *    bytes that were not erased comes out wrong;
 *  - with larger pages it is NAND: a write must cover whole pages, and each page is
 *    programmed once per erase (a page that does not read 0xFF refuses the write, EIO).
 * "/dev/mtdblock<N>" names (hard links to the same files) stay plain files, as the kernel's
 * block driver erases for its writer.
 * A partition whose sysfs directory gives its "offset" is a window into the whole flash,
 * "dev/mtd0", as the kernel's partitions are: what a write or an erase leaves in one of the
 * two files is copied into the other (and from mtd0 into every partition it overlaps)
 * before the operation returns, so a power cut finds them alike.
 *  - VIREO_ERASE_LOG: every erase is logged as "<path> <offset> <length>";
 *  - VIREO_BAD_BLOCKS: colon-separated "<path>@<offset>" erase blocks that are bad: they
 *    refuse an erase, and MEMGETBADBLOCK says so (a write still lands, as on NAND);
 *  - VIREO_STUCK_BYTES: colon-separated "<path>@<offset>" bytes of worn-out flash that read
 *    0x00 whatever is programmed or erased, while the writes report success. */
#include "preload.h"

#include <errno.h>
#include <fcntl.h>
#include <mtd/mtd-user.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

int flash_file(const char *path)
{
    const char *dev = fake_dev(path);
    return dev && node_named(dev, "mtd", 0);
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

/* N of ".../dev/mtd<N>" or ".../dev/mtdblock<N>" in the fake tree, or -1. */
static int mtd_number(const char *path)
{
    const char *dev = fake_dev(path);
    int n = -1, used = 0;
    if (dev &&
        (sscanf(dev, "mtdblock%d%n", &n, &used) == 1 || sscanf(dev, "mtd%d%n", &n, &used) == 1))
        return dev[used] == '\0' ? n : -1;
    return -1;
}

/* The offset of partition n in the whole flash, as sysfs gives it, or -1; read once, as
 * a tool's run does not change the partitions. */
#define MAX_MTD 64
static long mtd_offset(int n)
{
    static long offsets[MAX_MTD];
    static int read_once;
    if (!read_once) {
        read_once = 1;
        for (int i = 0; i < MAX_MTD; i++) {
            char file[4200];
            snprintf(file, sizeof(file), "%s/sys/class/mtd/mtd%d/offset",
                     getenv("VIREO_FLASH_ROOT"), i);
            FILE *f = fopen(file, "r");
            if (!f || fscanf(f, "%ld", &offsets[i]) != 1)
                offsets[i] = -1;
            if (f)
                fclose(f);
        }
    }
    return n >= 0 && n < MAX_MTD ? offsets[n] : -1;
}

/* Copies [from, from + count) of device m to device n at to. */
static void copy_between(int m, off_t from, int n, off_t to, size_t count)
{
    const char *root = getenv("VIREO_FLASH_ROOT");
    char src[4200], dst[4200];
    snprintf(src, sizeof(src), "%s/dev/mtd%d", root, m);
    snprintf(dst, sizeof(dst), "%s/dev/mtd%d", root, n);
    const int in = open(src, O_RDONLY), out = open(dst, O_WRONLY);
    static unsigned char buf[65536];
    for (size_t done = 0; in >= 0 && out >= 0 && done < count;) {
        const size_t want = count - done < sizeof(buf) ? count - done : sizeof(buf);
        const ssize_t got = real_pread(in, buf, want, from + (off_t)done);
        if (got <= 0 || real_pwrite(out, buf, (size_t)got, to + (off_t)done) != got)
            break;
        done += (size_t)got;
    }
    if (in >= 0)
        close(in);
    if (out >= 0)
        close(out);
}

void flash_mirror(const char *path, off_t at, size_t count)
{
    const int n = mtd_number(path);
    if (n < 0 || !count)
        return;
    if (n > 0) {
        const long off = mtd_offset(n);
        if (off >= 0)
            copy_between(n, at, 0, off + at, count);
        return;
    }
    for (int m = 1; m < MAX_MTD; m++) {
        const long off = mtd_offset(m);
        char file[4200];
        struct stat st;
        snprintf(file, sizeof(file), "%s/dev/mtd%d", getenv("VIREO_FLASH_ROOT"), m);
        if (off < 0 || stat(file, &st) != 0)
            continue;
        const off_t lo = at > off ? at : off;
        const off_t hi =
            at + (off_t)count < off + st.st_size ? at + (off_t)count : off + st.st_size;
        if (lo < hi)
            copy_between(0, lo, m, lo - off, (size_t)(hi - lo));
    }
}

ssize_t flash_program(int fd, const char *path, const unsigned char *buf, size_t count, off_t at)
{
    const unsigned long page = env_number("VIREO_FLASH_PAGE", 1);
    if (page > 1 && (at % (off_t)page || count % page)) {
        errno = EINVAL;
        return -1;
    }
    unsigned char *merged = malloc(count ? count : 1);
    const int in = open(path, O_RDONLY);
    const ssize_t old = in >= 0 ? real_pread(in, merged, count, at) : -1;
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
    if (r > 0)
        flash_mirror(path, at, (size_t)r);
    return r;
}

int flash_ioctl(int fd, const char *path, unsigned long request, void *arg)
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
    if (request == MEMGETBADBLOCK)
        return bad_block(path, (unsigned long)*(const long long *)arg);
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
        if (r > 0)
            flash_mirror(path, e->start, (size_t)r);
        return r == (ssize_t)e->length ? 0 : -1;
    }
    errno = ENOTTY;
    return -1;
}
