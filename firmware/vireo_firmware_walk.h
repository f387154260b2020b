// SPDX-License-Identifier: Apache-2.0
// Walking the chain of images of a firmware file held in memory.
#pragma once

#include "common/vireo_common.h"
#include "firmware/vireo_firmware_header.h"
#include "firmware/vireo_firmware_seal.h"
#include "firmware/vireo_firmware_up_ptn_table.h"
#include "firmware/vireo_firmware_view.h"

#include <cstdint>
#include <functional>
#include <memory>

using firmware_header_ptr = std::unique_ptr<firmware_header, decltype(&free)>;
using up_ptn_table_ptr =
    std::unique_ptr<up_ptn_table, decltype(&vireo_firmware_up_ptn_table_destroy)>;

// The image a walk settled on.
struct vireo_walk_result {
    firmware_header_ptr header{nullptr, free};
    up_ptn_table_ptr table{nullptr, vireo_firmware_up_ptn_table_destroy};
    uint32_t offset = 0; // of the image's header in the file
    vireo_payload payload{};
};

// Whether an image fits the device; the table may be changed in place.
using vireo_image_fits =
    std::function<bool(const firmware_header *, up_ptn_table *, const vireo_payload &)>;

// Walks the chain from the first image until fits accepts one (0, found filled). A header
// or table that fails ends the walk (-1); a refusal, traced with refused, goes on to
// nextpos, and the last image refusing or a chain that does not move forward is -1.
// Traces are reported at the caller's site. With seals, everything read after the
// signature check (headers, tables, contents) is read from proven copies.
int32_t vireo_firmware_walk(const vireo_trace_site &site, const uint8_t *file, uint32_t size,
                            const char *refused, const vireo_image_fits &fits,
                            vireo_walk_result *found, vireo_seals *seals = nullptr);

// The walk over a held file, proving its reads against the view's seals when it seals. A
// file cut short while it was walked is -1 too, said so at site, whatever the walk found.
int32_t vireo_firmware_walk_view(const vireo_trace_site &site, vireo_file_view *view,
                                 const char *refused, const vireo_image_fits &fits,
                                 vireo_walk_result *found);
