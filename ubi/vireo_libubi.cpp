// SPDX-License-Identifier: Apache-2.0
#include "ubi/vireo_libubi.h"

#include "common/vireo_platform.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>
#include <memory>
#include <string>
#include <vector>

#if __has_include(<mtd/ubi-user.h>)
#include <mtd/ubi-user.h>
#endif
#ifndef UBI_IOCVOLUP
#define UBI_IOCVOLUP 0x40084F00 // _IOW('O', 0, __s64)
#endif
#ifndef UBI_IOCEBCH
struct ubi_leb_change_req {
    int32_t lnum;
    int32_t bytes;
    int8_t dtype;
    int8_t padding[7];
};
#define UBI_IOCEBCH _IOW('O', 2, int32_t) // as the kernel's header spells it
#endif

#define PROGRAM_NAME "libubi"
#define UBI_VERSION 1
#define SMALL_FILE_SIZE 50

#define errmsg(fmt, ...) fprintf(stderr, "%s: error!: " fmt, PROGRAM_NAME, ##__VA_ARGS__)

// The error line plus the errno line; errno is kept for the caller.
#define sys_errmsg(fmt, ...)                                                                       \
    do {                                                                                           \
        const int saved_errno_ = errno;                                                            \
        errmsg(fmt, ##__VA_ARGS__);                                                                \
        fprintf(stderr, "%*serror %d (%s)\n", 8, "", saved_errno_, strerror(saved_errno_));        \
        errno = saved_errno_;                                                                      \
    } while (0)

struct libubi {
    char *sysfs;
    char *sysfs_ctrl;
    char *ctrl_dev;
    char *sysfs_ubi;
    char *ubi_dev;
    char *ubi_version;
    char *dev_dev;
    char *ubi_vol;
};

// dir + "/" (unless dir ends in one) + name, or none (message printed).
static char *mkpath(const char *dir, const char *name)
{
    size_t len1 = strlen(dir);
    const size_t len2 = strlen(name);
    const size_t size = len1 + len2 + 2;
    char *path = static_cast<char *>(malloc(size));
    if (!path) {
        sys_errmsg("cannot allocate %d bytes\n", static_cast<int>(size));
        return nullptr;
    }
    memcpy(path, dir, len1);
    if (len1 == 0 || path[len1 - 1] != '/')
        path[len1++] = '/';
    memcpy(path + len1, name, len2 + 1);
    return path;
}

static int close_file(int fd, const char *file)
{
    if (close(fd) != 0) {
        sys_errmsg("close failed on \"%s\"\n", file);
        return -1;
    }
    return 0;
}

// Reads a small file whole into buf; the byte count, or -1.
static int read_data(const char *file, char *buf, int buf_len)
{
    const int fd = open(file, O_RDONLY);
    if (fd == -1)
        return -1;
    ssize_t rd = read(fd, buf, static_cast<size_t>(buf_len));
    if (rd == -1) {
        sys_errmsg("cannot read \"%s\"\n", file);
        close(fd);
        return -1;
    }
    if (rd == buf_len) {
        errmsg("contents of \"%s\" is too long\n", file);
        errno = EINVAL;
        close(fd);
        return -1;
    }
    buf[rd] = '\0';
    char extra;
    const ssize_t more = read(fd, &extra, 1);
    if (more == -1) {
        sys_errmsg("cannot read \"%s\"\n", file);
        close(fd);
        return -1;
    }
    if (more != 0) {
        errmsg("file \"%s\" contains too much data (> %d bytes)\n", file, buf_len);
        errno = EINVAL;
        close(fd);
        return -1;
    }
    if (close_file(fd, file))
        return -1;
    return static_cast<int>(rd);
}

static int read_positive_ll(const char *file, long long *value)
{
    const int fd = open(file, O_RDONLY);
    if (fd == -1)
        return -1;
    char buf[SMALL_FILE_SIZE];
    const ssize_t rd = read(fd, buf, sizeof(buf));
    if (rd == -1) {
        sys_errmsg("cannot read \"%s\"\n", file);
        close(fd);
        return -1;
    }
    if (rd == static_cast<ssize_t>(sizeof(buf))) {
        errmsg("contents of \"%s\" is too long\n", file);
        errno = EINVAL;
        close(fd);
        return -1;
    }
    buf[rd] = '\0';
    if (sscanf(buf, "%lld\n", value) != 1) {
        errmsg("cannot read integer from \"%s\"\n\n", file);
        errno = EINVAL;
        close(fd);
        return -1;
    }
    if (*value < 0) {
        errmsg("negative value %lld in \"%s\"\n", *value, file);
        errno = EINVAL;
        close(fd);
        return -1;
    }
    if (close_file(fd, file))
        return -1;
    return 0;
}

static int read_positive_int(const char *file, int *value)
{
    long long res;
    if (read_positive_ll(file, &res))
        return -1;
    if (res > INT_MAX) {
        errmsg("value %lld read from file \"%s\" is out of range\n", res, file);
        errno = EINVAL;
        return -1;
    }
    *value = static_cast<int>(res);
    return 0;
}

static int read_major(const char *file, int *major, int *minor)
{
    char buf[SMALL_FILE_SIZE];
    const int ret = read_data(file, buf, SMALL_FILE_SIZE);
    if (ret < 0)
        return ret;
    if (sscanf(buf, "%d:%d\n", major, minor) != 2) {
        errno = EINVAL;
        errmsg("\"%s\" does not have major:minor format\n", file);
        return -1;
    }
    if (*major < 0 || *minor < 0) {
        errno = EINVAL;
        errmsg("bad major:minor %d:%d in \"%s\"\n", *major, *minor, file);
        return -1;
    }
    return 0;
}

static int dev_get_major(libubi *lib, int dev_num, int *major, int *minor)
{
    std::vector<char> file(strlen(lib->dev_dev) + SMALL_FILE_SIZE);
    snprintf(file.data(), file.size(), lib->dev_dev, dev_num);
    return read_major(file.data(), major, minor);
}

void libubi_close(libubi_t desc)
{
    if (!desc)
        return;
    free(desc->ubi_vol);
    free(desc->dev_dev);
    free(desc->ubi_version);
    free(desc->ubi_dev);
    free(desc->sysfs_ubi);
    free(desc->ctrl_dev);
    free(desc->sysfs_ctrl);
    free(desc->sysfs);
    free(desc);
}

using libubi_ptr = std::unique_ptr<libubi, decltype(&libubi_close)>;

// Releases a partly built handle, keeping errno for the caller.
static libubi_t open_failed(libubi_ptr &lib)
{
    const int saved = errno;
    lib.reset();
    errno = saved;
    return nullptr;
}

libubi_t libubi_open()
{
    libubi_ptr lib(static_cast<libubi *>(calloc(1, sizeof(libubi))), libubi_close);
    if (!lib)
        return nullptr;
    char sysfs[512];
    if (vireo_platform_path(sysfs, sizeof(sysfs), "%s", VIREO_SYSFS_ROOT) < 0 ||
        !(lib->sysfs = strdup(sysfs)))
        return open_failed(lib);
    if (!(lib->sysfs_ctrl = mkpath(lib->sysfs, "class/misc/ubi_ctrl/")) ||
        !(lib->ctrl_dev = mkpath(lib->sysfs_ctrl, "dev")) ||
        !(lib->sysfs_ubi = mkpath(lib->sysfs, "class/ubi")))
        return open_failed(lib);

    // No class directory: UBI is not in this kernel, said by errno 0.
    const int fd = open(lib->sysfs_ubi, O_RDONLY);
    if (fd == -1) {
        lib.reset();
        errno = 0;
        return nullptr;
    }
    if (close(fd)) {
        sys_errmsg("close failed on \"%s\"\n", lib->sysfs_ubi);
        return open_failed(lib);
    }

    if (!(lib->ubi_dev = mkpath(lib->sysfs_ubi, "ubi%d")) ||
        !(lib->ubi_version = mkpath(lib->sysfs_ubi, "version")) ||
        !(lib->dev_dev = mkpath(lib->ubi_dev, "dev")) ||
        !(lib->ubi_vol = mkpath(lib->sysfs_ubi, "ubi%d_%d")))
        return open_failed(lib);

    int version;
    if (read_positive_int(lib->ubi_version, &version))
        return open_failed(lib);
    if (version != UBI_VERSION) {
        errmsg("this library was made for UBI version %d, but UBI version %d is detected\n\n",
               UBI_VERSION, version);
        return open_failed(lib);
    }
    return lib.release();
}

int ubi_get_info(libubi_t desc, ubi_info *info)
{
    memset(info, 0, sizeof(*info));
    if (read_major(desc->ctrl_dev, &info->ctrl_major, &info->ctrl_minor)) {
        // A missing control device is not an error here.
        info->ctrl_major = info->ctrl_minor = -1;
    }
    DIR *dir = opendir(desc->sysfs_ubi);
    if (!dir)
        return -1;
    info->lowest_dev_num = INT_MAX;
    for (;;) {
        errno = 0;
        const dirent *entry = readdir(dir);
        if (!entry)
            break;
        if (strlen(entry->d_name) >= 255) {
            errmsg("invalid entry in %s: \"%s\"\n", desc->sysfs_ubi, entry->d_name);
            errno = EINVAL;
            closedir(dir);
            return -1;
        }
        int dev_num;
        char rest[256];
        if (sscanf(entry->d_name, "ubi%d%s", &dev_num, rest) == 1) {
            info->dev_count += 1;
            if (dev_num > info->highest_dev_num)
                info->highest_dev_num = dev_num;
            if (dev_num < info->lowest_dev_num)
                info->lowest_dev_num = dev_num;
        }
    }
    if (errno) {
        sys_errmsg("readdir failed on \"%s\"\n", desc->sysfs_ubi);
        closedir(dir);
        return -1;
    }
    if (closedir(dir)) {
        sys_errmsg("closedir failed on \"%s\"\n", desc->sysfs_ubi);
        return -1;
    }
    if (info->lowest_dev_num == INT_MAX)
        info->lowest_dev_num = 0;
    if (read_positive_int(desc->ubi_version, &info->version))
        return -1;
    return 0;
}

static int not_ubi_node(const char *node, int major, int minor)
{
    errmsg("\"%s\" has major:minor %d:%d, but this does not correspond to any existing UBI "
           "device or volume\n",
           node, major, minor);
    errno = ENODEV;
    return -1;
}

int ubi_probe_node(libubi_t desc, const char *node)
{
    int dev_num, vol_id;
    return ubi_probe_volume(desc, node, &dev_num, &vol_id);
}

int ubi_probe_volume(libubi_t desc, const char *node, int *dev_num, int *vol_id)
{
    *dev_num = *vol_id = -1;
    struct stat st;
    if (stat(node, &st)) {
        sys_errmsg("cannot get information about \"%s\"\n", node);
        return -1;
    }
    if (!S_ISCHR(st.st_mode)) {
        errmsg("\"%s\" is not a character device\n", node);
        errno = EINVAL;
        return -1;
    }
    const int major = static_cast<int>(major(st.st_rdev));
    const int minor = static_cast<int>(minor(st.st_rdev));

    ubi_info info;
    if (ubi_get_info(desc, &info))
        return -1;

    int found = -1;
    for (int i = info.lowest_dev_num; i <= info.highest_dev_num && found < 0; i++) {
        int dev_major, dev_minor;
        if (dev_get_major(desc, i, &dev_major, &dev_minor)) {
            if (errno == ENOENT)
                continue;
            if (!errno)
                return not_ubi_node(node, major, minor);
            return -1;
        }
        if (dev_major == major)
            found = i;
    }
    if (found < 0)
        return not_ubi_node(node, major, minor);
    *dev_num = found;
    if (minor == 0)
        return 1;

    std::vector<char> file(strlen(desc->ubi_vol) + 100);
    snprintf(file.data(), file.size(), desc->ubi_vol, found, minor - 1);
    const int fd = open(file.data(), O_RDONLY);
    if (fd == -1)
        return not_ubi_node(node, major, minor);
    close_file(fd, file.data()); // a close failure is reported, the answer stands
    *vol_id = minor - 1;
    return 2;
}

// One line of a volume's sysfs directory, or "" when it cannot be read.
static std::string volume_attr(libubi_t desc, int dev_num, int vol_id, const char *name)
{
    std::vector<char> dir(strlen(desc->ubi_vol) + 100);
    snprintf(dir.data(), dir.size(), desc->ubi_vol, dev_num, vol_id);
    const std::string file = std::string(dir.data()) + "/" + name;
    char text[SMALL_FILE_SIZE] = "";
    FILE *f = fopen(file.c_str(), "r");
    if (f) {
        if (!fgets(text, sizeof(text), f))
            text[0] = '\0';
        fclose(f);
    }
    return std::string(text, strcspn(text, "\n"));
}

int ubi_volume_single_leb(libubi_t desc, int dev_num, int vol_id)
{
    if (volume_attr(desc, dev_num, vol_id, "type") != "dynamic" ||
        volume_attr(desc, dev_num, vol_id, "reserved_ebs") != "1")
        return 0;
    const std::string size = volume_attr(desc, dev_num, vol_id, "usable_eb_size");
    char *end = nullptr;
    const long leb = strtol(size.c_str(), &end, 10);
    return !size.empty() && *end == '\0' && leb > 0 && leb <= INT_MAX ? static_cast<int>(leb) : 0;
}

int ubi_update_start(libubi_t, int fd, long long bytes)
{
    int64_t n = bytes;
    if (ioctl(fd, UBI_IOCVOLUP, &n))
        return -1;
    return 0;
}

int ubi_leb_change_start(libubi_t, int fd, int lnum, int bytes)
{
    ubi_leb_change_req req;
    memset(&req, 0, sizeof(req));
    req.lnum = lnum;
    req.bytes = bytes;
    req.dtype = 3; // "unknown": the kernel ignores it
    if (ioctl(fd, UBI_IOCEBCH, &req))
        return -1;
    return 0;
}
