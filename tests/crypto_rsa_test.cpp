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

// EMSA-PKCS1-v1_5 with the given DigestInfo prefix (hex) and hash, 128 bytes.
bytes encode(const std::string &prefix_hex, const bytes &hash)
{
    const bytes prefix = from_hex(prefix_hex);
    bytes em = {0x00, 0x01};
    em.insert(em.end(), 128 - 3 - prefix.size() - hash.size(), 0xFF);
    em.push_back(0x00);
    em.insert(em.end(), prefix.begin(), prefix.end());
    em.insert(em.end(), hash.begin(), hash.end());
    return em;
}

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

TEST(Rsa, AcceptsOpenSslSignaturesAndRefusesEachForgery)
{
    pkey_ptr key = ref_rsa_load_private(kKeyDir + "/vireo_test_key_DO_NOT_SHIP.pem");
    ASSERT_TRUE(key);
    const std::string text = test_key_text();
    for (int i = 0; i < 4; i++) {
        const bytes digest = random_bytes(16);
        const bytes sig_be = ref_rsa_sign_sha1(key.get(), digest);
        ASSERT_EQ(128u, sig_be.size());
        EXPECT_EQ(1, verify_text(text, digest, reversed(sig_be)));
        EXPECT_EQ(0, verify_text(text, digest, sig_be)) << "big-endian order is refused";
        EXPECT_EQ(0, verify_text(text, random_bytes(16), reversed(sig_be))) << "other digest";
    }
    const bytes digest = random_bytes(16);
    const auto signed_raw = [&](const bytes &em) {
        return reversed(ref_rsa_raw_private(key.get(), em));
    };
    const bytes good = encode("3021300906052b0e03021a05000414", ref_sha1(digest));
    EXPECT_EQ(1, verify_text(text, digest, signed_raw(good))) << "the hand-made encoding is right";
    std::vector<bytes> forgeries = {
        encode("3020300c06082a864886f70d020505000410", ref_md5(digest)),
        encode("3031300d060960864801650304020105000420", ref_sha256(digest))};
    for (size_t pos : {2, 50, 92, 127}) {
        forgeries.push_back(good);
        forgeries.back()[pos] ^= 1; // padding, the separator, the hash's last byte
    }
    for (const bytes &em : forgeries)
        EXPECT_EQ(0, verify_text(text, digest, signed_raw(em))) << to_hex(em);

    bytes long_sig = signed_raw(good);
    long_sig.push_back(0);
    EXPECT_EQ(1, verify_text(text, digest, long_sig)) << "a leading zero byte keeps the value";
    long_sig.push_back(1);
    EXPECT_EQ(0, verify_text(text, digest, long_sig)) << "130 bytes, one digit more than n";
    long_sig.resize(257, 0);
    EXPECT_EQ(0, verify_text(text, digest, long_sig)) << "257 bytes";
    EXPECT_EQ(0, verify_text(text + std::string(57, 'A'), digest, signed_raw(good)));
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
        if (carry != 0)
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
    int count[2] = {0, 0}, wrong = 0; // invalid, valid
    for (std::string line; std::getline(in, line);) {
        std::istringstream words(line);
        std::string kind, value;
        words >> kind >> value;
        if (kind == "modulus")
            modulus = from_hex(value);
        else if (kind == "exponent")
            exponent = static_cast<uint32_t>(std::stoul(value));
        else if (kind == "message")
            message = from_hex(value);
        else if (kind == "valid" || kind == "invalid") {
            const int valid = kind == "valid";
            count[valid]++;
            wrong += verify_blob(rsa_blob_of(modulus, exponent), message,
                                 reversed(from_hex(value))) != valid;
        }
    }
    EXPECT_EQ(1, count[1]);
    EXPECT_EQ(1651, count[0]);
    EXPECT_EQ(0, wrong);
}
