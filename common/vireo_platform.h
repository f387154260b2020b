// SPDX-License-Identifier: Apache-2.0
// Every fixed platform path (sysfs, /dev, /proc, /tmp, /etc) is formed here, under a
// process-wide root prefix. The tool leaves the prefix empty; tests point it at a
// temporary tree holding a fake sysfs and /dev.
#pragma once

#include <cstddef>

// Sets the root prefix (copied; null or "" restores the real root).
void vireo_platform_set_root(const char *root);
const char *vireo_platform_root();

// snprintf of root + fmt into buf; returns what snprintf returns for the whole text,
// or -1 on a formatting error.
int vireo_platform_path(char *buf, size_t size, const char *fmt, ...)
    __attribute__((format(printf, 3, 4)));

// The part of a formed path that follows the root prefix (the path itself when it
// does not start with the prefix).
const char *vireo_platform_strip_root(const char *path);

// The fixed paths the tool uses.
#define VIREO_PID_FILE "/tmp/vireo_firmware_upgrade.pid"
#define VIREO_OOM_ADJ_FMT "/proc/%ld/oom_score_adj"
#define VIREO_MTD_NAME_FMT "/sys/class/mtd/mtd%d/name"
#define VIREO_UBI_VOLUME_NAME_FMT "/sys/class/ubi/ubi%d/ubi%d_%d/name"
#define VIREO_MTD_DEV_FMT "/dev/mtd%d"
#define VIREO_MTDBLOCK_DEV_FMT "/dev/mtdblock%d"
#define VIREO_UBI_VOLUME_DEV_FMT "/dev/ubi%d_%d"
#define VIREO_UCI_PROFILE "/etc/profile.d/profile"
#define VIREO_SYSFS_ROOT "/sys"
