// Path-based reads and writes of files, MTD devices and UBI volumes. Each call opens,
// does one job and closes; none creates a file, and no write leaves the target.
#pragma once

#include <cstdint>

// Size found by seeking to the end, or -1 when the path cannot be opened.
int32_t vireo_file_get_size(const char *path);
// Reads min(len, size) bytes from the start; 0 / -1.
int32_t vireo_file_read(const char *path, uint8_t *buf, int32_t len, uint32_t *out_len);
int32_t vireo_file_read_by_offset(const char *path, int32_t offset, uint8_t *buf, int32_t len,
                                  uint32_t *out_len);
// Synchronous overwrite wholly inside the existing file; 0 / -1.
int32_t vireo_file_write_by_offset(const char *path, int32_t offset, const uint8_t *data,
                                   int32_t len, uint32_t *out_len);
// Writes in block_size units from offset, padding a final partial unit with 0xFF; 0 / -1.
int32_t vireo_file_write_by_offset_block_mode(const char *path, int32_t offset, const uint8_t *data,
                                              int32_t len, int32_t block_size, uint32_t *out_len);
// Replaces the content of a UBI volume through a volume update; *written is added to.
int32_t vireo_ubi_write(const char *path, const uint8_t *data, int32_t len, uint32_t *written);
