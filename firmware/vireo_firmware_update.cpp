// SPDX-License-Identifier: Apache-2.0
#include "common/vireo_common.h"
#include "common/vireo_device.h"
#include "common/vireo_file.h"
#include "common/vireo_platform.h"
#include "common/vireo_report.h"
#include "firmware/vireo_firmware.h"
#include "firmware/vireo_firmware_journal.h"
#include "firmware/vireo_firmware_report.h"
#include "ptn/vireo_extra_para.h"
#include "ptn/vireo_ptn_header.h"
#include "ptn/vireo_ptn_record.h"
#include "ubi/vireo_ubi_flags.h"

#include <cstring>
#include <memory>

static const char VIREO_MODULE[] = "vireo_firmware";

#define UBI_DEVICE_NUMBER VIREO_RAW_UBI_DEVICE
#define FLAG_WRITE_RETRIES 3

namespace
{

using ptn_table_ptr = std::unique_ptr<ptn_table, decltype(&vireo_ptn_destroy)>;

// Runs a shell command whose outcome is not examined; our buffered output goes first.
void run(const char *command)
{
    fflush(stdout);
    if (system(command) == -1) {
        // Not examined.
    }
}

// The boot flags of an image without "ubi": the "extra-para" MTD partition.
struct raw_flags {
    uint32_t base = 0;
    uint32_t size = 0;
    char path[128] = "";
    vireo_record rec;
    bool present() const
    {
        return base != 0 && size != 0;
    }
};

// Reads the flag partition into its buffer; 0 / -1 (traced with words).
int32_t read_raw_flags(const vireo_trace_site &site, raw_flags *f, vireo_record_words words)
{
    words.alloc_failed = vireo_strf("alloc %d bytes failed\n\n", static_cast<int>(f->size));
    const int32_t size = f->size > INT32_MAX ? -1 : static_cast<int32_t>(f->size);
    return vireo_record_read(site, f->path, size, VIREO_READ_FROM_START, words, &f->rec) ==
                   VIREO_RECORD_OK
               ? 0
               : -1;
}

// Formats a flag document at the content behind a new header (its length without the
// NUL) and writes the whole partition in units; true when the write succeeded.
bool write_raw_flags(raw_flags *f, bool on)
{
    std::vector<uint8_t> &buf = f->rec.buf;
    char *text = reinterpret_cast<char *>(buf.data()) + f->rec.offset;
    const size_t room = buf.size() - static_cast<size_t>(f->rec.offset);
    const int32_t n = on ? vireo_extra_para_format_flag_on(0, text, room)
                         : vireo_extra_para_format_flag_off(1, text, room);
    if (n <= 0)
        return false;
    vireo_ptn_header_add(buf.data(), f->rec.offset, buf.data() + f->rec.offset, n);
    return vireo_file_write_by_offset_block_mode(f->path, 0, buf.data(),
                                                 static_cast<int32_t>(buf.size()),
                                                 MTD_WRITE_BLOCK_SIZE, nullptr) == 0;
}

// The flag verdict of the partition as read back, or "" when it holds no record.
std::string read_back_verdict(const vireo_trace_site &site, raw_flags *f,
                              const vireo_record_words &words)
{
    if (read_raw_flags(site, f, words) != 0)
        return {};
    std::unique_ptr<extra_para_table, decltype(&vireo_extra_para_table_destroy)> table(
        vireo_extra_para_table_build_by_json_data(f->rec.text(), f->rec.length),
        vireo_extra_para_table_destroy);
    return table ? table->fw_flag : "";
}

int32_t raw_flags_off(const ptn_table *old_table, raw_flags *f)
{
    const int32_t index = vireo_ptn_get_index_by_name(old_table, "extra-para");
    if (index >= 0) {
        f->base = old_table->ptns[index].base;
        f->size = old_table->ptns[index].size;
    }
    if (!f->present())
        return 0;
    vireo_progress_item("flags", "extra-para", f->size, false);
    if (vireo_get_mtdpath_by_partition_name("extra-para", f->path) != 0)
        return -1;
    vireo_record_words words;
    words.read_failed = "failed to read extra-para content.\n";
    words.invalid = vireo_strf("%s is not a valid partition.\n", f->path);
    words.no_content = "failed to get extra-para content.\n";
    if (read_raw_flags(VIREO_SITE(), f, words) != 0)
        return -1;
    if (write_raw_flags(f, false))
        VIREO_TRACE("Success to set flag off extra-para, offset:0x%08x, size:0x%08x.\n", f->base,
                    f->size);
    // Nothing is written over an image that is not flagged off.
    if (read_back_verdict(VIREO_SITE(), f, words) != "BAD") {
        VIREO_TRACE("extra-para[%s] does not read back as flagged off.\n", f->path);
        return -1;
    }
    vireo_progress_item_done();
    return 0;
}

int32_t raw_flags_on(raw_flags *f)
{
    vireo_record_words words;
    words.read_failed = "failed to read extra-para content.\n";
    words.invalid = vireo_strf("flash[0x%08x] is not a valid partition.\n", f->base);
    words.no_content = "failed to get extra-para content.\n";
    vireo_progress_item("flags", "extra-para", f->size, false);
    for (int attempt = 0;; attempt++) {
        if (write_raw_flags(f, true))
            VIREO_TRACE("Success to set flag on extra-para[%s], offset:0x%08x, size:0x%08x.\n",
                        f->path, f->base, f->size);
        if (read_raw_flags(VIREO_SITE(), f, words) != 0)
            return -1;
        std::unique_ptr<extra_para_table, decltype(&vireo_extra_para_table_destroy)> table(
            vireo_extra_para_table_build_by_json_data(f->rec.text(), f->rec.length),
            vireo_extra_para_table_destroy);
        if (!table || strcmp(table->fw_flag, "GOOD") == 0 || attempt == FLAG_WRITE_RETRIES) {
            vireo_progress_item_done();
            return 0;
        }
        VIREO_TRACE("failed to get extra-para GOOD try again.\n");
    }
}

// Every entry's content lies inside the file: checked before anything is written.
bool extents_inside(const up_ptn_table *up_table, const vireo_payload &payload)
{
    for (uint32_t i = 0; i < up_table->ptn_cnt && i < UP_PTN_MAX_NUM; i++) {
        const up_ptn_info &e = up_table->ptns[i];
        if (!vireo_payload_content(payload, &e) || e.size > INT32_MAX) {
            VIREO_TRACE("PTN[%s] update content failed, pos={0x%08x:0x%08x}.\n", e.name,
                        static_cast<uint32_t>(e.base), e.size);
            return false;
        }
    }
    return true;
}

} // namespace

void vireo_firmware_choose_slot(up_ptn_info *e, bool has_ubi, int32_t pscore, int32_t bscore)
{
    if (strcmp(e->name, "ubi") == 0 && pscore >= bscore)
        strcpy(e->name, "ubi.b");
    else if (strcmp(e->name, "firmware-info") == 0 &&
             (has_ubi ? pscore >= bscore : pscore <= bscore))
        strcpy(e->name, "firmware-info.b");
}

int32_t vireo_firmware_up_ptn_table_has_ubi(const up_ptn_table *up_table)
{
    for (uint32_t i = 0; i < up_table->ptn_cnt && i < UP_PTN_MAX_NUM; i++)
        if (strcmp(up_table->ptns[i].name, "ubi") == 0)
            return 1;
    return 0;
}

int32_t vireo_firmware_update_ptn_content(const ptn_table *new_table, up_ptn_table *up_table,
                                          int32_t table_changed, const vireo_payload &payload,
                                          int32_t ubi_device)
{
    int32_t pscore = 0, bscore = 0;
    vireo_firmware_get_score(static_cast<uint32_t>(ubi_device), &pscore, &bscore);
    VIREO_TRACE("%s %d pscore[%d] bscore[%d].\n", __func__, __LINE__, pscore, bscore);
    const bool has_ubi = vireo_firmware_up_ptn_table_has_ubi(up_table) == 1;
    for (uint32_t i = 0; i < up_table->ptn_cnt && i < UP_PTN_MAX_NUM; i++) {
        up_ptn_info *e = &up_table->ptns[i];
        if (!table_changed && strcmp(e->name, "partition-table") == 0) {
            VIREO_TRACE("PTN[%s] no changed, no need to update content\n", "partition-table");
            continue;
        }
        vireo_firmware_choose_slot(e, has_ubi, pscore, bscore);
        VIREO_TRACE("%s %d up_ptn_table->ptns[up_ptn_index].name[%s] .\n", __func__, __LINE__,
                    e->name);
        const int32_t index = vireo_ptn_get_index_by_name(new_table, e->name);
        if (index < 0) {
            VIREO_TRACE("PTN[%s] not found at device's disk.\n", e->name);
            return -1;
        }
        const ptn_info &dev = new_table->ptns[index];
        char mtd[128];
        if (vireo_get_mtdpath_by_partition_name(e->name, mtd) != 0)
            return -1;
        char command[1024];
        snprintf(command, sizeof(command), "mtd erase %s", e->name);
        vireo_progress_item("erasing", e->name, dev.size);
        run(command);
        vireo_progress_item_done();
        // BL2 and FIP go through the whole flash at the new table's base.
        const bool whole = strcmp(e->name, "BL2") == 0 || strcmp(e->name, "FIP") == 0;
        char block0[256], flash[256];
        vireo_platform_path(block0, sizeof(block0), VIREO_MTDBLOCK_DEV_FMT, 0);
        vireo_platform_path(flash, sizeof(flash), VIREO_MTD_DEV_FMT, 0);
        const int32_t base = dev.base > INT32_MAX ? -1 : static_cast<int32_t>(dev.base);
        if ((whole ? vireo_firmware_write_entry(payload, e, block0, base, flash, base)
                   : vireo_firmware_write_entry(payload, e, mtd, 0, mtd, 0)) != 0) {
            VIREO_TRACE("PTN[%s] update content failed, pos={0x%08x:0x%08x}.\n", e->name,
                        static_cast<uint32_t>(e->base), e->size);
            return -1;
        }
        VIREO_TRACE("PTN[%s] updated content, flash_base=0x%08x, flash_size=0x%08x, "
                    "content_size=0x%08x(%d).\n",
                    e->name, dev.base, dev.size, e->size, static_cast<int>(e->size));
    }
    return 0;
}

int32_t vireo_firmware_update_ptn(const ptn_table *old_table, const firmware_header *,
                                  up_ptn_table *up_table, const vireo_payload &payload)
{
    ptn_table_ptr new_table(vireo_firmware_get_ptn_table(up_table, payload), vireo_ptn_destroy);
    if (!new_table) {
        VIREO_TRACE("No '%s' in firmware.\n", "partition-table");
        return -1;
    }
    if (!extents_inside(up_table, payload))
        return -1;
    const bool has_ubi = vireo_firmware_up_ptn_table_has_ubi(up_table) == 1;
    raw_flags flags;
    const auto plan = [&] {
        vireo_report_plan_raw(old_table, up_table, payload, UBI_DEVICE_NUMBER);
    };
    const int32_t ubi_mtd = has_ubi ? get_mtd_index_by_name("extra-para-ubi") : -1;
    char command[128];
    if (has_ubi) {
        // Without the partition there is nothing to attach; the flag volumes are then
        // looked up by name as they are everywhere else.
        if (ubi_mtd < 0) {
            VIREO_TRACE("PTN[%s] not found, no UBI device %d attached.\n", "extra-para-ubi",
                        UBI_DEVICE_NUMBER);
        } else {
            snprintf(command, sizeof(command), "ubiattach -m %d -d %d", ubi_mtd, UBI_DEVICE_NUMBER);
            run(command);
        }
        plan();
        vireo_progress_item("flags", "extra-para, extra-para.b", 0, false);
        if (vireo_firmware_pre_update(UBI_DEVICE_NUMBER) != 0)
            return -1;
        vireo_progress_item_done();
    } else {
        plan();
        if (raw_flags_off(old_table, &flags) != 0)
            return -1;
    }
    // The moves go under a journal on flash where there is room for one, so that a power
    // cut before the new table is written loses none of what they carry.
    vireo_journal journal;
    if ((VIREO_POWER_CUT_RECOVERY
             ? vireo_journal_moves(old_table, new_table.get(), up_table, payload, &journal)
             : vireo_firmware_update_ptn_table(old_table, new_table.get())) != 0) {
        VIREO_TRACE("Faield to update ptn-table.\n");
        return -1;
    }
    const int32_t changed = vireo_firmware_ptn_table_changed(old_table, new_table.get());
    if (vireo_firmware_update_ptn_content(new_table.get(), up_table, changed, payload,
                                          UBI_DEVICE_NUMBER) != 0) {
        VIREO_TRACE("Faield to update ptn-content.\n");
        return -1;
    }
    if (vireo_journal_retire(journal) != 0) {
        VIREO_TRACE("Failed to erase the journal of the layout change.\n");
        return -1;
    }
    VIREO_TRACE("Success to update ptn-table.\n");
    if (has_ubi) {
        vireo_progress_item("flags", "extra-para, extra-para.b", 0, false);
        vireo_firmware_post_update(UBI_DEVICE_NUMBER);
        vireo_progress_item_done();
        if (ubi_mtd >= 0) {
            snprintf(command, sizeof(command), "ubidetach -m %d", ubi_mtd);
            run(command);
        }
        return 0;
    }
    return flags.present() ? raw_flags_on(&flags) : 0;
}
