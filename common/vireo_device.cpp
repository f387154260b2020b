// SPDX-License-Identifier: Apache-2.0
#include "common/vireo_device.h"

#include "common/vireo_common.h"
#include "common/vireo_platform.h"

#include <cstring>

static const char VIREO_MODULE[] = "vireo_device";

#define VIREO_INDEX_MAX 256

// Compares the first line of a sysfs name file with name. -1 when the file cannot be
// opened or read, 1 on a match, 0 otherwise.
static int name_file_matches(const char *path, const char *name)
{
    FILE *file = fopen(path, "r");
    if (!file)
        return -1;
    // Only 31 characters take part, as the kernel's names are compared in 32 bytes.
    char line[32];
    const bool got = fgets(line, sizeof(line), file) != nullptr;
    fclose(file);
    if (!got)
        return -1;
    const size_t len = strlen(line);
    if (len > 0 && line[len - 1] == '\n')
        line[len - 1] = '\0';
    return strcmp(line, name) == 0 ? 1 : 0;
}

int32_t get_mtd_index_by_name(const char *name)
{
    VIREO_ASSERT(name);
    char path[256];
    for (int i = 0; i < VIREO_INDEX_MAX; i++) {
        if (vireo_platform_path(path, sizeof(path), VIREO_MTD_NAME_FMT, i) < 0)
            return -1;
        const int r = name_file_matches(path, name);
        if (r < 0)
            return -1; // the first missing index ends the search
        if (r == 1)
            return i;
    }
    return -1;
}

int32_t get_ubi_volume_index_by_name(int32_t ubi_num, const char *name)
{
    VIREO_ASSERT(name);
    char path[256];
    for (int i = 0; i < VIREO_INDEX_MAX; i++) {
        if (vireo_platform_path(path, sizeof(path), VIREO_UBI_VOLUME_NAME_FMT, ubi_num, ubi_num,
                                i) < 0)
            return -1;
        const int r = name_file_matches(path, name);
        if (r < 0)
            return -1;
        if (r == 1)
            return i;
    }
    return -1;
}

int32_t vireo_get_mtdpath_by_partition_name(const char *name, char *path)
{
    VIREO_ASSERT(path);
    const int32_t index = get_mtd_index_by_name(name);
    if (index < 0 || vireo_platform_path(path, 128, VIREO_MTD_DEV_FMT, index) < 0) {
        VIREO_TRACE("No device found.\n\n");
        return -1;
    }
    return 0;
}

// The formatted length, capped as snprintf truncates (0 when nothing fits).
static int32_t written_length(int n, size_t size)
{
    if (n < 0 || size == 0)
        return 0;
    return static_cast<size_t>(n) < size ? n : static_cast<int32_t>(size - 1);
}

int32_t get_mtdblock_path_by_name(const char *name, char *buf, size_t size)
{
    const int32_t index = get_mtd_index_by_name(name);
    if (index < 0)
        return 0;
    return written_length(vireo_platform_path(buf, size, VIREO_MTDBLOCK_DEV_FMT, index), size);
}

int32_t get_ubi_volume_path_by_name(int32_t ubi_num, const char *name, char *buf, size_t size)
{
    const int32_t index = get_ubi_volume_index_by_name(ubi_num, name);
    if (index < 0)
        return 0;
    return written_length(vireo_platform_path(buf, size, VIREO_UBI_VOLUME_DEV_FMT, ubi_num, index),
                          size);
}

int32_t get_ptn_path_by_name(int32_t ubi_num, const char *name, char *buf, size_t size)
{
    const int32_t n = get_ubi_volume_path_by_name(ubi_num, name, buf, size);
    if (n > 0)
        return n;
    return get_mtdblock_path_by_name(name, buf, size);
}

bool ptn_paths_exist(int32_t ubi_num, const char *name_a, const char *name_b)
{
    char scratch[1024];
    return get_ptn_path_by_name(ubi_num, name_a, scratch, sizeof(scratch)) >= 1 &&
           get_ptn_path_by_name(ubi_num, name_b, scratch, sizeof(scratch)) >= 1;
}

bool is_ubi_volume_path(const char *path)
{
    VIREO_ASSERT(path);
    return strncmp(vireo_platform_strip_root(path), "/dev/ubi", 8) == 0;
}
