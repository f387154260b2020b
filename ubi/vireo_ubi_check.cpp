// SPDX-License-Identifier: Apache-2.0
#include "ubi/vireo_ubi.h"

#include "common/vireo_common.h"
#include "ubi/vireo_ubi_report.h"
#include "common/vireo_file.h"
#include "firmware/vireo_firmware_records.h"
#include "firmware/vireo_firmware_walk.h"

#include <cstring>
#include <memory>
#include <vector>

static const char VIREO_MODULE[] = "vireo_ubi";

bool same_software_version = false;

int32_t vireo_firmware_check_software_version(const fwinfo *installed, const fwinfo *firmware)
{
    VIREO_ASSERT(installed);
    VIREO_ASSERT(firmware);
    const uint32_t *v = firmware->software_version;
    if (v[0] == 0 || (v[0] == 1 && v[1] < 3))
        return -1;
    const uint32_t *i = installed->software_version;
    if (i[0] == 1 && i[1] == 3 && i[2] == 0 &&
        memcmp(i, v, sizeof(firmware->software_version)) == 0 &&
        memcmp(installed->build_timestamp, firmware->build_timestamp,
               sizeof(firmware->build_timestamp)) == 0)
        same_software_version = true;
    return 0;
}

// Field by field, in order; another special id only when the settings accept it.
static bool entry_suits(const devinfo &dev, const support_list_entry &e)
{
    return strcmp(dev.model_name, e.model_name) == 0 &&
           strcmp(dev.model_version, e.model_version) == 0 &&
           (strcmp(dev.special_id, e.special_id) == 0 ||
            vireo_firmware_check_upgradable_special_id(e.special_id) == 1) &&
           strcmp(dev.flash_version, e.flash_version) == 0;
}

int32_t vireo_firmware_check_upgradable_ubi(uint32_t ubi_num, const firmware_header *,
                                            const up_ptn_table *up_table,
                                            const vireo_payload &payload)
{
    std::unique_ptr<devinfo, decltype(&vireo_ptn_device_info_destroy)> dev(
        vireo_flash_build_device_info_ubi(ubi_num), vireo_ptn_device_info_destroy);
    if (!dev) {
        VIREO_TRACE("Faield to get device info of FLASH.\n");
        return 0;
    }
    vireo_ptn_device_info_dump(dev.get());
    std::unique_ptr<support_list, decltype(&vireo_ptn_support_list_destroy)> list(
        vireo_firmware_build_support_list(up_table, payload), vireo_ptn_support_list_destroy);
    if (!list) {
        VIREO_TRACE("support_list of FIRMWARE not found!\n");
        return 0;
    }
    vireo_ptn_support_list_dump(list.get());
    using fwinfo_ptr = std::unique_ptr<fwinfo, decltype(&vireo_ptn_firmware_info_destroy)>;
    fwinfo_ptr installed(vireo_flash_build_firmware_info_ubi(ubi_num),
                         vireo_ptn_firmware_info_destroy);
    if (!installed) {
        VIREO_TRACE("Faield to get firmware info of FLASH.\n");
        return 0;
    }
    vireo_ptn_firmware_info_dump(installed.get());
    fwinfo_ptr offered(vireo_firmware_build_firmware_info(up_table, payload),
                       vireo_ptn_firmware_info_destroy);
    if (!offered) {
        VIREO_TRACE("firmware_info of FIRMWARE not found!\n");
        return 0;
    }
    vireo_ptn_firmware_info_dump(offered.get());
    if (vireo_firmware_check_software_version(installed.get(), offered.get()) != 0) {
        VIREO_TRACE("firmware software version is unmatch\n\n");
        return 0;
    }
    for (int32_t i = 0; i < list->entry_cnt && i < SUPPORT_LIST_MAX_NUM; i++) {
        const support_list_entry &e = list->entries[i];
        if (entry_suits(*dev, e)) {
            VIREO_TRACE("match by support list entry %d (%s, %s, %s, %s)!\n\n", i, e.model_name,
                        e.model_version, e.special_id, e.flash_version);
            return 1;
        }
    }
    return 0;
}

int32_t vireo_ubi_find_image(const vireo_trace_site &site, uint32_t ubi_num, const char *path,
                             const char *refused, bool seal, vireo_file_view *view,
                             vireo_walk_result *found)
{
    if (!path) {
        vireo_trace_at(site, "Invalid params, %u,%p.\n", ubi_num, static_cast<const void *>(path));
        return -1;
    }
    if (vireo_file_view_open(site, path, VIREO_VIEW_UBI, seal, view) != 0)
        return -1;
    // The same-version mark of the image taken decides, not one left by an earlier image.
    const auto fits = [ubi_num](const firmware_header *header, up_ptn_table *table,
                                const vireo_payload &payload) {
        same_software_version = false;
        return vireo_firmware_check_upgradable_ubi(ubi_num, header, table, payload) == 1;
    };
    return vireo_firmware_walk_view(site, view, refused, fits, found);
}

int32_t vireo_firmware_check_ubi(uint32_t ubi_num, const char *up_path)
{
    vireo_file_view view;
    vireo_walk_result found;
    if (vireo_ubi_find_image(VIREO_SITE(), ubi_num, up_path,
                             "Firmware is not allowed to upgrade into this device.\n", false, &view,
                             &found) != 0)
        return -1;
    vireo_report_plan_ubi(ubi_num, found.table.get(), !same_software_version);
    VIREO_TRACE("Firmware is upgradable for this DEVICE. \n");
    return 0;
}
