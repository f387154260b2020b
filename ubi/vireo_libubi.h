// SPDX-License-Identifier: Apache-2.0
// The small UBI library: is UBI present and of the expected version, is a node a UBI
// device or volume, and start a volume update or an atomic eraseblock change. Errors go to standard
// error, prefixed "libubi: error!: ", with errno telling the reason.
#pragma once

#include <cstdint>

struct libubi;
typedef libubi *libubi_t;

struct ubi_info {
    int32_t dev_count;
    int32_t lowest_dev_num;
    int32_t highest_dev_num;
    int32_t version;
    int32_t ctrl_major;
    int32_t ctrl_minor;
};

// A handle, or none (errno 0 when UBI is not present at all).
libubi_t libubi_open();
void libubi_close(libubi_t desc);
// 0 / -1.
int ubi_get_info(libubi_t desc, ubi_info *info);
// 1: a UBI device node, 2: a UBI volume node, -1: error (ENODEV, EINVAL, ...).
int ubi_probe_node(libubi_t desc, const char *node);
// The same, setting the device's number and, for a volume, its id (-1 for a device node).
int ubi_probe_volume(libubi_t desc, const char *node, int *dev_num, int *vol_id);
// The usable size of the one logical eraseblock of a dynamic volume that has exactly one,
// else 0 (also when sysfs does not tell). Prints nothing.
int ubi_volume_single_leb(libubi_t desc, int dev_num, int vol_id);
// Starts replacing the volume open on fd with bytes bytes: 0, or -1 with errno.
int ubi_update_start(libubi_t desc, int fd, long long bytes);
// Starts the atomic change of logical eraseblock lnum of the volume open on fd to the bytes
// bytes written next (the rest of the block reads 0xFF); UBI keeps the old block until the
// new one is complete. 0, or -1 with errno.
int ubi_leb_change_start(libubi_t desc, int fd, int lnum, int bytes);
