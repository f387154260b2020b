// The firmware header and the walk over the chain of images of a whole file: each image's
// header, table and records are read, and each image is refused so that the walk goes on
// to the next. Input: a control byte, then the file. Control & 7 == 0 keeps the signature
// test (otherwise the structure alone is checked, as after -m); control & 8 walks through
// sealed copies as the raw-flash upgrade does.
#include "fuzz_util.h"

#include "firmware/vireo_firmware.h"
#include "firmware/vireo_firmware_integrity.h"
#include "firmware/vireo_firmware_records.h"
#include "firmware/vireo_firmware_walk.h"

#include <climits>
#include <cstdlib>

static const char VIREO_MODULE[] = "fuzz_chain";

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    fuzz_quiet();
    return 0;
}

// Reads every record the image carries, then refuses it.
static bool read_and_refuse(const firmware_header *, up_ptn_table *table,
                            const vireo_payload &payload)
{
    vireo_firmware_up_ptn_table_dump(table);
    vireo_firmware_up_ptn_table_has_ubi(table);
    vireo_ptn_support_list_destroy(vireo_firmware_build_support_list(table, payload));
    vireo_ptn_firmware_info_destroy(vireo_firmware_build_firmware_info(table, payload));
    if (ptn_table *ptns = vireo_firmware_get_ptn_table(table, payload))
        vireo_ptn_destroy(ptns);
    return false;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 2 || size > INT32_MAX)
        return 0;
    fuzz_reset_state();
    digest_from_image = (data[0] & 7) == 0;
    const uint8_t *file = data + 1;
    const uint32_t len = static_cast<uint32_t>(size - 1);
    firmware_header header;
    vireo_firmware_header_parse(file, static_cast<int32_t>(len), &header, 0);

    vireo_seals seals;
    vireo_seals *sealed = nullptr;
    if (data[0] & 8) {
        if (vireo_seals_init(&seals, file, len) != 0)
            abort();
        vireo_seals_arm(&seals);
        sealed = &seals;
    }
    vireo_walk_result found;
    const int32_t r =
        vireo_firmware_walk(VIREO_SITE(), file, len, "refused\n", read_and_refuse, &found, sealed);
    vireo_seals_disarm();
    if (r == 0)
        abort(); // every image was refused
    return 0;
}
