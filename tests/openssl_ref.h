// SPDX-License-Identifier: Apache-2.0
// OpenSSL as the independent reference for the crypto tests and the firmware tests.
#pragma once

#include <cstdint>
#include <memory>
#include <openssl/evp.h>
#include <string>
#include <vector>

using bytes = std::vector<uint8_t>;
using pkey_ptr = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;

bytes random_bytes(size_t n);
// The digest of data with md (EVP_md5(), EVP_sha1(), ...).
bytes ref_digest(const EVP_MD *md, const bytes &data);
pkey_ptr ref_rsa_load_private(const std::string &pem_path);
// PKCS#1 v1.5 signature with SHA-1 of data, big-endian.
bytes ref_rsa_sign_sha1(EVP_PKEY *key, const bytes &data);
bytes reversed(bytes b);

// Signs a firmware file again with the test key after a test changed it: the signature
// covers bytes 20 to the end with the signature field zeroed.
void resign_firmware(std::vector<uint8_t> &file);
