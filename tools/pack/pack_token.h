// SPDX-License-Identifier: Apache-2.0
// Keys kept in a PKCS#11 token, named by a PKCS#11 URI (RFC 7512), and used through the
// token's own C interface as p11-kit loads it: the private key never leaves the token.
#pragma once

#include "tools/pack/pack_util.h"

#include <memory>
#include <string>

struct pack_token_key;
using token_key_ptr = std::unique_ptr<pack_token_key, void (*)(pack_token_key *)>;

// Whether a key argument is a PKCS#11 URI rather than a PEM file.
bool is_pkcs11_uri(const std::string &arg);

enum class token_key_type { rsa1024, ed25519 };

// Opens the private key the URI names ("pkcs11:token=T;object=O" with, in its query,
// pin-value or pin-source, and module-path when the module is not registered with
// p11-kit). Throws pack_error when the token, the key or the login fails.
token_key_ptr token_key_open(const std::string &uri, token_key_type type);
// RSA PKCS#1 v1.5 over SHA-1 of digest, least significant byte first (128 bytes).
bytes token_sign_digest(pack_token_key *key, const bytes &digest);
// The plain Ed25519 signature (64 bytes) of message.
bytes token_ed25519_sign(pack_token_key *key, const bytes &message);
// The 32-byte Ed25519 public key of the key pair.
bytes token_ed25519_public(pack_token_key *key);
