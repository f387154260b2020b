// SPDX-License-Identifier: Apache-2.0
#include "ptn/vireo_ptn_record.h"

#include "common/vireo_file.h"
#include "ptn/vireo_ptn_header.h"

static void say(const vireo_trace_site &site, const std::string &words)
{
    if (!words.empty())
        vireo_trace_at(site, "%s", words.c_str());
}

int32_t vireo_record_locate(const vireo_trace_site &site, const uint8_t *data, int32_t size,
                            const vireo_record_words &words, int32_t *offset, int32_t *length)
{
    if (!vireo_ptn_header_verify(data, size)) {
        say(site, words.invalid);
        return -1;
    }
    if (!vireo_ptn_header_get_content_pos(data, size, offset, length)) {
        say(site, words.no_content);
        return -1;
    }
    if (words.data_pos)
        vireo_trace_at(site, "data_offset 0x%08x data_len %u\n", static_cast<uint32_t>(*offset),
                       static_cast<uint32_t>(*length));
    return 0;
}

vireo_record_result vireo_record_read(const vireo_trace_site &site, const char *path, int32_t size,
                                      vireo_read_kind kind, const vireo_record_words &words,
                                      vireo_record *rec)
{
    *rec = vireo_record();
    if (size < 1) {
        say(site, words.alloc_failed);
        return VIREO_RECORD_NO_MEMORY;
    }
    try {
        rec->buf.assign(static_cast<size_t>(size), 0xFF);
    } catch (...) {
        say(site, words.alloc_failed);
        return VIREO_RECORD_NO_MEMORY;
    }
    const int32_t got =
        kind == VIREO_READ_FROM_START
            ? vireo_file_read(path, rec->buf.data(), size, &rec->count)
            : vireo_file_read_by_offset(path, 0, rec->buf.data(), size, &rec->count);
    if (got != 0) {
        rec->count = 0;
        say(site, words.read_failed);
        return VIREO_RECORD_FAILED;
    }
    if (vireo_record_locate(site, rec->buf.data(), static_cast<int32_t>(rec->count), words,
                            &rec->offset, &rec->length) != 0)
        return VIREO_RECORD_FAILED;
    return VIREO_RECORD_OK;
}
