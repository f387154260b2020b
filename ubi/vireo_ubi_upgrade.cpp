// SPDX-License-Identifier: Apache-2.0
#include "ubi/vireo_ubi.h"

#include "common/vireo_common.h"
#include "common/vireo_device.h"
#include "common/vireo_file.h"
#include "common/vireo_report.h"
#include "firmware/vireo_firmware_content.h"
#include "firmware/vireo_firmware_walk.h"
#include "ubi/vireo_ubi_flags.h"
#include "ubi/vireo_ubi_report.h"

#include <fcntl.h>
#include <unistd.h>

static const char VIREO_MODULE[] = "vireo_ubi";

#define PATH_LEN 1024
// Chunk in which a volume is copied and compared, so memory stays small.
#define COPY_CHUNK (256u << 10)

namespace
{

// Every entry's content lies inside the file: checked before anything is written.
bool extents_inside(const up_ptn_table *up_table, const vireo_payload &payload)
{
    for (uint32_t i = 0; i < up_table->ptn_cnt && i < UP_PTN_MAX_NUM; i++) {
        const up_ptn_info &e = up_table->ptns[i];
        if (!vireo_payload_content(payload, &e) || e.size > INT32_MAX) {
            VIREO_TRACE("PTN[%s][%s] update content failed, pos={0x%08x:0x%08x}.\n", e.name, "",
                        static_cast<uint32_t>(e.base), e.size);
            return false;
        }
    }
    return true;
}

// Reads chunks of a volume at any offset, for a streamed copy and for comparisons.
struct volume_reader {
    explicit volume_reader(const char *path) : fd(open(path, O_RDONLY)) {}
    ~volume_reader()
    {
        if (fd >= 0)
            close(fd);
    }
    volume_reader(const volume_reader &) = delete;
    volume_reader &operator=(const volume_reader &) = delete;
    const uint8_t *read(uint32_t offset, uint32_t len)
    {
        if (fd < 0 || len > sizeof(buf))
            return nullptr;
        size_t done = 0;
        while (done < len) {
            const ssize_t n = pread(fd, buf + done, len - done, offset + done);
            if (n <= 0)
                return nullptr;
            done += static_cast<size_t>(n);
        }
        return buf;
    }
    int fd;
    uint8_t buf[COPY_CHUNK];
};

// What the volume holds from its start equals len bytes of next.
bool reads_back(const char *path, uint32_t len, const vireo_unit_source &next)
{
    int64_t at = 0;
    const int32_t r =
        vireo_file_compare_units(path, 0, static_cast<int32_t>(len), COPY_CHUNK, false, next, &at);
    if (r == 0)
        return true;
    VIREO_TRACE("[%s] reads back other bytes than written, at 0x%08x.\n", path,
                static_cast<uint32_t>(at));
    return false;
}

} // namespace

int32_t vireo_firmware_update_ubi_volume_content(uint32_t ubi_num, const up_ptn_table *up_table,
                                                 const vireo_payload &payload)
{
    uint32_t written = 0;
    for (uint32_t i = 0; i < up_table->ptn_cnt && i < UP_PTN_MAX_NUM; i++) {
        const up_ptn_info &e = up_table->ptns[i];
        char path[PATH_LEN];
        if (get_ptn_path_by_name(static_cast<int32_t>(ubi_num), e.name, path, sizeof(path)) <= 0) {
            VIREO_TRACE("PTN[%s] not found at ubi device.\n", e.name);
            return -1;
        }
        // Written and read back in chunks, each proven to be the verified bytes when the
        // file is sealed: no copy of the file is held, only of one chunk.
        vireo_entry_source source(payload, &e, COPY_CHUNK);
        const auto next = [&source](uint32_t done, uint32_t chunk) {
            vireo_progress_done(static_cast<uint64_t>(done) + chunk);
            return source.read(done, chunk);
        };
        const int32_t len = static_cast<int32_t>(e.size);
        vireo_progress_item("writing", e.name, e.size);
        const bool wrote =
            source.start &&
            (is_ubi_volume_path(path)
                 ? vireo_ubi_write_stream(path, len, COPY_CHUNK, next, &written) == 0
                 : vireo_file_write_stream(path, 0, len, COPY_CHUNK, next, nullptr) == 0);
        if (wrote) {
            vireo_progress_item_done();
            vireo_progress_item("reading back", e.name, e.size);
        }
        if (!wrote || !reads_back(path, e.size, next)) {
            VIREO_TRACE("PTN[%s][%s] update content failed, pos={0x%08x:0x%08x}.\n", e.name, path,
                        static_cast<uint32_t>(e.base), e.size);
            return -1;
        }
        vireo_progress_item_done();
        VIREO_TRACE("PTN[%s] updated content, flash_size=0x%08x, content_size=0x%08x(%d).\n",
                    e.name, static_cast<uint32_t>(vireo_file_get_size(path)), e.size, len);
    }
    return 0;
}

int32_t vireo_firmware_copy_ubi_volume_content(uint32_t ubi_num, const char *source,
                                               const char *destination)
{
    char path[PATH_LEN];
    if (get_ptn_path_by_name(static_cast<int32_t>(ubi_num), source, path, sizeof(path)) <= 0) {
        VIREO_TRACE("PTN[%s] not found at ubi device.\n", source);
        return -1;
    }
    const int32_t size = vireo_file_get_size(path);
    if (size < 0) {
        VIREO_TRACE("PTN[%s] copy from content failed.\n", source);
        return -1;
    }
    VIREO_TRACE("Copy from UBI Volume[%s] size [%d]\n\n", source, size);
    // Streamed through a chunk-sized buffer: the volume may be larger than memory allows.
    std::unique_ptr<volume_reader> from(new (std::nothrow) volume_reader(path));
    if (!from || from->fd < 0) {
        VIREO_TRACE("PTN[%s] copy from content failed.\n", source);
        return -1;
    }
    if (get_ptn_path_by_name(static_cast<int32_t>(ubi_num), destination, path, sizeof(path)) <= 0) {
        VIREO_TRACE("PTN[%s] not found at ubi device.\n", destination);
        return -1;
    }
    VIREO_TRACE("Copy To UBI Volume[%s] size [%d]\n\n", destination, size);
    bool read_failed = false;
    const auto next = [&](uint32_t done, uint32_t chunk) {
        vireo_progress_done(static_cast<uint64_t>(done) + chunk);
        const uint8_t *p = from->read(done, chunk);
        read_failed = read_failed || !p;
        return p;
    };
    uint32_t written = 0;
    vireo_progress_item("copying user data", destination, static_cast<uint64_t>(size));
    const int32_t r = vireo_ubi_write_stream(path, size, COPY_CHUNK, next, &written);
    if (r == 0 && !read_failed) {
        vireo_progress_item_done();
        vireo_progress_item("reading back", destination, static_cast<uint64_t>(size));
    }
    if (read_failed) {
        VIREO_TRACE("PTN[%s] copy from content failed, pos={0x0:0x%08x}.\n", source,
                    static_cast<uint32_t>(size));
        return -1;
    }
    if (r != 0 || !reads_back(path, static_cast<uint32_t>(size), next)) {
        VIREO_TRACE("PTN[%s] copy to content failed, pos={0x0:0x%08x}.\n", destination,
                    static_cast<uint32_t>(size));
        return -1;
    }
    vireo_progress_item_done();
    VIREO_TRACE("PTN[%s] updated content, flash_size=0x%08x, content_size=0x%08x(%d).\n",
                destination, static_cast<uint32_t>(size), static_cast<uint32_t>(size), size);
    return 0;
}

int32_t vireo_firmware_update_ubi_content(uint32_t ubi_num, const firmware_header *,
                                          const up_ptn_table *up_table,
                                          const vireo_payload &payload)
{
    if (!extents_inside(up_table, payload))
        return -1;
    vireo_report_plan_ubi(ubi_num, up_table, true);
    vireo_progress_item("flags", "extra-para, extra-para.b", 0, false);
    if (vireo_firmware_pre_update(ubi_num) < 0)
        return -1;
    vireo_progress_item_done();
    VIREO_TRACE("ready to update ptn-table.\n");
    if (vireo_firmware_update_ubi_volume_content(ubi_num, up_table, payload) < 0) {
        VIREO_TRACE("Faield to update ptn-content.\n");
        return -1;
    }
    // From the unsuffixed volume onto its twin, whichever image the flags concern.
    for (const char *name : {"rootfs_data", "log"}) {
        const std::string twin = std::string(name) + ".b";
        if (!ptn_paths_exist(static_cast<int32_t>(ubi_num), name, twin.c_str()))
            continue;
        if (vireo_firmware_copy_ubi_volume_content(ubi_num, name, twin.c_str()) != 0) {
            VIREO_TRACE("Faield to copy PTN[%s] to PTN[%s].\n", name, twin.c_str());
            return -1;
        }
    }
    VIREO_TRACE("Success to update ptn-table.\n");
    vireo_progress_item("flags", "extra-para, extra-para.b", 0, false);
    if (vireo_firmware_post_update(ubi_num) < 0)
        return -1;
    vireo_progress_item_done();
    return 0;
}

int32_t vireo_firmware_upgrade_ubi(uint32_t ubi_num, const char *up_path)
{
    vireo_file_view view;
    vireo_walk_result found;
    if (vireo_ubi_find_image(VIREO_SITE(), ubi_num, up_path,
                             "Firmware is not allowed to upgrade this up table into this device.\n",
                             true, &view, &found) != 0)
        return -1;
    if (same_software_version) {
        vireo_report_plan_ubi(ubi_num, found.table.get(), false);
        VIREO_TRACE("same software version, no need to upgrade\n\n");
        return 0;
    }
    VIREO_TRACE("up_file_buf %p \n", static_cast<const void *>(view.data + found.offset));
    VIREO_TRACE("ptn_content %p \n", static_cast<const void *>(found.payload.start()));
    VIREO_TRACE("firmware_header->header_len 0x%08x  \n", found.header->header_len);
    const bool installed = vireo_firmware_update_ubi_content(ubi_num, found.header.get(),
                                                             found.table.get(), found.payload) == 0;
    // A file cut short is said so, whatever failed first.
    if (!vireo_file_view_intact(VIREO_SITE(), view) || !installed) {
        VIREO_TRACE("Failed to upgrade firmware into this device.\n");
        return -1;
    }
    return 0;
}
