// SPDX-License-Identifier: Apache-2.0
#include "common/vireo_file.h"

#include "common/vireo_common.h"
#include "common/vireo_fd.h"
#include "common/vireo_file_flash.h"
#include "ubi/vireo_libubi.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <unistd.h>
#include <vector>

static const char VIREO_MODULE[] = "vireo_file";

namespace
{

bool bad_path(const char *path)
{
    return !path || !path[0];
}

// Size of an open descriptor by seeking to its end; -1 past 2 GiB - 1 or on error.
int32_t size_of(int fd)
{
    const off_t end = lseek(fd, 0, SEEK_END);
    if (end < 0 || end > INT32_MAX)
        return -1;
    return static_cast<int32_t>(end);
}

} // namespace

int32_t vireo_file_get_size(const char *path)
{
    if (bad_path(path))
        return -1;
    fd_guard file(open(path, O_RDONLY));
    if (file.fd < 0)
        return -1;
    return size_of(file.fd);
}

int32_t vireo_file_read(const char *path, uint8_t *buf, int32_t len, uint32_t *out_len)
{
    if (bad_path(path) || !buf || len < 1)
        return -1;
    fd_guard file(open(path, O_RDONLY));
    if (file.fd < 0)
        return -1;
    const int32_t size = size_of(file.fd);
    if (size < 0 || lseek(file.fd, 0, SEEK_SET) != 0)
        return -1;
    const ssize_t got = read(file.fd, buf, static_cast<size_t>(len < size ? len : size));
    if (got < 0)
        return -1;
    if (out_len)
        *out_len = static_cast<uint32_t>(got);
    return 0;
}

int32_t vireo_file_read_by_offset(const char *path, int32_t offset, uint8_t *buf, int32_t len,
                                  uint32_t *out_len)
{
    if (bad_path(path) || !buf || len <= 0) {
        VIREO_TRACE("error parameters!\n");
        return -1;
    }
    fd_guard file(open(path, O_RDONLY));
    if (file.fd < 0) {
        VIREO_TRACE("[%s]failed to open : %d!\n", path, errno);
        return -1;
    }
    const int32_t size = size_of(file.fd);
    if (offset < 0 || offset >= size) {
        VIREO_TRACE("[%s]offset[%d] > file_size[%d]!\n", path, offset, size);
        return -1;
    }
    const int32_t want = size - offset < len ? size - offset : len;
    if (lseek(file.fd, offset, SEEK_SET) != offset) {
        VIREO_TRACE("[%s]read error : %d!\n", path, errno);
        return -1;
    }
    const ssize_t got = read(file.fd, buf, static_cast<size_t>(want));
    if (got < 0) {
        VIREO_TRACE("[%s]read error : %d!\n", path, errno);
        return -1;
    }
    if (out_len)
        *out_len = static_cast<uint32_t>(got);
    return 0;
}

// The write [offset, offset + len) lies inside a target of size bytes (64-bit sum).
static bool inside(int32_t offset, int32_t len, int32_t size)
{
    return static_cast<int64_t>(offset) + len <= size;
}

int32_t vireo_file_write_stream(const char *path, int32_t offset, int32_t len, uint32_t max_chunk,
                                const vireo_unit_source &next, uint32_t *out_len)
{
    if (bad_path(path) || len < 1 || max_chunk < 1)
        return -1;
    const int32_t size = vireo_file_get_size(path);
    if (size < 0 || offset < 0 || offset >= size || !inside(offset, len, size))
        return -1;
    fd_guard file(open(path, O_WRONLY | O_SYNC));
    if (file.fd < 0)
        return -1;
    if (lseek(file.fd, offset, SEEK_SET) != offset)
        return -1;
    int32_t done = 0;
    bool failed = false;
    while (done < len && !failed) {
        const uint32_t left = static_cast<uint32_t>(len - done);
        const uint32_t chunk = max_chunk < left ? max_chunk : left;
        const uint8_t *bytes = next(static_cast<uint32_t>(done), chunk);
        const ssize_t wrote = bytes ? write(file.fd, bytes, chunk) : -1;
        failed = wrote != static_cast<ssize_t>(chunk);
        done += failed ? 0 : static_cast<int32_t>(chunk);
    }
    fsync(file.fd);
    if (failed)
        return -1;
    if (out_len)
        *out_len = static_cast<uint32_t>(done);
    return 0;
}

int32_t vireo_file_write_by_offset(const char *path, int32_t offset, const uint8_t *data,
                                   int32_t len, uint32_t *out_len)
{
    if (!data || len < 1)
        return -1;
    return vireo_file_write_stream(
        path, offset, len, static_cast<uint32_t>(len),
        [data](uint32_t done, uint32_t) { return data + done; }, out_len);
}

// The block-mode write onto a target that simply overwrites (a file, a block device).
static int32_t write_plain_units(int fd, int32_t size, int32_t offset, int32_t len,
                                 int32_t block_size, const vireo_unit_source &next)
{
    for (int32_t done = 0; done < len;) {
        const int32_t pos = offset + done;
        lseek(fd, pos, SEEK_SET);
        const int32_t chunk = len - done < block_size ? len - done : block_size;
        const uint8_t *bytes = next(static_cast<uint32_t>(done), static_cast<uint32_t>(chunk));
        if (!bytes)
            return -1;
        ssize_t wrote;
        if (chunk == block_size) {
            wrote = write(fd, bytes, static_cast<size_t>(block_size));
        } else {
            std::vector<uint8_t> unit;
            try {
                unit.assign(static_cast<size_t>(block_size), 0xFF);
            } catch (...) {
                VIREO_TRACE("failed to alloc %d bytes.\n", block_size);
                return -1;
            }
            memcpy(unit.data(), bytes, static_cast<size_t>(chunk));
            // A padded unit never grows the target: what does not fit is a short
            // write, as a device reports it.
            const int32_t room = size - pos;
            wrote =
                write(fd, unit.data(), static_cast<size_t>(room < block_size ? room : block_size));
        }
        if (wrote != block_size) {
            vireo_report_short_write(chunk, wrote);
            return -1;
        }
        done += chunk;
    }
    return 0;
}

int32_t vireo_file_write_units(const char *path, int32_t offset, int32_t len, int32_t block_size,
                               const vireo_unit_source &next, uint32_t *out_len, bool erased)
{
    if (bad_path(path) || len <= 0 || block_size <= 0) {
        VIREO_TRACE("Invalid param\n");
        return -1;
    }
    const int32_t size = vireo_file_get_size(path);
    if (size < 0) {
        VIREO_TRACE("Failed to get file size\n");
        return -1;
    }
    if (offset < 0 || offset >= size) {
        VIREO_TRACE("Invlaid offset(%d).\n", offset);
        return -1;
    }
    // The padding of the last unit is not part of this check.
    if (!inside(offset, len, size)) {
        VIREO_TRACE("write overflow offset=%d buf_size=%u file=%d\n", offset,
                    static_cast<uint32_t>(len), size);
        return -1;
    }
    fd_guard file(open(path, O_WRONLY));
    if (file.fd < 0) {
        VIREO_TRACE("Failed to open '%s'\n", path);
        return -1;
    }
    VIREO_TRACE("open no O_SYNC\n");
    VIREO_TRACE("%s write 0x%08x(%u) bytes at offset 0x%08x : start ...\n", path,
                static_cast<uint32_t>(len), static_cast<uint32_t>(len),
                static_cast<uint32_t>(offset));
    // Closed before the sync that ends every way out after the open.
    auto close_and_sync = [&file] {
        close(file.fd);
        file.fd = -1;
        sync();
    };
    vireo_flash_geometry geo{};
    const int32_t r = vireo_flash_geometry_of(file.fd, &geo)
                          ? vireo_flash_write_units(file.fd, path, size, geo, offset, len,
                                                    block_size, next, erased)
                          : write_plain_units(file.fd, size, offset, len, block_size, next);
    if (r != 0) {
        close_and_sync();
        return -1;
    }
    const int32_t done = len;
    if (out_len)
        *out_len = static_cast<uint32_t>(done);
    VIREO_TRACE("%s write 0x%08x(%u) bytes at offset 0x%08x : finish.\n", path,
                static_cast<uint32_t>(len), static_cast<uint32_t>(len),
                static_cast<uint32_t>(offset));
    close_and_sync();
    return 0;
}

int32_t vireo_file_write_by_offset_block_mode(const char *path, int32_t offset, const uint8_t *data,
                                              int32_t len, int32_t block_size, uint32_t *out_len)
{
    if (!data) {
        VIREO_TRACE("Invalid param\n");
        return -1;
    }
    return vireo_file_write_units(
        path, offset, len, block_size, [data](uint32_t done, uint32_t) { return data + done; },
        out_len);
}

int32_t vireo_file_compare_units(const char *path, int32_t offset, int32_t len, int32_t block_size,
                                 bool pad, const vireo_unit_source &next, int64_t *at)
{
    if (bad_path(path) || offset < 0 || len < 0 || block_size <= 0)
        return -1;
    fd_guard file(open(path, O_RDONLY));
    if (file.fd < 0)
        return -1;
    const int32_t size = size_of(file.fd);
    const int64_t end = static_cast<int64_t>(offset) + len;
    const int64_t unit_end =
        pad ? offset + (static_cast<int64_t>(len) + block_size - 1) / block_size * block_size : end;
    const int64_t stop = unit_end < size ? unit_end : (end > size ? end : size);
    // Read in runs of whole units (64 KiB or one unit): few calls, whatever the unit.
    const int64_t run =
        block_size >= (64 << 10) ? block_size : (64 << 10) / block_size * block_size;
    std::vector<uint8_t> got(static_cast<size_t>(std::min<int64_t>(run, stop - offset)));
    for (int64_t base = offset; base < stop; base += run) {
        const int64_t in_run = std::min(run, stop - base);
        if (!vireo_read_fully_at(file.fd, got.data(), base, in_run))
            return -1;
        for (int64_t pos = base; pos < base + in_run; pos += block_size) {
            const int64_t n = std::min<int64_t>(base + in_run - pos, block_size);
            const int64_t data = pos < end ? std::min(end - pos, n) : 0;
            const uint8_t *have = got.data() + (pos - base);
            const uint8_t *want =
                data ? next(static_cast<uint32_t>(pos - offset), static_cast<uint32_t>(data))
                     : nullptr;
            if (data && !want)
                return -1;
            if ((data && memcmp(have, want, static_cast<size_t>(data)) != 0) ||
                !vireo_all_erased(have + data, n - data)) {
                int64_t i = 0;
                while (have[i] == (i < data ? want[i] : 0xFF))
                    i++;
                if (at)
                    *at = pos + i - offset;
                return 1;
            }
        }
    }
    return 0;
}

int32_t vireo_ubi_write_stream(const char *path, int32_t len, uint32_t max_chunk,
                               const vireo_unit_source &next, uint32_t *written)
{
    if (bad_path(path) || len < 0 || !written)
        return -1;
    std::unique_ptr<libubi, decltype(&libubi_close)> lib(libubi_open(), libubi_close);
    if (!lib) {
        if (errno == 0)
            VIREO_TRACE("UBI is not present in the system\n");
        VIREO_TRACE("cannot open libubi\n");
        return -1;
    }
    int dev_num, vol_id;
    const int kind = ubi_probe_volume(lib.get(), path, &dev_num, &vol_id);
    if (kind == 1) {
        VIREO_TRACE("\"%s\" is an UBI device node, not an UBI volume node\n", path);
        return -1;
    }
    if (kind < 0) {
        if (errno == ENODEV)
            VIREO_TRACE("\"%s\" is not an UBI volume node\n", path);
        else
            VIREO_TRACE("error while probing \"%s\"\n", path);
        return -1;
    }
    fd_guard vol(open(path, O_RDWR));
    if (vol.fd < 0) {
        VIREO_TRACE("cannot open UBI volume \"%s\"\n", path);
        return -1;
    }
    // A volume of one eraseblock is changed atomically: a power cut leaves the old bytes or
    // the new ones, where an interrupted update leaves the volume damaged. The bytes read
    // back are the same either way. A damaged volume (its reads refused) is mended by an
    // update only, and so is any volume where the change is refused.
    const int leb =
        VIREO_POWER_CUT_RECOVERY && len > 0 ? ubi_volume_single_leb(lib.get(), dev_num, vol_id) : 0;
    uint8_t first;
    const bool atomic = leb > 0 && len <= leb && pread(vol.fd, &first, 1, 0) == 1 &&
                        ubi_leb_change_start(lib.get(), vol.fd, 0, len) == 0;
    if (!atomic && ubi_update_start(lib.get(), vol.fd, len)) {
        VIREO_TRACE("cannot start volume \"%s\" update\n", path);
        return -1;
    }
    int32_t done = 0;
    while (done < len) {
        const uint32_t left = static_cast<uint32_t>(len - done);
        const uint32_t chunk = max_chunk && max_chunk < left ? max_chunk : left;
        const uint8_t *p = next(static_cast<uint32_t>(done), chunk);
        if (!p)
            return -1;
        const ssize_t wrote = write(vol.fd, p, chunk);
        if (wrote > 0) {
            done += static_cast<int32_t>(wrote);
            *written += static_cast<uint32_t>(wrote);
        } else if (wrote == 0) {
            VIREO_TRACE("cannot write %d bytes to volume \"%s\"\n\n", len - done, path);
            return -1;
        } else if (errno == EINTR) {
            printf("do not interrupt me!");
        } else {
            VIREO_TRACE("cannot write %d bytes to volume \"%s\"\n", len - done, path);
            return -1;
        }
    }
    VIREO_TRACE("Success to write %d bytes to volume \"%s\"\n", static_cast<int>(*written), path);
    return 0;
}

int32_t vireo_ubi_write(const char *path, const uint8_t *data, int32_t len, uint32_t *written)
{
    if (!data)
        return -1;
    return vireo_ubi_write_stream(
        path, len, 0, [data](uint32_t done, uint32_t) { return data + done; }, written);
}
