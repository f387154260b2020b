// SPDX-License-Identifier: Apache-2.0
// Scores and boot flags of the two images of a dual-image device, kept in the flag
// volumes "extra-para" (primary) and "extra-para.b" (backup), each an extra-para record
// behind a content header. The image that receives an upgrade is the lower-scored one,
// the backup on a tie: it is switched off before the writes and on after them, with a
// score above both.
#pragma once

#include <cstdint>
#include <vector>

// One flag volume as read, for a writer that rewrites it.
struct vireo_flag_volume {
    std::vector<uint8_t> buffer; // the whole volume as read
    char path[1024];             // empty when the volume was not found
    uint32_t count;
    int32_t size;
    int32_t content_offset;
    uint32_t content_length;
    int32_t score; // 0 when none could be read
};

// Always 0; each score is stored only when it was read (callers set both to 0 first).
int32_t vireo_firmware_get_score(uint32_t ubi_num, int32_t *primary, int32_t *backup);
// Switches the target image off, keeping its score; 0, or -1 when its volume cannot be
// sized or buffered, or the flags do not read back as switched off.
int32_t vireo_firmware_pre_update(uint32_t ubi_num);
// Switches the target image on with a score one above both; 0, or -1 when the backup
// volume cannot be sized or buffered, or the flags do not read back as switched on.
int32_t vireo_firmware_post_update(uint32_t ubi_num);
// Reads the named flag volume into volume (zeroed by the caller): 0, also when the volume
// does not exist (path empty, score 0); -1 when it cannot be read or holds no record.
int32_t vireo_firmware_get_score_by_extra_para(uint32_t ubi_num, const char *name,
                                               vireo_flag_volume *volume);
