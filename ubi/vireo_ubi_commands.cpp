// SPDX-License-Identifier: Apache-2.0
#include "ubi/vireo_ubi.h"

#include "common/vireo_common.h"
#include "common/vireo_file.h"
#include "ptn/vireo_extra_para.h"
#include "ptn/vireo_ptn_header.h"
#include "ubi/vireo_ubi_flags.h"
#include "ubi/vireo_ubi_report.h"
#include "common/vireo_report.h"

static const char VIREO_MODULE[] = "vireo_ubi";

int32_t vireo_firmware_roll_back_ubi(uint32_t ubi_num)
{
    vireo_report_plan_roll_back(ubi_num);
    vireo_flag_volume primary{};
    vireo_flag_volume backup{};
    if (vireo_firmware_get_score_by_extra_para(ubi_num, "extra-para", &primary) != 0) {
        VIREO_TRACE("Failed to get primary image 'extra-para' score.\n\n");
        return -1;
    }
    if (vireo_firmware_get_score_by_extra_para(ubi_num, "extra-para.b", &backup) != 0) {
        VIREO_TRACE("Failed to get backup image 'extra-para' score.\n\n");
        return -1;
    }
    backup.score = primary.score + 1;
    VIREO_TRACE("extra score: primary score[%d], backup score[%d]\n", primary.score, backup.score);
    // A missing backup volume has no buffer: nothing can be formatted or written.
    int32_t n = 0;
    if (backup.buffer.size() > static_cast<size_t>(backup.content_offset)) {
        char *text = reinterpret_cast<char *>(backup.buffer.data()) + backup.content_offset;
        n = vireo_extra_para_format_flag_on(backup.score, text,
                                            backup.buffer.size() - backup.content_offset);
        if (n <= 0)
            return n;
        vireo_ptn_header_add(backup.buffer.data(), backup.content_offset,
                             backup.buffer.data() + backup.content_offset, n + 1);
    }
    uint32_t written = 0;
    vireo_progress_item("flags", "extra-para.b", backup.buffer.size());
    const int32_t r = backup.buffer.empty()
                          ? -1
                          : vireo_ubi_write(backup.path, backup.buffer.data(),
                                            static_cast<int32_t>(backup.buffer.size()), &written);
    if (r != 0)
        VIREO_TRACE("vireo ubi write error[%d]\n\n", r);
    else
        VIREO_TRACE("Roll Back Success.\n\n");
    if (r == 0)
        vireo_progress_item_done();
    return r;
}
