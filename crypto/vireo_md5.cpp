// SPDX-License-Identifier: Apache-2.0
#include "crypto/vireo_md5.h"

#include <cstdio>
#include <cstring>

namespace
{

inline uint32_t rotl(uint32_t x, int s)
{
    return (x << s) | (x >> (32 - s));
}

inline uint32_t load_le32(const uint8_t *p)
{
    return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
           (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

// The four auxiliary functions, in forms that need fewest operations.
#define MD5_F(x, y, z) ((z) ^ ((x) & ((y) ^ (z))))
#define MD5_G(x, y, z) ((y) ^ ((z) & ((x) ^ (y))))
#define MD5_H(x, y, z) ((x) ^ (y) ^ (z))
#define MD5_I(x, y, z) ((y) ^ ((x) | ~(z)))
#define MD5_STEP(f, a, b, c, d, x, t, s)                                                           \
    a += f(b, c, d) + (x) + (t);                                                                   \
    a = rotl(a, s) + (b)

// Processes n consecutive 64-byte blocks.
void transform(uint32_t state[4], const uint8_t *data, size_t n)
{
    uint32_t a = state[0], b = state[1], c = state[2], d = state[3];
    for (; n > 0; n--, data += 64) {
        uint32_t x[16];
        for (int i = 0; i < 16; i++)
            x[i] = load_le32(data + 4 * i);
        const uint32_t aa = a, bb = b, cc = c, dd = d;

        MD5_STEP(MD5_F, a, b, c, d, x[0], 0xd76aa478, 7);
        MD5_STEP(MD5_F, d, a, b, c, x[1], 0xe8c7b756, 12);
        MD5_STEP(MD5_F, c, d, a, b, x[2], 0x242070db, 17);
        MD5_STEP(MD5_F, b, c, d, a, x[3], 0xc1bdceee, 22);
        MD5_STEP(MD5_F, a, b, c, d, x[4], 0xf57c0faf, 7);
        MD5_STEP(MD5_F, d, a, b, c, x[5], 0x4787c62a, 12);
        MD5_STEP(MD5_F, c, d, a, b, x[6], 0xa8304613, 17);
        MD5_STEP(MD5_F, b, c, d, a, x[7], 0xfd469501, 22);
        MD5_STEP(MD5_F, a, b, c, d, x[8], 0x698098d8, 7);
        MD5_STEP(MD5_F, d, a, b, c, x[9], 0x8b44f7af, 12);
        MD5_STEP(MD5_F, c, d, a, b, x[10], 0xffff5bb1, 17);
        MD5_STEP(MD5_F, b, c, d, a, x[11], 0x895cd7be, 22);
        MD5_STEP(MD5_F, a, b, c, d, x[12], 0x6b901122, 7);
        MD5_STEP(MD5_F, d, a, b, c, x[13], 0xfd987193, 12);
        MD5_STEP(MD5_F, c, d, a, b, x[14], 0xa679438e, 17);
        MD5_STEP(MD5_F, b, c, d, a, x[15], 0x49b40821, 22);

        MD5_STEP(MD5_G, a, b, c, d, x[1], 0xf61e2562, 5);
        MD5_STEP(MD5_G, d, a, b, c, x[6], 0xc040b340, 9);
        MD5_STEP(MD5_G, c, d, a, b, x[11], 0x265e5a51, 14);
        MD5_STEP(MD5_G, b, c, d, a, x[0], 0xe9b6c7aa, 20);
        MD5_STEP(MD5_G, a, b, c, d, x[5], 0xd62f105d, 5);
        MD5_STEP(MD5_G, d, a, b, c, x[10], 0x02441453, 9);
        MD5_STEP(MD5_G, c, d, a, b, x[15], 0xd8a1e681, 14);
        MD5_STEP(MD5_G, b, c, d, a, x[4], 0xe7d3fbc8, 20);
        MD5_STEP(MD5_G, a, b, c, d, x[9], 0x21e1cde6, 5);
        MD5_STEP(MD5_G, d, a, b, c, x[14], 0xc33707d6, 9);
        MD5_STEP(MD5_G, c, d, a, b, x[3], 0xf4d50d87, 14);
        MD5_STEP(MD5_G, b, c, d, a, x[8], 0x455a14ed, 20);
        MD5_STEP(MD5_G, a, b, c, d, x[13], 0xa9e3e905, 5);
        MD5_STEP(MD5_G, d, a, b, c, x[2], 0xfcefa3f8, 9);
        MD5_STEP(MD5_G, c, d, a, b, x[7], 0x676f02d9, 14);
        MD5_STEP(MD5_G, b, c, d, a, x[12], 0x8d2a4c8a, 20);

        MD5_STEP(MD5_H, a, b, c, d, x[5], 0xfffa3942, 4);
        MD5_STEP(MD5_H, d, a, b, c, x[8], 0x8771f681, 11);
        MD5_STEP(MD5_H, c, d, a, b, x[11], 0x6d9d6122, 16);
        MD5_STEP(MD5_H, b, c, d, a, x[14], 0xfde5380c, 23);
        MD5_STEP(MD5_H, a, b, c, d, x[1], 0xa4beea44, 4);
        MD5_STEP(MD5_H, d, a, b, c, x[4], 0x4bdecfa9, 11);
        MD5_STEP(MD5_H, c, d, a, b, x[7], 0xf6bb4b60, 16);
        MD5_STEP(MD5_H, b, c, d, a, x[10], 0xbebfbc70, 23);
        MD5_STEP(MD5_H, a, b, c, d, x[13], 0x289b7ec6, 4);
        MD5_STEP(MD5_H, d, a, b, c, x[0], 0xeaa127fa, 11);
        MD5_STEP(MD5_H, c, d, a, b, x[3], 0xd4ef3085, 16);
        MD5_STEP(MD5_H, b, c, d, a, x[6], 0x04881d05, 23);
        MD5_STEP(MD5_H, a, b, c, d, x[9], 0xd9d4d039, 4);
        MD5_STEP(MD5_H, d, a, b, c, x[12], 0xe6db99e5, 11);
        MD5_STEP(MD5_H, c, d, a, b, x[15], 0x1fa27cf8, 16);
        MD5_STEP(MD5_H, b, c, d, a, x[2], 0xc4ac5665, 23);

        MD5_STEP(MD5_I, a, b, c, d, x[0], 0xf4292244, 6);
        MD5_STEP(MD5_I, d, a, b, c, x[7], 0x432aff97, 10);
        MD5_STEP(MD5_I, c, d, a, b, x[14], 0xab9423a7, 15);
        MD5_STEP(MD5_I, b, c, d, a, x[5], 0xfc93a039, 21);
        MD5_STEP(MD5_I, a, b, c, d, x[12], 0x655b59c3, 6);
        MD5_STEP(MD5_I, d, a, b, c, x[3], 0x8f0ccc92, 10);
        MD5_STEP(MD5_I, c, d, a, b, x[10], 0xffeff47d, 15);
        MD5_STEP(MD5_I, b, c, d, a, x[1], 0x85845dd1, 21);
        MD5_STEP(MD5_I, a, b, c, d, x[8], 0x6fa87e4f, 6);
        MD5_STEP(MD5_I, d, a, b, c, x[15], 0xfe2ce6e0, 10);
        MD5_STEP(MD5_I, c, d, a, b, x[6], 0xa3014314, 15);
        MD5_STEP(MD5_I, b, c, d, a, x[13], 0x4e0811a1, 21);
        MD5_STEP(MD5_I, a, b, c, d, x[4], 0xf7537e82, 6);
        MD5_STEP(MD5_I, d, a, b, c, x[11], 0xbd3af235, 10);
        MD5_STEP(MD5_I, c, d, a, b, x[2], 0x2ad7d2bb, 15);
        MD5_STEP(MD5_I, b, c, d, a, x[9], 0xeb86d391, 21);

        a += aa;
        b += bb;
        c += cc;
        d += dd;
    }
    state[0] = a;
    state[1] = b;
    state[2] = c;
    state[3] = d;
}

} // namespace

void md5_init(md5_ctx *ctx)
{
    memset(ctx, 0, sizeof(*ctx));
    ctx->state[0] = 0x67452301;
    ctx->state[1] = 0xEFCDAB89;
    ctx->state[2] = 0x98BADCFE;
    ctx->state[3] = 0x10325476;
}

void md5_update(md5_ctx *ctx, const uint8_t *data, uint32_t len)
{
    if (len == 0)
        return;
    uint32_t used = (ctx->count[0] >> 3) & 63;
    const uint32_t bits_lo = len << 3;
    ctx->count[0] += bits_lo;
    if (ctx->count[0] < bits_lo)
        ctx->count[1]++;
    ctx->count[1] += len >> 29;

    if (used) {
        const uint32_t take = 64 - used < len ? 64 - used : len;
        memcpy(ctx->buffer + used, data, take);
        used += take;
        data += take;
        len -= take;
        if (used < 64)
            return;
        transform(ctx->state, ctx->buffer, 1);
    }
    if (len >= 64) {
        transform(ctx->state, data, len / 64);
        data += len & ~63u;
        len &= 63;
    }
    if (len)
        memcpy(ctx->buffer, data, len);
}

void md5_final(uint8_t out[16], md5_ctx *ctx)
{
    uint8_t bits[8];
    for (int i = 0; i < 4; i++) {
        bits[i] = static_cast<uint8_t>(ctx->count[0] >> (8 * i));
        bits[4 + i] = static_cast<uint8_t>(ctx->count[1] >> (8 * i));
    }
    static const uint8_t padding[64] = {0x80};
    const uint32_t used = (ctx->count[0] >> 3) & 63;
    md5_update(ctx, padding, used < 56 ? 56 - used : 120 - used);
    md5_update(ctx, bits, 8);
    for (int i = 0; i < 4; i++)
        for (int j = 0; j < 4; j++)
            ctx->digest[4 * i + j] = static_cast<uint8_t>(ctx->state[i] >> (8 * j));
    memcpy(out, ctx->digest, 16);
}

void vireo_md5(const uint8_t *data, uint32_t len, uint8_t out[16])
{
    md5_ctx ctx;
    md5_init(&ctx);
    md5_update(&ctx, data, len);
    md5_final(out, &ctx);
}

char *vireo_md5_to_hex(char *text, const uint8_t digest[16])
{
    static const char hex[] = "0123456789abcdef";
    for (int i = 0; i < 16; i++) {
        text[2 * i] = hex[digest[i] >> 4];
        text[2 * i + 1] = hex[digest[i] & 15];
    }
    text[32] = '\0';
    return text;
}
