// SPDX-License-Identifier: Apache-2.0
// The device's own description, kept as a JSON document in its device-info partition.
#pragma once

#include <cJSON.h>
#include <cstdint>

// Field widths include the terminating NUL.
struct devinfo {
    char manufacturer_name[64];
    char manufacturer_full_name[256];
    char manufacturer_url[256];
    char model_name[64];
    char model_full_name[256];
    char model_id[64];
    char model_version[16];
    char region[16];
    char special_id[64];
    char flash_version[64];
    char hw_id[64];
    char oem_id[64];
    char public_key[256];
    char license_key[256];
};

// The text a record holds when its document has no flash_version.
#define VIREO_FLASH_VERSION_DEFAULT "00000000"

// 0, or -1 at the first bad member; the record is cleared first.
int32_t vireo_ptn_device_info_json_parse(const cJSON *json_root, devinfo *devinfo);
devinfo *vireo_ptn_device_info_build(const cJSON *json_root);
devinfo *vireo_ptn_device_info_build_by_json_data(const char *data, int32_t len);
void vireo_ptn_device_info_destroy(devinfo *devinfo);
void vireo_ptn_device_info_dump(const devinfo *devinfo);
