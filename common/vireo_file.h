// SPDX-License-Identifier: Apache-2.0
// Path-based reads and writes of files, MTD devices and UBI volumes. Each call opens,
// does one job and closes; none creates a file, and no write leaves the target.
#pragma once

#include <cstdint>
#include <functional>

// Size found by seeking to the end, or -1 when the path cannot be opened.
int32_t vireo_file_get_size(const char *path);
// Reads min(len, size) bytes from the start; 0 / -1.
int32_t vireo_file_read(const char *path, uint8_t *buf, int32_t len, uint32_t *out_len);
int32_t vireo_file_read_by_offset(const char *path, int32_t offset, uint8_t *buf, int32_t len,
                                  uint32_t *out_len);
// Synchronous overwrite wholly inside the existing file; 0 / -1.
int32_t vireo_file_write_by_offset(const char *path, int32_t offset, const uint8_t *data,
                                   int32_t len, uint32_t *out_len);
// The bytes of the chunk that starts done bytes into a write (chunk is at most one unit):
// a pointer valid until the next call, or none to stop the write.
using vireo_unit_source = std::function<const uint8_t *(uint32_t done, uint32_t chunk)>;
// The synchronous overwrite with its bytes supplied in chunks of at most max_chunk; 0 / -1.
int32_t vireo_file_write_stream(const char *path, int32_t offset, int32_t len, uint32_t max_chunk,
                                const vireo_unit_source &next, uint32_t *out_len);
// Writes in block_size units from offset, padding a final partial unit with 0xFF; 0 / -1.
int32_t vireo_file_write_by_offset_block_mode(const char *path, int32_t offset, const uint8_t *data,
                                              int32_t len, int32_t block_size, uint32_t *out_len);
// The block-mode write with its bytes supplied unit by unit; 0 / -1. With erased, the caller
// has just erased the target ("mtd erase"): flash is programmed without being read first, and
// the read-back after the write is what catches an erase that did not happen.
int32_t vireo_file_write_units(const char *path, int32_t offset, int32_t len, int32_t block_size,
                               const vireo_unit_source &next, uint32_t *out_len,
                               bool erased = false);
// Reads back len bytes of path at offset and compares them with what next supplies, in
// units of block_size; with pad, the rest of the last unit (as far as the target reaches)
// must read 0xFF. 0 when equal, 1 when they differ (*at: the first differing offset from
// offset), -1 when the target cannot be read or next stops.
int32_t vireo_file_compare_units(const char *path, int32_t offset, int32_t len, int32_t block_size,
                                 bool pad, const vireo_unit_source &next, int64_t *at);
// The volume update with its bytes supplied as they are written, next(done, chunk) giving
// chunks of at most max_chunk bytes (0: all that is left at once).
int32_t vireo_ubi_write_stream(const char *path, int32_t len, uint32_t max_chunk,
                               const vireo_unit_source &next, uint32_t *written);
// Replaces the content of a UBI volume through a volume update; *written is added to.
int32_t vireo_ubi_write(const char *path, const uint8_t *data, int32_t len, uint32_t *written);
