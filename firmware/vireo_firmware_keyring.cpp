// SPDX-License-Identifier: Apache-2.0
#include "firmware/vireo_firmware_keyring.h"

#include <cstring>
#include <sodium.h>
#include <string>

// The decoded public-key line: "Ed", key id, key.
#define RING_LINE_BYTES (2 + SIGBLOCK_KEY_ID_SIZE + 32)

static bool is_comment(const std::string &line)
{
    return line.empty() || line[0] == '#' || line.rfind("untrusted comment:", 0) == 0;
}

int32_t vireo_keyring_parse(const char *text, std::vector<vireo_ring_key> *ring, int *bad_line)
{
    VIREO_ASSERT(text);
    VIREO_ASSERT(ring);
    ring->clear();
    if (sodium_init() < 0)
        return -1;
    int number = 0;
    for (const char *p = text; *p;) {
        const char *end = strchr(p, '\n');
        std::string line(p, end ? static_cast<size_t>(end - p) : strlen(p));
        p = end ? end + 1 : p + line.size();
        number++;
        while (!line.empty() && (line.back() == '\r' || line.back() == ' ' || line.back() == '\t'))
            line.pop_back();
        if (is_comment(line))
            continue;
        uint8_t raw[RING_LINE_BYTES + 1];
        size_t n = 0;
        if (sodium_base642bin(raw, sizeof(raw), line.data(), line.size(), nullptr, &n, nullptr,
                              sodium_base64_VARIANT_ORIGINAL) != 0 ||
            n != RING_LINE_BYTES || memcmp(raw, "Ed", 2) != 0) {
            *bad_line = number;
            return -1;
        }
        vireo_ring_key key;
        memcpy(key.id, raw + 2, SIGBLOCK_KEY_ID_SIZE);
        memcpy(key.pk, raw + 2 + SIGBLOCK_KEY_ID_SIZE, 32);
        ring->push_back(key);
    }
    return 0;
}

int32_t vireo_keyring_verify(const std::vector<vireo_ring_key> &ring, const uint8_t *head,
                             uint64_t len, const uint8_t prehash[SIGBLOCK_PREHASH_SIZE],
                             const char **why, char key_hex[17])
{
    key_hex[0] = '\0';
    vireo_sigblock block;
    if (vireo_sigblock_parse(head, len, &block, why) != 0)
        return -1;
    if (sodium_init() < 0) {
        *why = "no Ed25519 library";
        return -1;
    }
    *why = "no signature by a key of the ring";
    for (uint32_t i = 0; i < block.count; i++) {
        const vireo_sigblock_slot &slot = block.slots[i];
        if (memcmp(slot.alg, SIGBLOCK_ALG_ED25519_BLAKE2B, 2) != 0)
            continue; // an algorithm this build does not know counts for nothing
        for (const vireo_ring_key &key : ring) {
            if (memcmp(key.id, slot.key_id, SIGBLOCK_KEY_ID_SIZE) != 0)
                continue;
            if (crypto_sign_verify_detached(slot.sig, prehash, SIGBLOCK_PREHASH_SIZE, key.pk) == 0)
                return 0;
            *why = "signature does not verify";
            vireo_sigblock_key_id_hex(key_hex, slot.key_id);
        }
    }
    return -1;
}

int32_t vireo_signature_block_check(const vireo_trace_site &site, const uint8_t *head, uint64_t len,
                                    const uint8_t prehash[SIGBLOCK_PREHASH_SIZE])
{
    std::vector<vireo_ring_key> ring;
    int bad_line = 0;
    // The build refused a ring with a bad line; this only guards a broken build.
    if (vireo_keyring_parse(builtin_keyring, &ring, &bad_line) != 0) {
        vireo_trace_at(site, "Ed25519 check not pass: built-in key ring unreadable\n\n");
        return -1;
    }
    const char *why = "";
    char key_hex[17];
    if (vireo_keyring_verify(ring, head, len, prehash, &why, key_hex) == 0)
        return 0;
    if (key_hex[0])
        vireo_trace_at(site, "Ed25519 check not pass: %s (key %s)\n\n", why, key_hex);
    else
        vireo_trace_at(site, "Ed25519 check not pass: %s\n\n", why);
    return -1;
}
