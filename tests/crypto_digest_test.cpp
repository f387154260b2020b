// MD5 and SHA-1 against their standards' vectors and against OpenSSL.
#include "crypto/vireo_md5.h"
#include "crypto/vireo_sha1.h"

#include "openssl_ref.h"

#include <cstring>
#include <gtest/gtest.h>
#include <random>

namespace
{

std::string md5_hex(const std::string &s)
{
    uint8_t d[16];
    vireo_md5(reinterpret_cast<const uint8_t *>(s.data()), static_cast<uint32_t>(s.size()), d);
    char text[33];
    return vireo_md5_to_hex(text, d);
}

// Feeds data to a streaming digest in pieces of the given size.
template <typename Ctx, size_t N>
bytes in_pieces(const bytes &data, size_t piece, void (*init)(Ctx *),
                void (*update)(Ctx *, const uint8_t *, uint32_t), void (*final)(Ctx *, uint8_t *))
{
    Ctx ctx;
    init(&ctx);
    for (size_t off = 0; off < data.size(); off += piece)
        update(&ctx, data.data() + off, static_cast<uint32_t>(std::min(piece, data.size() - off)));
    bytes out(N);
    final(&ctx, out.data());
    return out;
}

void md5_final_to(md5_ctx *ctx, uint8_t *out)
{
    md5_final(out, ctx);
}

bytes md5_pieces(const bytes &data, size_t piece)
{
    return in_pieces<md5_ctx, 16>(data, piece, md5_init, md5_update, md5_final_to);
}

bytes sha1_pieces(const bytes &data, size_t piece)
{
    return in_pieces<sha1_ctx, 20>(data, piece, sha1_init, sha1_update, sha1_final);
}

std::string hex(const bytes &b)
{
    std::string s;
    char two[3];
    for (uint8_t c : b) {
        snprintf(two, sizeof(two), "%02x", c);
        s += two;
    }
    return s;
}

} // namespace

TEST(Md5, Rfc1321TestSuite)
{
    EXPECT_EQ("d41d8cd98f00b204e9800998ecf8427e", md5_hex(""));
    EXPECT_EQ("0cc175b9c0f1b6a831c399e269772661", md5_hex("a"));
    EXPECT_EQ("900150983cd24fb0d6963f7d28e17f72", md5_hex("abc"));
    EXPECT_EQ("f96b697d7cb7938d525a2f31aaf161d0", md5_hex("message digest"));
    EXPECT_EQ("c3fcd3d76192e4007dfb496cca67e13b", md5_hex("abcdefghijklmnopqrstuvwxyz"));
    EXPECT_EQ("d174ab98d277d9f5a5611c2c9f419d9f",
              md5_hex("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789"));
    EXPECT_EQ("57edf4a22be3c955ac49da2e2107b67a",
              md5_hex("1234567890123456789012345678901234567890123456789012345678901234567890123456"
                      "7890"));
}

TEST(Md5, TextFormKeepsLeadingZeros)
{
    const uint8_t d[16] = {0x00, 0x01, 0x0a, 0xff, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x0f};
    char text[33];
    memset(text, 'X', sizeof(text));
    EXPECT_STREQ("00010aff00000000000000000000000f", vireo_md5_to_hex(text, d));
}

TEST(Sha1, Fips180Vectors)
{
    const auto sha = [](const std::string &s) {
        bytes out(20);
        sha1(reinterpret_cast<const uint8_t *>(s.data()), static_cast<uint32_t>(s.size()),
             out.data());
        return hex(out);
    };
    EXPECT_EQ("a9993e364706816aba3e25717850c26c9cd0d89d", sha("abc"));
    EXPECT_EQ("da39a3ee5e6b4b0d3255bfef95601890afd80709", sha(""));
    EXPECT_EQ("84983e441c3bd26ebaae4aa1f95129e5e54670f1",
              sha("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"));
    EXPECT_EQ("34aa973cd4c4daa4f61eeb2bdbad27316534016f", sha(std::string(1000000, 'a')));
}

TEST(Digests, MatchOpenSslWholeAndInPieces)
{
    std::mt19937 rng(1321);
    for (int round = 0; round < 60; round++) {
        const size_t len = round < 10 ? static_cast<size_t>(round * 31) : rng() % 20000;
        const bytes data = random_bytes(len);
        const bytes md5 = ref_md5(data), sha = ref_sha1(data);
        for (size_t piece : {data.size() + 1, size_t(1), size_t(63), size_t(64), size_t(65)}) {
            EXPECT_EQ(md5, md5_pieces(data, piece)) << len << " in pieces of " << piece;
            EXPECT_EQ(sha, sha1_pieces(data, piece)) << len << " in pieces of " << piece;
        }
    }
}
