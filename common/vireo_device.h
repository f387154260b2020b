// SPDX-License-Identifier: Apache-2.0
// Partition names to MTD and UBI device nodes, through the names the kernel publishes
// in sysfs. Every returned path is formed under the platform root prefix.
#pragma once

#include <cstddef>
#include <cstdint>

// MTD index 0..255 whose sysfs name equals name, or -1.
int32_t get_mtd_index_by_name(const char *name);
// Volume index 0..255 of UBI device ubi_num whose sysfs name equals name, or -1.
int32_t get_ubi_volume_index_by_name(int32_t ubi_num, const char *name);
// 0 with "/dev/mtd%d" in path (at least 128 bytes), or -1 (traced).
int32_t vireo_get_mtdpath_by_partition_name(const char *name, char *path);
// Length of "/dev/mtdblock%d" written to buf, or 0 when not found (buf unchanged).
int32_t get_mtdblock_path_by_name(const char *name, char *buf, size_t size);
// Length of "/dev/ubi%d_%d" written to buf, or 0 when not found (buf unchanged).
int32_t get_ubi_volume_path_by_name(int32_t ubi_num, const char *name, char *buf, size_t size);
// A UBI volume of that name if there is one, else the MTD block device; 0 if neither.
int32_t get_ptn_path_by_name(int32_t ubi_num, const char *name, char *buf, size_t size);
// True when both names resolve with get_ptn_path_by_name.
bool ptn_paths_exist(int32_t ubi_num, const char *name_a, const char *name_b);
// True when the path (past the root prefix) begins with "/dev/ubi".
bool is_ubi_volume_path(const char *path);
