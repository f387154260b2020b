// SPDX-License-Identifier: Apache-2.0
#include "crypto/vireo_rsa.h"

#include "common/vireo_endian.h"
#include "crypto/vireo_base64.h"
#include "crypto/vireo_sha1.h"

#include <cstdlib>
#include <cstring>
#include <memory>

namespace
{

// The zero byte that ends the padding string, then the DER prefix of a SHA-1 DigestInfo.
const uint8_t DIGEST_INFO_SHA1_PREFIX[16] = {0x00, 0x30, 0x21, 0x30, 0x09, 0x06, 0x05, 0x2B,
                                             0x0E, 0x03, 0x02, 0x1A, 0x05, 0x00, 0x04, 0x14};

using key_ptr = std::unique_ptr<rsa_public_key, decltype(&rsa_key_free)>;
using num_ptr = std::unique_ptr<bignum, decltype(&bignum_free)>;

} // namespace

void rsa_key_free(rsa_public_key *key)
{
    if (!key)
        return;
    bignum_free(key->n);
    bignum_free(key->e);
    free(key);
}

rsa_public_key *rsa_key_import_blob(const uint8_t *blob, uint32_t blob_len)
{
    // The fixed part of the blob must be there before any field is read.
    if (!blob || blob_len < 20 || memcmp(blob + 8, RSA_KEY_BLOB_MAGIC, 4) != 0)
        return nullptr;
    const uint32_t bits = vireo_get_le32(blob + 12);
    const uint32_t exponent = vireo_get_le32(blob + 16);
    uint32_t n_bytes = bits / 8;
    if (n_bytes > 256)
        n_bytes = 256;
    // A modulus that runs past the blob is refused rather than read.
    if (n_bytes == 0 || blob_len - 20 < n_bytes)
        return nullptr;
    uint8_t be[256];
    for (uint32_t i = 0; i < n_bytes; i++)
        be[i] = blob[20 + n_bytes - 1 - i];
    rsa_public_key *key = static_cast<rsa_public_key *>(calloc(1, sizeof(rsa_public_key)));
    if (!key)
        return nullptr;
    key->e = bignum_from_u32(exponent);
    key->n = bignum_from_bytes(be, n_bytes);
    memset(be, 0, sizeof(be));
    return key;
}

int32_t rsa_verify_sha1(const rsa_public_key *key, const uint8_t *sig_be, uint32_t sig_len,
                        const uint8_t *digest, uint32_t digest_len)
{
    if (!key || !sig_be || !digest || sig_len > 256)
        return 0;
    num_ptr s(bignum_from_bytes(sig_be, sig_len), bignum_free);
    // A signature with more digits than the modulus is no signature of this key.
    if (s.get()[0] > key->n[0])
        return 0;
    num_ptr m(bignum_mod_exp(s.get(), key->e, key->n), bignum_free);
    s.reset();
    if (!m)
        return 0;

    const int32_t k = static_cast<int32_t>((bignum_bit_length(key->n) + 7) / 8);
    uint8_t h[20];
    sha1(digest, digest_len, h);
    // Every test is applied; any failing one makes the verdict invalid.
    int32_t valid = 1;
    if (bignum_get_byte(m.get(), k - 1) != 0x00)
        valid = 0;
    if (bignum_get_byte(m.get(), k - 2) != 0x01)
        valid = 0;
    for (int32_t i = k - 3; i >= 36; i--)
        if (bignum_get_byte(m.get(), i) != 0xFF)
            valid = 0;
    for (int32_t i = 0; i < 16; i++)
        if (bignum_get_byte(m.get(), 35 - i) != DIGEST_INFO_SHA1_PREFIX[i])
            valid = 0;
    for (int32_t i = 0; i < 20; i++)
        if (bignum_get_byte(m.get(), 19 - i) != h[i])
            valid = 0;
    return valid;
}

int32_t rsa_verify_blob(const uint8_t *blob, uint32_t blob_len, const uint8_t *digest,
                        uint32_t digest_len, const uint8_t *sig, uint32_t sig_len)
{
    if (sig_len > 256 || !blob || !digest || !sig)
        return 0;
    key_ptr key(rsa_key_import_blob(blob, blob_len), rsa_key_free);
    if (!key)
        return 0;
    uint8_t be[256];
    for (uint32_t i = 0; i < sig_len; i++)
        be[i] = sig[sig_len - 1 - i];
    return rsa_verify_sha1(key.get(), be, sig_len, digest, digest_len);
}

int32_t rsa_verify_base64_key(const char *key_text, uint32_t key_text_len, const uint8_t *digest,
                              uint32_t digest_len, const uint8_t *sig, uint32_t sig_len)
{
    if (!key_text || key_text_len > 256)
        return 0;
    // 256 characters decode to at most 192 bytes and a NUL.
    uint8_t blob[256];
    const int32_t n = base64_decode(key_text, key_text_len, blob);
    if (n <= 0)
        return 0;
    return rsa_verify_blob(blob, static_cast<uint32_t>(n), digest, digest_len, sig, sig_len);
}
