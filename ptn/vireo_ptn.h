// SPDX-License-Identifier: Apache-2.0
// Partition table: the flash layout as a record, its JSON form, validation and dump.
#pragma once

#include <cJSON.h>
#include <cstdint>

#define PTN_MAX_NUM 64
#define PTN_NAME_LEN 32

struct ptn_info {
    char name[PTN_NAME_LEN];
    uint32_t base;
    uint32_t size;
    uint32_t attr;
};

struct ptn_table {
    uint32_t disk_size;
    uint32_t ptn_cnt;
    ptn_info ptns[PTN_MAX_NUM];
};

// 0 on success, -1 on failure (the table is cleared first, incomplete after a failure).
int32_t vireo_ptn_json_parse(const cJSON *json_root, ptn_table *ptn_table);
// 1 if the table is consistent, 0 at the first violation (traced).
int32_t viero_ptn_validate(const ptn_table *ptn_table);
ptn_table *vireo_ptn_build(const cJSON *json_root);
ptn_table *vireo_ptn_build_by_json_data(const char *data, int32_t len);
// New tree owned by the caller, or none.
cJSON *vireo_ptn_build_json(const ptn_table *ptn_table);
void vireo_ptn_destroy(ptn_table *ptn_table);
// Index of the first entry named exactly name, or -1.
int32_t vireo_ptn_get_index_by_name(const ptn_table *ptn_table, const char *name);
void vireo_ptn_dump(const ptn_table *ptn_table);
