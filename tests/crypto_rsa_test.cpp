// RSA verification against signatures and forgeries made with OpenSSL, and against the
// padding vectors of another project's suite.
#include "crypto/vireo_base64.h"
#include "crypto/vireo_rsa.h"

#include "openssl_ref.h"
#include "test_util.h"

#include <fstream>
#include <gtest/gtest.h>
#include <openssl/rsa.h>
#include <sstream>

namespace
{

const std::string kKeyDir = VIREO_KEY_DIR;

// The public-key blob of a big-endian modulus and an exponent; the blob holds the modulus
// least significant byte first.
bytes rsa_blob_of(const bytes &n, uint32_t exponent)
{
    bytes blob = {6, 2, 0, 0, 0x00, 0xA4, 0, 0, 'R', 'S', 'A', '1'};
    for (uint32_t v : {static_cast<uint32_t>(n.size() * 8), exponent})
        for (int i = 0; i < 4; i++)
            blob.push_back(static_cast<uint8_t>(v >> (8 * i)));
    blob.insert(blob.end(), n.rbegin(), n.rend());
    return blob;
}

bytes from_hex(const std::string &hex)
{
    bytes out;
    for (size_t i = 0; i + 1 < hex.size(); i += 2)
        out.push_back(static_cast<uint8_t>(std::stoi(hex.substr(i, 2), nullptr, 16)));
    return out;
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

// The test key: its text (as built into the tool), the blob the text holds, and its
// signature of a random digest, little-endian as images carry it.
struct Rsa : testing::Test {
    pkey_ptr key = ref_rsa_load_private(kKeyDir + "/vireo_test_key_DO_NOT_SHIP.pem");
    std::string text = read_file(kKeyDir + "/vireo_test_key.txt");
    bytes blob = bytes(256);
    bytes digest = random_bytes(16);
    bytes sig = reversed(ref_rsa_sign_sha1(key.get(), digest));

    void SetUp() override
    {
        text.erase(text.find_last_not_of("\r\n") + 1);
        blob.resize(static_cast<size_t>(base64_decode(text.data(), 200, blob.data())));
    }
    // The raw private-key operation on an encoded message, little-endian.
    bytes signed_raw(const bytes &em)
    {
        return reversed(ref_rsa_private(key.get(), em, RSA_NO_PADDING, nullptr));
    }
};

} // namespace

TEST_F(Rsa, AcceptsOpenSslSignatureByTextOrBlob)
{
    EXPECT_EQ(1, verify_text(text, digest, sig));
    EXPECT_EQ(1, verify_blob(blob, digest, sig));
    EXPECT_EQ(0, verify_text(text, digest, reversed(sig))) << "big-endian order is refused";
    EXPECT_EQ(0, verify_text(text, random_bytes(16), sig)) << "other digest";
    EXPECT_EQ(0, verify_text(text + std::string(57, 'A'), digest, sig)) << "key text too long";
    bytes no_magic = blob;
    no_magic[11] = '2';
    EXPECT_EQ(0, verify_blob(no_magic, digest, sig));
    EXPECT_EQ(0, verify_blob(bytes(blob.begin(), blob.end() - 1), digest, sig));
    EXPECT_EQ(0, rsa_verify_blob(nullptr, 148, digest.data(), 16, sig.data(), 128));
    EXPECT_EQ(0, rsa_verify_blob(blob.data(), 148, nullptr, 16, sig.data(), 128));
    EXPECT_EQ(0, rsa_verify_blob(blob.data(), 148, digest.data(), 16, nullptr, 128));

    bytes long_sig = sig;
    long_sig.push_back(0);
    EXPECT_EQ(1, verify_text(text, digest, long_sig)) << "a leading zero byte keeps the value";
    long_sig.push_back(1);
    EXPECT_EQ(0, verify_text(text, digest, long_sig)) << "130 bytes, one digit more than n";
    long_sig.resize(257, 0);
    EXPECT_EQ(0, verify_text(text, digest, long_sig)) << "257 bytes";
}

TEST_F(Rsa, RefusesEachForgedEncoding)
{
    const bytes good = encode("3021300906052b0e03021a05000414", ref_digest(EVP_sha1(), digest));
    EXPECT_EQ(1, verify_text(text, digest, signed_raw(good))) << "the hand-made encoding is right";
    std::vector<bytes> forgeries = {
        encode("3020300c06082a864886f70d020505000410", ref_digest(EVP_md5(), digest)),
        encode("3031300d060960864801650304020105000420", ref_digest(EVP_sha256(), digest))};
    for (size_t pos : {2, 50, 92, 127}) {
        forgeries.push_back(good);
        forgeries.back()[pos] ^= 1; // padding, the separator, the hash's last byte
    }
    for (const bytes &em : forgeries)
        EXPECT_EQ(0, verify_text(text, digest, signed_raw(em))) << to_hex(em);
}

TEST_F(Rsa, AcceptsSignatureAboveModulusThatIsCongruent)
{
    // The test key's modulus starts with 0xA1: s + n fits in 128 bytes for over half the
    // signatures. The blob holds n from byte 20 on, least significant byte first.
    const bytes n = reversed(bytes(blob.begin() + 20, blob.end()));
    for (int attempt = 0; attempt < 40; attempt++) {
        const bytes d = random_bytes(16);
        const bytes s = ref_rsa_sign_sha1(key.get(), d);
        // s + n, big-endian, in 129 bytes.
        bytes sum(129);
        int carry = 0;
        for (size_t i = 128; i-- > 0;) {
            const int v = s[i] + n[i] + carry;
            sum[i + 1] = static_cast<uint8_t>(v);
            carry = v >> 8;
        }
        if (carry != 0)
            continue;
        sum.erase(sum.begin());
        EXPECT_EQ(1, verify_blob(blob, d, reversed(sum)));
        return;
    }
    FAIL() << "no signature left room above the modulus";
}

TEST(RsaPadding, VectorsOfAnotherSuite)
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
