// SPDX-License-Identifier: Apache-2.0
// Standard base64 (RFC 4648) decoding of the built-in key text.
#pragma once

#include <cstdint>

// Decodes text_len / 4 groups into out (room for 3 bytes per group plus a NUL); returns
// the number of bytes written (a NUL follows them), 0 on failure.
int32_t base64_decode(const char *text, uint32_t text_len, uint8_t *out);
