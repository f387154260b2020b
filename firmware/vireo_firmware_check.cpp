// SPDX-License-Identifier: Apache-2.0
#include "firmware/vireo_firmware.h"

#include "common/vireo_common.h"
#include "firmware/vireo_firmware_report.h"
#include "firmware/vireo_firmware_walk.h"

static const char VIREO_MODULE[] = "vireo_firmware";

int32_t vireo_firmware_check(const char *up_path)
{
    if (!up_path) {
        VIREO_TRACE("Invalid param, %p.\n", static_cast<const void *>(up_path));
        return -1;
    }
    std::unique_ptr<ptn_table, decltype(&vireo_ptn_destroy)> flash(
        vireo_fireware_build_ptn_table_by_flash(), vireo_ptn_destroy);
    if (!flash) {
        VIREO_TRACE("Failed to build ptn_table of flash\n");
        return -1;
    }
    vireo_ptn_dump(flash.get());
    vireo_file_view view;
    if (vireo_file_view_open(VIREO_SITE(), up_path, VIREO_VIEW_RAW, false, &view) != 0)
        return -1;
    vireo_walk_result found;
    const auto fits = [&](const firmware_header *header, up_ptn_table *table,
                          const vireo_payload &payload) {
        return vireo_firmware_check_upgradable(flash.get(), header, table, payload);
    };
    if (vireo_firmware_walk_view(VIREO_SITE(), &view,
                                 "Firmware is not allowed to upgrade into this device.\n", fits,
                                 &found) != 0)
        return -1;
    vireo_report_plan_raw(flash.get(), found.table.get(), found.payload, VIREO_RAW_UBI_DEVICE);
    VIREO_TRACE("Firmware is upgradable for this DEVICE. \n");
    return 0;
}
