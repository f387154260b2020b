// SPDX-License-Identifier: Apache-2.0
// The 16-byte big-endian header in front of every record partition.
#pragma once

#include <cstdint>

#define PTN_HEADER_MAGIC_0 0xAA55D98Fu
#define PTN_HEADER_MAGIC_1 0x04E955AAu
#define PTN_HEADER_SIZE 16

// In memory the words are in host byte order.
struct ptn_header {
    uint32_t magic_0;
    uint32_t magic_1;
    uint32_t length;
    uint32_t checksum;
};

// 1 if buf starts with a valid header whose content fits in size bytes, else 0.
int32_t vireo_ptn_header_verify(const uint8_t *buf, int32_t size);
// The bytes a valid header at buf accounts for (itself and its content) when they fit in
// size, else 0; quiet, for a reader that need not read past the content.
uint32_t vireo_ptn_header_extent(const uint8_t *buf, int32_t size);
// 1 with the content's offset (16) and length stored, else 0.
int32_t vireo_ptn_header_get_content_pos(const uint8_t *buf, int32_t size, int32_t *offset,
                                         int32_t *length);
// Writes a header for content_len bytes into the first 16 bytes of buf; 16 or -1.
int32_t vireo_ptn_header_add(uint8_t *buf, int32_t room, const uint8_t *content,
                             int32_t content_len);
void vireo_ptn_header_dump(const ptn_header *header);
