// SPDX-License-Identifier: Apache-2.0
#include "crypto/vireo_sha1.h"

#include <cstring>

namespace
{

inline uint32_t rotl(uint32_t x, int s)
{
    return (x << s) | (x >> (32 - s));
}

void transform(uint32_t state[5], const uint8_t *block)
{
    uint32_t w[80];
    for (int i = 0; i < 16; i++)
        w[i] = (static_cast<uint32_t>(block[4 * i]) << 24) |
               (static_cast<uint32_t>(block[4 * i + 1]) << 16) |
               (static_cast<uint32_t>(block[4 * i + 2]) << 8) | block[4 * i + 3];
    for (int i = 16; i < 80; i++)
        w[i] = rotl(w[i - 3] ^ w[i - 8] ^ w[i - 14] ^ w[i - 16], 1);
    uint32_t a = state[0], b = state[1], c = state[2], d = state[3], e = state[4];
    for (int i = 0; i < 80; i++) {
        uint32_t f, k;
        if (i < 20) {
            f = (b & c) | (~b & d);
            k = 0x5A827999;
        } else if (i < 40) {
            f = b ^ c ^ d;
            k = 0x6ED9EBA1;
        } else if (i < 60) {
            f = (b & c) | (b & d) | (c & d);
            k = 0x8F1BBCDC;
        } else {
            f = b ^ c ^ d;
            k = 0xCA62C1D6;
        }
        const uint32_t t = rotl(a, 5) + f + e + k + w[i];
        e = d;
        d = c;
        c = rotl(b, 30);
        b = a;
        a = t;
    }
    state[0] += a;
    state[1] += b;
    state[2] += c;
    state[3] += d;
    state[4] += e;
}

} // namespace

void sha1_init(sha1_ctx *ctx)
{
    memset(ctx, 0, sizeof(*ctx));
    ctx->state[0] = 0x67452301;
    ctx->state[1] = 0xEFCDAB89;
    ctx->state[2] = 0x98BADCFE;
    ctx->state[3] = 0x10325476;
    ctx->state[4] = 0xC3D2E1F0;
}

void sha1_update(sha1_ctx *ctx, const uint8_t *data, uint32_t len)
{
    uint32_t i = 0;
    // Fill a partly used block byte by byte, then take whole blocks straight from data.
    for (; i < len && ctx->length % 64 != 0; i++) {
        ctx->buffer[ctx->length % 64] = data[i];
        if (++ctx->length % 64 == 0)
            transform(ctx->state, ctx->buffer);
    }
    for (; len - i >= 64; i += 64) {
        transform(ctx->state, data + i);
        ctx->length += 64;
    }
    for (; i < len; i++)
        ctx->buffer[ctx->length++ % 64] = data[i];
}

void sha1_final(sha1_ctx *ctx, uint8_t out[20])
{
    const uint64_t bits = ctx->length * 8;
    static const uint8_t pad80 = 0x80;
    static const uint8_t zero = 0;
    sha1_update(ctx, &pad80, 1);
    while (ctx->length % 64 != 56)
        sha1_update(ctx, &zero, 1);
    uint8_t len_be[8];
    for (int i = 0; i < 8; i++)
        len_be[i] = static_cast<uint8_t>(bits >> (56 - 8 * i));
    sha1_update(ctx, len_be, 8);
    for (int i = 0; i < 5; i++)
        for (int j = 0; j < 4; j++)
            out[4 * i + j] = static_cast<uint8_t>(ctx->state[i] >> (24 - 8 * j));
}

void sha1(const uint8_t *data, uint32_t len, uint8_t out[20])
{
    sha1_ctx ctx;
    sha1_init(&ctx);
    sha1_update(&ctx, data, len);
    sha1_final(&ctx, out);
}
