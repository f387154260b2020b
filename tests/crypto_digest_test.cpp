// MD5 and SHA-1 against their standards' vectors and against OpenSSL.
#include "crypto/vireo_md5.h"
#include "crypto/vireo_sha1.h"

#include "openssl_ref.h"

#include <gtest/gtest.h>
#include <random>

namespace
{

// Both digests of data fed in pieces of the given size (whole when piece is 0).
std::pair<bytes, bytes> digests(const bytes &data, size_t piece)
{
    md5_ctx md5;
    sha1_ctx sha;
    md5_init(&md5);
    sha1_init(&sha);
    for (size_t off = 0; off < data.size(); off += piece) {
        const uint32_t n = static_cast<uint32_t>(std::min(piece, data.size() - off));
        md5_update(&md5, data.data() + off, n);
        sha1_update(&sha, data.data() + off, n);
    }
    std::pair<bytes, bytes> out{bytes(16), bytes(20)};
    md5_final(out.first.data(), &md5);
    sha1_final(&sha, out.second.data());
    return out;
}

} // namespace

TEST(Digests, Rfc1321AndFips180Vectors)
{
    const std::pair<std::string, std::string> md5_vectors[] = {
        {"", "d41d8cd98f00b204e9800998ecf8427e"},
        {"a", "0cc175b9c0f1b6a831c399e269772661"},
        {"abc", "900150983cd24fb0d6963f7d28e17f72"},
        {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
        {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
        {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
         "d174ab98d277d9f5a5611c2c9f419d9f"},
        {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
         "57edf4a22be3c955ac49da2e2107b67a"},
    };
    for (const auto &[text, digest] : md5_vectors) {
        uint8_t d[16];
        char out[33];
        vireo_md5(reinterpret_cast<const uint8_t *>(text.data()),
                  static_cast<uint32_t>(text.size()), d);
        EXPECT_STREQ(digest.c_str(), vireo_md5_to_hex(out, d)) << text;
    }
    const std::pair<std::string, std::string> sha1_vectors[] = {
        {"abc", "a9993e364706816aba3e25717850c26c9cd0d89d"},
        {"", "da39a3ee5e6b4b0d3255bfef95601890afd80709"},
        {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq",
         "84983e441c3bd26ebaae4aa1f95129e5e54670f1"},
        {std::string(1000000, 'a'), "34aa973cd4c4daa4f61eeb2bdbad27316534016f"},
    };
    for (const auto &[text, digest] : sha1_vectors) {
        bytes out(20);
        sha1(reinterpret_cast<const uint8_t *>(text.data()), static_cast<uint32_t>(text.size()),
             out.data());
        EXPECT_EQ(digest, to_hex(out)) << text.size();
    }
}

TEST(Digests, MatchOpenSslWholeAndInPieces)
{
    std::mt19937 rng(1321);
    for (int round = 0; round < 60; round++) {
        const size_t len = round < 10 ? static_cast<size_t>(round * 31) : rng() % 20000;
        const bytes data = random_bytes(len);
        const std::pair<bytes, bytes> want{ref_md5(data), ref_sha1(data)};
        for (size_t piece : {data.size() + 1, size_t(1), size_t(63), size_t(64), size_t(65)})
            EXPECT_EQ(want, digests(data, piece)) << len << " in pieces of " << piece;
    }
}
