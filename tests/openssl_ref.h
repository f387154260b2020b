// OpenSSL as the independent reference for the crypto tests and the host tool tests.
#pragma once

#include <cstdint>
#include <memory>
#include <openssl/evp.h>
#include <string>
#include <vector>

using bytes = std::vector<uint8_t>;
using pkey_ptr = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;

bytes random_bytes(size_t n);
bytes ref_md5(const bytes &data);
bytes ref_sha1(const bytes &data);
bytes ref_sha256(const bytes &data);

// A new RSA key of the given size and public exponent 65537.
pkey_ptr ref_rsa_generate(int bits);
pkey_ptr ref_rsa_load_private(const std::string &pem_path);
// Modulus, big-endian, exactly bits/8 bytes.
bytes ref_rsa_modulus(EVP_PKEY *key);
// The public-key blob of a key, or of a big-endian modulus and an exponent (the blob holds
// the modulus least significant byte first).
bytes ref_rsa_blob(EVP_PKEY *key);
bytes rsa_blob_of(const bytes &modulus, uint32_t exponent);
// PKCS#1 v1.5 signature with SHA-1 of data, big-endian.
bytes ref_rsa_sign_sha1(EVP_PKEY *key, const bytes &data);
// The raw private-key operation on an encoded message of the modulus's size, big-endian.
bytes ref_rsa_raw_private(EVP_PKEY *key, const bytes &em);
// Big-endian byte helpers.
bytes reversed(bytes b);
bytes from_hex(const std::string &hex);
std::string to_hex(const bytes &b);

// Signs a firmware file again with the test key after a test changed it: the signature
// covers bytes 20 to the end with the signature field zeroed.
void resign_firmware(std::vector<uint8_t> &file);
