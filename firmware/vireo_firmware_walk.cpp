// SPDX-License-Identifier: Apache-2.0
#include "firmware/vireo_firmware_walk.h"

#include "common/vireo_file.h"
#include "common/vireo_report.h"
#include "firmware/vireo_firmware_report.h"

#include <cstring>

static const char VIREO_MODULE[] = "vireo_firmware";

// The image's header and table region again, from a copy proven against the seals; the
// table is built from it. None (traced) when the file changed since it was verified.
static up_ptn_table *proven_table(uint32_t offset, int32_t left, const firmware_header *header,
                                  vireo_seals *seals)
{
    vireo_seals_complete(seals); // what no signature check has sealed (-m)
    const uint64_t region_end = static_cast<uint64_t>(header->header_len) + UP_PTN_TABLE_SIZE;
    const uint32_t len = region_end < static_cast<uint64_t>(left)
                             ? static_cast<uint32_t>(region_end)
                             : static_cast<uint32_t>(left);
    std::vector<uint8_t> head(len);
    vireo_sealed_reader reader(seals);
    firmware_header proven;
    if (!reader.copy(offset, len, head.data()))
        return nullptr;
    vireo_firmware_header_decode(head.data(), &proven);
    if (memcmp(&proven, header, sizeof(proven)) != 0) {
        VIREO_TRACE("firmware header at %u changed while it was verified.\n", offset);
        return nullptr;
    }
    // The builder reads only [header_len, header_len + 65536) after checking it lies
    // within left bytes, and head holds all of that whenever the check passes.
    return vireo_firmware_up_ptn_table_build_by_fimware(head.data(), left, header);
}

int32_t vireo_firmware_walk(const vireo_trace_site &site, const uint8_t *file, uint32_t size,
                            const char *refused, const vireo_image_fits &fits,
                            vireo_walk_result *found, vireo_seals *seals)
{
    VIREO_ASSERT(file);
    VIREO_ASSERT(found);
    uint32_t offset = 0;
    for (;;) {
        const uint8_t *image = file + offset;
        const int32_t left = static_cast<int32_t>(size - offset);
        vireo_trace_at(site, "up.bin buf  = %p\n", static_cast<const void *>(image));
        vireo_trace_at(site, "up.bin size = %d (0x%08x)\n", left, static_cast<uint32_t>(left));
        vireo_progress_item("verifying", vireo_strf("image at %u", offset).c_str(),
                            left > 0 ? static_cast<uint64_t>(left) : 0);
        firmware_header_ptr header(vireo_firmware_header_build(image, left), free);
        if (!header) {
            vireo_trace_at(site, "Firmware header validate *FAILED*.\n");
            vireo_report_image(offset, false, false, nullptr, nullptr);
            return -1;
        }
        up_ptn_table_ptr table(
            seals ? proven_table(offset, left, header.get(), seals)
                  : vireo_firmware_up_ptn_table_build_by_fimware(image, left, header.get()),
            vireo_firmware_up_ptn_table_destroy);
        if (!table) {
            vireo_trace_at(site, "Failed to parse up_ptn_table.\n");
            vireo_report_image(offset, false, false, nullptr, nullptr);
            return -1;
        }
        vireo_payload payload{};
        if (vireo_firmware_payload(file, size, offset, header.get(), &payload) != 0) {
            vireo_report_image(offset, false, false, nullptr, nullptr);
            return -1;
        }
        payload.seals = seals;
        // What was traced up to here tells how the image was read, not why it is refused.
        vireo_report_mark();
        const bool fit = fits(header.get(), table.get(), payload);
        vireo_progress_item_done();
        if (fit) {
            vireo_report_image(offset, true, true, table.get(), &payload);
            found->header = std::move(header);
            found->table = std::move(table);
            found->offset = offset;
            found->payload = payload;
            return 0;
        }
        vireo_trace_at(site, "%s", refused);
        vireo_report_image(offset, true, false, table.get(), &payload);
        int32_t next = 0;
        if (vireo_firmware_chain_next(static_cast<int32_t>(offset), header.get(),
                                      static_cast<int32_t>(size), &next) != 1)
            return -1;
        offset = static_cast<uint32_t>(next);
        vireo_trace_at(site, "try next firmware header %d (0x%08x).\n", next,
                       static_cast<uint32_t>(next));
    }
}

int32_t vireo_firmware_walk_view(const vireo_trace_site &site, vireo_file_view *view,
                                 const char *refused, const vireo_image_fits &fits,
                                 vireo_walk_result *found)
{
    const bool fit = vireo_firmware_walk(site, view->data, view->size, refused, fits, found,
                                         view->sealed ? &view->seals : nullptr) == 0;
    return vireo_file_view_intact(site, *view) && fit ? 0 : -1;
}
