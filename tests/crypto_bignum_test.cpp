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

void expect_mod_exp(const bytes &b, const bytes &e, const bytes &m, const std::string &what)
{
    num_ptr nb = num(b), ne = num(e), nm = num(m);
    num_ptr r(bignum_mod_exp(nb.get(), ne.get(), nm.get()), bignum_free);
    ASSERT_TRUE(r) << what;
    EXPECT_EQ(ref_mod_exp(b, e, m), value_of(r.get())) << what;
    EXPECT_LE(r.get()[0], nm.get()[0]) << what;
}

} // namespace

TEST(Bignum, ModExpRefusesALongerBaseAndAZeroModulus)
{
    // Construction and byte access are what every signature test goes through.
    num_ptr three(bignum_from_u32(3), bignum_free), zero(bignum_from_u32(0), bignum_free);
    EXPECT_EQ(nullptr,
              bignum_mod_exp(num(bytes(66, 0xFF)).get(), three.get(), num(random_bytes(64)).get()));
    EXPECT_EQ(nullptr, bignum_mod_exp(three.get(), three.get(), zero.get()));
}

TEST(Bignum, ModExpMatchesOpenSsl)
{
    std::mt19937 rng(2048);
    for (int round = 0; round < 120; round++) {
        bytes m = random_bytes(128);
        // Half the 1024-bit moduli have the top bit set (no normalising shift), half have
        // 1..15 leading zero bits in their top 16-bit digit.
        const int s = round % 2 ? 0 : 1 + static_cast<int>(rng() % 15);
        const uint16_t top = static_cast<uint16_t>((((m[0] << 8) | m[1]) | 0x8000) >> s);
        m[0] = static_cast<uint8_t>(top >> 8);
        m[1] = static_cast<uint8_t>(top);
        m[127] |= 1;
        // Bases: below the modulus, equal to it, and the largest of its digit count.
        bytes b = random_bytes(128);
        if (round % 6 == 0) {
            b = m;
        } else if (round % 6 == 3) {
            b.assign(128, 0xFF);
            b[0] = static_cast<uint8_t>((0xFFFF >> s) >> 8);
            b[1] = static_cast<uint8_t>(0xFFFF >> s);
        } else {
            b[0] &= static_cast<uint8_t>(0xFF >> s);
        }
        const bytes e = round % 4 == 0 ? random_bytes(128) : random_bytes(1 + rng() % 8);
        expect_mod_exp(b, e, m, "round " + std::to_string(round) + " s=" + std::to_string(s));
    }
    // Small exponents (0, 1, 2, 3, 65537) at many sizes.
    for (const bytes &e : {bytes{0}, bytes{1}, bytes{2}, bytes{3}, bytes{1, 0, 1}}) {
        for (size_t len : {1, 2, 3, 5, 64, 127, 128, 256}) {
            bytes m = random_bytes(len), b = random_bytes(len);
            m[0] |= 0x01;
            m[len - 1] |= 1;
            if (len == 1 && m[0] < 2)
                m[0] = 3;
            b[0] = static_cast<uint8_t>(b[0] % (m[0] + 1));
            expect_mod_exp(b, e, m, "e=" + to_hex(e) + " len=" + std::to_string(len));
        }
    }
}

TEST(Bignum, RemainderByAlgorithmDMatchesOpenSsl)
{
    std::mt19937 rng(431);
    // Digits drawn from extreme values make the trial quotient too large more often,
    // which exercises the add-back step.
    const uint16_t extremes[] = {0, 1, 0x7FFF, 0x8000, 0xFFFE, 0xFFFF};
    const auto to_bytes = [](const std::vector<uint16_t> &d) {
        bytes b;
        for (uint16_t x : d)
            b.insert(b.end(), {static_cast<uint8_t>(x >> 8), static_cast<uint8_t>(x)});
        return b;
    };
    for (int round = 0; round < 4000; round++) {
        const uint32_t len = 1 + rng() % (round % 2 ? 4 : 20);
        const uint32_t m = len + rng() % (round % 2 ? 4 : 20);
        std::vector<uint16_t> v(len), u(m);
        for (auto *digits : {&v, &u})
            for (auto &d : *digits)
                d = round % 2 ? extremes[rng() % 6] : static_cast<uint16_t>(rng());
        v[0] |= 0x8000;
        if (round % 7 == 0)
            for (uint32_t i = 0; i < len && i < m; i++)
                u[i] = v[i]; // leading digits equal to the divisor's: qhat corrections
        const bytes want = ref_mod_exp(to_bytes(u), {1}, to_bytes(v));
        std::vector<uint16_t> r = u;
        bignum_rem(r.data(), m, v.data(), len);
        bytes got = to_bytes(r);
        EXPECT_EQ(bytes(2 * (m - len), 0), bytes(got.begin(), got.begin() + 2 * (m - len)))
            << "digits above the remainder are cleared";
        got.erase(got.begin(), std::find_if(got.begin(), got.end(), [](uint8_t c) { return c; }));
        EXPECT_EQ(want, got) << "round " << round;
    }
}
