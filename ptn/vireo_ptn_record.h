// SPDX-License-Identifier: Apache-2.0
// The one road by which every record is read: a partition, volume or file range is read
// whole, its content header checked, and the content located for the record's parser.
// Each reader passes its own trace words; the lines carry the reader's trace site.
#pragma once

#include "common/vireo_common.h"

#include <cstdint>
#include <string>
#include <vector>

// The reader's messages, complete; an empty one is not traced.
struct vireo_record_words {
    std::string alloc_failed;
    std::string read_failed;
    std::string invalid;
    std::string no_content;
    bool data_pos = false; // trace "data_offset 0x%08x data_len %u" once located
};

// A partition as read: the bytes, how many were read, and where the content lies.
struct vireo_record {
    std::vector<uint8_t> buf; // size bytes (header and content only when read so); what was
                              // not read stays 0xFF
    uint32_t count = 0;
    int32_t offset = 0;
    int32_t length = 0;
    const char *text() const
    {
        return reinterpret_cast<const char *>(buf.data()) + offset;
    }
};

enum vireo_read_kind {
    VIREO_READ_FROM_START, // vireo_file_read: quiet, reads what the device holds
    VIREO_READ_BY_OFFSET,  // vireo_file_read_by_offset at 0: traces its own failures
    // As from the start, but a valid header is read first and then only the bytes it
    // accounts for: a large partition holding a small record is not read whole. Whatever
    // the header says otherwise, the partition is read whole and judged as from the start.
    VIREO_READ_CONTENT,
    // The same header first, then as by offset. For readers that need the content alone,
    // never those that write the buffer back.
    VIREO_READ_CONTENT_BY_OFFSET,
};

enum vireo_record_result {
    VIREO_RECORD_OK = 0,
    VIREO_RECORD_FAILED = -1,    // unreadable, or no valid content header
    VIREO_RECORD_NO_MEMORY = -2, // the buffer could not be had
};

// Reads at most size bytes of path into rec->buf and locates the content behind its
// header. On VIREO_RECORD_FAILED the buffer is kept, so a writer can reuse it.
vireo_record_result vireo_record_read(const vireo_trace_site &site, const char *path, int32_t size,
                                      vireo_read_kind kind, const vireo_record_words &words,
                                      vireo_record *rec);

// Checks the content header of size bytes at data and locates the content; 0 / -1.
int32_t vireo_record_locate(const vireo_trace_site &site, const uint8_t *data, int32_t size,
                            const vireo_record_words &words, int32_t *offset, int32_t *length);
