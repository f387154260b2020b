// SPDX-License-Identifier: Apache-2.0
// Reading a firmware file back, independently of the device tool's parsers.
#pragma once

#include "tools/pack/pack_util.h"

#include <string>

// Prints the chain, headers, partitions and records; 0 when well formed and signed.
int inspect_firmware(const std::string &path, EVP_PKEY *key, const std::string &key_name);
