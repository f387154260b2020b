// SPDX-License-Identifier: Apache-2.0
// The raw-flash upgrade in its two steps: everything that only reads (the device's table,
// the file, its signature, the image that fits), then the install.
#pragma once

#include "firmware/vireo_firmware.h"
#include "firmware/vireo_firmware_view.h"
#include "firmware/vireo_firmware_walk.h"

#include <memory>

struct vireo_upgrade_job {
    std::unique_ptr<ptn_table, decltype(&vireo_ptn_destroy)> flash{nullptr, vireo_ptn_destroy};
    vireo_file_view view; // sealed while its signature is verified
    vireo_walk_result found;
};

// Finds the image to install; writes nothing. 0 / -1 (traced).
int32_t vireo_firmware_upgrade_prepare(const char *up_path, vireo_upgrade_job *job);
// Installs the image found; 0 / -1 (traced).
int32_t vireo_firmware_upgrade_install(vireo_upgrade_job *job);
