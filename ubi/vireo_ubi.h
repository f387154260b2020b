// SPDX-License-Identifier: Apache-2.0
// Commands of work mode "ubi": check, install and roll back on a dual-image UBI device,
// and the steps they are made of.
#pragma once

#include "firmware/vireo_firmware_header.h"
#include "firmware/vireo_firmware_up_ptn_table.h"
#include "firmware/vireo_firmware_view.h"
#include "firmware/vireo_firmware_walk.h"
#include "ptn/vireo_ptn_device_info.h"
#include "ptn/vireo_ptn_firmware_info.h"

#include "common/vireo_common.h"

#include <cstdint>

// 0 when an image of the file fits this device, else -1.
int32_t vireo_firmware_check_ubi(uint32_t ubi_num, const char *up_path);
// 0 when an image of the file was installed or is the one installed, else -1.
int32_t vireo_firmware_upgrade_ubi(uint32_t ubi_num, const char *up_path);
// 0 when the backup image now outranks the primary, else -1.
int32_t vireo_firmware_roll_back_ubi(uint32_t ubi_num);

// The device's records, from the volumes "device-info" and "firmware-info" (an MTD
// partition of the name when no volume has it).
devinfo *vireo_flash_build_device_info_ubi(uint32_t ubi_num);
fwinfo *vireo_flash_build_firmware_info_ubi(uint32_t ubi_num);
// The firmware information in the record volume name ("firmware-info.b" for the backup).
fwinfo *vireo_flash_build_firmware_info_ubi_named(uint32_t ubi_num, const char *name);

// Set by the version test when the device runs 1.3.0 and the image is the same build.
extern bool same_software_version;
// 0 when the image's version may be installed over the installed one, else -1.
int32_t vireo_firmware_check_software_version(const fwinfo *installed, const fwinfo *firmware);
// 1 when the device's settings list special_id among the special ids it accepts, else 0.
int32_t vireo_firmware_check_upgradable_special_id(const char *special_id);
// 1 when the image suits the device, else 0.
int32_t vireo_firmware_check_upgradable_ubi(uint32_t ubi_num, const firmware_header *header,
                                            const up_ptn_table *up_ptn_table,
                                            const vireo_payload &payload);

// Holds the file (sealed when seal: an upgrade) and walks its chain to the first image that
// suits the device; 0, or -1 (traced at site, refusals with refused).
int32_t vireo_ubi_find_image(const vireo_trace_site &site, uint32_t ubi_num, const char *path,
                             const char *refused, bool seal, vireo_file_view *view,
                             vireo_walk_result *found);

// Flags off, every entry written into the volume of its name, the user data copied onto
// the ".b" twins, flags on; 0 / -1.
int32_t vireo_firmware_update_ubi_content(uint32_t ubi_num, const firmware_header *header,
                                          const up_ptn_table *up_ptn_table,
                                          const vireo_payload &payload);
int32_t vireo_firmware_update_ubi_volume_content(uint32_t ubi_num, const up_ptn_table *up_ptn_table,
                                                 const vireo_payload &payload);
// Copies the whole source volume onto the destination volume; 0 / -1.
int32_t vireo_firmware_copy_ubi_volume_content(uint32_t ubi_num, const char *source,
                                               const char *destination);
