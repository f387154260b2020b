// SPDX-License-Identifier: Apache-2.0
#include "firmware/vireo_firmware_upgrade.h"

#include "common/vireo_common.h"
#include "firmware/vireo_firmware_journal.h"

static const char VIREO_MODULE[] = "vireo_firmware";

int32_t vireo_firmware_upgrade_prepare(const char *up_path, vireo_upgrade_job *job)
{
    if (!up_path) {
        VIREO_TRACE("Invalid param, %p.\n", static_cast<const void *>(up_path));
        return -1;
    }
    job->flash.reset(vireo_fireware_build_ptn_table_by_flash());
    if (!job->flash) {
        VIREO_TRACE("Failed to build ptn_table of flash\n");
        return -1;
    }
    vireo_ptn_dump(job->flash.get());
    if (vireo_file_view_open(VIREO_SITE(), up_path, VIREO_VIEW_RAW, true, &job->view) != 0)
        return -1;
    const ptn_table *flash = job->flash.get();
    const auto fits = [flash](const firmware_header *header, up_ptn_table *table,
                              const vireo_payload &payload) {
        return vireo_firmware_check_upgradable(flash, header, table, payload);
    };
    if (vireo_firmware_walk_view(
            VIREO_SITE(), &job->view,
            "Firmware is not allowed to upgrade this up table into this device.\n", fits,
            &job->found) != 0)
        return -1;
    const uint8_t *image = job->view.data + job->found.offset;
    VIREO_TRACE("up_file_buf %p \n", static_cast<const void *>(image));
    VIREO_TRACE("ptn_content %p \n", static_cast<const void *>(job->found.payload.start()));
    VIREO_TRACE("firmware_header->header_len 0x%08x  \n", job->found.header->header_len);
    return 0;
}

int32_t vireo_firmware_upgrade_install(vireo_upgrade_job *job)
{
    const bool installed =
        vireo_firmware_update_ptn(job->flash.get(), job->found.header.get(), job->found.table.get(),
                                  job->found.payload) >= 0;
    // A file cut short is said so, whatever failed first.
    if (!vireo_file_view_intact(VIREO_SITE(), job->view) || !installed) {
        VIREO_TRACE("Failed to upgrade firmware into this device.\n");
        return -1;
    }
    return 0;
}

int32_t vireo_firmware_upgrade(const char *up_path)
{
    // A layout change that a power cut interrupted is finished first, from its journal:
    // until then the flash holds neither the old layout nor the new one.
    if (VIREO_POWER_CUT_RECOVERY && vireo_journal_resume() != 0) {
        VIREO_TRACE("Failed to upgrade firmware into this device.\n");
        return -1;
    }
    vireo_upgrade_job job;
    if (vireo_firmware_upgrade_prepare(up_path, &job) != 0)
        return -1;
    return vireo_firmware_upgrade_install(&job);
}
