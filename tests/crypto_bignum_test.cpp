// SPDX-License-Identifier: Apache-2.0
// Big numbers against OpenSSL's BN_mod_exp.
#include "crypto/vireo_bignum.h"

#include "openssl_ref.h"

#include <gtest/gtest.h>
#include <openssl/bn.h>
#include <random>

namespace
{

using num_ptr = std::unique_ptr<bignum, decltype(&bignum_free)>;
using bn_ptr = std::unique_ptr<BIGNUM, decltype(&BN_free)>;

num_ptr num(const bytes &be)
{
    return num_ptr(bignum_from_bytes(be.data(), static_cast<uint32_t>(be.size())), bignum_free);
}

// The value's bytes, big-endian, without leading zeros (empty for zero).
bytes value_of(const bignum *n)
{
    bytes out;
    for (int32_t i = 2 * n[0]; i-- > 0;)
        if (!out.empty() || bignum_get_byte(n, i) != 0)
            out.push_back(bignum_get_byte(n, i));
    return out;
}

bytes ref_mod_exp(const bytes &b, const bytes &e, const bytes &m)
{
    const auto bn = [](const bytes &v) {
        return bn_ptr(BN_bin2bn(v.data(), static_cast<int>(v.size()), nullptr), BN_free);
    };
    bn_ptr bb = bn(b), ee = bn(e), mm = bn(m), r(BN_new(), BN_free);
    std::unique_ptr<BN_CTX, decltype(&BN_CTX_free)> ctx(BN_CTX_new(), BN_CTX_free);
    BN_mod_exp(r.get(), bb.get(), ee.get(), mm.get(), ctx.get());
    bytes out(static_cast<size_t>(BN_num_bytes(r.get())));
    BN_bn2bin(r.get(), out.data());
    return out;
}

} // namespace

TEST(Bignum, ModExpMatchesOpenSslAndRefusesALongerBaseAndAZeroModulus)
{
    // Construction and byte access are what every signature test goes through.
    num_ptr three(bignum_from_u32(3), bignum_free), zero(bignum_from_u32(0), bignum_free);
    EXPECT_EQ(nullptr,
              bignum_mod_exp(num(bytes(66, 0xFF)).get(), three.get(), num(random_bytes(64)).get()));
    EXPECT_EQ(nullptr, bignum_mod_exp(three.get(), three.get(), zero.get()));

    std::mt19937 rng(2048);
    const size_t sizes[] = {128, 128, 128, 1, 3, 4, 5, 64, 127, 256};
    const bytes small[] = {{0}, {1}, {2}, {3}, {1, 0, 1}};
    for (int round = 0; round < 400; round++) {
        const size_t len = sizes[round % 10];
        const unsigned extreme = rng() % 2, base = rng() % 3, exponent = rng() % 4;
        bytes m = random_bytes(len);
        // Half the moduli of extreme bytes: trial quotients are then often one too large,
        // which takes the remainder's add-back step.
        for (uint8_t &c : m)
            c = extreme ? bytes{0x00, 0x01, 0x7F, 0x80, 0xFE, 0xFF}[c % 6] : c;
        // 0 to 7 leading zero bits in the top byte, so 0 to 15 in the top 16-bit digit.
        m[0] = static_cast<uint8_t>((m[0] | 0x80) >> rng() % 8);
        m[len - 1] |= 1;
        // Bases: equal to the modulus, the largest of its digit count, random.
        const bytes b = base == 0 ? m : base == 1 ? bytes(len + len % 2, 0xFF) : random_bytes(len);
        // Exponents: as long as the modulus, 1 to 8 random bytes, 0, 1, 2, 3 and 65537.
        const bytes e = exponent == 0   ? random_bytes(len)
                        : exponent == 1 ? random_bytes(1 + rng() % 8)
                                        : small[rng() % 5];
        num_ptr nb = num(b), ne = num(e), nm = num(m);
        num_ptr r(bignum_mod_exp(nb.get(), ne.get(), nm.get()), bignum_free);
        ASSERT_TRUE(r) << round;
        EXPECT_EQ(ref_mod_exp(b, e, m), value_of(r.get())) << testing::PrintToString(m);
    }
}
