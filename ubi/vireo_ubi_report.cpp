// SPDX-License-Identifier: Apache-2.0
#include "ubi/vireo_ubi_report.h"

#include "common/vireo_common.h"
#include "common/vireo_device.h"
#include "common/vireo_file.h"
#include "common/vireo_report.h"
#include "firmware/vireo_firmware_report.h"
#include "ubi/vireo_ubi.h"
#include "ubi/vireo_ubi_flags.h"

#include <memory>
#include <string>

namespace
{

// The size of the volume name, or 0 when it has none.
uint64_t volume_size(uint32_t ubi_num, const char *name)
{
    char path[1024];
    if (get_ptn_path_by_name(static_cast<int32_t>(ubi_num), name, path, sizeof(path)) <= 0)
        return 0;
    const int32_t size = vireo_file_get_size(path);
    return size > 0 ? static_cast<uint64_t>(size) : 0;
}

cJSON *image(int32_t score, fwinfo *info)
{
    std::unique_ptr<fwinfo, decltype(&vireo_ptn_firmware_info_destroy)> owned(
        info, vireo_ptn_firmware_info_destroy);
    cJSON *obj = cJSON_CreateObject();
    cJSON_AddNumberToObject(obj, "score", score);
    cJSON_AddItemToObject(obj, "firmware", vireo_report_fwinfo(owned.get()));
    return obj;
}

// The scores and versions of both images, and which one an upgrade writes.
void add_images(cJSON *event, uint32_t ubi_num, int32_t pscore, int32_t bscore)
{
    cJSON *images = cJSON_CreateObject();
    cJSON_AddItemToObject(
        images, "primary",
        image(pscore, vireo_flash_build_firmware_info_ubi_named(ubi_num, "firmware-info")));
    cJSON_AddItemToObject(
        images, "backup",
        image(bscore, vireo_flash_build_firmware_info_ubi_named(ubi_num, "firmware-info.b")));
    cJSON_AddItemToObject(event, "images", images);
}

} // namespace

void vireo_report_plan_ubi(uint32_t ubi_num, const up_ptn_table *table, bool install)
{
    if (!vireo_report_on())
        return;
    vireo_trace_mute mute;
    int32_t pscore = 0, bscore = 0;
    vireo_firmware_get_score(ubi_num, &pscore, &bscore);
    uint64_t total = 0;
    cJSON *writes = cJSON_CreateArray();
    cJSON *copies = cJSON_CreateArray();
    for (uint32_t i = 0; install && i < table->ptn_cnt && i < UP_PTN_MAX_NUM; i++) {
        const up_ptn_info &e = table->ptns[i];
        cJSON *write = cJSON_CreateObject();
        cJSON_AddStringToObject(write, "name", e.name);
        cJSON_AddNumberToObject(write, "size", e.size);
        cJSON_AddNumberToObject(write, "volume_size",
                                static_cast<double>(volume_size(ubi_num, e.name)));
        cJSON_AddItemToArray(writes, write);
        total += 2ull * e.size; // written, read back
    }
    for (const char *name : {"rootfs_data", "log"}) {
        const std::string twin = std::string(name) + ".b";
        if (!install || !ptn_paths_exist(static_cast<int32_t>(ubi_num), name, twin.c_str()))
            continue;
        const uint64_t size = volume_size(ubi_num, name);
        cJSON *copy = cJSON_CreateObject();
        cJSON_AddStringToObject(copy, "from", name);
        cJSON_AddStringToObject(copy, "to", twin.c_str());
        cJSON_AddNumberToObject(copy, "size", static_cast<double>(size));
        cJSON_AddItemToArray(copies, copy);
        total += 2 * size; // copied, read back
    }
    vireo_progress_plan(total);
    cJSON *event = vireo_report_event("plan");
    if (!event) {
        cJSON_Delete(writes);
        cJSON_Delete(copies);
        return;
    }
    cJSON_AddBoolToObject(event, "install", install);
    cJSON_AddItemToObject(event, "writes", writes);
    cJSON_AddItemToObject(event, "moves", cJSON_CreateArray());
    cJSON_AddItemToObject(event, "copies", copies);
    // The copies go from the primary's volumes onto the ".b" twins: they keep the settings
    // only when the backup is the target.
    cJSON_AddStringToObject(event, "target", pscore >= bscore ? "backup" : "primary");
    cJSON_AddBoolToObject(event, "keeps_settings", pscore >= bscore);
    add_images(event, ubi_num, pscore, bscore);
    cJSON_AddNumberToObject(event, "bytes", static_cast<double>(total));
    vireo_report_write(event);
    vireo_report_mark();
}

void vireo_report_plan_roll_back(uint32_t ubi_num)
{
    if (!vireo_report_on())
        return;
    vireo_trace_mute mute;
    int32_t pscore = 0, bscore = 0;
    vireo_firmware_get_score(ubi_num, &pscore, &bscore);
    const uint64_t size = volume_size(ubi_num, "extra-para.b");
    vireo_progress_plan(size);
    cJSON *event = vireo_report_event("plan");
    if (!event)
        return;
    cJSON_AddBoolToObject(event, "install", false);
    cJSON *writes = cJSON_CreateArray();
    cJSON *write = cJSON_CreateObject();
    cJSON_AddStringToObject(write, "name", "extra-para.b");
    cJSON_AddNumberToObject(write, "size", static_cast<double>(size));
    cJSON_AddNumberToObject(write, "score", pscore + 1);
    cJSON_AddItemToArray(writes, write);
    cJSON_AddItemToObject(event, "writes", writes);
    cJSON_AddItemToObject(event, "moves", cJSON_CreateArray());
    cJSON_AddItemToObject(event, "copies", cJSON_CreateArray());
    cJSON_AddStringToObject(event, "target", "backup");
    cJSON_AddBoolToObject(event, "keeps_settings", true);
    add_images(event, ubi_num, pscore, bscore);
    cJSON_AddNumberToObject(event, "bytes", static_cast<double>(size));
    vireo_report_write(event);
    vireo_report_mark();
}
