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

// Reads at most len bytes of path from its start into a fresh buffer of len bytes, tracing
// the reader's words on failure.
static vireo_record_result read_into(const vireo_trace_site &site, const char *path, int32_t len,
                                     vireo_read_kind kind, const vireo_record_words &words,
                                     vireo_record *rec)
{
    rec->count = 0;
    try {
        rec->buf.assign(static_cast<size_t>(len), 0xFF);
    } catch (...) {
        say(site, words.alloc_failed);
        return VIREO_RECORD_NO_MEMORY;
    }
    const int32_t got = kind == VIREO_READ_BY_OFFSET
                            ? vireo_file_read_by_offset(path, 0, rec->buf.data(), len, &rec->count)
                            : vireo_file_read(path, rec->buf.data(), len, &rec->count);
    if (got != 0) {
        rec->count = 0;
        say(site, words.read_failed);
        return VIREO_RECORD_FAILED;
    }
    return VIREO_RECORD_OK;
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
    uint32_t extent = 0;
    if ((kind == VIREO_READ_CONTENT || kind == VIREO_READ_CONTENT_BY_OFFSET) &&
        size > PTN_HEADER_SIZE) {
        // The header alone, quietly: only one that fits decides how much is read.
        uint8_t head[PTN_HEADER_SIZE];
        uint32_t got = 0;
        if (vireo_file_read(path, head, PTN_HEADER_SIZE, &got) == 0 && got == PTN_HEADER_SIZE)
            extent = vireo_ptn_header_extent(head, size);
    }
    const vireo_read_kind reader = kind == VIREO_READ_CONTENT_BY_OFFSET ? VIREO_READ_BY_OFFSET
                                   : kind == VIREO_READ_CONTENT         ? VIREO_READ_FROM_START
                                                                        : kind;
    const vireo_record_result r =
        read_into(site, path, extent ? static_cast<int32_t>(extent) : size, reader, words, rec);
    if (r != VIREO_RECORD_OK)
        return r;
    if (vireo_record_locate(site, rec->buf.data(), static_cast<int32_t>(rec->count), words,
                            &rec->offset, &rec->length) != 0)
        return VIREO_RECORD_FAILED;
    return VIREO_RECORD_OK;
}
