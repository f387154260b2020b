// SPDX-License-Identifier: Apache-2.0
// The records a compatibility check compares: the device's own, read from its MTD
// partitions, and an image's, read from its payload.
#pragma once

#include "firmware/vireo_firmware_up_ptn_table.h"
#include "ptn/vireo_ptn.h"
#include "ptn/vireo_ptn_device_info.h"
#include "ptn/vireo_ptn_firmware_info.h"
#include "ptn/vireo_ptn_support_list.h"

// From "device-info", or "device-info.b" when the first cannot be used.
devinfo *vireo_flash_build_device_info(const ptn_table *ptn_table);
// From the last "support-list" entry of the image; none if one fails or there is none.
support_list *vireo_firmware_build_support_list(const up_ptn_table *up_ptn_table,
                                                const vireo_payload &payload);
// From the first "firmware-info" or "firmware-info.b" entry of the image.
fwinfo *vireo_firmware_build_firmware_info(const up_ptn_table *up_ptn_table,
                                           const vireo_payload &payload);
