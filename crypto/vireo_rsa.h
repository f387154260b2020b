// SPDX-License-Identifier: Apache-2.0
// RSASSA-PKCS1-v1_5 verification with SHA-1 of a digest, for a public key given as a
// CryptoAPI public-key blob (modulus least significant byte first) and a signature
// stored least significant byte first. Answers are 1 (valid) or 0; nothing is traced.
#pragma once

#include "crypto/vireo_bignum.h"

#include <cstdint>

#define RSA_KEY_BLOB_MAGIC "RSA1"

struct rsa_public_key {
    bignum *n;
    bignum *e;
};

// The key text built into the tool (base64 of a 148-byte blob) and its length.
extern const char builtin_public_key[];
extern const uint32_t builtin_public_key_len;

rsa_public_key *rsa_key_import_blob(const uint8_t *blob, uint32_t blob_len);
void rsa_key_free(rsa_public_key *key);
int32_t rsa_verify_sha1(const rsa_public_key *key, const uint8_t *sig_be, uint32_t sig_len,
                        const uint8_t *digest, uint32_t digest_len);
int32_t rsa_verify_blob(const uint8_t *blob, uint32_t blob_len, const uint8_t *digest,
                        uint32_t digest_len, const uint8_t *sig, uint32_t sig_len);
int32_t rsa_verify_base64_key(const char *key_text, uint32_t key_text_len, const uint8_t *digest,
                              uint32_t digest_len, const uint8_t *sig, uint32_t sig_len);
