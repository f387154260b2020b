// SPDX-License-Identifier: Apache-2.0
// Firmware files for the tests: edits of packed files and a two-image manifest.
#pragma once

#include "firmware/vireo_firmware_header.h"
#include "raw_device.h"
#include "test_util.h"

#include <cstdint>
#include <string>
#include <vector>

// Sets the size of the first entry named name in the partition list of the image at
// offset 0 to hex (as many characters as it has now); the file then needs a new signature.
void set_entry_size(std::vector<uint8_t> &file, const std::string &name, const std::string &hex);

// Two images: the first carries partition-table, support-list, firmware-info, kernel and
// rootfs; the second support-list, the same kernel (shared, pointing back) and extra.
std::string two_image_manifest(const temp_dir &dir);

// Resets the process-wide state of the integrity checks to that of a new run: every
// test that runs the checks in its own process calls it first.
void reset_integrity_state();
