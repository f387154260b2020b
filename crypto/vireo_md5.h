// SPDX-License-Identifier: Apache-2.0
// MD5 (RFC 1321) and the text form of a digest.
#pragma once

#include <cstdint>

struct md5_ctx {
    uint32_t count[2]; // message length in bits, low word first
    uint32_t state[4];
    uint8_t buffer[64];
    uint8_t digest[16];
};

void md5_init(md5_ctx *ctx);
void md5_update(md5_ctx *ctx, const uint8_t *data, uint32_t len);
void md5_final(uint8_t out[16], md5_ctx *ctx);
// The digest of one buffer.
void vireo_md5(const uint8_t *data, uint32_t len, uint8_t out[16]);
// 32 lower-case hexadecimal digits and a NUL into text (33 bytes); returns text.
char *vireo_md5_to_hex(char *text, const uint8_t digest[16]);
