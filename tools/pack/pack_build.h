// SPDX-License-Identifier: Apache-2.0
// Laying out, digesting and signing a firmware file from a manifest.
#pragma once

#include "tools/pack/pack_util.h"

#include <string>
#include <vector>

struct pack_partition {
    std::string name;
    bytes content; // as stored, content header included when asked for
};

struct pack_image {
    std::vector<pack_partition> partitions;
};

// Reads a manifest; file paths in it are relative to the manifest's folder.
std::vector<pack_image> read_manifest(const std::string &path);

struct pack_token_key;

// A signing key: loaded from a PEM file, or kept in a PKCS#11 token.
struct pack_signer {
    EVP_PKEY *pem = nullptr;
    pack_token_key *token = nullptr;
};

// The whole firmware file, digests and signatures made with the RSA key; with Ed25519 keys
// (at most two), every header also carries a signature block signed by each of them.
bytes build_firmware(const std::vector<pack_image> &images, const pack_signer &rsa,
                     const std::vector<pack_signer> &ed25519_keys = {});
