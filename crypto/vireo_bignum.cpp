// SPDX-License-Identifier: Apache-2.0
#include "crypto/vireo_bignum.h"

#include <cstdlib>
#include <cstring>
#include <utility>

namespace
{

uint16_t *alloc_words(size_t n)
{
    uint16_t *w = static_cast<uint16_t *>(calloc(n ? n : 1, sizeof(uint16_t)));
    if (!w)
        abort();
    return w;
}

// Clears memory in a way the optimiser may not drop.
void wipe(uint16_t *w, size_t n)
{
    volatile uint16_t *p = w;
    for (size_t i = 0; i < n; i++)
        p[i] = 0;
}

void wipe_free(uint16_t *w, size_t n)
{
    if (!w)
        return;
    wipe(w, n);
    free(w);
}

void normalise(bignum *num)
{
    while (num[0] >= 2 && num[num[0]] == 0)
        num[0]--;
}

} // namespace

bignum *bignum_new(uint16_t capacity)
{
    bignum *num = alloc_words(static_cast<size_t>(capacity) + 1);
    num[0] = capacity;
    return num;
}

bignum *bignum_from_u32(uint32_t value)
{
    bignum *num = bignum_new(3);
    num[1] = static_cast<uint16_t>(value);
    num[2] = static_cast<uint16_t>(value >> 16);
    num[3] = 0;
    num[0] = num[2] ? 2 : 1;
    return num;
}

bignum *bignum_from_bytes(const uint8_t *bytes, uint32_t n)
{
    const uint32_t digits = (n + 1) / 2;
    // Zero still takes one digit.
    bignum *num = bignum_new(static_cast<uint16_t>(digits ? digits : 1));
    for (uint32_t i = 0; i < n; i++) {
        const uint32_t pos = n - 1 - i; // byte position from the least significant
        num[1 + pos / 2] |= static_cast<uint16_t>(bytes[i] << (8 * (pos % 2)));
    }
    normalise(num);
    return num;
}

void bignum_free(bignum *num)
{
    if (!num)
        return;
    // Digit slots above the length are zero already.
    wipe_free(num, static_cast<size_t>(num[0]) + 1);
}

uint32_t bignum_bit_length(const bignum *num)
{
    for (uint32_t d = num[0]; d >= 1; d--) {
        if (num[d]) {
            uint32_t bits = 0;
            for (uint16_t top = num[d]; top; top >>= 1)
                bits++;
            return (d - 1) * 16 + bits;
        }
    }
    return 0;
}

uint8_t bignum_get_byte(const bignum *num, int32_t i)
{
    if (i < 0 || i >= 2 * static_cast<int32_t>(num[0]))
        return 0;
    return static_cast<uint8_t>(num[1 + i / 2] >> (8 * (i % 2)));
}

void bignum_mul(const uint16_t *x, const uint16_t *y, uint32_t len, uint16_t *product)
{
    // Schoolbook product, summed column by column in a wide accumulator so that each
    // product digit is stored once. Column c collects x[i] * y[j] with i + j + 1 == c.
    uint64_t acc = 0;
    for (uint32_t c = 2 * len - 1; c >= 1; c--) {
        const uint32_t lo = c > len ? c - len : 0; // smallest i with j = c - 1 - i < len
        const uint32_t hi = c - 1 < len - 1 ? c - 1 : len - 1;
        for (uint32_t i = lo; i <= hi; i++)
            acc += static_cast<uint32_t>(x[i]) * y[c - 1 - i];
        product[c] = static_cast<uint16_t>(acc);
        acc >>= 16;
    }
    product[0] = static_cast<uint16_t>(acc);
}

void bignum_rem(uint16_t *u, uint32_t m, const uint16_t *v, uint32_t len)
{
    const uint32_t v0 = v[0];
    const uint32_t v1 = len >= 2 ? v[1] : 0;
    // Window j holds u[j-1..j+len-1], u[-1] being an implicit zero digit.
    for (uint32_t j = 0; j + len <= m; j++) {
        const uint32_t top = j ? u[j - 1] : 0;
        const uint32_t num = (top << 16) | u[j];
        uint32_t qhat = num / v0;
        uint32_t rhat = num % v0;
        if (qhat > 0xFFFF) {
            qhat = 0xFFFF;
            rhat = num - qhat * v0;
        }
        if (len >= 2) {
            const uint32_t u2 = u[j + 1];
            while (rhat <= 0xFFFF && static_cast<uint64_t>(qhat) * v1 > ((rhat << 16) | u2)) {
                qhat--;
                rhat += v0;
            }
        }
        if (qhat == 0)
            continue;
        // u[j-1..j+len-1] -= qhat * v; acc carries the signed borrow (arithmetic shift).
        int64_t acc = 0;
        for (uint32_t k = len; k-- > 0;) {
            acc += static_cast<int64_t>(u[j + k]) - static_cast<int64_t>(qhat) * v[k];
            u[j + k] = static_cast<uint16_t>(acc);
            acc >>= 16;
        }
        int64_t t = static_cast<int64_t>(top) + acc;
        if (t < 0) {
            // qhat was one too large: add v back once.
            uint32_t c = 0;
            for (uint32_t k = len; k-- > 0;) {
                const uint32_t s = static_cast<uint32_t>(u[j + k]) + v[k] + c;
                u[j + k] = static_cast<uint16_t>(s);
                c = s >> 16;
            }
            t += c;
        }
        if (j)
            u[j - 1] = static_cast<uint16_t>(t); // zero by now
    }
}

namespace
{

// Shifts a most-significant-first digit array left by s bits (0 < s < 16).
void shift_left(uint16_t *a, uint32_t n, uint32_t s)
{
    for (uint32_t i = 0; i < n; i++) {
        const uint32_t next = i + 1 < n ? a[i + 1] : 0;
        a[i] = static_cast<uint16_t>((static_cast<uint32_t>(a[i]) << s) | (next >> (16 - s)));
    }
}

void shift_right(uint16_t *a, uint32_t n, uint32_t s)
{
    for (uint32_t i = n; i-- > 0;) {
        const uint32_t prev = i > 0 ? a[i - 1] : 0;
        a[i] = static_cast<uint16_t>((a[i] >> s) | (prev << (16 - s)));
    }
}

} // namespace

bignum *bignum_mod_exp(const bignum *base, const bignum *exponent, const bignum *modulus)
{
    const uint32_t len = modulus[0];
    if (len == 0 || modulus[len] == 0 || base[0] > len)
        return nullptr;

    // n' = n << s, top bit set; working modulo n' keeps values congruent modulo n.
    uint16_t *n = alloc_words(len);
    for (uint32_t i = 0; i < len; i++)
        n[i] = modulus[len - i];
    uint32_t s = 0;
    while (!(n[0] & (0x8000 >> s)))
        s++;
    if (s)
        shift_left(n, len, s);

    uint16_t *b = alloc_words(len);
    for (uint32_t i = 0; i < base[0]; i++)
        b[len - 1 - i] = base[1 + i];

    uint16_t *a = alloc_words(2 * len);
    uint16_t *t = alloc_words(2 * len);
    a[2 * len - 1] = 1;

    int32_t digit = exponent[0];
    while (digit >= 1 && exponent[digit] == 0)
        digit--;
    int32_t bit = 15;
    if (digit >= 1)
        while (!(exponent[digit] & (1u << bit)))
            bit--;
    for (; digit >= 1; digit--, bit = 15) {
        for (; bit >= 0; bit--) {
            bignum_mul(a + len, a + len, len, t);
            bignum_rem(t, 2 * len, n, len);
            if (exponent[digit] & (1u << bit)) {
                bignum_mul(t + len, b, len, a);
                bignum_rem(a, 2 * len, n, len);
            } else {
                std::swap(a, t);
            }
        }
    }

    if (s) {
        // (a << s) mod (n << s) = (a mod n) << s
        shift_left(a, 2 * len, s);
        bignum_rem(a, 2 * len, n, len);
        shift_right(a + len, len, s);
    }

    bignum *result = bignum_new(static_cast<uint16_t>(len));
    for (uint32_t i = 0; i < len; i++)
        result[1 + i] = a[2 * len - 1 - i];
    normalise(result);

    wipe_free(n, len);
    wipe_free(b, len);
    wipe_free(a, 2 * len);
    wipe_free(t, 2 * len);
    return result;
}
