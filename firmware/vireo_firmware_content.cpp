// SPDX-License-Identifier: Apache-2.0
#include "firmware/vireo_firmware_content.h"

#include "common/vireo_common.h"
#include "common/vireo_file.h"
#include "common/vireo_report.h"

static const char VIREO_MODULE[] = "vireo_firmware";

vireo_entry_source::vireo_entry_source(const vireo_payload &payload, const up_ptn_info *entry,
                                       uint32_t max_chunk)
    : start(vireo_payload_content(payload, entry)),
      offset(start ? static_cast<uint64_t>(start - payload.file) : 0), seals(payload.seals),
      reader(payload.seals)
{
    // Without seals the chunks are read where they lie: no copy.
    if (seals) {
        try {
            unit.resize(max_chunk);
        } catch (...) {
            VIREO_TRACE("Failed to alloc %d bytes memory.\n", static_cast<int>(max_chunk));
            start = nullptr;
        }
    }
}

const uint8_t *vireo_entry_source::read(uint32_t done, uint32_t chunk)
{
    if (!start)
        return nullptr;
    if (!seals)
        return start + done;
    if (chunk > unit.size() || !reader.copy(offset + done, chunk, unit.data()))
        return nullptr;
    return unit.data();
}

int32_t vireo_firmware_write_entry(const vireo_payload &payload, const up_ptn_info *entry,
                                   const char *path, int32_t offset, const char *check_path,
                                   int32_t check_offset)
{
    vireo_entry_source source(payload, entry);
    if (!source.start || entry->size > INT32_MAX)
        return -1;
    const int32_t len = static_cast<int32_t>(entry->size);
    const auto next = [&source](uint32_t done, uint32_t chunk) {
        vireo_progress_done(static_cast<uint64_t>(done) + chunk);
        return source.read(done, chunk);
    };
    // Every content goes onto the partition "mtd erase" has just erased.
    vireo_progress_item("writing", entry->name, entry->size);
    if (vireo_file_write_units(path, offset, len, MTD_WRITE_BLOCK_SIZE, next, nullptr, true) != 0)
        return -1;
    vireo_progress_item_done();
    vireo_progress_item("reading back", entry->name, entry->size);
    // What the flash holds now decides, not what the write reported: an erase that did
    // not happen shows here.
    int64_t at = 0;
    const int32_t same = vireo_file_compare_units(check_path, check_offset, len,
                                                  MTD_WRITE_BLOCK_SIZE, true, next, &at);
    if (same == 0) {
        vireo_progress_item_done();
        return 0;
    }
    if (same > 0)
        VIREO_TRACE("PTN[%s] reads back other bytes than written, at 0x%08x of %s.\n", entry->name,
                    static_cast<uint32_t>(at), check_path);
    else
        VIREO_TRACE("PTN[%s] cannot be read back from %s.\n", entry->name, check_path);
    return -1;
}
