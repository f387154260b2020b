// SPDX-License-Identifier: Apache-2.0
// A firmware file held once for the length of a command, in both work modes: opened, mapped
// read-only and prefaulted (a file in tmpfs is in memory already: its own pages are mapped,
// nothing is copied), sealed in the pass that verifies its signature when the command
// writes (an upgrade), and read afterwards only through copies proven against the seals,
// so the bytes written are the bytes verified.
//
// A file truncated under the tool makes a read of its mapping fault (SIGBUS). The view then
// maps zeros over the pages past the new end, which no signature and no seal accepts, and
// remembers it: the command fails, the target of an upgrade left flagged off.
#pragma once

#include "common/vireo_common.h"
#include "firmware/vireo_firmware_seal.h"

#include <cstdint>

// The traces of a file that cannot be held, as each work mode gives them.
enum vireo_view_mode {
    VIREO_VIEW_RAW, // opened for reading and writing: "Failed to open file", "Failed to mmap"
    VIREO_VIEW_UBI, // read only: "Failed to read file", "Failed to alloc %d bytes memory"
};

struct vireo_file_view {
    int fd = -1;
    const uint8_t *data = nullptr;
    uint32_t size = 0;
    size_t mapped = 0;   // bytes of the mapping, whole pages
    bool sealed = false; // seals taken while the signature is verified
    vireo_seals seals;   // of data, when sealed
    const char *path = nullptr;
    vireo_file_view() = default;
    vireo_file_view(const vireo_file_view &) = delete;
    vireo_file_view &operator=(const vireo_file_view &) = delete;
    ~vireo_file_view();
};

// Holds the file at path: 0, or -1 traced at site. With seal, the view's seals are armed:
// the signature check seals every block it digests of the file.
int32_t vireo_file_view_open(const vireo_trace_site &site, const char *path, vireo_view_mode mode,
                             bool seal, vireo_file_view *view);
// Whether the file kept its size while it was held (no read found it cut short, and it is
// not shorter now); traced at site when it did not.
bool vireo_file_view_intact(const vireo_trace_site &site, const vireo_file_view &view);
