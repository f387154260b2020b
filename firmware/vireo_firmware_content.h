// SPDX-License-Identifier: Apache-2.0
// Writing one partition content of an image into flash: in 2048-byte units, from bytes
// proven to be the verified ones when the payload carries seals, and read back after.
#pragma once

#include "firmware/vireo_firmware_seal.h"
#include "firmware/vireo_firmware_up_ptn_table.h"

#include <cstdint>
#include <vector>

#define MTD_WRITE_BLOCK_SIZE 2048

// The content bytes of one entry, chunk by chunk.
struct vireo_entry_source {
    vireo_entry_source(const vireo_payload &payload, const up_ptn_info *entry,
                       uint32_t max_chunk = MTD_WRITE_BLOCK_SIZE);
    // The chunk bytes at done into the content (chunk at most max_chunk); none (traced)
    // when they lie outside the file or are not the verified ones.
    const uint8_t *read(uint32_t done, uint32_t chunk);
    const uint8_t *start; // the content in the file; none when it lies outside
    uint64_t offset;      // of the content in the file
    const vireo_seals *seals;
    vireo_sealed_reader reader;
    std::vector<uint8_t> unit; // the proven copy of the last chunk
};

// Writes the content of entry to path at offset, then reads back from check_path at
// check_offset (the same bytes seen another way, or the same path) and compares content
// and padding. 0, or -1 (traced) on any failure or difference.
int32_t vireo_firmware_write_entry(const vireo_payload &payload, const up_ptn_info *entry,
                                   const char *path, int32_t offset, const char *check_path,
                                   int32_t check_offset);
