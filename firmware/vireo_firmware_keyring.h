// SPDX-License-Identifier: Apache-2.0
// The ring of Ed25519 public keys a build trusts, and the verdict of a signature block
// against it.
#pragma once

#include "common/vireo_common.h"
#include "firmware/vireo_firmware_sigblock.h"

#include <cstdint>
#include <vector>

struct vireo_ring_key {
    uint8_t id[SIGBLOCK_KEY_ID_SIZE];
    uint8_t pk[32];
};

// The ring text the build was configured with (one key a line).
extern const char builtin_keyring[];

// Reads ring text: one public key a line, base64 of "Ed", an 8-byte key id and the 32-byte
// key (the minisign and usign public-key form); empty lines and lines of comment ('#', or
// "untrusted comment:") are skipped. 0, or -1 with *bad_line the first line that is none.
int32_t vireo_keyring_parse(const char *text, std::vector<vireo_ring_key> *ring, int *bad_line);

// The verdict on the block in head[0..len) over the prehash: 0 when one of its signatures
// was made by a key of the ring, else -1 with *why (and the key id concerned in key_hex,
// when one).
int32_t vireo_keyring_verify(const std::vector<vireo_ring_key> &ring, const uint8_t *head,
                             uint64_t len, const uint8_t prehash[SIGBLOCK_PREHASH_SIZE],
                             const char **why, char key_hex[17]);

// The check the device makes against the built-in ring: 0, or -1 with one trace at site.
int32_t vireo_signature_block_check(const vireo_trace_site &site, const uint8_t *head, uint64_t len,
                                    const uint8_t prehash[SIGBLOCK_PREHASH_SIZE]);
