// SPDX-License-Identifier: Apache-2.0
#include "firmware/vireo_firmware_records.h"

#include "common/vireo_device.h"
#include "common/vireo_file.h"
#include "ptn/vireo_ptn_record.h"

#include <cstring>
#include <memory>

static const char VIREO_MODULE[] = "vireo_firmware";

namespace
{

using support_list_ptr = std::unique_ptr<support_list, decltype(&vireo_ptn_support_list_destroy)>;

// The content of an image entry, located behind its content header; none (traced) when
// the entry lies outside the file or holds no valid header.
const uint8_t *entry_content(const vireo_trace_site &site, const vireo_payload &payload,
                             const up_ptn_info *entry, vireo_content *read, int32_t *length)
{
    if (vireo_payload_read(payload, entry, read) != 0)
        return nullptr;
    const uint8_t *data = read->data;
    vireo_record_words words;
    words.invalid =
        vireo_strf("flash[0x%08x] is not a valid partition.\n", static_cast<uint32_t>(entry->base));
    words.no_content = vireo_strf("failed to get PTN[%s] content position.\n", entry->name);
    words.data_pos = true;
    int32_t offset = 0;
    if (vireo_record_locate(site, data, static_cast<int32_t>(entry->size), words, &offset,
                            length) != 0)
        return nullptr;
    return data + offset;
}

const char *as_text(const uint8_t *p)
{
    return reinterpret_cast<const char *>(p);
}

} // namespace

devinfo *vireo_flash_build_device_info(const ptn_table *table)
{
    VIREO_ASSERT(table);
    for (const char *name : {"device-info", "device-info.b"}) {
        const int32_t index = vireo_ptn_get_index_by_name(table, name);
        if (index < 0) {
            VIREO_TRACE("PTN[%s] not found.\n", name);
            continue;
        }
        VIREO_TRACE("dev_info: %s, ptn_index: %d\n", name, index);
        const ptn_info &ptn = table->ptns[index];
        char path[128];
        if (vireo_get_mtdpath_by_partition_name(name, path) != 0)
            continue;
        // At most the partition's size, and never more than the device holds.
        const int32_t device_size = vireo_file_get_size(path);
        const uint64_t want = device_size > 0 && static_cast<uint64_t>(device_size) < ptn.size
                                  ? static_cast<uint64_t>(device_size)
                                  : ptn.size;
        const int32_t size = want > INT32_MAX ? -1 : static_cast<int32_t>(want);
        vireo_record_words words;
        words.alloc_failed = vireo_strf("alloc %d bytes failed.\n", static_cast<int>(ptn.size));
        words.read_failed = "failed to read ptn_table content.\n";
        words.invalid = vireo_strf("flash[0x%08x] is not a valid partition.\n", ptn.base);
        words.no_content = vireo_strf("failed to get PTN[%s] content position.\n", name);
        words.data_pos = true;
        vireo_record rec;
        const vireo_record_result r =
            vireo_record_read(VIREO_SITE(), path, size, VIREO_READ_CONTENT, words, &rec);
        if (r == VIREO_RECORD_NO_MEMORY)
            return nullptr;
        if (r != VIREO_RECORD_OK)
            continue;
        devinfo *info = vireo_ptn_device_info_build_by_json_data(rec.text(), rec.length);
        if (!info) {
            VIREO_TRACE("Faield to parse device info of FLASH.\n");
            continue;
        }
        VIREO_TRACE("dev_info: %s, model_name: %s.\n", name, info->model_name);
        return info;
    }
    return nullptr;
}

support_list *vireo_firmware_build_support_list(const up_ptn_table *table,
                                                const vireo_payload &payload)
{
    VIREO_ASSERT(table);
    support_list_ptr kept(nullptr, vireo_ptn_support_list_destroy);
    for (uint32_t i = 0; i < table->ptn_cnt && i < UP_PTN_MAX_NUM; i++) {
        const up_ptn_info *entry = &table->ptns[i];
        if (strcmp(entry->name, "support-list") != 0)
            continue;
        int32_t length = 0;
        vireo_content read;
        const uint8_t *content = entry_content(VIREO_SITE(), payload, entry, &read, &length);
        if (!content)
            return nullptr;
        support_list_ptr list(vireo_ptn_support_list_build_by_json_data(as_text(content), length),
                              vireo_ptn_support_list_destroy);
        if (!list) {
            VIREO_TRACE("Faield to parse support list of firmware.\n");
            return nullptr;
        }
        kept = std::move(list); // the last entry of that name wins
    }
    return kept.release();
}

fwinfo *vireo_firmware_build_firmware_info(const up_ptn_table *table, const vireo_payload &payload)
{
    VIREO_ASSERT(table);
    for (uint32_t i = 0; i < table->ptn_cnt && i < UP_PTN_MAX_NUM; i++) {
        const up_ptn_info *entry = &table->ptns[i];
        if (strcmp(entry->name, "firmware-info") != 0 &&
            strcmp(entry->name, "firmware-info.b") != 0)
            continue;
        // Only the first entry of either name is tried.
        int32_t length = 0;
        vireo_content read;
        const uint8_t *content = entry_content(VIREO_SITE(), payload, entry, &read, &length);
        if (!content)
            return nullptr;
        return vireo_ptn_firmware_info_build_by_json_data(as_text(content), length);
    }
    return nullptr;
}
