// SPDX-License-Identifier: Apache-2.0
// RSA verification against signatures made with OpenSSL, and against the padding vectors of
// another project's suite.
#include "crypto/vireo_base64.h"
#include "crypto/vireo_rsa.h"

#include "openssl_ref.h"
#include "test_util.h"

#include <fstream>
#include <gtest/gtest.h>
#include <sstream>

namespace
{

bytes from_hex(const std::string &hex)
{
    bytes out;
    for (size_t i = 0; i + 1 < hex.size(); i += 2)
        out.push_back(static_cast<uint8_t>(std::stoi(hex.substr(i, 2), nullptr, 16)));
    return out;
}

int32_t verify_blob(const bytes &blob, const bytes &digest, const bytes &sig_le)
{
    return rsa_verify_blob(blob.data(), static_cast<uint32_t>(blob.size()), digest.data(),
                           static_cast<uint32_t>(digest.size()), sig_le.data(),
                           static_cast<uint32_t>(sig_le.size()));
}

} // namespace

TEST(Rsa, VerifiesOpenSslSignaturesOfTheTestKey)
{
    const std::string dir = VIREO_KEY_DIR;
    pkey_ptr key = ref_rsa_load_private(dir + "/vireo_test_key_DO_NOT_SHIP.pem");
    std::string text = read_file(dir + "/vireo_test_key.txt");
    text.erase(text.find_last_not_of("\r\n") + 1);
    bytes blob(256);
    blob.resize(static_cast<size_t>(base64_decode(text.data(), 200, blob.data())));
    // Signatures are little-endian, as images carry them.
    const bytes digest = random_bytes(16), sig = reversed(ref_rsa_sign_sha1(key.get(), digest));
    EXPECT_EQ(1, rsa_verify_base64_key(text.data(), 200, digest.data(), 16, sig.data(), 128));
    const std::string too_long = text + std::string(57, 'A');
    EXPECT_EQ(0, rsa_verify_base64_key(too_long.data(), 257, digest.data(), 16, sig.data(), 128));
    EXPECT_EQ(1, verify_blob(blob, digest, sig));
    EXPECT_EQ(0, verify_blob(blob, digest, reversed(sig))) << "big-endian order is refused";
    // A blob one byte short of its modulus is refused, though the byte is in memory.
    EXPECT_EQ(0, rsa_verify_blob(blob.data(), 147, digest.data(), 16, sig.data(), 128));
    bytes long_sig = sig;
    long_sig.resize(257, 0); // the same value, in more bytes than any key has
    EXPECT_EQ(0, verify_blob(blob, digest, long_sig));

    // A value above the modulus that is congruent to a signature verifies. The modulus starts
    // with 0xA1: s + n fits in 128 bytes for over half the signatures. The blob holds n from
    // byte 20 on, least significant byte first.
    bytes d, sum(128);
    for (int attempt = 0, carry = 1; carry != 0; attempt++) {
        ASSERT_LT(attempt, 40) << "no signature left room above the modulus";
        d = random_bytes(16);
        const bytes s = reversed(ref_rsa_sign_sha1(key.get(), d));
        carry = 0;
        for (size_t i = 0; i < 128; i++, carry >>= 8) {
            carry += s[i] + blob[20 + i];
            sum[i] = static_cast<uint8_t>(carry);
        }
    }
    EXPECT_EQ(1, verify_blob(blob, d, sum));
    blob[11] = '2'; // no "RSA1" magic: no key
    EXPECT_EQ(0, verify_blob(blob, d, sum));
}

TEST(RsaPadding, VectorsOfAnotherSuite)
{
    std::ifstream in(std::string(VIREO_TEST_DATA) + "/rsa1024-sha1-padding-vectors.txt");
    ASSERT_TRUE(in);
    bytes blob, message;
    int count[2] = {0, 0}, wrong = 0; // invalid, valid
    for (std::string line, kind, value; std::getline(in, line);) {
        std::istringstream(line) >> kind >> value;
        if (kind == "modulus") {
            // Blob header and bit length, the exponent (next line), n least significant first.
            const bytes n = from_hex(value);
            blob = {6, 2, 0, 0, 0x00, 0xA4, 0, 0, 'R', 'S', 'A', '1', 0, 4, 0, 0, 0, 0, 0, 0};
            blob.insert(blob.end(), n.rbegin(), n.rend());
        } else if (kind == "exponent") {
            for (int i = 0; i < 4; i++)
                blob[16 + i] = static_cast<uint8_t>(std::stoul(value) >> (8 * i));
        } else if (kind == "message") {
            message = from_hex(value);
        } else if (kind == "valid" || kind == "invalid") {
            const int valid = kind == "valid";
            count[valid]++;
            wrong += verify_blob(blob, message, reversed(from_hex(value))) != valid;
        }
    }
    EXPECT_EQ(1, count[1]);
    EXPECT_EQ(1651, count[0]);
    EXPECT_EQ(0, wrong);
}
