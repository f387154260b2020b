// SPDX-License-Identifier: Apache-2.0
#include "tools/vireo_ed25519_key.h"

#include "tools/vireo_key_blob.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <openssl/pem.h>
#include <vector>

EVP_PKEY *vireo_ed25519_load_pem(const std::string &pem_path, bool want_private, std::string *error)
{
    bool opened = false;
    EVP_PKEY *key = vireo_read_pem_key(pem_path, want_private, &opened);
    if (!opened) {
        *error = "cannot open key '" + pem_path + "': " + strerror(errno);
        return nullptr;
    }
    if (!key || EVP_PKEY_base_id(key) != EVP_PKEY_ED25519) {
        EVP_PKEY_free(key);
        *error = "'" + pem_path + "' is not an Ed25519 " + (want_private ? "private" : "public") +
                 " key in PEM form";
        return nullptr;
    }
    return key;
}

bool vireo_ed25519_public_of(EVP_PKEY *key, uint8_t pk[32])
{
    size_t len = 32;
    return key && EVP_PKEY_base_id(key) == EVP_PKEY_ED25519 &&
           EVP_PKEY_get_raw_public_key(key, pk, &len) == 1 && len == 32;
}

void vireo_ed25519_key_id(const uint8_t pk[32], uint8_t id[8])
{
    uint8_t h[64];
    unsigned int len = 0;
    EVP_Digest(pk, 32, h, &len, EVP_blake2b512(), nullptr);
    memcpy(id, h, 8);
}

std::string vireo_ed25519_ring_line(const uint8_t pk[32])
{
    std::vector<uint8_t> raw = {'E', 'd'};
    uint8_t id[8];
    vireo_ed25519_key_id(pk, id);
    raw.insert(raw.end(), id, id + 8);
    raw.insert(raw.end(), pk, pk + 32);
    return vireo_base64_encode(raw);
}
