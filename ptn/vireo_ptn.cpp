// SPDX-License-Identifier: Apache-2.0
#include "ptn/vireo_ptn.h"

#include "common/vireo_common.h"

#include <cstring>
#include <memory>
#include <new>

static const char VIREO_MODULE[] = "vireo_ptn";

using ptn_table_ptr = std::unique_ptr<ptn_table, decltype(&vireo_ptn_destroy)>;

// Reads one hexadecimal string member of a partition object; traces and fails otherwise.
static int parse_hex_member(const cJSON *item, const char *key, uint32_t *out)
{
    const char *text = nullptr;
    switch (vireo_json_string_member(item, key, &text)) {
    case VIREO_MEMBER_ABSENT:
        VIREO_TRACE("ptn json '%s' not found.\n", key);
        return -1;
    case VIREO_MEMBER_NOT_STRING:
        VIREO_TRACE("ptn json '%s' must be String type.\n", key);
        return -1;
    case VIREO_MEMBER_OK:
        break;
    }
    *out = vireo_hex_to_u32(text);
    return 0;
}

static int parse_name_member(const cJSON *item, char *name)
{
    const char *text = nullptr;
    switch (vireo_json_string_member(item, "name", &text)) {
    case VIREO_MEMBER_ABSENT:
        VIREO_TRACE("ptn json 'name' not found.\n");
        return -1;
    case VIREO_MEMBER_NOT_STRING:
        VIREO_TRACE("ptn json 'name' must be String type.\n");
        return -1;
    case VIREO_MEMBER_OK:
        break;
    }
    const size_t len = strlen(text);
    if (len > PTN_NAME_LEN - 1) {
        VIREO_TRACE("ptn json 'name' string len too long, '%s', %d/%d\n", text,
                    static_cast<int>(len), PTN_NAME_LEN);
        return -1;
    }
    if (!viero_ptn_name_validate(text)) {
        VIREO_TRACE("ptn json 'name' (%s) validate failed.\n", text);
        return -1;
    }
    memcpy(name, text, len + 1);
    return 0;
}

int32_t vireo_ptn_json_parse(const cJSON *json_root, ptn_table *ptn_table)
{
    VIREO_ASSERT(json_root);
    VIREO_ASSERT(ptn_table);
    memset(ptn_table, 0, sizeof(*ptn_table));

    const cJSON *disk_size = cJSON_GetObjectItem(json_root, "disk-size");
    if (!disk_size) {
        VIREO_TRACE("'%s' not found.\n", "disk-size");
        return -1;
    }
    if (!cJSON_IsString(disk_size) || !disk_size->valuestring) {
        VIREO_TRACE("'%s' must be String type.\n", "disk-size");
        return -1;
    }
    ptn_table->disk_size = vireo_hex_to_u32(disk_size->valuestring);

    const cJSON *ptns = cJSON_GetObjectItem(json_root, "partition-table");
    if (!ptns) {
        VIREO_TRACE("'%s' not found.\n", "partition-table");
        return -1;
    }
    if (!cJSON_IsArray(ptns)) {
        VIREO_TRACE("'%s' must be Array type.\n", "partition-table");
        return -1;
    }
    const int count = cJSON_GetArraySize(ptns);
    VIREO_TRACE("ptn_cnt %d\n", count);
    if (count > PTN_MAX_NUM) {
        VIREO_TRACE("too much partitiions, %d/%d.\n", count, PTN_MAX_NUM);
        return -1;
    }

    for (const cJSON *item = ptns->child; item; item = item->next) {
        ptn_info *ptn = &ptn_table->ptns[ptn_table->ptn_cnt];
        if (parse_name_member(item, ptn->name) != 0 ||
            parse_hex_member(item, "base", &ptn->base) != 0 ||
            parse_hex_member(item, "size", &ptn->size) != 0 ||
            parse_hex_member(item, "attr", &ptn->attr) != 0)
            return -1;
        VIREO_TRACE("PTN %2d : name '%s' base 0x%08x size 0x%08x attr 0x%08x\n",
                    static_cast<int>(ptn_table->ptn_cnt), ptn->name, ptn->base, ptn->size,
                    ptn->attr);
        ptn_table->ptn_cnt++;
    }

    if (!viero_ptn_validate(ptn_table)) {
        VIREO_TRACE("ptn table validate failed.\n");
        return -1;
    }
    return 0;
}

int32_t viero_ptn_validate(const ptn_table *ptn_table)
{
    VIREO_ASSERT(ptn_table);
    const uint32_t count = ptn_table->ptn_cnt < PTN_MAX_NUM ? ptn_table->ptn_cnt : PTN_MAX_NUM;
    for (uint32_t i = 0; i < count; i++) {
        const ptn_info &p = ptn_table->ptns[i];
        if (p.size == 0) {
            VIREO_TRACE("PTN[%s] size is 0.\n", p.name);
            return 0;
        }
        // Summed in 64 bits: a pair that wraps past 4 GiB overflows the disk too.
        if (static_cast<uint64_t>(p.base) + p.size > ptn_table->disk_size) {
            VIREO_TRACE("PTN[%s,0x%08x,0x%08x] cause disk[0x%08x] overflow.\n", p.name, p.base,
                        p.size, ptn_table->disk_size);
            return 0;
        }
        for (uint32_t j = 0; j < i; j++) {
            const ptn_info &q = ptn_table->ptns[j];
            if (strcmp(p.name, q.name) == 0) {
                VIREO_TRACE("PTN[%d] and PTN[%d] Name conflict : '%s'.\n", static_cast<int>(j),
                            static_cast<int>(i), p.name);
                return 0;
            }
            if (p.base <= q.base) {
                VIREO_TRACE("PTN[%s](%d) base(0x%08x) <= PTN[%s](%d) base(0x%08x).\n", p.name,
                            static_cast<int>(i), p.base, q.name, static_cast<int>(j), q.base);
                return 0;
            }
            if (p.base < q.base + q.size) {
                VIREO_TRACE("PTN[%s](%d) base(0x%08x) < PTN[%s](%d) base+size(0x%08x).\n", p.name,
                            static_cast<int>(i), p.base, q.name, static_cast<int>(j),
                            q.base + q.size);
                return 0;
            }
        }
    }
    return 1;
}

static ptn_table *alloc_table()
{
    ptn_table *table = new (std::nothrow) ptn_table();
    if (!table)
        VIREO_TRACE("failed to alloc %d bytes.\n", static_cast<int>(sizeof(ptn_table)));
    return table;
}

ptn_table *vireo_ptn_build(const cJSON *json_root)
{
    VIREO_ASSERT(json_root);
    ptn_table_ptr table(alloc_table(), vireo_ptn_destroy);
    if (!table)
        return nullptr;
    if (vireo_ptn_json_parse(json_root, table.get()) != 0) {
        VIREO_TRACE("Failed to parse json -> ptn table struct.\n");
        return nullptr;
    }
    return table.release();
}

ptn_table *vireo_ptn_build_by_json_data(const char *data, int32_t len)
{
    VIREO_TRACE("json_data %p json_len %d\n", static_cast<const void *>(data), len);
    ptn_table_ptr table(alloc_table(), vireo_ptn_destroy);
    if (!table)
        return nullptr;
    cjson_ptr root(vireo_parse_json_data(data, len), cJSON_Delete);
    if (!root) {
        VIREO_TRACE("Failed to parse json.\n");
        return nullptr;
    }
    if (vireo_ptn_json_parse(root.get(), table.get()) != 0) {
        VIREO_TRACE("Failed to parse json -> ptn table struct.\n");
        return nullptr;
    }
    return table.release();
}

// Adds a "0x%08X" string member; false when it cannot be created.
static bool add_hex(cJSON *obj, const char *key, uint32_t value)
{
    char text[16];
    snprintf(text, sizeof(text), "0x%08X", value);
    cJSON *item = cJSON_CreateString(text);
    if (!item)
        return false;
    cJSON_AddItemToObject(obj, key, item);
    return true;
}

cJSON *vireo_ptn_build_json(const ptn_table *ptn_table)
{
    VIREO_ASSERT(ptn_table);
    cjson_ptr root(cJSON_CreateObject(), cJSON_Delete);
    if (!root || !add_hex(root.get(), "disk-size", ptn_table->disk_size)) {
        VIREO_TRACE("Failed create json obj.\n");
        return nullptr;
    }
    cjson_ptr array(cJSON_CreateArray(), cJSON_Delete);
    if (!array) {
        VIREO_TRACE("Failed create json obj.\n");
        return nullptr;
    }
    const uint32_t count = ptn_table->ptn_cnt < PTN_MAX_NUM ? ptn_table->ptn_cnt : PTN_MAX_NUM;
    for (uint32_t i = 0; i < count; i++) {
        const ptn_info &p = ptn_table->ptns[i];
        cjson_ptr obj(cJSON_CreateObject(), cJSON_Delete);
        cJSON *name = obj ? cJSON_CreateString(p.name) : nullptr;
        if (name)
            cJSON_AddItemToObject(obj.get(), "name", name);
        if (!name || !add_hex(obj.get(), "base", p.base) || !add_hex(obj.get(), "size", p.size) ||
            !add_hex(obj.get(), "attr", p.attr)) {
            VIREO_TRACE("Failed create json_ptn.\n");
            return nullptr;
        }
        cJSON_AddItemToArray(array.get(), obj.release());
    }
    cJSON_AddItemToObject(root.get(), "partition-table", array.release());
    return root.release();
}

void vireo_ptn_destroy(ptn_table *ptn_table)
{
    VIREO_ASSERT(ptn_table);
    delete ptn_table;
}

int32_t vireo_ptn_get_index_by_name(const ptn_table *ptn_table, const char *name)
{
    VIREO_ASSERT(ptn_table);
    VIREO_ASSERT(name);
    const uint32_t count = ptn_table->ptn_cnt < PTN_MAX_NUM ? ptn_table->ptn_cnt : PTN_MAX_NUM;
    for (uint32_t i = 0; i < count; i++) {
        if (strcmp(ptn_table->ptns[i].name, name) == 0)
            return static_cast<int32_t>(i);
    }
    return -1;
}

void vireo_ptn_dump(const ptn_table *ptn_table)
{
    VIREO_ASSERT(ptn_table);
    vireo_print_line('-', 104);
    printf("disk size        : 0x%08x (dec %10u).\n", ptn_table->disk_size, ptn_table->disk_size);
    printf("partition number : %u\n", ptn_table->ptn_cnt);
    printf("\n");
    printf("partitions:\n");
    printf("%5s %-24s %10s %10s %10s\n", "index", "name", "base", "size(hex)", "size(dec)");
    vireo_print_line('-', 63);
    const uint32_t count = ptn_table->ptn_cnt < PTN_MAX_NUM ? ptn_table->ptn_cnt : PTN_MAX_NUM;
    for (uint32_t i = 0; i < count; i++) {
        const ptn_info &p = ptn_table->ptns[i];
        printf("%5d %-24s 0x%08x 0x%08x %10u\n", static_cast<int>(i), p.name, p.base, p.size,
               p.size);
    }
    vireo_print_line('-', 104);
}
