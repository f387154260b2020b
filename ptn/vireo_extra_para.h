// SPDX-License-Identifier: Apache-2.0
// Boot flags and score of an installed image, kept as a JSON document in its extra-para
// partition or volume.
#pragma once

#include <cJSON.h>
#include <cstddef>
#include <cstdint>

#define EXTRA_PARA_TEXT_LEN 16

// Each value follows a label; the labels are part of the layout but stay empty.
struct extra_para_table {
    char dboot_label[EXTRA_PARA_TEXT_LEN];
    char dboot_flag[EXTRA_PARA_TEXT_LEN];
    char integer_label[EXTRA_PARA_TEXT_LEN];
    char integer_flag[EXTRA_PARA_TEXT_LEN];
    char fw_label[EXTRA_PARA_TEXT_LEN];
    char fw_flag[EXTRA_PARA_TEXT_LEN];
    char score_label[EXTRA_PARA_TEXT_LEN];
    int32_t score;
};

int32_t vireo_extra_para_table_json_parse(const cJSON *json_root, extra_para_table *table);
extra_para_table *vireo_extra_para_table_build(const cJSON *json_root);
extra_para_table *vireo_extra_para_table_build_by_json_data(const char *data, int32_t len);
void vireo_extra_para_table_destroy(extra_para_table *table);
void vireo_extra_para_table_dump(const extra_para_table *table);

// The two documents an upgrade writes; the snprintf result of formatting with score.
int32_t vireo_extra_para_format_flag_off(int32_t score, char *buf, size_t size);
int32_t vireo_extra_para_format_flag_on(int32_t score, char *buf, size_t size);
