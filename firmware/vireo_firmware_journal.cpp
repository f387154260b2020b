// SPDX-License-Identifier: Apache-2.0
#include "firmware/vireo_firmware_journal.h"

#include "common/vireo_common.h"
#include "common/vireo_device.h"
#include "common/vireo_endian.h"
#include "common/vireo_fd.h"
#include "common/vireo_file.h"
#include "common/vireo_file_flash.h"
#include "common/vireo_platform.h"
#include "crypto/vireo_siphash.h"
#include "firmware/vireo_firmware.h"

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <mtd/mtd-user.h>
#include <sys/ioctl.h>
#include <unistd.h>

static const char VIREO_MODULE[] = "vireo_firmware";

namespace
{

const char kPlanMagic[8] = {'V', 'I', 'R', 'E', 'O', 'J', 'N', 'L'};
const char kRecordMagic[8] = {'V', 'J', 'R', 'E', 'C', 'O', 'R', 'D'};
const uint32_t kVersion = 2; // 1: every move's copy in the staged stream
// The check values are SipHash-2-4 under this fixed key: a checksum, not a seal.
const uint64_t kCheckKey[2] = {0x766972656f6a6e6cULL, 0x6c61796f75742d31ULL};
const uint32_t kChunk = 64 << 10;     // bytes read or written at a time
const uint32_t kMaxPlan = 1u << 20;   // a plan larger than this is no plan of ours
const uint32_t kMaxTable = 60u << 10; // the image's table, kept whole in the plan
const size_t kNameLen = 32;
const uint32_t kRecordSize = 24; // magic, index, 0, check

struct extent {
    uint32_t base;
    uint32_t len;
};

// Where a move's copy lies from the plan on: staged, or left where no write of the layout
// change reaches it, at its old place, or made at its new place when that is free flash
// no other move touches (the move then finds its bytes there already).
enum copy_place : uint32_t { COPY_STAGED = 0, COPY_OLD_PLACE = 1, COPY_NEW_PLACE = 2 };

struct move_plan {
    char name[kNameLen];
    uint32_t old_base, old_size, new_base, new_size, len;
    uint32_t copy;   // a copy_place
    uint64_t staged; // offset in the staged stream
    uint64_t check;  // of the copy
};

struct plan {
    uint32_t erase = 0;       // erase block size
    uint32_t unit = 0;        // bytes of a record slot
    uint32_t home = 0;        // flash offset of the plan's first block
    uint32_t plan_blocks = 0; // then the records' blocks
    uint32_t record_blocks = 0;
    std::vector<extent> staging; // the staged stream's blocks, in order
    std::vector<move_plan> moves;
    std::vector<uint8_t> table;      // the image's "partition-table" content
    std::vector<extent> erase_after; // free flash used: erased when done
    uint64_t check = 0;
};

uint64_t check_of(const uint8_t *p, size_t n)
{
    return vireo_siphash24(kCheckKey, p, n);
}

// The check of a long run of bytes: that of the checks of its 64 KiB chunks, in order.
struct chunked_check {
    std::vector<uint8_t> sums;
    void add(const uint8_t *p, size_t n)
    {
        const uint64_t c = check_of(p, n);
        for (int shift = 56; shift >= 0; shift -= 8)
            sums.push_back(static_cast<uint8_t>(c >> shift));
    }
    uint64_t value() const
    {
        return check_of(sums.data(), sums.size());
    }
};

void put64(std::vector<uint8_t> &out, uint64_t v)
{
    uint8_t b[8];
    vireo_put_be32(b, static_cast<uint32_t>(v >> 32));
    vireo_put_be32(b + 4, static_cast<uint32_t>(v));
    out.insert(out.end(), b, b + 8);
}

void put32(std::vector<uint8_t> &out, uint32_t v)
{
    uint8_t b[4];
    vireo_put_be32(b, v);
    out.insert(out.end(), b, b + 4);
}

// Reads big-endian fields in order; fails, and keeps failing, past the end.
struct reader {
    const uint8_t *p;
    size_t left;
    bool ok = true;
    uint32_t u32()
    {
        if (left < 4) {
            ok = false;
            return 0;
        }
        const uint32_t v = vireo_get_be32(p);
        p += 4;
        left -= 4;
        return v;
    }
    uint64_t u64()
    {
        const uint64_t hi = u32();
        return hi << 32 | u32();
    }
    const uint8_t *bytes(size_t n)
    {
        if (left < n) {
            ok = false;
            return nullptr;
        }
        const uint8_t *at = p;
        p += n;
        left -= n;
        return at;
    }
};

std::vector<uint8_t> record_bytes(uint64_t plan_check, uint32_t index)
{
    std::vector<uint8_t> r(kRecordMagic, kRecordMagic + 8);
    put32(r, index);
    put32(r, 0);
    std::vector<uint8_t> what;
    put64(what, plan_check);
    put32(what, index);
    put64(r, check_of(what.data(), what.size()));
    return r;
}

std::vector<uint8_t> encode(const plan &p)
{
    std::vector<uint8_t> out(kPlanMagic, kPlanMagic + 8);
    put32(out, kVersion);
    put32(out, 0); // total length, set below
    for (uint32_t v : {p.erase, p.unit, p.home, p.plan_blocks, p.record_blocks})
        put32(out, v);
    for (const std::vector<extent> *list : {&p.staging, &p.erase_after}) {
        put32(out, static_cast<uint32_t>(list->size()));
        for (const extent &e : *list) {
            put32(out, e.base);
            put32(out, e.len);
        }
    }
    put32(out, static_cast<uint32_t>(p.moves.size()));
    for (const move_plan &m : p.moves) {
        out.insert(out.end(), m.name, m.name + kNameLen);
        for (uint32_t v : {m.old_base, m.old_size, m.new_base, m.new_size, m.len, m.copy})
            put32(out, v);
        put64(out, m.staged);
        put64(out, m.check);
    }
    put32(out, static_cast<uint32_t>(p.table.size()));
    out.insert(out.end(), p.table.begin(), p.table.end());
    vireo_put_be32(out.data() + 12, static_cast<uint32_t>(out.size() + 8));
    put64(out, check_of(out.data(), out.size()));
    return out;
}

bool decode(const uint8_t *data, size_t size, plan *p)
{
    if (size < 24 || memcmp(data, kPlanMagic, 8) != 0)
        return false;
    const uint32_t version = vireo_get_be32(data + 8);
    if (version != 1 && version != kVersion)
        return false;
    const uint32_t total = vireo_get_be32(data + 12);
    if (total < 24 || total > size ||
        check_of(data, total - 8) !=
            vireo_get_be32(data + total - 8) * (1ULL << 32) + vireo_get_be32(data + total - 4))
        return false;
    reader r{data + 16, total - 24};
    p->erase = r.u32();
    p->unit = r.u32();
    p->home = r.u32();
    p->plan_blocks = r.u32();
    p->record_blocks = r.u32();
    for (std::vector<extent> *list : {&p->staging, &p->erase_after}) {
        const uint32_t n = r.u32();
        for (uint32_t i = 0; i < n && r.ok; i++) {
            const uint32_t base = r.u32();
            list->push_back({base, r.u32()});
        }
    }
    const uint32_t moves = r.u32();
    for (uint32_t i = 0; i < moves && r.ok && i <= PTN_MAX_NUM; i++) {
        move_plan m{};
        const uint8_t *name = r.bytes(kNameLen);
        if (!name)
            break;
        memcpy(m.name, name, kNameLen);
        m.name[kNameLen - 1] = '\0';
        m.old_base = r.u32();
        m.old_size = r.u32();
        m.new_base = r.u32();
        m.new_size = r.u32();
        m.len = r.u32();
        m.copy = version == 1 ? COPY_STAGED : r.u32();
        m.staged = r.u64();
        m.check = r.u64();
        p->moves.push_back(m);
    }
    const uint32_t table = r.u32();
    const uint8_t *bytes = table <= kMaxTable ? r.bytes(table) : nullptr;
    if (!r.ok || !bytes || p->erase == 0 || p->unit == 0 || moves != p->moves.size())
        return false;
    p->table.assign(bytes, bytes + table);
    p->check = check_of(data, total);
    return true;
}

// The whole flash, open for reading and writing, with its geometry (a plain file, as in a
// test tree without flash emulation, counts as flash of 64 KiB blocks that need no erase).
struct flash_dev {
    char path[256] = "";
    fd_guard file{-1};
    int64_t size = 0;
    bool mtd = false;
    vireo_flash_geometry geo{65536, 1};

    bool open_it()
    {
        if (vireo_platform_path(path, sizeof(path), VIREO_MTD_DEV_FMT, 0) < 0)
            return false;
        file.fd = open(path, O_RDWR);
        if (file.fd < 0)
            return false;
        size = lseek(file.fd, 0, SEEK_END);
        mtd = vireo_flash_geometry_of(file.fd, &geo) == 1;
        return size > 0 && geo.erase_size > 0;
    }

    bool read(uint64_t at, uint8_t *buf, size_t n) const
    {
        return at + n <= static_cast<uint64_t>(size) &&
               vireo_read_fully_at(file.fd, buf, static_cast<int64_t>(at), static_cast<int64_t>(n));
    }

    // A bad block is never room for the journal.
    bool bad(uint32_t at) const
    {
        loff_t off = at;
        return mtd && ioctl(file.fd, MEMGETBADBLOCK, &off) > 0;
    }

    bool erase(const extent &e) const
    {
        for (uint32_t at = e.base; at < e.base + e.len; at += geo.erase_size) {
            if (mtd) {
                erase_info_user info{at, geo.erase_size};
                if (ioctl(file.fd, MEMERASE, &info) != 0)
                    return false;
                continue;
            }
            const std::vector<uint8_t> ff(geo.erase_size, 0xFF);
            if (pwrite(file.fd, ff.data(), ff.size(), at) != static_cast<ssize_t>(ff.size()))
                return false;
        }
        return true;
    }

    // Programs n bytes at at, over flash erased for them, and reads them back.
    bool program(uint32_t at, const uint8_t *data, uint32_t n) const
    {
        const auto next = [data](uint32_t done, uint32_t) { return data + done; };
        const int32_t r =
            mtd ? vireo_flash_write_units(file.fd, path, static_cast<int32_t>(size), geo,
                                          static_cast<int32_t>(at), static_cast<int32_t>(n),
                                          MTD_WRITE_BLOCK_SIZE, next, true)
                : (pwrite(file.fd, data, n, at) == static_cast<ssize_t>(n) ? 0 : -1);
        std::vector<uint8_t> back(n);
        return r == 0 && read(at, back.data(), n) && memcmp(back.data(), data, n) == 0;
    }
};

// Where byte pos of move m's copy lies in the flash, and how many bytes of it follow there.
bool copy_at(const plan &p, const move_plan &m, uint64_t pos, uint32_t *at, uint32_t *run)
{
    if (m.copy != COPY_STAGED) {
        if (pos >= m.len)
            return false;
        *at = static_cast<uint32_t>((m.copy == COPY_OLD_PLACE ? m.old_base : m.new_base) + pos);
        *run = static_cast<uint32_t>(m.len - pos);
        return true;
    }
    pos += m.staged;
    for (const extent &e : p.staging) {
        if (pos < e.len) {
            *at = static_cast<uint32_t>(e.base + pos);
            *run = static_cast<uint32_t>(e.len - pos);
            return true;
        }
        pos -= e.len;
    }
    return false;
}

// Reads len bytes of move m's copy at pos, in as many pieces as its blocks make.
bool read_copy(const flash_dev &f, const plan &p, const move_plan &m, uint64_t pos, uint8_t *buf,
               uint32_t len)
{
    for (uint32_t done = 0; done < len;) {
        uint32_t at = 0, run = 0;
        if (!copy_at(p, m, pos + done, &at, &run))
            return false;
        const uint32_t n = std::min(run, len - done);
        if (!f.read(at, buf + done, n))
            return false;
        done += n;
    }
    return true;
}

// The check of a move's copy as the flash holds it now.
bool copy_check(const flash_dev &f, const plan &p, const move_plan &m, uint64_t *check)
{
    std::vector<uint8_t> buf(kChunk);
    chunked_check c;
    for (uint32_t done = 0; done < m.len; done += kChunk) {
        const uint32_t n = std::min(kChunk, m.len - done);
        if (!read_copy(f, p, m, done, buf.data(), n))
            return false;
        c.add(buf.data(), n);
    }
    *check = c.value();
    return true;
}

uint32_t record_slot(const plan &p, uint32_t k)
{
    return p.home + p.plan_blocks * p.erase + k * p.unit;
}

uint32_t record_slots(const plan &p)
{
    return p.record_blocks * p.erase / p.unit;
}

// The moves recorded done, and the first record slot still erased (slots() when none is).
std::vector<bool> read_records(const flash_dev &f, const plan &p, uint32_t *free_slot)
{
    std::vector<bool> done(p.moves.size(), false);
    std::vector<uint8_t> slot(p.unit);
    *free_slot = record_slots(p);
    for (uint32_t k = 0; k < record_slots(p); k++) {
        if (!f.read(record_slot(p, k), slot.data(), p.unit))
            continue;
        if (vireo_all_erased(slot.data(), p.unit)) {
            *free_slot = k;
            break;
        }
        const uint32_t index = vireo_get_be32(slot.data() + 8);
        const std::vector<uint8_t> want = record_bytes(p.check, index);
        if (index < done.size() && memcmp(slot.data(), want.data(), want.size()) == 0)
            done[index] = true;
    }
    return done;
}

bool append_record(const flash_dev &f, const plan &p, uint32_t *free_slot, uint32_t index)
{
    if (*free_slot >= record_slots(p))
        return false;
    std::vector<uint8_t> r = record_bytes(p.check, index);
    r.resize(p.unit, 0xFF);
    return f.program(record_slot(p, (*free_slot)++), r.data(), p.unit);
}

// Extents of [lo, hi) not in any of taken, each cut to whole erase blocks.
std::vector<extent> blocks_outside(uint64_t lo, uint64_t hi, std::vector<extent> taken,
                                   uint32_t erase)
{
    std::sort(taken.begin(), taken.end(),
              [](const extent &a, const extent &b) { return a.base < b.base; });
    std::vector<extent> out;
    uint64_t at = lo;
    const auto add = [&](uint64_t from, uint64_t to) {
        from = (from + erase - 1) / erase * erase;
        to = to / erase * erase;
        for (uint64_t b = from; b < to; b += erase)
            out.push_back({static_cast<uint32_t>(b), erase});
    };
    for (const extent &t : taken) {
        const uint64_t end = uint64_t{t.base} + t.len;
        if (end <= at)
            continue;
        if (t.base >= hi)
            break;
        if (t.base > at)
            add(at, t.base);
        at = std::max(at, end);
    }
    if (at < hi)
        add(at, hi);
    return out;
}

bool is_name(const char *name, std::initializer_list<const char *> names)
{
    for (const char *n : names)
        if (strcmp(name, n) == 0)
            return true;
    return false;
}

// Where a journal may go: erase blocks that read 0xFF and that no partition of either
// table holds, then the old places of the partitions the image carries (which the content
// writes erase and rewrite), clear of every place a move reads or writes and of the records
// the upgrade reads first. free_count: how many of them are free flash. Free flash is read
// only until enough(room, free_count) holds.
std::vector<extent>
journal_room(const flash_dev &f, const ptn_table *old_table, const ptn_table *new_table,
             const up_ptn_table *up_table,
             const std::function<bool(const std::vector<extent> &, size_t)> &enough,
             size_t *free_count)
{
    const uint32_t erase = f.geo.erase_size;
    std::vector<extent> taken;
    for (const ptn_table *t : {old_table, new_table})
        for (uint32_t i = 0; i < t->ptn_cnt; i++)
            taken.push_back({t->ptns[i].base, t->ptns[i].size});
    std::vector<extent> carried;
    // Never a place a move reads or writes, nor a record read before the contents.
    std::vector<extent> keep;
    for (const vireo_ptn_move &m : vireo_firmware_ptn_moves(old_table, new_table)) {
        keep.push_back({m.from->base, m.from->size});
        keep.push_back({m.to->base, m.to->size});
    }
    for (const ptn_table *t : {old_table, new_table})
        for (uint32_t i = 0; i < t->ptn_cnt; i++)
            if (is_name(t->ptns[i].name,
                        {"partition-table", "extra-para", "extra-para-ubi", "BL2", "FIP"}))
                keep.push_back({t->ptns[i].base, t->ptns[i].size});
    for (uint32_t i = 0; i < up_table->ptn_cnt && i < UP_PTN_MAX_NUM; i++) {
        const char *name = up_table->ptns[i].name;
        // Twins are chosen by score later; neither is counted on.
        if (is_name(name, {"partition-table", "extra-para", "extra-para-ubi", "BL2", "FIP", "ubi",
                           "ubi.b", "firmware-info", "firmware-info.b"}))
            continue;
        const int32_t j = vireo_ptn_get_index_by_name(old_table, name);
        if (j < 0 || vireo_ptn_get_index_by_name(new_table, name) < 0)
            continue;
        const ptn_info &p = old_table->ptns[j];
        for (const extent &b : blocks_outside(p.base, uint64_t{p.base} + p.size, keep, erase))
            if (!f.bad(b.base) && std::none_of(carried.begin(), carried.end(),
                                               [&b](const extent &r) { return r.base == b.base; }))
                carried.push_back(b);
    }
    std::vector<extent> room = carried;
    *free_count = 0;
    std::vector<uint8_t> block(erase);
    for (const extent &b : blocks_outside(0, static_cast<uint64_t>(f.size), taken, erase)) {
        if (f.bad(b.base) || !f.read(b.base, block.data(), erase) ||
            !vireo_all_erased(block.data(), erase))
            continue;
        room.insert(room.begin() + static_cast<std::ptrdiff_t>((*free_count)++), b);
        if (enough(room, *free_count))
            break;
    }
    return room;
}

// A stretch of flash, [lo, hi).
struct span {
    uint64_t lo, hi;
    bool meets(const span &o) const
    {
        return lo < o.hi && o.lo < hi;
    }
};

// The erase blocks a move may rewrite: its new place from the block its first byte is in to
// the block its last unit ends in (a block that is not erased is rewritten whole).
span reach_of(const move_plan &m, const vireo_flash_geometry &geo)
{
    const uint64_t unit = std::max<uint64_t>(MTD_WRITE_BLOCK_SIZE, geo.page_size);
    const uint64_t end = m.new_base + (uint64_t{m.len} + unit - 1) / unit * unit;
    const uint64_t erase = geo.erase_size;
    return {m.new_base / erase * erase, (end + erase - 1) / erase * erase};
}

// Whether the blocks of s are inside the flash, good, and read 0xFF.
bool erased_blocks(const flash_dev &f, const span &s)
{
    if (s.hi > static_cast<uint64_t>(f.size))
        return false;
    std::vector<uint8_t> block(f.geo.erase_size);
    for (uint64_t at = s.lo; at < s.hi; at += f.geo.erase_size)
        if (f.bad(static_cast<uint32_t>(at)) || !f.read(at, block.data(), block.size()) ||
            !vireo_all_erased(block.data(), static_cast<int64_t>(block.size())))
            return false;
    return true;
}

// Where each move's copy goes. A source that no move writes over stays the copy. Otherwise
// the copy is made at the new place when that is erased flash outside every old partition
// and clear of every other move's reach and of every source: until the new table is written
// the old layout keeps nothing there. Else it is staged.
void choose_copies(const flash_dev &f, const ptn_table *old_table, plan *p)
{
    std::vector<span> reach, source;
    for (const move_plan &m : p->moves) {
        reach.push_back(reach_of(m, f.geo));
        source.push_back({m.old_base, uint64_t{m.old_base} + m.len});
    }
    for (size_t i = 0; i < p->moves.size(); i++) {
        const auto meets = [&](const span &s) { return s.meets(source[i]); };
        if (std::none_of(reach.begin(), reach.end(), meets)) {
            p->moves[i].copy = COPY_OLD_PLACE;
            continue;
        }
        bool clear = std::none_of(source.begin(), source.end(),
                                  [&](const span &s) { return s.meets(reach[i]); });
        for (size_t k = 0; k < reach.size() && clear; k++)
            clear = k == i || !reach[k].meets(reach[i]);
        for (uint32_t j = 0; j < old_table->ptn_cnt && clear; j++) {
            const ptn_info &o = old_table->ptns[j];
            clear = !span{o.base, uint64_t{o.base} + o.size}.meets(reach[i]);
        }
        p->moves[i].copy = clear && erased_blocks(f, reach[i]) ? COPY_NEW_PLACE : COPY_STAGED;
    }
}

// The image's "partition-table" content, which the plan keeps to write it again.
bool table_content(const up_ptn_table *up_table, const vireo_payload &payload,
                   std::vector<uint8_t> *out)
{
    for (uint32_t i = 0; i < up_table->ptn_cnt && i < UP_PTN_MAX_NUM; i++) {
        const up_ptn_info &e = up_table->ptns[i];
        if (strcmp(e.name, "partition-table") != 0)
            continue;
        vireo_content c;
        if (e.size > kMaxTable || vireo_payload_read(payload, &e, &c) != 0)
            return false;
        out->assign(c.data, c.data + e.size);
        return true;
    }
    return false;
}

// Lays the plan out in room: its home (plan, then records) in consecutive blocks, free
// flash first; the staged stream in the blocks left, the carried room first (it needs no
// erase afterwards). The free flash used is listed to be erased when done, the home first.
// plan_size: the plan's bytes without those two lists. False when room is too small.
bool place(plan *p, const std::vector<extent> &room, size_t free_count, uint64_t staged,
           size_t plan_size)
{
    const uint64_t erase = p->erase;
    p->record_blocks = static_cast<uint32_t>(((p->moves.size() + 1) * p->unit + erase - 1) / erase);
    // The lists take 8 bytes a block: the staging at most one block per erase block staged,
    // the free flash to erase at most the staging and the home. A block more for the plan
    // adds 8 bytes: a few rounds settle it.
    const uint64_t stage_blocks = (staged + erase - 1) / erase;
    uint64_t plan_blocks = 1;
    for (int round = 0; round < 4; round++)
        plan_blocks =
            (plan_size + 8 * (2 * stage_blocks + plan_blocks + p->record_blocks) + erase - 1) /
            erase;
    p->plan_blocks = static_cast<uint32_t>(plan_blocks);
    const size_t blocks = p->plan_blocks + p->record_blocks;
    size_t home = room.size();
    for (size_t i = 0; i + blocks <= room.size() && home == room.size(); i++) {
        bool run = true;
        for (size_t k = 1; k < blocks && run; k++)
            run = room[i + k].base == room[i].base + k * erase &&
                  (i + k < free_count) == (i < free_count);
        if (run)
            home = i;
    }
    if (home == room.size())
        return false;
    p->home = room[home].base;
    p->staging.clear();
    p->erase_after.clear();
    if (home < free_count)
        for (size_t k = 0; k < blocks; k++)
            p->erase_after.push_back(room[home + k]);
    uint64_t have = 0;
    for (size_t pass = 0; pass < 2; pass++) {
        for (size_t i = pass == 0 ? free_count : 0; i < (pass == 0 ? room.size() : free_count);
             i++) {
            if ((i >= home && i < home + blocks) || have >= staged)
                continue;
            p->staging.push_back(room[i]);
            if (i < free_count)
                p->erase_after.push_back(room[i]);
            have += room[i].len;
        }
    }
    return have >= staged;
}

// The staging and the plan; false at the first flash failure.
bool stage_and_plan(const flash_dev &f, plan *p)
{
    // Free flash was found reading 0xFF: only carried room needs an erase before use.
    const auto erase_carried = [&f, p](const extent &e) {
        return std::any_of(p->erase_after.begin(), p->erase_after.end(),
                           [&e](const extent &a) { return a.base == e.base; }) ||
               f.erase(e);
    };
    for (const extent &e : p->staging)
        if (!erase_carried(e))
            return false;
    for (uint32_t b = 0; b < p->plan_blocks + p->record_blocks; b++)
        if (!erase_carried({p->home + b * p->erase, p->erase}))
            return false;
    std::vector<uint8_t> buf(kChunk);
    for (move_plan &m : p->moves) {
        chunked_check c;
        for (uint32_t done = 0; done < m.len; done += kChunk) {
            const uint32_t n = std::min(kChunk, m.len - done);
            if (!f.read(uint64_t{m.old_base} + done, buf.data(), n))
                return false;
            c.add(buf.data(), n);
            for (uint32_t put = 0; put < n && m.copy != COPY_OLD_PLACE;) {
                uint32_t at = 0, run = 0;
                if (!copy_at(*p, m, done + put, &at, &run))
                    return false;
                const uint32_t piece = std::min(run, n - put);
                if (!f.program(at, buf.data() + put, piece))
                    return false;
                put += piece;
            }
        }
        m.check = c.value();
        uint64_t again = 0;
        if (m.copy != COPY_OLD_PLACE && (!copy_check(f, *p, m, &again) || again != m.check))
            return false;
    }
    // The rest of the plan's blocks stays erased; the plan never reaches its records.
    const std::vector<uint8_t> bytes = encode(*p);
    p->check = check_of(bytes.data(), bytes.size()); // as a reader of the plan makes it
    return bytes.size() <= uint64_t{p->plan_blocks} * p->erase &&
           f.program(p->home, bytes.data(), static_cast<uint32_t>(bytes.size()));
}

// Stages the old content of every move that needs it, checks every copy, then writes the plan: the
// journal is pending from the plan's last byte on. False on a flash failure (traced).
bool stage(const flash_dev &f, plan *p)
{
    if (stage_and_plan(f, p))
        return true;
    VIREO_TRACE("Failed to stage the partitions that move in flash.\n");
    return false;
}

// Whether a plan whose check holds fits the flash it was found on: its geometry, every
// block it names and every move inside the flash, each staged copy inside the staged stream.
// A plan that does not was not written for this flash, and nothing it names is touched.
bool plan_fits(const flash_dev &f, const plan &p, uint64_t at)
{
    const uint64_t size = static_cast<uint64_t>(f.size);
    const uint64_t erase = p.erase;
    const auto inside = [size](uint64_t base, uint64_t len) {
        return base <= size && len <= size - base;
    };
    const auto blocks = [&](const extent &e) {
        return e.len > 0 && e.base % erase == 0 && e.len % erase == 0 && inside(e.base, e.len);
    };
    if (p.erase != f.geo.erase_size || p.unit < kRecordSize || p.unit > p.erase ||
        p.erase % p.unit != 0 || p.home != at || p.plan_blocks == 0 || p.record_blocks == 0 ||
        !inside(p.home, (uint64_t{p.plan_blocks} + p.record_blocks) * erase))
        return false;
    uint64_t staged = 0;
    for (const extent &e : p.staging) {
        if (!blocks(e))
            return false;
        staged += e.len;
    }
    if (!std::all_of(p.erase_after.begin(), p.erase_after.end(), blocks))
        return false;
    return std::all_of(p.moves.begin(), p.moves.end(), [&](const move_plan &m) {
        return inside(m.old_base, m.old_size) && inside(m.new_base, m.new_size) &&
               m.len <= m.old_size && m.len <= m.new_size && m.copy <= COPY_NEW_PLACE &&
               (m.copy != COPY_STAGED || (m.staged <= staged && m.len <= staged - m.staged));
    });
}

// The plan pending in flash, if any: the first erase block that starts one whose check
// holds. One that does not fit the flash is traced and left alone.
bool find_plan(const flash_dev &f, plan *p)
{
    uint8_t head[16];
    for (uint64_t at = 0; at + sizeof(head) <= static_cast<uint64_t>(f.size);
         at += f.geo.erase_size) {
        if (!f.read(at, head, sizeof(head)) || memcmp(head, kPlanMagic, 8) != 0)
            continue;
        const uint32_t total = vireo_get_be32(head + 12);
        std::vector<uint8_t> bytes(total <= kMaxPlan ? total : 0);
        if (bytes.empty() || !f.read(at, bytes.data(), total))
            continue;
        plan found;
        if (!decode(bytes.data(), bytes.size(), &found) || found.home != at)
            continue;
        if (plan_fits(f, found, at)) {
            *p = std::move(found);
            return true;
        }
        VIREO_TRACE("journal at 0x%08x does not fit this flash: left alone.\n",
                    static_cast<uint32_t>(at));
    }
    return false;
}

int32_t erase_list(const flash_dev &f, const std::vector<extent> &list)
{
    for (const extent &e : list)
        if (!f.erase(e))
            return -1;
    return 0;
}

// Writes the new partition table where the running system keeps it, as the content update
// writes it: erased by "mtd erase", written in units, read back.
int32_t write_table(const plan &p)
{
    char path[128];
    if (vireo_get_mtdpath_by_partition_name("partition-table", path) != 0)
        return -1;
    fflush(stdout);
    if (system("mtd erase partition-table") == -1) {
        // Not examined: the read-back decides.
    }
    const uint8_t *data = p.table.data();
    const auto next = [data](uint32_t done, uint32_t) { return data + done; };
    const int32_t len = static_cast<int32_t>(p.table.size());
    if (vireo_file_write_units(path, 0, len, MTD_WRITE_BLOCK_SIZE, next, nullptr, true) != 0 ||
        vireo_file_compare_units(path, 0, len, MTD_WRITE_BLOCK_SIZE, true, next, nullptr) != 0) {
        VIREO_TRACE("PTN[%s] update content failed, pos={0x%08x:0x%08x}.\n", "partition-table", 0u,
                    static_cast<uint32_t>(len));
        return -1;
    }
    return 0;
}

// What the moves of a plan take from the flash: each one's bytes from its copy, read 64 KiB
// at a time; a record appended once it reads back; a copy made at its new place, read back
// and checked already, is not moved again.
struct copy_reader {
    const flash_dev &f;
    const plan &p;
    const ptn_table *new_table;
    uint32_t free_slot = 0;
    std::vector<uint8_t> buf = std::vector<uint8_t>(kChunk);
    const move_plan *held = nullptr; // whose bytes buf holds, from held_at on
    uint32_t held_at = 0, held_len = 0;

    const move_plan *move_of(uint32_t index) const
    {
        for (const move_plan &m : p.moves)
            if (strcmp(m.name, new_table->ptns[index].name) == 0)
                return &m;
        return nullptr;
    }

    const uint8_t *bytes(uint32_t index, uint32_t at, uint32_t n)
    {
        const move_plan *m = move_of(index);
        if (!m || n > kChunk || at > m->len || n > m->len - at)
            return nullptr;
        if (m != held || at < held_at || at + n > held_at + held_len) {
            held = nullptr;
            const uint32_t len = std::min(kChunk, m->len - at);
            if (!read_copy(f, p, *m, at, buf.data(), len))
                return nullptr;
            held = m;
            held_at = at;
            held_len = len;
        }
        return buf.data() + (at - held_at);
    }

    vireo_ptn_move_hooks hooks()
    {
        vireo_ptn_move_hooks h;
        h.before_first = [] { return 0; };
        h.bytes = [this](uint32_t index, uint32_t at, uint32_t n) { return bytes(index, at, n); };
        h.moved = [this](uint32_t index) {
            const move_plan *m = move_of(index);
            return m && append_record(f, p, &free_slot, static_cast<uint32_t>(m - p.moves.data()))
                       ? 0
                       : -1;
        };
        h.placed = [this](uint32_t index) {
            const move_plan *m = move_of(index);
            return m && m->copy == COPY_NEW_PLACE;
        };
        return h;
    }
};

// The moves of plan p not yet recorded, each from its copy, recorded once read back.
int32_t finish_moves(const flash_dev &f, const plan &p, const ptn_table *old_table,
                     const ptn_table *new_table)
{
    copy_reader reader{f, p, new_table};
    const std::vector<bool> done = read_records(f, p, &reader.free_slot);
    const vireo_ptn_move_hooks hooks = reader.hooks();
    // The moves recorded done are left out: an old table of the rest alone.
    ptn_table pending = *old_table;
    for (size_t k = 0; k < p.moves.size(); k++) {
        const int32_t j = vireo_ptn_get_index_by_name(&pending, p.moves[k].name);
        if (done[k] && j >= 0) {
            pending.ptns[j].base = p.moves[k].new_base;
            pending.ptns[j].size = p.moves[k].new_size;
        }
    }
    return vireo_firmware_update_ptn_table(&pending, new_table, hooks);
}

// The two tables a plan carries out: built from its moves, as the content update is not
// needed to finish it.
void tables_of(const plan &p, ptn_table *old_table, ptn_table *new_table)
{
    memset(old_table, 0, sizeof(*old_table));
    memset(new_table, 0, sizeof(*new_table));
    for (const move_plan &m : p.moves) {
        if (old_table->ptn_cnt >= PTN_MAX_NUM)
            break;
        ptn_info &o = old_table->ptns[old_table->ptn_cnt++];
        ptn_info &n = new_table->ptns[new_table->ptn_cnt++];
        snprintf(o.name, sizeof(o.name), "%s", m.name);
        snprintf(n.name, sizeof(n.name), "%s", m.name);
        o.base = m.old_base;
        o.size = m.old_size;
        n.base = m.new_base;
        n.size = m.new_size;
    }
}

} // namespace

int32_t vireo_journal_moves(const ptn_table *old_table, const ptn_table *new_table,
                            const up_ptn_table *up_table, const vireo_payload &payload,
                            vireo_journal *journal)
{
    VIREO_ASSERT(old_table);
    VIREO_ASSERT(new_table);
    const std::vector<vireo_ptn_move> list = vireo_firmware_ptn_moves(old_table, new_table);
    flash_dev f;
    plan p;
    for (const vireo_ptn_move &m : list) {
        move_plan mp{};
        snprintf(mp.name, sizeof(mp.name), "%s", m.to->name);
        mp.old_base = m.from->base;
        mp.old_size = m.from->size;
        mp.new_base = m.to->base;
        mp.new_size = m.to->size;
        mp.len = m.len;
        p.moves.push_back(mp);
    }
    const char *why = nullptr;
    if (list.empty() || !f.open_it())
        why = list.empty() ? nullptr : "the whole flash cannot be opened";
    else if (!table_content(up_table, payload, &p.table))
        why = "the image's partition table cannot be kept";
    if (!list.empty() && !why) {
        choose_copies(f, old_table, &p);
        uint64_t staged = 0;
        for (move_plan &m : p.moves)
            if (m.copy == COPY_STAGED) {
                m.staged = staged;
                staged += m.len;
            }
        p.erase = f.geo.erase_size;
        p.unit = std::max<uint32_t>(MTD_WRITE_BLOCK_SIZE, f.geo.page_size);
        const size_t plan_size = encode(p).size();
        // Enough free flash read: the plan placed with its home there.
        const auto enough = [&](const std::vector<extent> &room, size_t free_count) {
            return place(&p, room, free_count, staged, plan_size) && !p.erase_after.empty() &&
                   p.erase_after[0].base == p.home;
        };
        size_t free_count = 0;
        const std::vector<extent> room =
            journal_room(f, old_table, new_table, up_table, enough, &free_count);
        if (!place(&p, room, free_count, staged, plan_size))
            why = "the flash has no room free of what this upgrade keeps";
    }
    if (list.empty() || why) {
        if (why)
            VIREO_TRACE("layout change is not protected against a power cut: %s.\n", why);
        return vireo_firmware_update_ptn_table(old_table, new_table);
    }
    copy_reader reader{f, p, new_table};
    vireo_ptn_move_hooks hooks = reader.hooks();
    hooks.before_first = [&] {
        if (!stage(f, &p))
            return -1;
        journal->active = true;
        journal->check = p.check;
        journal->home = p.home;
        for (const extent &e : p.erase_after)
            journal->erase_after.push_back({e.base, e.len});
        return 0;
    };
    return vireo_firmware_update_ptn_table(old_table, new_table, hooks);
}

int32_t vireo_journal_retire(const vireo_journal &journal)
{
    if (!journal.active)
        return 0;
    flash_dev f;
    if (!f.open_it())
        return -1;
    std::vector<extent> list;
    for (const auto &[base, len] : journal.erase_after)
        list.push_back({base, len});
    return erase_list(f, list);
}

int32_t vireo_journal_resume()
{
    flash_dev f;
    plan p;
    if (!f.open_it() || !find_plan(f, &p))
        return 0;
    VIREO_TRACE("finishing the layout change of an interrupted upgrade, journal at 0x%08x.\n",
                p.home);
    for (const move_plan &m : p.moves) {
        uint64_t check = 0;
        if (!copy_check(f, p, m, &check) || check != m.check) {
            uint32_t free_slot = 0;
            if (read_records(f, p, &free_slot)[static_cast<size_t>(&m - p.moves.data())])
                continue; // moved already: its copy is no longer needed
            VIREO_TRACE("the copy of PTN[%s] is damaged: the layout change cannot be "
                        "finished.\n",
                        m.name);
            return -1;
        }
    }
    ptn_table old_table, new_table;
    tables_of(p, &old_table, &new_table);
    if (finish_moves(f, p, &old_table, &new_table) != 0 || write_table(p) != 0) {
        VIREO_TRACE("the layout change cannot be finished.\n");
        return -1;
    }
    // The plan first: a cut while the rest is erased leaves no plan behind.
    std::vector<extent> home;
    for (uint32_t b = 0; b < p.plan_blocks + p.record_blocks; b++)
        home.push_back({p.home + b * p.erase, p.erase});
    if (erase_list(f, home) != 0 || erase_list(f, p.erase_after) != 0)
        return -1;
    VIREO_TRACE("layout change finished.\n");
    return 0;
}
