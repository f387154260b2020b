// SPDX-License-Identifier: Apache-2.0
#include "tools/pack/pack_readback.h"

#include "firmware/vireo_firmware_header.h"
#include "firmware/vireo_firmware_keyring.h"

#include <cstdio>
#include <cstring>
#include <set>

namespace
{

bool is_record(const std::string &name)
{
    static const std::set<std::string> records = {
        "partition-table", "support-list",  "firmware-info", "firmware-info.b",
        "device-info",     "device-info.b", "extra-para",    "extra-para.b"};
    return records.count(name) != 0;
}

// Prints a record partition's document when it carries a valid content header.
void print_record(const uint8_t *p, uint32_t size)
{
    if (size < 16 || get_be32(p) != 0xAA55D98F || get_be32(p + 4) != 0x04E955AA ||
        get_be32(p + 8) > size - 16) {
        printf("      (no valid content header)\n");
        return;
    }
    const std::string text(reinterpret_cast<const char *>(p + 16), get_be32(p + 8));
    json_ptr json(cJSON_Parse(text.c_str()), cJSON_Delete);
    if (!json) {
        printf("      (content is not JSON)\n");
        return;
    }
    std::string doc = print_json(json.get());
    size_t pos = 0;
    while (pos < doc.size()) {
        const size_t nl = doc.find('\n', pos);
        printf("      %s\n", doc.substr(pos, nl - pos).c_str());
        pos = nl == std::string::npos ? doc.size() : nl + 1;
    }
}

struct inspector {
    const bytes &file;
    EVP_PKEY *key;
    const std::vector<vireo_ring_key> &ring;
    bool block_required;
    int problems = 0;

    void problem(const std::string &what)
    {
        printf("  problem: %s\n", what.c_str());
        problems++;
    }

    // One image; false when the chain cannot be followed past it.
    bool image(size_t index, uint64_t start, uint64_t *next)
    {
        printf("image %zu at 0x%08llx\n", index, static_cast<unsigned long long>(start));
        const uint64_t left = file.size() - start;
        if (left < FIRMWARE_MIN_SIZE) {
            problem("only " + std::to_string(left) + " bytes left, an image needs at least " +
                    std::to_string(FIRMWARE_MIN_SIZE));
            return false;
        }
        const uint8_t *h = file.data() + start;
        const uint32_t magics[6] = {FIRMWARE_HEADER_MAGIC_0, FIRMWARE_HEADER_MAGIC_1,
                                    FIRMWARE_HEADER_MAGIC_2, FIRMWARE_HEADER_MAGIC_3,
                                    FIRMWARE_HEADER_MAGIC_4, FIRMWARE_HEADER_MAGIC_5};
        for (int i = 0; i < 6; i++)
            if (get_be32(h + 4 * i) != magics[i]) {
                problem("magic word " + std::to_string(i) + " is wrong");
                return false;
            }
        const uint32_t version = get_be32(h + 24), nextpos = get_be32(h + 28);
        const uint32_t header_len = get_be32(h + 32), total_len = get_be32(h + 36);
        printf("  version %u, header_len %u, total_len %u, nextpos 0x%08x\n", version, header_len,
               total_len, nextpos);
        if (version != FIRMWARE_HEADER_VERSION)
            problem("version is not 1");
        if (total_len != left)
            problem("total_len differs from the " + std::to_string(left) + " bytes left");
        if (static_cast<uint64_t>(header_len) + UP_PTN_TABLE_SIZE > left) {
            problem("the partition list region lies past the end of the file");
            return false;
        }
        const bytes md5 = md5_of(h + header_len, left - header_len);
        const bool md5_ok = memcmp(md5.data(), h + FIRMWARE_MD5_OFFSET, 16) == 0;
        printf("  md5_digest %s: %s\n", hex(h + FIRMWARE_MD5_OFFSET, 16).c_str(),
               md5_ok ? "matches" : ("MISMATCH, computed " + hex(md5.data(), 16)).c_str());
        if (!md5_ok)
            problem("md5_digest does not match the content");
        const bool sig_ok = verify_digest(key, signed_digest(h, left),
                                          h + FIRMWARE_SIGNATURE_OFFSET, FIRMWARE_SIGNATURE_SIZE);
        printf("  signature: %s\n", sig_ok ? "valid" : "INVALID");
        if (!sig_ok && index == 0)
            problem("the signature does not verify");
        block(h, left, index);
        partitions(h + header_len, start + header_len + UP_PTN_TABLE_SIZE);
        *next = nextpos;
        if (nextpos != 0 && (nextpos <= start || nextpos >= file.size())) {
            problem("nextpos does not lead to a later offset inside the file");
            return false;
        }
        return true;
    }

    // The signature block: each slot's key id and its verdict against the ring.
    void block(const uint8_t *h, uint64_t left, size_t index)
    {
        vireo_sigblock parsed;
        const char *why = "";
        if (vireo_sigblock_parse(h, left, &parsed, &why) != 0) {
            printf("  signature block: %s\n", why);
            if (block_required && index == 0)
                problem("no Ed25519 signature block");
            return;
        }
        const bytes prehash = prehash_of(h, left);
        bool any = false;
        for (uint32_t i = 0; i < parsed.count; i++) {
            const vireo_sigblock_slot &slot = parsed.slots[i];
            char id[17];
            vireo_sigblock_key_id_hex(id, slot.key_id);
            std::vector<vireo_ring_key> one;
            for (const vireo_ring_key &k : ring)
                if (memcmp(k.id, slot.key_id, sizeof(k.id)) == 0)
                    one.push_back(k);
            // The device's verdict on a block holding this slot alone.
            uint8_t copy[SIGBLOCK_END];
            memcpy(copy, h, SIGBLOCK_END);
            memcpy(copy + SIGBLOCK_FIRST_SLOT, copy + SIGBLOCK_FIRST_SLOT + i * SIGBLOCK_SLOT_SIZE,
                   SIGBLOCK_SLOT_SIZE);
            put_be32(copy + SIGBLOCK_OFFSET + 8, 1);
            char ignored[17];
            const char *verdict = "not in the ring";
            if (memcmp(slot.alg, SIGBLOCK_ALG_ED25519_BLAKE2B, 2) != 0)
                verdict = "unknown algorithm";
            else if (!one.empty())
                verdict = vireo_keyring_verify(one, copy, SIGBLOCK_END, prehash.data(), &why,
                                               ignored) == 0
                              ? "valid"
                              : "INVALID";
            any = any || strcmp(verdict, "valid") == 0;
            printf("  ed25519 signature %u: key %s: %s\n", i, id, verdict);
        }
        if (!any && block_required && index == 0)
            problem("no Ed25519 signature by a key of the ring");
    }

    void partitions(const uint8_t *region, uint64_t payload)
    {
        if (!memchr(region, 0, UP_PTN_TABLE_SIZE)) {
            problem("the partition list region holds no NUL-terminated text");
            return;
        }
        json_ptr json(cJSON_Parse(reinterpret_cast<const char *>(region)), cJSON_Delete);
        const cJSON *list = json ? cJSON_GetObjectItem(json.get(), "up-ptn-table") : nullptr;
        if (!cJSON_IsArray(list)) {
            problem("the partition list is not a JSON document with an \"up-ptn-table\" array");
            return;
        }
        printf("  partitions (%d):\n", cJSON_GetArraySize(list));
        for (const cJSON *e = list->child; e; e = e->next) {
            const cJSON *name = cJSON_GetObjectItem(e, "name");
            const cJSON *base = cJSON_GetObjectItem(e, "base");
            const cJSON *size = cJSON_GetObjectItem(e, "size");
            if (!cJSON_IsString(name) || !cJSON_IsString(base) || !cJSON_IsString(size)) {
                problem("a partition entry lacks a string name, base or size");
                continue;
            }
            const int32_t b = static_cast<int32_t>(strtoul(base->valuestring, nullptr, 16));
            const uint32_t s = static_cast<uint32_t>(strtoul(size->valuestring, nullptr, 16));
            printf("    name '%s' base 0x%08x size 0x%08x\n", name->valuestring,
                   static_cast<uint32_t>(b), s);
            const int64_t at = static_cast<int64_t>(payload) + b;
            if (at < 0 || at + s > static_cast<int64_t>(file.size())) {
                problem(std::string("partition '") + name->valuestring + "' lies outside the file");
                continue;
            }
            if (is_record(name->valuestring))
                print_record(file.data() + at, s);
        }
    }
};

} // namespace

int inspect_firmware(const std::string &path, EVP_PKEY *key, const std::string &key_name,
                     const std::vector<vireo_ring_key> &ring, const std::string &ring_name,
                     bool block_required)
{
    const bytes file = read_all(path);
    printf("file '%s': %zu bytes, key: %s, key ring: %s\n", path.c_str(), file.size(),
           key_name.c_str(), ring_name.c_str());
    inspector in{file, key, ring, block_required};
    uint64_t at = 0;
    for (size_t index = 0;; index++) {
        uint64_t next = 0;
        if (!in.image(index, at, &next) || next == 0)
            break;
        at = next;
    }
    if (in.problems == 0)
        printf("well formed and signed\n");
    else
        printf("%d problem(s)\n", in.problems);
    return in.problems == 0 ? 0 : 1;
}
