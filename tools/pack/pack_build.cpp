// SPDX-License-Identifier: Apache-2.0
#include "tools/pack/pack_build.h"

#include "firmware/vireo_firmware_header.h"
#include "firmware/vireo_firmware_sigblock.h"
#include "tools/pack/pack_token.h"
#include "tools/vireo_ed25519_key.h"

#include <cstdio>
#include <cstring>
#include <map>

namespace
{

struct placed {
    std::string name;
    int64_t base;
    uint32_t size;
};

std::string up_ptn_table_text(const std::vector<placed> &entries)
{
    json_ptr root(cJSON_CreateObject(), cJSON_Delete);
    cJSON *array = cJSON_AddArrayToObject(root.get(), "up-ptn-table");
    char num[16];
    for (const placed &e : entries) {
        cJSON *obj = cJSON_CreateObject();
        cJSON_AddStringToObject(obj, "name", e.name.c_str());
        snprintf(num, sizeof(num), "0x%08X", static_cast<uint32_t>(e.base));
        cJSON_AddStringToObject(obj, "base", num);
        snprintf(num, sizeof(num), "0x%08X", e.size);
        cJSON_AddStringToObject(obj, "size", num);
        cJSON_AddItemToArray(array, obj);
    }
    return print_json(root.get());
}

std::string content_id(const bytes &content)
{
    uint8_t h[32];
    unsigned int len = 0;
    EVP_Digest(content.data(), content.size(), h, &len, EVP_sha256(), nullptr);
    return hex(h, len) + ":" + std::to_string(content.size());
}

} // namespace

// Writes the signature block of the image at h (len bytes to the end of the file): its
// fields first, then each key's signature of the prehash, which counts them as zeros.
static void sign_block(uint8_t *h, size_t len, const std::vector<pack_signer> &keys)
{
    uint8_t *b = h + SIGBLOCK_OFFSET;
    memcpy(b, SIGBLOCK_MAGIC, 4);
    put_be32(b + 4, SIGBLOCK_VERSION);
    put_be32(b + 8, static_cast<uint32_t>(keys.size()));
    for (size_t i = 0; i < keys.size(); i++) {
        uint8_t *slot = h + SIGBLOCK_FIRST_SLOT + i * SIGBLOCK_SLOT_SIZE;
        uint8_t pk[32];
        if (keys[i].token) {
            const bytes token_pk = token_ed25519_public(keys[i].token);
            memcpy(pk, token_pk.data(), sizeof(pk));
        } else if (!vireo_ed25519_public_of(keys[i].pem, pk)) {
            throw pack_error("not an Ed25519 key");
        }
        memcpy(slot, SIGBLOCK_ALG_ED25519_BLAKE2B, 2);
        vireo_ed25519_key_id(pk, slot + SIGBLOCK_SLOT_KEY_ID);
    }
    const bytes prehash = prehash_of(h, len);
    for (size_t i = 0; i < keys.size(); i++) {
        const bytes sig = keys[i].token ? token_ed25519_sign(keys[i].token, prehash)
                                        : ed25519_sign(keys[i].pem, prehash);
        memcpy(h + vireo_sigblock_sig_offset(static_cast<uint32_t>(i)), sig.data(), sig.size());
    }
}

bytes build_firmware(const std::vector<pack_image> &images, const pack_signer &rsa,
                     const std::vector<pack_signer> &ed25519_keys)
{
    if (ed25519_keys.size() > SIGBLOCK_SLOTS)
        throw pack_error("at most " + std::to_string(SIGBLOCK_SLOTS) + " Ed25519 keys");
    bytes file;
    std::vector<size_t> starts;
    // Contents already stored, found by their SHA-256 and confirmed byte for byte: later
    // images point back at them.
    std::map<std::string, uint64_t> stored;
    for (size_t k = 0; k < images.size(); k++) {
        const uint64_t start = file.size();
        const uint64_t payload = start + FIRMWARE_HEADER_SIZE + UP_PTN_TABLE_SIZE;
        std::vector<placed> entries;
        bytes own;
        for (const pack_partition &p : images[k].partitions) {
            if (p.content.size() > 0x7FFFFFFF)
                throw pack_error("partition '" + p.name + "' is too large");
            const std::string id = content_id(p.content);
            const auto earlier = stored.find(id);
            if (earlier != stored.end() && earlier->second < start &&
                memcmp(file.data() + earlier->second, p.content.data(), p.content.size()) == 0) {
                entries.push_back(
                    {p.name, static_cast<int64_t>(earlier->second) - static_cast<int64_t>(payload),
                     static_cast<uint32_t>(p.content.size())});
                continue;
            }
            entries.push_back({p.name, static_cast<int64_t>(own.size()),
                               static_cast<uint32_t>(p.content.size())});
            stored.emplace(id, payload + own.size());
            own.insert(own.end(), p.content.begin(), p.content.end());
        }
        const std::string table = up_ptn_table_text(entries);
        if (table.size() >= UP_PTN_TABLE_SIZE)
            throw pack_error("image " + std::to_string(k) +
                             ": its partition list does not fit in "
                             "the 64 KiB table region");
        bytes region(UP_PTN_TABLE_SIZE, 0);
        memcpy(region.data(), table.data(), table.size());
        starts.push_back(start);
        file.resize(start + FIRMWARE_HEADER_SIZE, 0);
        file.insert(file.end(), region.begin(), region.end());
        file.insert(file.end(), own.begin(), own.end());
        if (file.size() > 0x7FFFFFFF)
            throw pack_error("the firmware file would exceed 2 GiB");
    }

    // Header fields first, then digests and signatures from the last image back: an
    // image's digest and signature cover every later image.
    const uint32_t magics[6] = {FIRMWARE_HEADER_MAGIC_0, FIRMWARE_HEADER_MAGIC_1,
                                FIRMWARE_HEADER_MAGIC_2, FIRMWARE_HEADER_MAGIC_3,
                                FIRMWARE_HEADER_MAGIC_4, FIRMWARE_HEADER_MAGIC_5};
    for (size_t k = 0; k < starts.size(); k++) {
        uint8_t *h = file.data() + starts[k];
        for (int i = 0; i < 6; i++)
            put_be32(h + 4 * i, magics[i]);
        put_be32(h + 24, FIRMWARE_HEADER_VERSION);
        put_be32(h + 28, k + 1 < starts.size() ? static_cast<uint32_t>(starts[k + 1]) : 0);
        put_be32(h + 32, FIRMWARE_HEADER_SIZE);
        put_be32(h + 36, static_cast<uint32_t>(file.size() - starts[k]));
    }
    for (size_t k = starts.size(); k-- > 0;) {
        uint8_t *h = file.data() + starts[k];
        const size_t len = file.size() - starts[k];
        const bytes md5 = md5_of(h + FIRMWARE_HEADER_SIZE, len - FIRMWARE_HEADER_SIZE);
        memcpy(h + FIRMWARE_MD5_OFFSET, md5.data(), 16);
        // The RSA signature last, so that it covers the block too.
        if (!ed25519_keys.empty())
            sign_block(h, len, ed25519_keys);
        const bytes digest = signed_digest(h, len);
        const bytes sig =
            rsa.token ? token_sign_digest(rsa.token, digest) : sign_digest(rsa.pem, digest);
        memcpy(h + FIRMWARE_SIGNATURE_OFFSET, sig.data(), FIRMWARE_SIGNATURE_SIZE);
    }
    return file;
}
