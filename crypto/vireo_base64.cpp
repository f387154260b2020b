// SPDX-License-Identifier: Apache-2.0
#include "crypto/vireo_base64.h"

namespace
{

// The 6-bit value of a character; characters outside the alphabet give 0, as the
// decoder is only ever given the built-in key text.
uint32_t sextet(unsigned char c)
{
    if (c >= 'A' && c <= 'Z')
        return c - 'A';
    if (c >= 'a' && c <= 'z')
        return c - 'a' + 26;
    if (c >= '0' && c <= '9')
        return c - '0' + 52;
    if (c == '+')
        return 62;
    if (c == '/')
        return 63;
    return 0;
}

} // namespace

int32_t base64_decode(const char *text, uint32_t text_len, uint8_t *out)
{
    if (!text || !out || text[0] == '\0')
        return 0;
    int32_t n = 0;
    for (uint32_t g = 0; g < text_len / 4; g++) {
        const unsigned char *c = reinterpret_cast<const unsigned char *>(text + 4 * g);
        for (int i = 0; i < 4; i++)
            if (c[i] > 127)
                return 0;
        const uint32_t bits =
            (sextet(c[0]) << 18) | (sextet(c[1]) << 12) | (sextet(c[2]) << 6) | sextet(c[3]);
        // Padding ends its own group; the next group is decoded as usual.
        out[n++] = static_cast<uint8_t>(bits >> 16);
        if (c[2] == '=')
            continue;
        out[n++] = static_cast<uint8_t>(bits >> 8);
        if (c[3] == '=')
            continue;
        out[n++] = static_cast<uint8_t>(bits);
    }
    out[n] = '\0';
    return n;
}
