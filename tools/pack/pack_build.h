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

// The whole firmware file, digests and signatures made with key; with Ed25519 keys (at
// most two), every header also carries a signature block signed by each of them.
bytes build_firmware(const std::vector<pack_image> &images, EVP_PKEY *key,
                     const std::vector<EVP_PKEY *> &ed25519_keys = {});
