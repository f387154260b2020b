// SPDX-License-Identifier: Apache-2.0
// SipHash-2-4: a keyed 64-bit hash, used to seal blocks of a firmware file with a key
// that lives only as long as one run.
#pragma once

#include <cstddef>
#include <cstdint>

uint64_t vireo_siphash24(const uint64_t key[2], const uint8_t *data, size_t len);
