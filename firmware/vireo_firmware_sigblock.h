// SPDX-License-Identifier: Apache-2.0
// The Ed25519 signature block kept in the header region's zero area (docs/signature.md).
// Devices built without it never look at these bytes; the RSA signature covers them.
#pragma once

#include <cstdint>

#define SIGBLOCK_OFFSET 432
#define SIGBLOCK_MAGIC "VSIG"
#define SIGBLOCK_VERSION 1
#define SIGBLOCK_SLOTS 2
#define SIGBLOCK_FIRST_SLOT 448
#define SIGBLOCK_SLOT_SIZE 80
// Inside a slot: algorithm (2 bytes), 6 zero bytes, key id (8), signature (64).
#define SIGBLOCK_SLOT_KEY_ID 8
#define SIGBLOCK_SLOT_SIG 16
#define SIGBLOCK_KEY_ID_SIZE 8
#define SIGBLOCK_SIG_SIZE 64
#define SIGBLOCK_END (SIGBLOCK_FIRST_SLOT + SIGBLOCK_SLOTS * SIGBLOCK_SLOT_SIZE)
// Ed25519 over the BLAKE2b-512 of the message: minisign's name for it.
#define SIGBLOCK_ALG_ED25519_BLAKE2B "ED"
#define SIGBLOCK_PREHASH_SIZE 64

struct vireo_sigblock_slot {
    char alg[2];
    uint8_t key_id[SIGBLOCK_KEY_ID_SIZE];
    uint8_t sig[SIGBLOCK_SIG_SIZE];
};

struct vireo_sigblock {
    uint32_t count; // slots in use, 1 or 2
    vireo_sigblock_slot slots[SIGBLOCK_SLOTS];
};

// Offset of slot i's signature bytes from the start of the header.
inline uint32_t vireo_sigblock_sig_offset(uint32_t i)
{
    return SIGBLOCK_FIRST_SLOT + i * SIGBLOCK_SLOT_SIZE + SIGBLOCK_SLOT_SIG;
}

// Reads the block from the first len bytes of a file: 0, or -1 with *why set (a file
// without a block, or one this version does not know).
int32_t vireo_sigblock_parse(const uint8_t *head, uint64_t len, vireo_sigblock *block,
                             const char **why);
// Zeroes, in the bytes data[0..len) that lie at file offset pos, those that the signed
// message counts as zero: the RSA signature field and every slot's signature.
void vireo_sigblock_mask(uint64_t pos, uint8_t *data, uint64_t len);
// Writes the text form of a key id (16 lower-case hexadecimal digits) into text[17].
const char *vireo_sigblock_key_id_hex(char text[17], const uint8_t key_id[SIGBLOCK_KEY_ID_SIZE]);
