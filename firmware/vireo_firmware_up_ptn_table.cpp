// SPDX-License-Identifier: Apache-2.0
#include "firmware/vireo_firmware_up_ptn_table.h"

#include "common/vireo_common.h"
#include "firmware/vireo_firmware_seal.h"

#include <cstdlib>
#include <cstring>
#include <vector>

static const char VIREO_MODULE[] = "vireo_firmware";

// Reads one string member of an entry, tracing the member's own message on failure.
static const char *entry_string(const cJSON *item, const char *key)
{
    const char *text = nullptr;
    switch (vireo_json_string_member(item, key, &text)) {
    case VIREO_MEMBER_ABSENT:
        VIREO_TRACE("ptn json '%s' not found.\n", key);
        return nullptr;
    case VIREO_MEMBER_NOT_STRING:
        VIREO_TRACE("ptn json '%s' must be String type.\n", key);
        return nullptr;
    case VIREO_MEMBER_OK:
        break;
    }
    return text;
}

int32_t vireo_firmware_up_ptn_table_parse(const cJSON *json_up_ptn_table, up_ptn_table *ptn_table)
{
    VIREO_ASSERT(NULL != json_up_ptn_table);
    VIREO_ASSERT(NULL != ptn_table);
    const cJSON *array = cJSON_GetObjectItem(json_up_ptn_table, "up-ptn-table");
    if (!array) {
        VIREO_TRACE("json '%s' not found.\n", "up-ptn-table");
        return -1;
    }
    memset(ptn_table, 0, sizeof(*ptn_table));
    if (!cJSON_IsArray(array)) {
        VIREO_TRACE("json '%s' must be Array type.\n", "up-ptn-table");
        return -1;
    }
    // The record has room for 64 entries; more are refused, never written past it.
    const int count = cJSON_GetArraySize(array);
    if (count > UP_PTN_MAX_NUM) {
        VIREO_TRACE("too much up partitions, %d/%d.\n", count, UP_PTN_MAX_NUM);
        return -1;
    }
    for (const cJSON *item = array->child; item; item = item->next) {
        up_ptn_info *ptn = &ptn_table->ptns[ptn_table->ptn_cnt];
        const char *name = entry_string(item, "name");
        if (!name)
            return -1;
        const size_t len = strlen(name);
        if (len > UP_PTN_NAME_LEN - 1) {
            VIREO_TRACE("ptn json 'name' string len too long, '%s', %d/%d\n", name,
                        static_cast<int>(len), UP_PTN_NAME_LEN);
            return -1;
        }
        memcpy(ptn->name, name, len + 1);
        const char *base = entry_string(item, "base");
        if (!base)
            return -1;
        ptn->base = static_cast<int32_t>(vireo_hex_to_u32(base));
        const char *size = entry_string(item, "size");
        if (!size)
            return -1;
        ptn->size = vireo_hex_to_u32(size);
        if (ptn->base >= 0)
            ptn_table->ptns_total_size += ptn->size;
        ptn_table->ptn_cnt++;
    }
    return 0;
}

up_ptn_table *vireo_firmware_up_ptn_table_build_by_json(const cJSON *json_root)
{
    VIREO_ASSERT(json_root);
    up_ptn_table *table = static_cast<up_ptn_table *>(calloc(1, sizeof(up_ptn_table)));
    if (!table) {
        VIREO_TRACE("failed to alloc %d bytes.\n", static_cast<int>(sizeof(up_ptn_table)));
        return nullptr;
    }
    if (vireo_firmware_up_ptn_table_parse(json_root, table) != 0) {
        VIREO_TRACE("Failed to parse json -> up ptn table struct.\n");
        free(table);
        return nullptr;
    }
    return table;
}

up_ptn_table *vireo_firmware_up_ptn_table_build_by_fimware(const uint8_t *buf, int32_t buf_size,
                                                           const firmware_header *header)
{
    if (!buf || buf_size < 1 || !header) {
        VIREO_TRACE("Invalid pass-in args, (%p,%d,%p)\n", static_cast<const void *>(buf), buf_size,
                    static_cast<const void *>(header));
        return nullptr;
    }
    // The region must lie wholly inside the image and the buffer.
    const uint64_t region_end = static_cast<uint64_t>(header->header_len) + UP_PTN_TABLE_SIZE;
    if (region_end > static_cast<uint64_t>(buf_size) || region_end > header->total_len) {
        VIREO_TRACE("up_ptn_table region [%u, +%d) lies outside the image of %d bytes.\n",
                    header->header_len, UP_PTN_TABLE_SIZE, buf_size);
        return nullptr;
    }
    std::vector<char> text;
    try {
        text.assign(buf + header->header_len, buf + region_end);
    } catch (...) {
        VIREO_TRACE("Failed to alloc %d bytes memory.\n", UP_PTN_TABLE_SIZE);
        return nullptr;
    }
    // The text ends at its NUL; a region without one is not a table.
    if (!memchr(text.data(), '\0', text.size())) {
        VIREO_TRACE("up_ptn_table region holds no NUL-terminated text.\n");
        return nullptr;
    }
    cjson_ptr root(cJSON_Parse(text.data()), cJSON_Delete);
    if (!root) {
        VIREO_TRACE("Failed to parse up_ptn_table json.\n");
        return nullptr;
    }
    up_ptn_table *table = vireo_firmware_up_ptn_table_build_by_json(root.get());
    if (!table) {
        VIREO_TRACE("Failed to build up_ptn_table struct.\n");
        return nullptr;
    }
    return table;
}

void vireo_firmware_up_ptn_table_dump(const up_ptn_table *table)
{
    if (!table) {
        printf("up_ptn_table is null.\n");
        return;
    }
    printf("== DUMP START ==\n");
    printf("up ptns : %d.\n", static_cast<int>(table->ptn_cnt));
    printf("ptns_total_size : %d.\n\n", static_cast<int>(table->ptns_total_size));
    const uint32_t count = table->ptn_cnt < UP_PTN_MAX_NUM ? table->ptn_cnt : UP_PTN_MAX_NUM;
    for (uint32_t i = 0; i < count; i++)
        printf("name '%s' base 0x%08x size 0x%08x\n", table->ptns[i].name,
               static_cast<uint32_t>(table->ptns[i].base), table->ptns[i].size);
    printf("== DUMP END ==\n");
}

void vireo_firmware_up_ptn_table_destroy(up_ptn_table *table)
{
    free(table);
}

const uint8_t *vireo_firmware_ptn_content(const uint8_t *file, uint32_t file_size,
                                          uint32_t payload_offset, const up_ptn_info *entry)
{
    VIREO_ASSERT(file);
    VIREO_ASSERT(entry);
    const int64_t start = static_cast<int64_t>(payload_offset) + entry->base;
    const int64_t end = start + entry->size;
    if (start < 0 || end > static_cast<int64_t>(file_size)) {
        VIREO_TRACE("PTN[%s] base %d size %u lies outside the firmware file (%u bytes).\n",
                    entry->name, entry->base, entry->size, file_size);
        return nullptr;
    }
    return file + start;
}

int32_t vireo_firmware_payload(const uint8_t *file, uint32_t file_size, uint32_t image_offset,
                               const firmware_header *header, vireo_payload *payload)
{
    VIREO_ASSERT(file);
    VIREO_ASSERT(header);
    VIREO_ASSERT(payload);
    const uint64_t start =
        static_cast<uint64_t>(image_offset) + header->header_len + UP_PTN_TABLE_SIZE;
    const uint64_t end = static_cast<uint64_t>(image_offset) + header->total_len;
    if (start > end || end > file_size) {
        VIREO_TRACE("payload of the image at %u lies outside the firmware file (%u bytes).\n",
                    image_offset, file_size);
        return -1;
    }
    payload->file = file;
    payload->file_size = file_size;
    payload->offset = static_cast<uint32_t>(start);
    payload->len = static_cast<uint32_t>(end - start);
    return 0;
}

const uint8_t *vireo_payload_content(const vireo_payload &payload, const up_ptn_info *entry)
{
    return vireo_firmware_ptn_content(payload.file, payload.file_size, payload.offset, entry);
}

int32_t vireo_payload_read(const vireo_payload &payload, const up_ptn_info *entry,
                           vireo_content *content)
{
    const uint8_t *data = vireo_payload_content(payload, entry);
    if (!data)
        return -1;
    if (!payload.seals) {
        content->data = data;
        return 0;
    }
    try {
        content->copy.resize(entry->size);
    } catch (...) {
        VIREO_TRACE("Failed to alloc %d bytes memory.\n", static_cast<int>(entry->size));
        return -1;
    }
    vireo_sealed_reader reader(payload.seals);
    if (!reader.copy(static_cast<uint64_t>(data - payload.file), entry->size, content->copy.data()))
        return -1;
    // An empty content still has an address: the file's, never none.
    content->data = entry->size ? content->copy.data() : data;
    return 0;
}
