// SPDX-License-Identifier: Apache-2.0
#include "ptn/vireo_ptn_firmware_info.h"

#include "common/vireo_common.h"

#include <cstring>
#include <string>

static const char VIREO_MODULE[] = "vireo_ptn_firmware_info";

#define SOFTWARE_VERSION_LEN 128

// The position n characters on from p, or none when the text ends before it.
static const char *skip(const char *p, size_t n)
{
    for (size_t i = 0; i < n; i++)
        if (!p[i])
            return nullptr;
    return p + n;
}

static uint32_t number_at(const char *p)
{
    return static_cast<uint32_t>(strtol(p, nullptr, 10));
}

int32_t vireo_ptn_get_firmware_info_software_version(const char *text, uint32_t out[5])
{
    VIREO_ASSERT(text);
    VIREO_ASSERT(out);
    std::string copy;
    try {
        copy = text;
    } catch (...) {
        VIREO_TRACE("p malloc fail.\n");
        return -1;
    }
    const char *major = copy.c_str();
    const char *dot = strchr(major, '.');
    if (!dot)
        return -1;
    const char *minor = dot + 1;
    dot = strchr(minor, '.');
    if (!dot)
        return -1;
    const char *patch = dot + 1;
    const char *space = strchr(patch, ' ');
    if (!space)
        return -1;
    // "Build " and "Rel." are skipped by position, not compared.
    const char *build = skip(space + 1, 6);
    if (!build)
        return -1;
    space = strchr(build, ' ');
    if (!space)
        return -1;
    const char *release = skip(space + 1, 4);
    if (!release)
        return -1;
    out[0] = number_at(major);
    out[1] = number_at(minor);
    out[2] = number_at(patch);
    out[3] = number_at(build);
    out[4] = number_at(release);
    return 0;
}

fwinfo *vireo_ptn_firmware_info_build_by_json_data(const char *data, int32_t len)
{
    cjson_ptr root(vireo_parse_json_data(data, len), cJSON_Delete);
    if (!root) {
        VIREO_TRACE("Failed to parse json.\n");
        return nullptr;
    }
    std::unique_ptr<fwinfo, decltype(&free)> info(static_cast<fwinfo *>(calloc(1, sizeof(fwinfo))),
                                                  free);
    if (!info) {
        VIREO_TRACE("failed to alloc %d bytes.\n", static_cast<int>(sizeof(fwinfo)));
        return nullptr;
    }
    char version[SOFTWARE_VERSION_LEN];
    if (vireo_json_copy_text(root.get(), "software-version", version, sizeof(version)) != 0)
        return nullptr;
    uint32_t numbers[5];
    if (vireo_ptn_get_firmware_info_software_version(version, numbers) != 0) {
        VIREO_TRACE("get software_version fail.\n");
        return nullptr;
    }
    memcpy(info->software_version, numbers, sizeof(info->software_version));
    memcpy(info->build_timestamp, numbers + 3, sizeof(info->build_timestamp));
    if (vireo_json_copy_text(root.get(), "firmware-id", info->firmware_id,
                             sizeof(info->firmware_id)) != 0)
        return nullptr;
    return info.release();
}

void vireo_ptn_firmware_info_destroy(fwinfo *info)
{
    free(info);
}

void vireo_ptn_firmware_info_dump(const fwinfo *info)
{
    VIREO_ASSERT(info);
    vireo_print_line('-', 31);
    printf("software_version : %u %u %u\n", info->software_version[0], info->software_version[1],
           info->software_version[2]);
    printf("build_timestamp  : %u %u\n", info->build_timestamp[0], info->build_timestamp[1]);
    printf("firmware_id : '%s'\n", info->firmware_id);
    vireo_print_line('-', 31);
}
