// The record documents behind their content headers: the input is a partition's bytes,
// and its content goes to each of the five record parsers (partition table, device info,
// support list, firmware info, boot flags). The partition table is also read as an image
// carries it, where a header counts only when it accounts for every byte. A table that
// parses must come back unchanged from its own JSON form.
#include "fuzz_util.h"

#include "firmware/vireo_firmware.h"
#include "firmware/vireo_firmware_records.h"
#include "ptn/vireo_extra_para.h"
#include "ptn/vireo_ptn_record.h"

#include <climits>
#include <cstdlib>
#include <cstring>

static const char VIREO_MODULE[] = "fuzz_records";

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    fuzz_quiet();
    return 0;
}

static void check_table(ptn_table *table)
{
    if (!table)
        return;
    vireo_ptn_dump(table);
    cjson_ptr json(vireo_ptn_build_json(table), cJSON_Delete);
    char *text = json ? cJSON_PrintUnformatted(json.get()) : nullptr;
    ptn_table *again =
        text ? vireo_ptn_build_by_json_data(text, static_cast<int32_t>(strlen(text))) : nullptr;
    if (!again || memcmp(again, table, sizeof(*table)) != 0)
        abort();
    cJSON_free(text);
    vireo_ptn_destroy(again);
    vireo_ptn_destroy(table);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size > INT32_MAX)
        return 0;
    const int32_t len = static_cast<int32_t>(size);

    up_ptn_table image{};
    image.ptn_cnt = 1;
    strcpy(image.ptns[0].name, "partition-table");
    image.ptns[0].size = static_cast<uint32_t>(len);
    const vireo_payload payload{data, static_cast<uint32_t>(len), 0, static_cast<uint32_t>(len)};
    check_table(vireo_firmware_get_ptn_table(&image, payload));

    int32_t offset = 0, length = 0;
    if (vireo_record_locate(VIREO_SITE(), data, len, vireo_record_words(), &offset, &length) != 0)
        return 0;
    const char *text = reinterpret_cast<const char *>(data) + offset;
    check_table(vireo_ptn_build_by_json_data(text, length));
    if (devinfo *info = vireo_ptn_device_info_build_by_json_data(text, length)) {
        vireo_ptn_device_info_dump(info);
        vireo_ptn_device_info_destroy(info);
    }
    if (support_list *list = vireo_ptn_support_list_build_by_json_data(text, length)) {
        vireo_ptn_support_list_dump(list);
        vireo_ptn_support_list_destroy(list);
    }
    if (fwinfo *info = vireo_ptn_firmware_info_build_by_json_data(text, length)) {
        vireo_ptn_firmware_info_dump(info);
        vireo_ptn_firmware_info_destroy(info);
    }
    vireo_extra_para_table_destroy(vireo_extra_para_table_build_by_json_data(text, length));
    return 0;
}
