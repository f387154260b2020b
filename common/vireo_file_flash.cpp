// SPDX-License-Identifier: Apache-2.0
#include "common/vireo_file_flash.h"

#include "common/vireo_common.h"
#include "common/vireo_fd.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <mtd/mtd-user.h>
#include <sys/ioctl.h>
#include <unistd.h>
#include <vector>

static const char VIREO_MODULE[] = "vireo_file";

bool vireo_all_erased(const uint8_t *p, int64_t n)
{
    return n <= 0 || (p[0] == 0xFF && memcmp(p, p + 1, static_cast<size_t>(n - 1)) == 0);
}

void vireo_report_short_write(int64_t chunk, int64_t result)
{
    printf("ERROR write(%d) return %d.", static_cast<int>(chunk), static_cast<int>(result));
}

int32_t vireo_flash_geometry_of(int fd, vireo_flash_geometry *geo)
{
    mtd_info_user info{};
    if (ioctl(fd, MEMGETINFO, &info) != 0 || info.erasesize == 0)
        return 0;
    geo->erase_size = info.erasesize;
    geo->page_size = info.writesize ? info.writesize : 1;
    return 1;
}

namespace
{

// The bytes a block-mode write lays over the device from offset: its units in order from
// the source, the rest of the last unit 0xFF.
struct unit_bytes {
    const vireo_unit_source &next;
    int64_t offset;
    int64_t len;
    int64_t unit;
    std::vector<uint8_t> held; // the unit fetched last: a unit may straddle two erase blocks
    int64_t held_index = -1;

    // Copies the write's bytes for device offsets [pos, pos + n) to dst, fetching units in
    // order; false when the source stops.
    bool copy(int64_t pos, int64_t n, uint8_t *dst)
    {
        while (n > 0) {
            const int64_t rel = pos - offset;
            const int64_t index = rel / unit;
            if (index != held_index) {
                const int64_t done = index * unit;
                const int64_t chunk = std::min(unit, len - done);
                const uint8_t *bytes =
                    next(static_cast<uint32_t>(done), static_cast<uint32_t>(chunk));
                if (!bytes)
                    return false;
                memcpy(held.data(), bytes, static_cast<size_t>(chunk));
                memset(held.data() + chunk, 0xFF, static_cast<size_t>(unit - chunk));
                held_index = index;
            }
            const int64_t in = rel - index * unit;
            const int64_t take = std::min(n, unit - in);
            memcpy(dst, held.data() + in, static_cast<size_t>(take));
            dst += take;
            pos += take;
            n -= take;
        }
        return true;
    }
};

// One erase block of the device being written: what it holds and what it must hold.
struct block_work {
    int fd; // written and erased through
    int in; // read through
    int64_t start, end;
    int64_t unit; // of a program: the page, at least a block-mode unit
    std::vector<uint8_t> now, want;

    uint8_t *now_at(int64_t pos)
    {
        return now.data() + (pos - start);
    }
    uint8_t *want_at(int64_t pos)
    {
        return want.data() + (pos - start);
    }

    // Programs want over [from, to) in units from from, leaving out units that erased
    // flash holds already.
    bool program(int64_t from, int64_t to)
    {
        for (int64_t at = from; at < to; at += unit) {
            const int64_t n = std::min(unit, to - at);
            const uint8_t *bytes = want_at(at);
            if (vireo_all_erased(bytes, n))
                continue;
            ssize_t wrote;
            do {
                wrote = pwrite(fd, bytes, static_cast<size_t>(n), at);
            } while (wrote < 0 && errno == EINTR);
            if (wrote != n) {
                vireo_report_short_write(n, wrote);
                return false;
            }
        }
        return true;
    }

    // Erases the block and programs it whole, with the bytes outside [from, to) as they
    // were.
    bool rewrite(int64_t from, int64_t to)
    {
        if (!vireo_read_fully_at(in, now_at(start), start, from - start) ||
            !vireo_read_fully_at(in, now_at(to), to, end - to)) {
            vireo_report_short_write(end - start, -1);
            return false;
        }
        memcpy(want_at(start), now_at(start), static_cast<size_t>(from - start));
        memcpy(want_at(to), now_at(to), static_cast<size_t>(end - to));
        erase_info_user erase{static_cast<uint32_t>(start), static_cast<uint32_t>(end - start)};
        if (ioctl(fd, MEMERASE, &erase) != 0) {
            vireo_report_short_write(end - start, -1);
            return false;
        }
        return program(start, end);
    }
};

} // namespace

int32_t vireo_flash_write_units(int fd, const char *path, int32_t size,
                                const vireo_flash_geometry &geo, int32_t offset, int32_t len,
                                int32_t block_size, const vireo_unit_source &next, bool erased)
{
    const int64_t span_end =
        offset + (static_cast<int64_t>(len) + block_size - 1) / block_size * block_size;
    const int64_t end = std::min<int64_t>(span_end, size);
    const int64_t erase = geo.erase_size, page = geo.page_size;
    fd_guard in(open(path, O_RDONLY));
    block_work block{fd, in.fd, 0, 0, std::max<int64_t>(page, block_size), {}, {}};
    unit_bytes bytes{next, offset, len, block_size, {}, -1};
    try {
        block.now.resize(static_cast<size_t>(erase));
        block.want.resize(static_cast<size_t>(erase));
        bytes.held.resize(static_cast<size_t>(block_size));
    } catch (...) {
        VIREO_TRACE("failed to alloc %d bytes.\n", static_cast<int>(erase));
        return -1;
    }
    for (int64_t pos = offset; pos < end;) {
        block.start = pos / erase * erase;
        block.end = std::min<int64_t>(block.start + erase, size);
        const int64_t to = std::min(end, block.end);
        // What this block's programs cover: whole pages.
        const int64_t from_page = pos / page * page;
        const int64_t to_page = std::min((to + page - 1) / page * page, block.end);
        loff_t at = block.start;
        if (in.fd < 0 || ioctl(fd, MEMGETBADBLOCK, &at) > 0 ||
            (!erased && !vireo_read_fully_at(in.fd, block.now_at(from_page), from_page,
                                             to_page - from_page))) {
            vireo_report_short_write(to - pos, -1);
            return -1;
        }
        const size_t n = static_cast<size_t>(to_page - from_page);
        if (erased)
            memset(block.now_at(from_page), 0xFF, n);
        memcpy(block.want_at(from_page), block.now_at(from_page), n);
        if (!bytes.copy(pos, to - pos, block.want_at(pos)))
            return -1;
        // A block that holds the bytes already is left as it is: no erase, no program.
        if (memcmp(block.want_at(from_page), block.now_at(from_page), n) != 0 &&
            !(vireo_all_erased(block.now_at(from_page), to_page - from_page)
                  ? block.program(from_page, to_page)
                  : block.rewrite(from_page, to_page)))
            return -1;
        pos = to;
    }
    if (span_end > size) {
        // As a short write reports it: the padded last unit lands as far as the device goes.
        const int64_t last = (static_cast<int64_t>(len) - 1) / block_size * block_size;
        vireo_report_short_write(len - last, size - (offset + last));
        return -1;
    }
    return 0;
}
