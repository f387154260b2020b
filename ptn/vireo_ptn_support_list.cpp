// SPDX-License-Identifier: Apache-2.0
#include "ptn/vireo_ptn_support_list.h"

#include "common/vireo_common.h"
#include "ptn/vireo_ptn_device_info.h"

#include <cstring>

static const char VIREO_MODULE[] = "vireo_ptn_support_list";

static int32_t parse_entry(const cJSON *item, support_list_entry *entry)
{
    if (vireo_json_copy_text(item, "model_name", entry->model_name, sizeof(entry->model_name)) ||
        vireo_json_copy_text(item, "model_version", entry->model_version,
                             sizeof(entry->model_version)) ||
        vireo_json_copy_text(item, "special_id", entry->special_id, sizeof(entry->special_id)) ||
        vireo_json_copy_text(item, "flash_version", entry->flash_version,
                             sizeof(entry->flash_version), VIREO_FLASH_VERSION_DEFAULT))
        return -1;
    return 0;
}

int32_t vireo_ptn_support_list_json_parse(const cJSON *json_root, support_list *list)
{
    VIREO_ASSERT(json_root);
    VIREO_ASSERT(list);
    memset(list, 0, sizeof(*list));
    const cJSON *array = cJSON_GetObjectItem(json_root, "support-list");
    if (!array) {
        VIREO_TRACE("'%s' not found.\n", "support-list");
        return -1;
    }
    if (!cJSON_IsArray(array)) {
        VIREO_TRACE("'%s' must be Array type.\n", "support-list");
        return -1;
    }
    const int count = cJSON_GetArraySize(array);
    VIREO_TRACE("support list entry count %d\n", count);
    if (count > SUPPORT_LIST_MAX_NUM) {
        VIREO_TRACE("too much entry, %d/%d.\n", count, SUPPORT_LIST_MAX_NUM);
        return -1;
    }
    list->entry_cnt = count;
    int index = 0;
    for (const cJSON *item = array->child; item && index < count; item = item->next, index++)
        if (parse_entry(item, &list->entries[index]) != 0)
            return -1;
    return 0;
}

support_list *vireo_ptn_support_list_build(const cJSON *json_root)
{
    VIREO_ASSERT(json_root);
    support_list *record =
        vireo_record_build(VIREO_SITE(), json_root, vireo_ptn_support_list_json_parse,
                           "Failed to parse json -> support list struct.\n");
    if (record)
        VIREO_TRACE("support_list %p\n", static_cast<void *>(record));
    return record;
}

support_list *vireo_ptn_support_list_build_by_json_data(const char *data, int32_t len)
{
    return vireo_record_build_by_text(VIREO_SITE(), data, len, vireo_ptn_support_list_build);
}

void vireo_ptn_support_list_destroy(support_list *list)
{
    free(list);
}

void vireo_ptn_support_list_dump(const support_list *list)
{
    VIREO_ASSERT(list);
    vireo_print_line('-', 43);
    for (int32_t i = 0; i < list->entry_cnt && i < SUPPORT_LIST_MAX_NUM; i++) {
        const support_list_entry &e = list->entries[i];
        printf("%-16s = '%s'    ", "model_name", e.model_name);
        printf("%-16s = '%s'    ", "model_version", e.model_version);
        printf("%-16s = '%s'    ", "special_id", e.special_id);
        printf("%-16s = '%s'    ", "flash_version", e.flash_version);
        putchar('\n');
    }
    vireo_print_line('-', 43);
}
