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
        return r == (ssize_t)e->length ? 0 : -1;
    }
    errno = ENOTTY;
    return -1;
}
