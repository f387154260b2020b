// SPDX-License-Identifier: Apache-2.0
// SHA-1 (FIPS 180-4), used to hash the 16-byte digest that a signature covers.
#pragma once

#include <cstdint>

struct sha1_ctx {
    uint32_t state[5];
    uint64_t length; // bytes fed so far
    uint8_t buffer[64];
};

void sha1_init(sha1_ctx *ctx);
void sha1_update(sha1_ctx *ctx, const uint8_t *data, uint32_t len);
void sha1_final(sha1_ctx *ctx, uint8_t out[20]);
void sha1(const uint8_t *data, uint32_t len, uint8_t out[20]);
