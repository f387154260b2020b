// SPDX-License-Identifier: Apache-2.0
#include "ubi/vireo_ubi.h"

#include "common/vireo_common.h"
#include "common/vireo_device.h"
#include "common/vireo_file.h"
#include "ptn/vireo_ptn_record.h"

static const char VIREO_MODULE[] = "vireo_ubi";

// Reads the record volume name of the device; true with the content located.
static bool read_record(const vireo_trace_site &site, uint32_t ubi_num, const char *name,
                        vireo_record *rec)
{
    char path[512];
    if (get_ptn_path_by_name(static_cast<int32_t>(ubi_num), name, path, sizeof(path)) <= 0) {
        vireo_trace_at(site, "PTN[%s] not found.\n", name);
        return false;
    }
    vireo_trace_at(site, "PTN[%s] ubi volume path %s\n", name, path);
    const int32_t size = vireo_file_get_size(path);
    vireo_record_words words;
    words.alloc_failed = vireo_strf("alloc %d bytes failed.\n", size);
    words.read_failed = "failed to read ptn_table content.\n";
    words.invalid = vireo_strf("ubi volume[%s] is not a valid partition.\n", name);
    words.no_content = vireo_strf("failed to get PTN[%s] content position.\n", name);
    words.data_pos = true;
    return vireo_record_read(site, path, size, VIREO_READ_CONTENT_BY_OFFSET, words, rec) ==
           VIREO_RECORD_OK;
}

devinfo *vireo_flash_build_device_info_ubi(uint32_t ubi_num)
{
    vireo_record rec;
    if (!read_record(VIREO_SITE(), ubi_num, "device-info", &rec))
        return nullptr;
    devinfo *info = vireo_ptn_device_info_build_by_json_data(rec.text(), rec.length);
    if (!info)
        VIREO_TRACE("Faield to parse device info of FLASH.\n");
    return info;
}

fwinfo *vireo_flash_build_firmware_info_ubi_named(uint32_t ubi_num, const char *name)
{
    vireo_record rec;
    if (!read_record(VIREO_SITE(), ubi_num, name, &rec))
        return nullptr;
    return vireo_ptn_firmware_info_build_by_json_data(rec.text(), rec.length);
}

fwinfo *vireo_flash_build_firmware_info_ubi(uint32_t ubi_num)
{
    vireo_record rec;
    if (!read_record(VIREO_SITE(), ubi_num, "firmware-info", &rec))
        return nullptr;
    fwinfo *info = vireo_ptn_firmware_info_build_by_json_data(rec.text(), rec.length);
    if (!info)
        VIREO_TRACE("Faield to parse firmware info of FLASH.\n");
    return info;
}
