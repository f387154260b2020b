// SPDX-License-Identifier: Apache-2.0
#include "firmware/vireo_firmware.h"

#include "common/vireo_common.h"
#include "firmware/vireo_firmware_records.h"

#include <cstring>
#include <memory>

static const char VIREO_MODULE[] = "vireo_firmware";

// "00000001" in a support-list entry stands for any special id; a device's own
// "00000001" has no such meaning.
#define SPECIAL_ID_ANY "00000001"

static bool entry_fits(const devinfo &dev, const support_list_entry &e)
{
    return strcmp(dev.model_name, e.model_name) == 0 &&
           strcmp(dev.model_version, e.model_version) == 0 &&
           (strcmp(dev.special_id, e.special_id) == 0 ||
            strcmp(e.special_id, SPECIAL_ID_ANY) == 0) &&
           strcmp(dev.flash_version, e.flash_version) == 0;
}

bool vireo_firmware_check_upgradable(const ptn_table *ptn_table, const firmware_header *,
                                     const up_ptn_table *up_ptn_table, const vireo_payload &payload)
{
    std::unique_ptr<devinfo, decltype(&vireo_ptn_device_info_destroy)> dev(
        vireo_flash_build_device_info(ptn_table), vireo_ptn_device_info_destroy);
    if (!dev) {
        VIREO_TRACE("Faield to get device info of FLASH.\n");
        return false;
    }
    vireo_ptn_device_info_dump(dev.get());
    std::unique_ptr<support_list, decltype(&vireo_ptn_support_list_destroy)> list(
        vireo_firmware_build_support_list(up_ptn_table, payload), vireo_ptn_support_list_destroy);
    if (!list) {
        VIREO_TRACE("support_list of FIRMWARE not found!\n");
        return false;
    }
    vireo_ptn_support_list_dump(list.get());
    for (int32_t i = 0; i < list->entry_cnt && i < SUPPORT_LIST_MAX_NUM; i++) {
        const support_list_entry &e = list->entries[i];
        if (entry_fits(*dev, e)) {
            VIREO_TRACE("match by support list entry %d (%s, %s, %s)!\n\n", i, e.model_name,
                        e.model_version, e.special_id);
            return true;
        }
    }
    return false;
}
