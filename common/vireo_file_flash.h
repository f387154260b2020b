// SPDX-License-Identifier: Apache-2.0
// Unit-by-unit writes to MTD character devices that land on real flash as they would on
// RAM-like flash. A program only clears bits (NOR) or may be made once per erase and page
// (NAND), so every byte is programmed over erased flash: an erase block whose bytes to be
// programmed are not all 0xFF is read whole, erased and programmed back with the new bytes
// laid over it, as the kernel's mtdblock driver does. Bytes outside the write keep their value.
#pragma once

#include "common/vireo_file.h"

#include <cstdint>

struct vireo_flash_geometry {
    uint32_t erase_size; // bytes of an erase block
    uint32_t page_size;  // the smallest unit a program takes (1 on NOR)
};

// Whether the n bytes at p all read 0xFF, as erased flash does.
bool vireo_all_erased(const uint8_t *p, int64_t n);
// The block-mode writer's failure line, as a short write reports it.
void vireo_report_short_write(int64_t chunk, int64_t result);

// 1 with geo filled when fd is an MTD character device, else 0 (a file, a block device).
int32_t vireo_flash_geometry_of(int fd, vireo_flash_geometry *geo);

// The block-mode write of len bytes at offset (units of block_size, the last one padded with
// 0xFF) onto the MTD device path, open for writing as fd, of size bytes. A padded last unit
// that passes the end of the device lands as far as the device reaches and fails. A bad
// block in the way, or a read, erase or program that fails, fails the write with the
// writer's "ERROR write" line; units before it stay written. With erased, the flash is taken
// to be erased where the write programs, as the caller has just erased it. 0 / -1.
int32_t vireo_flash_write_units(int fd, const char *path, int32_t size,
                                const vireo_flash_geometry &geo, int32_t offset, int32_t len,
                                int32_t block_size, const vireo_unit_source &next, bool erased);
