// SPDX-License-Identifier: Apache-2.0
#include "firmware/vireo_firmware_sigblock.h"

#include "common/vireo_endian.h"
#include "firmware/vireo_firmware_header.h"

#include <cstdio>
#include <cstring>

int32_t vireo_sigblock_parse(const uint8_t *head, uint64_t len, vireo_sigblock *block,
                             const char **why)
{
    if (!head || len < SIGBLOCK_END) {
        *why = "file too short for a signature block";
        return -1;
    }
    const uint8_t *b = head + SIGBLOCK_OFFSET;
    if (memcmp(b, SIGBLOCK_MAGIC, 4) != 0) {
        *why = "no signature block";
        return -1;
    }
    if (vireo_get_be32(b + 4) != SIGBLOCK_VERSION) {
        *why = "unknown signature block version";
        return -1;
    }
    memset(block, 0, sizeof(*block));
    block->count = vireo_get_be32(b + 8);
    if (block->count < 1 || block->count > SIGBLOCK_SLOTS) {
        *why = "bad signature count";
        return -1;
    }
    for (uint32_t i = 0; i < block->count; i++) {
        const uint8_t *s = head + SIGBLOCK_FIRST_SLOT + i * SIGBLOCK_SLOT_SIZE;
        vireo_sigblock_slot *slot = &block->slots[i];
        memcpy(slot->alg, s, 2);
        memcpy(slot->key_id, s + SIGBLOCK_SLOT_KEY_ID, SIGBLOCK_KEY_ID_SIZE);
        memcpy(slot->sig, s + SIGBLOCK_SLOT_SIG, SIGBLOCK_SIG_SIZE);
    }
    return 0;
}

// Zeroes the part of [from, from + n) that lies in the chunk at pos.
static void zero_range(uint64_t pos, uint8_t *data, uint64_t len, uint64_t from, uint64_t n)
{
    const uint64_t lo = from > pos ? from : pos;
    const uint64_t hi = from + n < pos + len ? from + n : pos + len;
    if (lo < hi)
        memset(data + (lo - pos), 0, hi - lo);
}

void vireo_sigblock_mask(uint64_t pos, uint8_t *data, uint64_t len)
{
    if (pos >= SIGBLOCK_END)
        return;
    zero_range(pos, data, len, FIRMWARE_SIGNATURE_OFFSET, FIRMWARE_SIGNATURE_SIZE);
    for (uint32_t i = 0; i < SIGBLOCK_SLOTS; i++)
        zero_range(pos, data, len, vireo_sigblock_sig_offset(i), SIGBLOCK_SIG_SIZE);
}

const char *vireo_sigblock_key_id_hex(char text[17], const uint8_t key_id[SIGBLOCK_KEY_ID_SIZE])
{
    for (int i = 0; i < SIGBLOCK_KEY_ID_SIZE; i++)
        snprintf(text + 2 * i, 3, "%02x", key_id[i]);
    return text;
}
