// SPDX-License-Identifier: Apache-2.0
// MD5 and SHA-1 against OpenSSL, fed in one piece and in pieces across block boundaries.
#include "crypto/vireo_md5.h"
#include "crypto/vireo_sha1.h"

#include "openssl_ref.h"

#include <gtest/gtest.h>
#include <random>

TEST(Digests, MatchOpenSslWholeAndInPieces)
{
    // Lengths around a 64-byte block and where the padding needs one more (56), then random.
    std::vector<size_t> lengths = {0, 1, 55, 56, 63, 64, 65, 119, 120, 128};
    std::mt19937 rng(1321);
    while (lengths.size() < 60)
        lengths.push_back(rng() % 20000);
    for (size_t len : lengths) {
        const bytes data = random_bytes(len);
        const std::pair<bytes, bytes> want{ref_digest(EVP_md5(), data),
                                           ref_digest(EVP_sha1(), data)};
        for (size_t piece : {size_t(1), size_t(63), size_t(64), size_t(65), len + 1}) {
            md5_ctx md5;
            sha1_ctx sha;
            md5_init(&md5);
            sha1_init(&sha);
            for (size_t off = 0; off < len; off += piece) {
                const uint32_t n = static_cast<uint32_t>(std::min(piece, len - off));
                md5_update(&md5, data.data() + off, n);
                sha1_update(&sha, data.data() + off, n);
            }
            std::pair<bytes, bytes> got{bytes(16), bytes(20)};
            md5_final(got.first.data(), &md5);
            sha1_final(&sha, got.second.data());
            EXPECT_EQ(want, got) << len << " in pieces of " << piece;
        }
    }
}
