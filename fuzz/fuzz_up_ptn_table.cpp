// The up-ptn-table region of an image: the input is the region's bytes (the rest of the
// 64 KiB is zero), behind a header and before an 8 KiB payload; every entry the table
// lists is then read from the payload, directly and through sealed copies.
#include "fuzz_util.h"

#include "common/vireo_endian.h"
#include "firmware/vireo_firmware_seal.h"
#include "firmware/vireo_firmware_up_ptn_table.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#define PAYLOAD_SIZE 8192

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    fuzz_quiet();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size > UP_PTN_TABLE_SIZE)
        return 0;
    const uint32_t total = FIRMWARE_MIN_SIZE + PAYLOAD_SIZE;
    std::vector<uint8_t> file(total, 0);
    vireo_put_be32(&file[32], FIRMWARE_HEADER_SIZE); // header_len
    vireo_put_be32(&file[36], total);                // total_len
    memcpy(&file[FIRMWARE_HEADER_SIZE], data, size);
    for (uint32_t i = FIRMWARE_MIN_SIZE; i < total; i++)
        file[i] = static_cast<uint8_t>(i * 7);
    firmware_header header;
    vireo_firmware_header_decode(file.data(), &header);

    std::unique_ptr<up_ptn_table, decltype(&vireo_firmware_up_ptn_table_destroy)> table(
        vireo_firmware_up_ptn_table_build_by_fimware(file.data(), total, &header),
        vireo_firmware_up_ptn_table_destroy);
    if (!table)
        return 0;
    vireo_firmware_up_ptn_table_dump(table.get());
    vireo_payload payload{};
    if (vireo_firmware_payload(file.data(), total, 0, &header, &payload) != 0)
        abort(); // the payload lies inside the file by construction
    vireo_seals seals;
    if (vireo_seals_init(&seals, file.data(), total) != 0)
        abort();
    vireo_seals_complete(&seals);
    for (uint32_t i = 0; i < table->ptn_cnt; i++) {
        const up_ptn_info *entry = &table->ptns[i];
        vireo_content plain, sealed;
        payload.seals = nullptr;
        const int32_t r = vireo_payload_read(payload, entry, &plain);
        payload.seals = &seals;
        // Both ways must agree on where the content lies and what it holds.
        if (r != vireo_payload_read(payload, entry, &sealed) ||
            (r == 0 && entry->size && memcmp(plain.data, sealed.data, entry->size) != 0))
            abort();
    }
    return 0;
}
