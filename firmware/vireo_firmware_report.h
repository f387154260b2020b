// SPDX-License-Identifier: Apache-2.0
// The report's events about the images of a firmware file and about what an upgrade of
// work mode "default" will do. Nothing is read or written unless a report or a progress
// line is kept, and what is read for them alone prints no trace.
#pragma once

#include "firmware/vireo_firmware_up_ptn_table.h"
#include "ptn/vireo_ptn.h"
#include "ptn/vireo_ptn_firmware_info.h"

#include <cJSON.h>
#include <cstdint>

// A firmware information record as the report gives it: version, build, release, id.
cJSON *vireo_report_fwinfo(const fwinfo *info);

// "image": the image whose header is at offset. verified: its header (signature included)
// and table passed; fits: it suits the device; otherwise reason is the first trace since
// the image was taken up. Its firmware information is read from the payload when there is
// one (the table and payload of an unverified image are none).
void vireo_report_image(uint32_t offset, bool verified, bool fits, const up_ptn_table *table,
                        const vireo_payload *payload);

// "plan" of installing the image on raw flash over the device's table flash: the
// partitions written after the slot choice, the moves, whether the settings partition
// ("rootfs_data") is kept; sets the bytes the progress runs over. ubi_device: the UBI
// device whose flag volumes decide the slots.
void vireo_report_plan_raw(const ptn_table *flash, const up_ptn_table *table,
                           const vireo_payload &payload, int32_t ubi_device);
