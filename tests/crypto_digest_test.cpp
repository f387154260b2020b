// MD5 and SHA-1 against OpenSSL: in one call, and fed in pieces across block boundaries.
#include "crypto/vireo_md5.h"
#include "crypto/vireo_sha1.h"

#include "openssl_ref.h"

#include <gtest/gtest.h>
#include <random>

namespace
{

// Both digests of data fed in pieces of the given size.
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

TEST(Digests, MatchOpenSslInOneCallAndInPieces)
{
    // Lengths around the block size and the end of its last full block (55, 56 bytes), then
    // random ones.
    std::vector<size_t> lengths = {0, 1, 55, 56, 63, 64, 65, 119, 120, 128};
    std::mt19937 rng(1321);
    while (lengths.size() < 60)
        lengths.push_back(rng() % 20000);
    for (size_t len : lengths) {
        const bytes data = random_bytes(len);
        const std::pair<bytes, bytes> want{ref_digest(EVP_md5(), data),
                                           ref_digest(EVP_sha1(), data)};
        std::pair<bytes, bytes> one_call{bytes(16), bytes(20)};
        vireo_md5(data.data(), static_cast<uint32_t>(len), one_call.first.data());
        sha1(data.data(), static_cast<uint32_t>(len), one_call.second.data());
        EXPECT_EQ(want, one_call) << len;
        for (size_t piece : {size_t(1), size_t(63), size_t(64), size_t(65)})
            EXPECT_EQ(want, digests(data, piece)) << len << " in pieces of " << piece;
        char hex[33];
        EXPECT_EQ(to_hex(want.first), vireo_md5_to_hex(hex, want.first.data()));
    }
}
