// SPDX-License-Identifier: Apache-2.0
// Reading a firmware file back, independently of the device tool's parsers.
#pragma once

#include "tools/pack/pack_util.h"

#include <string>
#include <vector>

// Prints the chain, headers, partitions and records; 0 when well formed and signed.
struct vireo_ring_key;

// Prints the chain and checks it: the RSA signature against key, the signature block
// against ring (a problem when it does not verify and block_required).
int inspect_firmware(const std::string &path, EVP_PKEY *key, const std::string &key_name,
                     const std::vector<vireo_ring_key> &ring, const std::string &ring_name,
                     bool block_required);
