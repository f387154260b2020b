// SPDX-License-Identifier: Apache-2.0
// Host side: Ed25519 keys in PEM form, their key ids and their key-ring lines.
#pragma once

#include <cstdint>
#include <openssl/evp.h>
#include <string>

// Reads an Ed25519 key from a PEM file: the private key when want_private, else the
// public key (or the public part of a private key). None on failure (*error set).
EVP_PKEY *vireo_ed25519_load_pem(const std::string &pem_path, bool want_private,
                                 std::string *error);
// The 32 bytes of an Ed25519 key's public part; false when key is not Ed25519.
bool vireo_ed25519_public_of(EVP_PKEY *key, uint8_t pk[32]);
// The key id of a public key: the first 8 bytes of its BLAKE2b-512.
void vireo_ed25519_key_id(const uint8_t pk[32], uint8_t id[8]);
// The key-ring line of a public key: base64 of "Ed", the key id and the key.
std::string vireo_ed25519_ring_line(const uint8_t pk[32]);
