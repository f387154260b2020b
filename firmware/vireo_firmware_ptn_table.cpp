// SPDX-License-Identifier: Apache-2.0
#include "common/vireo_common.h"
#include "common/vireo_device.h"
#include "common/vireo_endian.h"
#include "common/vireo_file.h"
#include "common/vireo_platform.h"
#include "common/vireo_report.h"
#include "firmware/vireo_firmware.h"
#include "firmware/vireo_firmware_content.h"
#include "ptn/vireo_ptn_header.h"
#include "ptn/vireo_ptn_record.h"

#include <cstring>
#include <vector>

static const char VIREO_MODULE[] = "vireo_firmware";

// Only the first 64 KiB of the device's "partition-table" partition are read.
#define PTN_TABLE_READ_SIZE 65536

ptn_table *vireo_fireware_build_ptn_table_by_flash()
{
    char path[128];
    if (vireo_get_mtdpath_by_partition_name("partition-table", path) != 0)
        return nullptr;
    VIREO_TRACE("mtd_path:%s\n", path);
    vireo_record_words words;
    words.alloc_failed = vireo_strf("alloc %d bytes failed.\n", PTN_TABLE_READ_SIZE);
    words.read_failed = "failed to read ptn_table content.\n";
    words.invalid = vireo_strf("%s is not a valid partition.\n", path);
    words.no_content = "failed to get ptn_table content.\n";
    vireo_record rec;
    if (vireo_record_read(VIREO_SITE(), path, PTN_TABLE_READ_SIZE, VIREO_READ_FROM_START, words,
                          &rec) != VIREO_RECORD_OK)
        return nullptr;
    ptn_table *table = vireo_ptn_build_by_json_data(rec.text(), rec.length);
    if (!table)
        VIREO_TRACE("failed to build ptn_table struct.\n");
    return table;
}

ptn_table *vireo_firmware_get_ptn_table(const up_ptn_table *up_table, const vireo_payload &payload)
{
    VIREO_ASSERT(up_table);
    vireo_firmware_up_ptn_table_dump(up_table);
    const up_ptn_info *entry = nullptr;
    for (uint32_t i = 0; i < up_table->ptn_cnt && i < UP_PTN_MAX_NUM && !entry; i++)
        if (strcmp(up_table->ptns[i].name, "partition-table") == 0)
            entry = &up_table->ptns[i];
    if (!entry)
        return nullptr;
    vireo_content read;
    if (vireo_payload_read(payload, entry, &read) != 0)
        return nullptr;
    const uint8_t *data = read.data;
    const char *text = reinterpret_cast<const char *>(data);
    const int32_t size = static_cast<int32_t>(entry->size);
    if (size < PTN_HEADER_SIZE) {
        VIREO_TRACE("%s", "");
        return vireo_ptn_build_by_json_data(text, size);
    }
    ptn_header h;
    h.magic_0 = vireo_get_be32(data);
    h.magic_1 = vireo_get_be32(data + 4);
    h.length = vireo_get_be32(data + 8);
    h.checksum = vireo_get_be32(data + 12);
    vireo_ptn_header_dump(&h);
    // A header is believed only when it accounts for the entry's bytes exactly.
    if (h.magic_0 == PTN_HEADER_MAGIC_0 && h.magic_1 == PTN_HEADER_MAGIC_1 &&
        static_cast<uint64_t>(h.length) + PTN_HEADER_SIZE == entry->size)
        return vireo_ptn_build_by_json_data(text + PTN_HEADER_SIZE, static_cast<int32_t>(h.length));
    return vireo_ptn_build_by_json_data(text, size);
}

namespace
{

// What a moved partition carries: never more than its new extent holds.
uint32_t move_length(const ptn_info &old_ptn, const ptn_info &new_ptn)
{
    return old_ptn.size < new_ptn.size ? old_ptn.size : new_ptn.size;
}

const ptn_info *old_entry(const ptn_table *old_table, const ptn_info &new_ptn)
{
    const int32_t j = vireo_ptn_get_index_by_name(old_table, new_ptn.name);
    return j < 0 ? nullptr : &old_table->ptns[j];
}

bool moves(const ptn_info *old_ptn, const ptn_info &new_ptn)
{
    return old_ptn && (old_ptn->base != new_ptn.base || old_ptn->size != new_ptn.size);
}

// Reads the old place of every partition that moves, before the first write, so each
// copy carries the flash as it was whatever the order and overlap of the moves.
// snapshot[i] holds entry i of the new table (empty when it does not move).
int32_t take_snapshot(const char *flash, const ptn_table *old_table, const ptn_table *new_table,
                      std::vector<std::vector<uint8_t>> *snapshot)
{
    const int32_t flash_size = vireo_file_get_size(flash);
    if (flash_size < 1) {
        VIREO_TRACE("Failed to get flash size, path='%s'\n", flash);
        return -1;
    }
    const std::vector<vireo_ptn_move> list = vireo_firmware_ptn_moves(old_table, new_table);
    uint64_t total = 0;
    for (const vireo_ptn_move &m : list)
        total += m.len;
    try {
        snapshot->assign(new_table->ptn_cnt, {});
        for (const vireo_ptn_move &m : list)
            (*snapshot)[m.index].resize(m.len);
    } catch (...) {
        VIREO_TRACE("Failed to alloc %d bytes memory.\n", static_cast<int>(total));
        return -1;
    }
    for (const vireo_ptn_move &m : list) {
        std::vector<uint8_t> &copy = (*snapshot)[m.index];
        uint32_t got = 0;
        if (m.from->base > INT32_MAX ||
            vireo_file_read_by_offset(flash, static_cast<int32_t>(m.from->base), copy.data(),
                                      static_cast<int32_t>(copy.size()), &got) != 0 ||
            got != copy.size()) {
            VIREO_TRACE("Failed to read flash content.\n");
            return -1;
        }
    }
    return 0;
}

} // namespace

uint32_t vireo_firmware_move_length(const ptn_table *old_table, const ptn_info &new_ptn)
{
    const ptn_info *o = old_entry(old_table, new_ptn);
    return moves(o, new_ptn) ? move_length(*o, new_ptn) : 0;
}

std::vector<vireo_ptn_move> vireo_firmware_ptn_moves(const ptn_table *old_table,
                                                     const ptn_table *new_table)
{
    std::vector<vireo_ptn_move> list;
    for (uint32_t i = 0; i < new_table->ptn_cnt; i++) {
        const ptn_info *o = old_entry(old_table, new_table->ptns[i]);
        if (moves(o, new_table->ptns[i]))
            list.push_back({i, o, &new_table->ptns[i], move_length(*o, new_table->ptns[i])});
    }
    return list;
}

int32_t vireo_firmware_update_ptn_table(const ptn_table *old_table, const ptn_table *new_table,
                                        const vireo_ptn_move_hooks &hooks)
{
    char flash[256];
    if (vireo_platform_path(flash, sizeof(flash), VIREO_MTD_DEV_FMT, 0) < 0)
        return -1;
    bool started = false;
    for (uint32_t i = 0; i < new_table->ptn_cnt; i++) {
        const ptn_info &n = new_table->ptns[i];
        const ptn_info *o = old_entry(old_table, n);
        if (!o) {
            VIREO_TRACE("ptn[%s] is new ptn.\n", n.name);
            continue;
        }
        if (!moves(o, n)) {
            VIREO_TRACE("ptn[%s] is same as old.\n", n.name);
            continue;
        }
        VIREO_TRACE("ptn[%s] moved from {0x%08x:0x%08x} to {0x%08x:0x%08x}.\n", n.name, o->base,
                    o->size, n.base, n.size);
        if (!started) {
            if (hooks.before_first() != 0)
                return -1;
            started = true;
        }
        const uint32_t len = move_length(*o, n);
        if (hooks.placed && hooks.placed(i)) {
            if (hooks.moved(i) != 0)
                return -1;
            continue;
        }
        // Written, then read back: the item counts both.
        vireo_progress_item("moving", n.name, 2ull * len);
        const auto written = [&hooks, i](uint32_t done, uint32_t chunk) {
            vireo_progress_done(static_cast<uint64_t>(done) + chunk);
            return hooks.bytes(i, done, chunk);
        };
        const auto bytes = [&hooks, i, len](uint32_t done, uint32_t chunk) {
            vireo_progress_done(uint64_t{len} + done + chunk);
            return hooks.bytes(i, done, chunk);
        };
        // The move is read back like every other write: a place that was not erased
        // does not take the bytes.
        if (n.base > INT32_MAX ||
            vireo_file_write_units(flash, static_cast<int32_t>(n.base), static_cast<int32_t>(len),
                                   MTD_WRITE_BLOCK_SIZE, written, nullptr) != 0 ||
            vireo_file_compare_units(flash, static_cast<int32_t>(n.base), static_cast<int32_t>(len),
                                     MTD_WRITE_BLOCK_SIZE, true, bytes, nullptr) != 0) {
            VIREO_TRACE("PTN[%s] move to {0x%08x:0x%08x} failed.\n", n.name, n.base, n.size);
            return -1;
        }
        if (hooks.moved(i) != 0)
            return -1;
        vireo_progress_item_done();
    }
    return 0;
}

int32_t vireo_firmware_update_ptn_table(const ptn_table *old_table, const ptn_table *new_table)
{
    VIREO_ASSERT(old_table);
    VIREO_ASSERT(new_table);
    char flash[256];
    if (vireo_platform_path(flash, sizeof(flash), VIREO_MTD_DEV_FMT, 0) < 0)
        return -1;
    std::vector<std::vector<uint8_t>> snapshot;
    vireo_ptn_move_hooks hooks;
    hooks.before_first = [&] { return take_snapshot(flash, old_table, new_table, &snapshot); };
    hooks.bytes = [&snapshot](uint32_t index, uint32_t done, uint32_t) {
        return snapshot[index].data() + done;
    };
    hooks.moved = [](uint32_t) { return 0; };
    return vireo_firmware_update_ptn_table(old_table, new_table, hooks);
}

// Every entry of a has an equal first namesake in b.
static bool entries_found(const ptn_table *a, const ptn_table *b)
{
    for (uint32_t i = 0; i < a->ptn_cnt; i++) {
        const int32_t j = vireo_ptn_get_index_by_name(b, a->ptns[i].name);
        if (j < 0 || a->ptns[i].base != b->ptns[j].base || a->ptns[i].size != b->ptns[j].size ||
            a->ptns[i].attr != b->ptns[j].attr)
            return false;
    }
    return true;
}

int32_t vireo_firmware_ptn_table_changed(const ptn_table *table_a, const ptn_table *table_b)
{
    if (!table_a || !table_b)
        return 1;
    if (table_a->ptn_cnt != table_b->ptn_cnt || table_a->disk_size != table_b->disk_size)
        return 1;
    return entries_found(table_a, table_b) && entries_found(table_b, table_a) ? 0 : 1;
}
