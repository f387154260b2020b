// SPDX-License-Identifier: Apache-2.0
#include "ptn/vireo_ptn_device_info.h"

#include "common/vireo_common.h"

#include <cstddef>
#include <cstring>

static const char VIREO_MODULE[] = "vireo_ptn_device_info";

namespace
{

struct field {
    const char *name;
    size_t offset;
    size_t size;
};

#define DEVINFO_FIELD(f)                                                                           \
    {                                                                                              \
#f, offsetof(devinfo, f), sizeof(devinfo::f)                                               \
    }

// The record's order, in which the dump prints.
const field record_order[] = {
    DEVINFO_FIELD(manufacturer_name),
    DEVINFO_FIELD(manufacturer_full_name),
    DEVINFO_FIELD(manufacturer_url),
    DEVINFO_FIELD(model_name),
    DEVINFO_FIELD(model_full_name),
    DEVINFO_FIELD(model_id),
    DEVINFO_FIELD(model_version),
    DEVINFO_FIELD(region),
    DEVINFO_FIELD(special_id),
    DEVINFO_FIELD(flash_version),
    DEVINFO_FIELD(hw_id),
    DEVINFO_FIELD(oem_id),
    DEVINFO_FIELD(public_key),
    DEVINFO_FIELD(license_key),
};

} // namespace

int32_t vireo_ptn_device_info_json_parse(const cJSON *json_root, devinfo *info)
{
    VIREO_ASSERT(json_root);
    VIREO_ASSERT(info);
    memset(info, 0, sizeof(*info));
    char *base = reinterpret_cast<char *>(info);
    for (size_t i = 0; i < sizeof(record_order) / sizeof(record_order[0]); i++) {
        // The document's order differs from the record's: the URL before the full name.
        const field &f = record_order[i == 1 ? 2 : i == 2 ? 1 : i];
        // Only flash_version may be absent.
        const char *fallback =
            strcmp(f.name, "flash_version") == 0 ? VIREO_FLASH_VERSION_DEFAULT : nullptr;
        if (vireo_json_copy_text(json_root, f.name, base + f.offset, f.size, fallback) != 0)
            return -1;
    }
    return 0;
}

devinfo *vireo_ptn_device_info_build(const cJSON *json_root)
{
    VIREO_ASSERT(json_root);
    devinfo *record = vireo_record_build(VIREO_SITE(), json_root, vireo_ptn_device_info_json_parse,
                                         "Failed to parse json -> device info struct.\n");
    if (record)
        VIREO_TRACE("devinfo %p\n", static_cast<void *>(record));
    return record;
}

devinfo *vireo_ptn_device_info_build_by_json_data(const char *data, int32_t len)
{
    return vireo_record_build_by_text(VIREO_SITE(), data, len, vireo_ptn_device_info_build);
}

void vireo_ptn_device_info_destroy(devinfo *info)
{
    free(info);
}

void vireo_ptn_device_info_dump(const devinfo *info)
{
    VIREO_ASSERT(info);
    const char *base = reinterpret_cast<const char *>(info);
    vireo_print_line('-', 43);
    for (const field &f : record_order)
        printf("%-32s = '%s'\n", f.name, base + f.offset);
    vireo_print_line('-', 43);
}
