// SPDX-License-Identifier: Apache-2.0
// A firmware's version and id, kept in the firmware-info partition of the device and of
// each firmware file.
#pragma once

#include <cstdint>

struct fwinfo {
    uint32_t software_version[3]; // major, minor, patch
    uint32_t build_timestamp[2];  // build number, release number
    char firmware_id[64];
};

// Reads "%u.%u.%u Build %u Rel.%05u" into out (software_version, then build_timestamp);
// 0, or -1 when a separator is missing or the text ends inside a skipped word.
int32_t vireo_ptn_get_firmware_info_software_version(const char *text, uint32_t out[5]);
fwinfo *vireo_ptn_firmware_info_build_by_json_data(const char *data, int32_t len);
void vireo_ptn_firmware_info_destroy(fwinfo *fwinfo);
void vireo_ptn_firmware_info_dump(const fwinfo *fwinfo);
