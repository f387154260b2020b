// SPDX-License-Identifier: Apache-2.0
#include "crypto/vireo_siphash.h"

namespace
{

inline uint64_t rotl(uint64_t x, int b)
{
    return (x << b) | (x >> (64 - b));
}

inline uint64_t load_le64(const uint8_t *p)
{
    uint64_t v = 0;
    for (int i = 7; i >= 0; i--)
        v = (v << 8) | p[i];
    return v;
}

struct state {
    uint64_t v0, v1, v2, v3;
    void round()
    {
        v0 += v1;
        v1 = rotl(v1, 13);
        v1 ^= v0;
        v0 = rotl(v0, 32);
        v2 += v3;
        v3 = rotl(v3, 16);
        v3 ^= v2;
        v0 += v3;
        v3 = rotl(v3, 21);
        v3 ^= v0;
        v2 += v1;
        v1 = rotl(v1, 17);
        v1 ^= v2;
        v2 = rotl(v2, 32);
    }
    void absorb(uint64_t m)
    {
        v3 ^= m;
        round();
        round();
        v0 ^= m;
    }
};

} // namespace

uint64_t vireo_siphash24(const uint64_t key[2], const uint8_t *data, size_t len)
{
    state s{key[0] ^ 0x736f6d6570736575ull, key[1] ^ 0x646f72616e646f6dull,
            key[0] ^ 0x6c7967656e657261ull, key[1] ^ 0x7465646279746573ull};
    const size_t whole = len & ~static_cast<size_t>(7);
    for (size_t i = 0; i < whole; i += 8)
        s.absorb(load_le64(data + i));
    uint64_t last = static_cast<uint64_t>(len & 0xff) << 56;
    for (size_t i = 0; i < (len & 7); i++)
        last |= static_cast<uint64_t>(data[whole + i]) << (8 * i);
    s.absorb(last);
    s.v2 ^= 0xff;
    for (int i = 0; i < 4; i++)
        s.round();
    return s.v0 ^ s.v1 ^ s.v2 ^ s.v3;
}
