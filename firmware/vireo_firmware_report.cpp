// SPDX-License-Identifier: Apache-2.0
#include "firmware/vireo_firmware_report.h"

#include "common/vireo_common.h"
#include "common/vireo_report.h"
#include "firmware/vireo_firmware.h"
#include "firmware/vireo_firmware_records.h"
#include "ubi/vireo_ubi_flags.h"

#include <cstring>
#include <memory>

cJSON *vireo_report_fwinfo(const fwinfo *info)
{
    if (!info)
        return cJSON_CreateNull();
    cJSON *obj = cJSON_CreateObject();
    const std::string version = vireo_strf("%u.%u.%u", info->software_version[0],
                                           info->software_version[1], info->software_version[2]);
    cJSON_AddStringToObject(obj, "version", version.c_str());
    cJSON_AddNumberToObject(obj, "build", info->build_timestamp[0]);
    cJSON_AddNumberToObject(obj, "release", info->build_timestamp[1]);
    cJSON_AddStringToObject(obj, "firmware_id", info->firmware_id);
    return obj;
}

void vireo_report_image(uint32_t offset, bool verified, bool fits, const up_ptn_table *table,
                        const vireo_payload *payload)
{
    cJSON *event = vireo_report_event("image");
    if (!event)
        return;
    cJSON_AddNumberToObject(event, "offset", offset);
    cJSON_AddBoolToObject(event, "verified", verified);
    cJSON_AddBoolToObject(event, "fits", fits);
    if (!fits)
        cJSON_AddStringToObject(event, "reason", vireo_report_first_trace());
    std::unique_ptr<fwinfo, decltype(&vireo_ptn_firmware_info_destroy)> info(
        nullptr, vireo_ptn_firmware_info_destroy);
    if (table && payload) {
        vireo_trace_mute mute;
        info.reset(vireo_firmware_build_firmware_info(table, *payload));
    }
    cJSON_AddItemToObject(event, "firmware", vireo_report_fwinfo(info.get()));
    cJSON_AddItemToObject(event, "partitions", [table] {
        cJSON *list = cJSON_CreateArray();
        for (uint32_t i = 0; table && i < table->ptn_cnt && i < UP_PTN_MAX_NUM; i++)
            cJSON_AddItemToArray(list, cJSON_CreateString(table->ptns[i].name));
        return list;
    }());
    vireo_report_write(event);
    vireo_report_mark();
}

static cJSON *extent(uint32_t base, uint32_t size)
{
    cJSON *obj = cJSON_CreateObject();
    cJSON_AddNumberToObject(obj, "base", base);
    cJSON_AddNumberToObject(obj, "size", size);
    return obj;
}

void vireo_report_plan_raw(const ptn_table *flash, const up_ptn_table *table,
                           const vireo_payload &payload, int32_t ubi_device)
{
    if (!vireo_report_on())
        return;
    // The same reads and choices as the upgrade's, without their traces.
    vireo_trace_mute mute;
    std::unique_ptr<ptn_table, decltype(&vireo_ptn_destroy)> next(
        vireo_firmware_get_ptn_table(table, payload), vireo_ptn_destroy);
    const int32_t changed = vireo_firmware_ptn_table_changed(flash, next.get());
    const bool has_ubi = vireo_firmware_up_ptn_table_has_ubi(table) == 1;
    int32_t pscore = 0, bscore = 0;
    vireo_firmware_get_score(static_cast<uint32_t>(ubi_device), &pscore, &bscore);
    // Without "ubi" the slots are chosen after "extra-para" was flagged off, which gives
    // it the score 1.
    const int32_t flags = vireo_ptn_get_index_by_name(flash, "extra-para");
    if (!has_ubi && flags >= 0 && flash->ptns[flags].base != 0 && flash->ptns[flags].size != 0)
        pscore = 1;

    uint64_t total = 0;
    cJSON *moves = cJSON_CreateArray();
    for (uint32_t i = 0; next && i < next->ptn_cnt; i++) {
        const ptn_info &n = next->ptns[i];
        const uint32_t len = vireo_firmware_move_length(flash, n);
        if (len == 0)
            continue;
        const ptn_info &o = flash->ptns[vireo_ptn_get_index_by_name(flash, n.name)];
        cJSON *move = cJSON_CreateObject();
        cJSON_AddStringToObject(move, "name", n.name);
        cJSON_AddItemToObject(move, "from", extent(o.base, o.size));
        cJSON_AddItemToObject(move, "to", extent(n.base, n.size));
        cJSON_AddNumberToObject(move, "size", len);
        cJSON_AddItemToArray(moves, move);
        total += 2ull * len; // written, then read back
    }
    cJSON *writes = cJSON_CreateArray();
    bool keeps_settings = true;
    for (uint32_t i = 0; i < table->ptn_cnt && i < UP_PTN_MAX_NUM; i++) {
        up_ptn_info e = table->ptns[i];
        if (!changed && strcmp(e.name, "partition-table") == 0)
            continue;
        vireo_firmware_choose_slot(&e, has_ubi, pscore, bscore);
        const int32_t index = next ? vireo_ptn_get_index_by_name(next.get(), e.name) : -1;
        const uint32_t room = index < 0 ? 0 : next->ptns[index].size;
        cJSON *write = cJSON_CreateObject();
        cJSON_AddStringToObject(write, "name", e.name);
        cJSON_AddNumberToObject(write, "size", e.size);
        cJSON_AddNumberToObject(write, "partition_size", room);
        cJSON_AddItemToArray(writes, write);
        total += room + 2ull * e.size; // erased, written, read back
        if (strcmp(e.name, "rootfs_data") == 0)
            keeps_settings = false;
    }
    vireo_progress_plan(total);
    cJSON *event = vireo_report_event("plan");
    if (!event) {
        cJSON_Delete(moves);
        cJSON_Delete(writes);
        return;
    }
    cJSON_AddItemToObject(event, "writes", writes);
    cJSON_AddItemToObject(event, "moves", moves);
    cJSON_AddBoolToObject(event, "keeps_settings", keeps_settings);
    cJSON_AddBoolToObject(event, "table_changed", changed != 0);
    if (has_ubi) {
        cJSON_AddNumberToObject(event, "primary_score", pscore);
        cJSON_AddNumberToObject(event, "backup_score", bscore);
    }
    cJSON_AddNumberToObject(event, "bytes", static_cast<double>(total));
    vireo_report_write(event);
    vireo_report_mark();
}
