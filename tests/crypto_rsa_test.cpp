// RSA verification against signatures and forgeries made with OpenSSL, and against the
// padding vectors of another project's suite.
#include "crypto/vireo_base64.h"
#include "crypto/vireo_rsa.h"

#include "openssl_ref.h"
#include "test_util.h"

#include <fstream>
#include <gtest/gtest.h>
#include <sstream>

namespace
{

const std::string kKeyDir = VIREO_KEY_DIR;

std::string test_key_text()
{
    std::string text = read_file(kKeyDir + "/vireo_test_key.txt");
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r'))
        text.pop_back();
    return text;
}

int32_t verify_text(const std::string &key_text, const bytes &digest, const bytes &sig_le)
{
    return rsa_verify_base64_key(key_text.data(), static_cast<uint32_t>(key_text.size()),
                                 digest.data(), static_cast<uint32_t>(digest.size()), sig_le.data(),
                                 static_cast<uint32_t>(sig_le.size()));
}

int32_t verify_blob(const bytes &blob, const bytes &digest, const bytes &sig_le)
{
    return rsa_verify_blob(blob.data(), static_cast<uint32_t>(blob.size()), digest.data(),
                           static_cast<uint32_t>(digest.size()), sig_le.data(),
                           static_cast<uint32_t>(sig_le.size()));
}

// EMSA-PKCS1-v1_5 with the given DigestInfo prefix and hash, k bytes.
bytes encode(size_t k, const bytes &prefix, const bytes &hash)
{
    bytes em = {0x00, 0x01};
    em.insert(em.end(), k - 3 - prefix.size() - hash.size(), 0xFF);
    em.push_back(0x00);
    em.insert(em.end(), prefix.begin(), prefix.end());
    em.insert(em.end(), hash.begin(), hash.end());
    return em;
}

const bytes kSha1Prefix = {0x30, 0x21, 0x30, 0x09, 0x06, 0x05, 0x2B, 0x0E,
                           0x03, 0x02, 0x1A, 0x05, 0x00, 0x04, 0x14};
const bytes kMd5Prefix = {0x30, 0x20, 0x30, 0x0c, 0x06, 0x08, 0x2a, 0x86, 0x48,
                          0x86, 0xf7, 0x0d, 0x02, 0x05, 0x05, 0x00, 0x04, 0x10};
const bytes kSha256Prefix = {0x30, 0x31, 0x30, 0x0d, 0x06, 0x09, 0x60, 0x86, 0x48, 0x01,
                             0x65, 0x03, 0x04, 0x02, 0x01, 0x05, 0x00, 0x04, 0x20};

} // namespace

TEST(Base64, DecodesTheKeyTextAndStopsAtPadding)
{
    const std::string text = test_key_text();
    ASSERT_EQ(200u, text.size());
    uint8_t out[256];
    EXPECT_EQ(148, base64_decode(text.data(), 200, out));
    EXPECT_EQ(0, memcmp(out + 8, "RSA1", 4));
    EXPECT_EQ(0, out[148]) << "a NUL follows the output";

    EXPECT_EQ(1, base64_decode("QQ==", 4, out));
    EXPECT_EQ('A', out[0]);
    EXPECT_EQ(2, base64_decode("QUI=", 4, out));
    EXPECT_EQ(4, base64_decode("QQ==QUJD", 8, out)) << "padding ends only its group";
    EXPECT_EQ(0, memcmp(out, "AABC", 4));
    EXPECT_EQ(3, base64_decode("QUJDRA", 6, out)) << "a short remainder is ignored";
    EXPECT_EQ(0, base64_decode("", 0, out));
    EXPECT_EQ(0, base64_decode("QU\xc3\x89", 4, out));
}

TEST(Rsa, TestKeyIsBuiltInByDefault)
{
    if (std::string(VIREO_KEY_FILE) != kKeyDir + "/vireo_test_key.txt")
        GTEST_SKIP() << "built with another key";
    EXPECT_EQ(test_key_text(), std::string(builtin_public_key, builtin_public_key_len));
}

TEST(Rsa, AcceptsOpenSslSignatureStoredLeastSignificantByteFirst)
{
    pkey_ptr key = ref_rsa_load_private(kKeyDir + "/vireo_test_key_DO_NOT_SHIP.pem");
    ASSERT_TRUE(key);
    const std::string text = test_key_text();
    for (int i = 0; i < 8; i++) {
        const bytes digest = random_bytes(16);
        const bytes sig_be = ref_rsa_sign_sha1(key.get(), digest);
        ASSERT_EQ(128u, sig_be.size());
        EXPECT_EQ(1, verify_text(text, digest, reversed(sig_be)));
        EXPECT_EQ(0, verify_text(text, digest, sig_be)) << "big-endian order is refused";
        EXPECT_EQ(0, verify_text(text, random_bytes(16), reversed(sig_be))) << "other digest";
    }
}

TEST(Rsa, RefusesEachForgery)
{
    pkey_ptr key = ref_rsa_load_private(kKeyDir + "/vireo_test_key_DO_NOT_SHIP.pem");
    ASSERT_TRUE(key);
    const std::string text = test_key_text();
    const bytes digest = random_bytes(16);
    const bytes good = encode(128, kSha1Prefix, ref_sha1(digest));
    EXPECT_EQ(1, verify_text(text, digest, reversed(ref_rsa_raw_private(key.get(), good))))
        << "the hand-made encoding is right";

    EXPECT_EQ(0, verify_text(text, digest,
                             reversed(ref_rsa_raw_private(
                                 key.get(), encode(128, kMd5Prefix, ref_md5(digest))))));
    bytes sha256(32);
    {
        unsigned int len = 0;
        EVP_Digest(digest.data(), digest.size(), sha256.data(), &len, EVP_sha256(), nullptr);
    }
    EXPECT_EQ(0, verify_text(
                     text, digest,
                     reversed(ref_rsa_raw_private(key.get(), encode(128, kSha256Prefix, sha256)))));
    for (size_t pos : {2, 50, 92}) {
        bytes bad = good;
        bad[pos] = 0xFE;
        EXPECT_EQ(0, verify_text(text, digest, reversed(ref_rsa_raw_private(key.get(), bad))))
            << "padding byte " << pos;
    }
    bytes tail = good;
    tail[127] ^= 1;
    EXPECT_EQ(0, verify_text(text, digest, reversed(ref_rsa_raw_private(key.get(), tail))));

    bytes long_sig = reversed(ref_rsa_raw_private(key.get(), good));
    long_sig.push_back(0);
    EXPECT_EQ(1, verify_text(text, digest, long_sig)) << "a leading zero byte keeps the value";
    long_sig.push_back(1);
    EXPECT_EQ(0, verify_text(text, digest, long_sig)) << "130 bytes, one digit more than n";
    long_sig.resize(257, 0);
    EXPECT_EQ(0, verify_text(text, digest, long_sig)) << "257 bytes";

    const std::string long_text = text + std::string(57, 'A');
    EXPECT_EQ(0, verify_text(long_text, digest, reversed(ref_rsa_raw_private(key.get(), good))));
}

TEST(Rsa, AcceptsSignatureAboveModulusThatIsCongruent)
{
    // A modulus with its top byte low leaves room for s + n in 128 bytes.
    for (int attempt = 0; attempt < 40; attempt++) {
        pkey_ptr key = ref_rsa_generate(1024);
        const bytes n = ref_rsa_modulus(key.get());
        const bytes digest = random_bytes(16);
        const bytes sig = ref_rsa_sign_sha1(key.get(), digest);
        // s + n, big-endian, in 129 bytes.
        bytes sum(129);
        int carry = 0;
        for (size_t i = 128; i-- > 0;) {
            const int v = sig[i] + n[i] + carry;
            sum[i + 1] = static_cast<uint8_t>(v);
            carry = v >> 8;
        }
        sum[0] = static_cast<uint8_t>(carry);
        if (sum[0] != 0)
            continue;
        sum.erase(sum.begin());
        const bytes blob = ref_rsa_blob(key.get());
        EXPECT_EQ(1, verify_blob(blob, digest, reversed(sig)));
        EXPECT_EQ(1, verify_blob(blob, digest, reversed(sum)));
        return;
    }
    FAIL() << "no key left room above its modulus";
}

TEST(Rsa, BlobWithoutMagicOrTooShortIsRefused)
{
    pkey_ptr key = ref_rsa_load_private(kKeyDir + "/vireo_test_key_DO_NOT_SHIP.pem");
    const bytes digest = random_bytes(16);
    const bytes sig = reversed(ref_rsa_sign_sha1(key.get(), digest));
    bytes blob = ref_rsa_blob(key.get());
    EXPECT_EQ(1, verify_blob(blob, digest, sig));
    bytes no_magic = blob;
    no_magic[11] = '2';
    EXPECT_EQ(0, verify_blob(no_magic, digest, sig));
    EXPECT_EQ(0, verify_blob(bytes(blob.begin(), blob.end() - 1), digest, sig));
    EXPECT_EQ(0, rsa_verify_blob(nullptr, 148, digest.data(), 16, sig.data(), 128));
    EXPECT_EQ(0, rsa_verify_blob(blob.data(), 148, nullptr, 16, sig.data(), 128));
    EXPECT_EQ(0, rsa_verify_blob(blob.data(), 148, digest.data(), 16, nullptr, 128));
}

TEST(Rsa, PaddingVectorsOfAnotherSuite)
{
    std::ifstream in(std::string(VIREO_TEST_DATA) + "/rsa1024-sha1-padding-vectors.txt");
    ASSERT_TRUE(in);
    bytes modulus, message;
    uint32_t exponent = 0;
    int valid = 0, invalid = 0, wrong = 0;
    std::string line;
    while (std::getline(in, line)) {
        std::istringstream words(line);
        std::string kind, value;
        words >> kind >> value;
        if (kind == "modulus") {
            modulus = from_hex(value);
        } else if (kind == "exponent") {
            exponent = static_cast<uint32_t>(std::stoul(value));
        } else if (kind == "message") {
            message = from_hex(value);
        } else if (kind == "valid" || kind == "invalid") {
            bytes blob = {6, 2, 0, 0, 0x00, 0xA4, 0, 0, 'R', 'S', 'A', '1'};
            for (uint32_t v : {static_cast<uint32_t>(modulus.size() * 8), exponent})
                for (int i = 0; i < 4; i++)
                    blob.push_back(static_cast<uint8_t>(v >> (8 * i)));
            const bytes n_le = reversed(modulus);
            blob.insert(blob.end(), n_le.begin(), n_le.end());
            const int32_t got = verify_blob(blob, message, reversed(from_hex(value)));
            (kind == "valid" ? valid : invalid)++;
            if (got != (kind == "valid" ? 1 : 0))
                wrong++;
        }
    }
    EXPECT_EQ(1, valid);
    EXPECT_EQ(1651, invalid);
    EXPECT_EQ(0, wrong);
}
