// SPDX-License-Identifier: Apache-2.0
// Shared pieces of vireo_firmware_pack: errors, files, JSON, keys, digests.
#pragma once

#include <cJSON.h>
#include <cstdint>
#include <memory>
#include <openssl/evp.h>
#include <stdexcept>
#include <string>
#include <vector>

using bytes = std::vector<uint8_t>;
using json_ptr = std::unique_ptr<cJSON, decltype(&cJSON_Delete)>;
using pkey_ptr = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;

// A user-facing error: the message is printed and the command fails.
struct pack_error : std::runtime_error {
    using std::runtime_error::runtime_error;
};

bytes read_all(const std::string &path);
// Writes to path + ".tmp" and renames, so a failure never leaves a partial file.
void write_all(const std::string &path, const bytes &data);
json_ptr parse_json(const std::string &text, const std::string &what);
std::string print_json(const cJSON *json);

// Prints a progress line to standard error for large jobs (every 16 MiB).
void progress(const char *what, uint64_t done, uint64_t total);

uint32_t get_be32(const uint8_t *p);
void put_be32(uint8_t *p, uint32_t v);
std::string hex(const uint8_t *p, size_t n);

// MD5 of data in one pass, with progress for large inputs.
bytes md5_of(const uint8_t *data, size_t n);
// The digest a signature covers: MD5 of bytes 20..end with the signature field zeroed.
bytes signed_digest(const uint8_t *image, size_t n);

// The Ed25519 prehash of the image at data: BLAKE2b-512 of its n bytes with the RSA
// signature field and the signature block's signatures counted as zeros.
bytes prehash_of(const uint8_t *image, size_t n);
// The 64-byte Ed25519 signature of a prehash.
bytes ed25519_sign(EVP_PKEY *key, const bytes &prehash);

pkey_ptr load_private_key(const std::string &pem);
pkey_ptr load_public_key(const std::string &pem);
// The key of a base64 public-key blob (the built-in key text), or none.
pkey_ptr key_from_blob_text(const std::string &text);
// RSA PKCS#1 v1.5 over SHA-1 of digest, least significant byte first (128 bytes).
bytes sign_digest(EVP_PKEY *key, const bytes &digest);
bool verify_digest(EVP_PKEY *key, const bytes &digest, const uint8_t *sig_le, size_t n);
