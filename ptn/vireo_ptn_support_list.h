// SPDX-License-Identifier: Apache-2.0
// The devices a firmware may be installed on, carried in its support-list partition.
#pragma once

#include <cJSON.h>
#include <cstdint>

#define SUPPORT_LIST_MAX_NUM 64

struct support_list_entry {
    char model_name[64];
    char model_version[16];
    char special_id[64];
    char flash_version[64];
};

struct support_list {
    int32_t entry_cnt;
    support_list_entry entries[SUPPORT_LIST_MAX_NUM];
};

// 0, or -1 at the first bad member; the record is cleared first.
int32_t vireo_ptn_support_list_json_parse(const cJSON *json_root, support_list *support_list);
support_list *vireo_ptn_support_list_build(const cJSON *json_root);
support_list *vireo_ptn_support_list_build_by_json_data(const char *data, int32_t len);
void vireo_ptn_support_list_destroy(support_list *support_list);
void vireo_ptn_support_list_dump(const support_list *support_list);
