// SPDX-License-Identifier: Apache-2.0
/* Every "<VIREO_FLASH_ROOT>/dev/ubi<D>_<V>" file is volume V of UBI device D, and
 * "<VIREO_FLASH_ROOT>/dev/ubi<D>" the device: stat() shows character devices of major 240 + D
 * and minor V + 1 (0 for the device), as the fake tree's sysfs says (fake_root::ubi_volume).
 * A volume takes writes only through a volume update (UBI_IOCVOLUP with the number of bytes,
 * at most the file's size, the volume's reserved room): the update empties the volume (all
 * 0xFF) and leaves it damaged until that many bytes have been written; a damaged volume
 * refuses to be read (EBADF), as after an interrupted update. The damage mark is the file
 * ".<name>.updating" beside the volume. A volume's eraseblocks hold FAKE_LEB bytes each, as
 * its sysfs says: an atomic eraseblock change (UBI_IOCEBCH) gathers the bytes written after
 * it and replaces the block (the rest of it 0xFF) once the last one arrived, so a cut before
 * that leaves the old block, and a damaged volume stays damaged. */
#include "preload.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#define MAX_FD 4096
#define UBI_MAJOR 240

static long long update_left[MAX_FD]; /* bytes an update still expects */
static char updating[MAX_FD];

#define FAKE_LEB 16384 /* fake_root::ubi_volume's usable_eb_size */
struct change {
    unsigned char *bytes; /* gathered so far */
    size_t want, got;
    off_t at; /* the block's offset */
};
static struct change changes[MAX_FD];

/* Device and volume (-1 for the device node) of a fake UBI node. */
static int fake_ubi(const char *path, int *dev, int *vol)
{
    const char *name = fake_dev(path);
    int used = 0;
    if (!name || strncmp(name, "ubi", 3) != 0)
        return 0;
    *vol = -1;
    if (sscanf(name, "ubi%d_%d%n", dev, vol, &used) == 2 && name[used] == '\0')
        return 1;
    return sscanf(name, "ubi%d%n", dev, &used) == 1 && name[used] == '\0';
}

int ubi_fake_volume(const char *path)
{
    int dev, vol;
    return fake_ubi(path, &dev, &vol) && vol >= 0;
}

void ubi_fake_node(const char *path, struct stat *st)
{
    int dev, vol;
    if (!fake_ubi(path, &dev, &vol) || !S_ISREG(st->st_mode))
        return;
    st->st_mode = (st->st_mode & 07777) | S_IFCHR;
    st->st_rdev = makedev(UBI_MAJOR + dev, vol + 1);
}

static void mark_path(const char *path, char *mark, size_t size)
{
    const char *slash = strrchr(path, '/');
    snprintf(mark, size, "%.*s/.%s.updating", (int)(slash - path), path, slash + 1);
}

int ubi_damaged(const char *path)
{
    char mark[4200];
    if (!ubi_fake_volume(path))
        return 0;
    mark_path(path, mark, sizeof(mark));
    return access(mark, F_OK) == 0;
}

static void set_damaged(const char *path, int on)
{
    char mark[4200];
    mark_path(path, mark, sizeof(mark));
    if (on)
        close(open(mark, O_WRONLY | O_CREAT, 0644));
    else
        unlink(mark);
}

int ubi_update_start(int fd, const char *path, long long bytes)
{
    struct stat st;
    if (fd < 0 || fd >= MAX_FD || fstat(fd, &st) != 0 || bytes < 0 || bytes > st.st_size) {
        errno = EINVAL;
        return -1;
    }
    static unsigned char ff[65536];
    memset(ff, 0xFF, sizeof(ff));
    set_damaged(path, 1);
    for (off_t at = 0; at < st.st_size; at += (off_t)sizeof(ff)) {
        const size_t n =
            st.st_size - at < (off_t)sizeof(ff) ? (size_t)(st.st_size - at) : sizeof(ff);
        if (real_pwrite(fd, ff, n, at) != (ssize_t)n)
            return -1;
    }
    lseek(fd, 0, SEEK_SET);
    update_left[fd] = bytes;
    updating[fd] = bytes > 0;
    if (!bytes)
        set_damaged(path, 0);
    return 0;
}

static void change_end(int fd)
{
    free(changes[fd].bytes);
    memset(&changes[fd], 0, sizeof(changes[fd]));
}

/* The block as the change leaves it: the bytes, then 0xFF to its end or the volume's. */
static int change_apply(int fd)
{
    struct stat st;
    const struct change *c = &changes[fd];
    if (fstat(fd, &st) != 0)
        return -1;
    const off_t end = c->at + FAKE_LEB < st.st_size ? c->at + FAKE_LEB : st.st_size;
    unsigned char *block = malloc((size_t)(end - c->at));
    if (!block)
        return -1;
    memset(block, 0xFF, (size_t)(end - c->at));
    memcpy(block, c->bytes, c->want);
    const ssize_t r = real_pwrite(fd, block, (size_t)(end - c->at), c->at);
    free(block);
    return r == end - c->at ? 0 : -1;
}

int ubi_change_start(int fd, const char *path, const void *request)
{
    (void)path;
    struct {
        int32_t lnum, bytes;
    } req;
    memcpy(&req, request, sizeof(req));
    struct stat st;
    if (fd < 0 || fd >= MAX_FD || fstat(fd, &st) != 0 || req.lnum < 0 || req.bytes < 0 ||
        req.bytes > FAKE_LEB || (off_t)req.lnum * FAKE_LEB + req.bytes > st.st_size) {
        errno = EINVAL;
        return -1;
    }
    change_end(fd);
    changes[fd].bytes = malloc(req.bytes ? (size_t)req.bytes : 1);
    changes[fd].want = (size_t)req.bytes;
    changes[fd].at = (off_t)req.lnum * FAKE_LEB;
    if (req.bytes == 0) {
        const int r = change_apply(fd);
        change_end(fd);
        return r;
    }
    return 0;
}

ssize_t ubi_update_write(int fd, const char *path, const void *buf, size_t count)
{
    if (fd >= 0 && fd < MAX_FD && changes[fd].bytes) {
        struct change *c = &changes[fd];
        const size_t n = count < c->want - c->got ? count : c->want - c->got;
        memcpy(c->bytes + c->got, buf, n);
        c->got += n;
        if (c->got == c->want) {
            const int r = change_apply(fd);
            change_end(fd);
            if (r != 0)
                return -1;
        }
        return (ssize_t)n;
    }
    if (fd < 0 || fd >= MAX_FD || !updating[fd]) {
        errno = EPERM;
        return -1;
    }
    const size_t n = (long long)count < update_left[fd] ? count : (size_t)update_left[fd];
    const ssize_t r = real_write(fd, buf, n);
    if (r > 0 && (update_left[fd] -= r) == 0) {
        updating[fd] = 0;
        set_damaged(path, 0);
    }
    return r;
}

void ubi_closed(int fd)
{
    if (fd >= 0 && fd < MAX_FD) {
        updating[fd] = 0;
        change_end(fd); /* an unfinished change is dropped, as the kernel drops it */
    }
}
