// SPDX-License-Identifier: Apache-2.0
// The firmware header at the start of every image of a firmware file, and the chain of
// images it links.
#pragma once

#include <cstdint>

#define FIRMWARE_HEADER_SIZE 4160
#define UP_PTN_TABLE_SIZE 65536
#define FIRMWARE_MIN_SIZE (FIRMWARE_HEADER_SIZE + UP_PTN_TABLE_SIZE)
#define FIRMWARE_HEADER_VERSION 1
#define FIRMWARE_HEADER_MAGIC_0 0xA5A5A5A5u
#define FIRMWARE_HEADER_MAGIC_1 0x8F72632Au
#define FIRMWARE_HEADER_MAGIC_2 0x040F8600u
#define FIRMWARE_HEADER_MAGIC_3 0x9206BB51u
#define FIRMWARE_HEADER_MAGIC_4 0xD2B7636Au
#define FIRMWARE_HEADER_MAGIC_5 0x5A5A5A5Au
// Byte offsets inside the header region.
#define FIRMWARE_SIGNED_FROM 20
#define FIRMWARE_MD5_OFFSET 48
#define FIRMWARE_SIGNATURE_OFFSET 304
#define FIRMWARE_SIGNATURE_SIZE 128

// A copy of the header region; the twelve leading words in host byte order.
struct firmware_header {
    uint32_t magic_0;
    uint32_t magic_1;
    uint32_t magic_2;
    uint32_t magic_3;
    uint32_t magic_4;
    uint32_t magic_5;
    uint32_t version;
    uint32_t nextpos; // offset of the next image's header from the start of the file; 0: last
    uint32_t header_len;
    uint32_t total_len; // bytes from this header to the end of the file
    uint32_t reserved_0;
    uint32_t reserved_1;
    uint8_t md5_digest[16];
    uint8_t zero_0[240];
    uint8_t signature[FIRMWARE_SIGNATURE_SIZE];
    uint8_t zero_1[3728];
};
static_assert(sizeof(firmware_header) == FIRMWARE_HEADER_SIZE, "header record size");

// The record of the 4160 header bytes at raw, the leading words in host order; no checks.
void vireo_firmware_header_decode(const uint8_t *raw, firmware_header *header);
// Mode 1 verifies the signature, any other mode md5_digest. 0 valid, -1 otherwise.
int32_t vireo_firmware_header_parse(const uint8_t *buf, int32_t buf_size, firmware_header *header,
                                    int32_t mode);
// A new header parsed in signature mode, or none. Release with free().
firmware_header *vireo_firmware_header_build(const uint8_t *buf, int32_t buf_size);

// The next image of the chain after the one at offset: 1 with *next set, 0 at the end of
// the chain, -1 (traced) when nextpos does not move forward or lies past the file.
int32_t vireo_firmware_chain_next(int32_t offset, const firmware_header *header, int32_t file_size,
                                  int32_t *next);
