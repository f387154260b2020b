// SPDX-License-Identifier: Apache-2.0
// The upgrade partition table of an image: the partitions it carries and where their
// contents lie in the payload.
#pragma once

#include "firmware/vireo_firmware_header.h"

#include <cJSON.h>
#include <cstdint>
#include <vector>

#define UP_PTN_MAX_NUM 64
#define UP_PTN_NAME_LEN 32

struct up_ptn_info {
    char name[UP_PTN_NAME_LEN];
    int32_t base; // from the first byte of this image's payload; negative: an earlier image
    uint32_t size;
};

struct up_ptn_table {
    uint32_t ptns_total_size; // sum of sizes of the entries with a non-negative base
    uint32_t ptn_cnt;
    up_ptn_info ptns[UP_PTN_MAX_NUM];
};

int32_t vireo_firmware_up_ptn_table_parse(const cJSON *json_up_ptn_table, up_ptn_table *ptn_table);
up_ptn_table *vireo_firmware_up_ptn_table_build_by_json(const cJSON *json_root);
// From the image whose header starts at buf, buf_size bytes before the end of the file.
up_ptn_table *vireo_firmware_up_ptn_table_build_by_fimware(const uint8_t *buf, int32_t buf_size,
                                                           const firmware_header *header);
void vireo_firmware_up_ptn_table_dump(const up_ptn_table *table);
void vireo_firmware_up_ptn_table_destroy(up_ptn_table *table);

// Where the content of entry lies in a firmware file of file_size bytes whose image
// payload starts at payload_offset: the content's first byte, or none (traced) when any
// byte of it would lie outside the file. Every reader of partition contents uses it.
const uint8_t *vireo_firmware_ptn_content(const uint8_t *file, uint32_t file_size,
                                          uint32_t payload_offset, const up_ptn_info *entry);

// An image's payload inside the firmware file held in memory. Contents are located from
// it and checked against the whole file, so a negative base may reach an earlier image
// but never before the file.
struct vireo_seals;
struct vireo_payload {
    const uint8_t *file;
    uint32_t file_size;
    uint32_t offset; // of the payload's first byte in the file
    uint32_t len;    // total_len - header_len - 65536
    // When set, contents are read through private copies proven against these seals.
    const vireo_seals *seals = nullptr;
    const uint8_t *start() const
    {
        return file + offset;
    }
};

// A partition content as read: in the file itself, or in a proven private copy.
struct vireo_content {
    const uint8_t *data = nullptr;
    std::vector<uint8_t> copy;
};

// The payload of the image at image_offset whose header is header; 0, or -1 (traced)
// when it does not lie inside the file.
int32_t vireo_firmware_payload(const uint8_t *file, uint32_t file_size, uint32_t image_offset,
                               const firmware_header *header, vireo_payload *payload);
// The content of entry in that payload, or none (traced) when it lies outside the file.
const uint8_t *vireo_payload_content(const vireo_payload &payload, const up_ptn_info *entry);
// Reads the content of entry: 0, or -1 (traced) when it lies outside the file or, with
// seals, differs from what was verified.
int32_t vireo_payload_read(const vireo_payload &payload, const up_ptn_info *entry,
                           vireo_content *content);
