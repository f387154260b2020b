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

// The document's order, in which the parse reads: the URL comes before the full name.
const field parse_order[] = {
    DEVINFO_FIELD(manufacturer_name),
    DEVINFO_FIELD(manufacturer_url),
    DEVINFO_FIELD(manufacturer_full_name),
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
    for (const field &f : parse_order) {
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
    devinfo *info = static_cast<devinfo *>(calloc(1, sizeof(devinfo)));
    if (!info) {
        VIREO_TRACE("failed to alloc %d bytes.\n", static_cast<int>(sizeof(devinfo)));
        return nullptr;
    }
    if (vireo_ptn_device_info_json_parse(json_root, info) != 0) {
        VIREO_TRACE("Failed to parse json -> device info struct.\n");
        free(info);
        return nullptr;
    }
    VIREO_TRACE("devinfo %p\n", static_cast<void *>(info));
    return info;
}

devinfo *vireo_ptn_device_info_build_by_json_data(const char *data, int32_t len)
{
    cjson_ptr root(vireo_parse_json_data(data, len), cJSON_Delete);
    if (!root) {
        VIREO_TRACE("Failed to parse json.\n");
        return nullptr;
    }
    devinfo *info = vireo_ptn_device_info_build(root.get());
    if (!info)
        VIREO_TRACE("Failed to parse json.\n");
    return info;
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
