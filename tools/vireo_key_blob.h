// SPDX-License-Identifier: Apache-2.0
// Host side: keys in PEM form, and RSA keys to the public-key blob and base64 text the tool
// builds in.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

// Reads an RSA public key (or the public part of a private key) from a PEM file and
// returns its 148-byte-style blob: type 6, version 2, algorithm 0xA400, "RSA1", bit
// length, exponent and modulus least significant byte first. Empty on failure (*error set).
std::vector<uint8_t> vireo_pem_to_key_blob(const std::string &pem_path, std::string *error);

// The key of a PEM file: a private key, or with want_private false a public key or the public
// part of a private one. None when the file cannot be opened (*opened false, errno set) or
// holds no such key; the caller frees it with EVP_PKEY_free.
typedef struct evp_pkey_st EVP_PKEY;
EVP_PKEY *vireo_read_pem_key(const std::string &path, bool want_private, bool *opened);

// Standard base64 with '=' padding.
std::string vireo_base64_encode(const std::vector<uint8_t> &data);
