// SPDX-License-Identifier: Apache-2.0
// Layout changes under a journal on flash (a build with power-cut recovery): a retry with
// another file finishes the interrupted change first, a layout with no room says so and
// moves as before, a plan that does not fit the flash is left alone, and what moves is never
// held in memory.
#include "common/vireo_endian.h"
#include "journal_fixture.h"
#include "pack_fixture.h"
#include "upgrade_roads.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <sstream>
#include <sys/stat.h>

namespace
{

const char kResumed[] = "finishing the layout change of an interrupted upgrade, journal at 0x";

bool has_trace_starting(const std::string &out, const std::string &head)
{
    const std::vector<std::string> traces = trace_messages(out);
    return std::any_of(traces.begin(), traces.end(),
                       [&head](const std::string &t) { return t.rfind(head, 0) == 0; });
}

size_t operations(const upgrade_road &road)
{
    const std::string log = road.device->join("count.log");
    run_road(road, {"VIREO_CUT_AT=0", "VIREO_CUT_LOG=" + log});
    const std::string ops = read_file(log);
    return static_cast<size_t>(std::count(ops.begin(), ops.end(), '\n'));
}

// Runs road with env, and lists the 64 KiB blocks of the whole flash that were erased, in
// order of place, a block once per erase.
run_result run_logging_erases(const upgrade_road &road, std::vector<std::string> env,
                              std::vector<uint64_t> *erased)
{
    const std::string log = road.device->join("erase.log");
    env.push_back("VIREO_ERASE_LOG=" + log);
    env.push_back("VIREO_READ_LOG=" + road.device->join("read.log"));
    const run_result r = run_road(road, env);
    std::istringstream lines(read_file(log));
    std::string path;
    uint64_t base = 0, len = 0;
    while (lines >> path >> base >> len)
        if (path == road.device->at("/dev/mtd0"))
            for (uint64_t at = base; at < base + len; at += 0x10000)
                erased->push_back(at);
    std::sort(erased->begin(), erased->end());
    return r;
}

// How many bytes of [lo, hi) of the whole flash the last run_logging_erases of road read.
uint64_t bytes_read(const upgrade_road &road, uint64_t lo, uint64_t hi)
{
    std::istringstream lines(read_file(road.device->join("read.log")));
    std::string path;
    uint64_t at = 0, len = 0, total = 0;
    while (lines >> path >> at >> len)
        if (path == road.device->at("/dev/mtd0") && at < hi && at + len > lo)
            total += std::min(hi, at + len) - std::max(lo, at);
    return total;
}

class Journal : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        if (!VIREO_POWER_CUT_RECOVERY)
            GTEST_SKIP() << "built without power-cut recovery (VIREO_POWER_CUT_RECOVERY=OFF)";
    }
};

TEST_F(Journal, ARetryWithAnotherFileFinishesTheCutLayoutChangeFirst)
{
    // "raw-moves" uncut gives the flash to reach and the new table.
    upgrade_road done = make_upgrade_road("raw-moves");
    const size_t total = operations(done);
    const std::string user = done.device->bytes("/dev/mtd0").substr(0x90000, 0x40000);
    const std::string table = content_of(done.device->bytes("/dev/mtd1"));
    ASSERT_FALSE(table.empty());
    // Cut a third, half and two thirds of the way, then retried with a file of the new layout
    // that brings "rootfs" alone.
    size_t resumed = 0;
    for (const size_t n : {total / 3, total / 2, total * 2 / 3}) {
        upgrade_road road = make_upgrade_road("raw-moves");
        run_road(road, {"VIREO_CUT_AT=" + std::to_string(n)});
        temp_dir other;
        const std::string rootfs = pattern(0x3000, 77);
        pack_images(other,
                    {{kFits, table, fwinfo_json("1.3.1 Build 1 Rel.1"), {{"rootfs", rootfs}}}});
        const run_result r =
            run_program(VIREO_FAKE_ROOT_TOOL, {road.device->path, "-U", "-u", other.join("up.bin")},
                        tool_env(*road.device));
        const std::string what = "cut at " + std::to_string(n) + " of " + std::to_string(total);
        EXPECT_EQ(0, r.status) << what << r.out;
        resumed += has_trace_starting(r.out, kResumed);
        EXPECT_TRUE(user == road.device->bytes("/dev/mtd0").substr(0x90000, 0x40000)) << what;
        EXPECT_EQ(table, content_of(road.device->bytes("/dev/mtd1"))) << what;
        EXPECT_EQ(padded(rootfs, 0x20000), road.device->bytes("/dev/mtd7")) << what;
        EXPECT_EQ(flag_doc(true, 0), content_of(road.device->bytes("/dev/mtd3"))) << what;
    }
    EXPECT_GT(resumed, 0u) << "no cut fell inside the layout change";
}

TEST_F(Journal, ADamagedCopyStopsTheRetryBeforeItWrites)
{
    // The first cut after which the plan stands whole (magic at a block's start, its last
    // bytes programmed): no move has been made yet.
    const size_t total = operations(make_upgrade_road("raw-moves"));
    size_t cut = 0, plan = std::string::npos;
    for (size_t n = 1; n <= total && plan == std::string::npos; n++) {
        upgrade_road road = make_upgrade_road("raw-moves");
        run_road(road, {"VIREO_CUT_AT=" + std::to_string(n), "VIREO_CUT_MODE=after"});
        const std::string flash = road.device->bytes("/dev/mtd0");
        for (size_t at = 0; at + 48 <= flash.size(); at += 0x10000) {
            if (flash.compare(at, 8, "VIREOJNL") != 0)
                continue;
            const uint32_t len = vireo_get_be32(reinterpret_cast<const uint8_t *>(&flash[at + 12]));
            if (at + len <= flash.size() && flash.substr(at + len - 8, 8) != std::string(8, '\xff'))
                plan = at, cut = n;
        }
    }
    ASSERT_NE(std::string::npos, plan) << "no cut left a whole plan";
    // "log" moves first, from a place no move writes: its old place is its copy. "data" goes
    // where "log" lands: staged (the plan's first staging block). "cfg" goes to free flash:
    // its copy is made there.
    struct row {
        const char *name;
        size_t at; // 0: the first staged block
    };
    for (const row &w : {row{"log", 0xA0000}, row{"data", 0}, row{"cfg", 0xC0000}}) {
        upgrade_road road = make_upgrade_road("raw-moves");
        run_road(road, {"VIREO_CUT_AT=" + std::to_string(cut), "VIREO_CUT_MODE=after"});
        std::string flash = road.device->bytes("/dev/mtd0");
        const size_t at =
            w.at ? w.at : vireo_get_be32(reinterpret_cast<const uint8_t *>(&flash[plan + 40]));
        ASSERT_LT(at, flash.size()) << w.name;
        flash[at] = static_cast<char>(~flash[at]);
        write_file(road.device->at("/dev/mtd0"), flash);
        const auto before = road.device->devices();
        const run_result r = run_road(road);
        EXPECT_EQ(255, r.status) << w.name << r.out;
        EXPECT_TRUE(has_trace(r.out, std::string("the copy of PTN[") + w.name +
                                         "] is damaged: the layout change cannot be finished."))
            << w.name << r.out;
        EXPECT_TRUE(before == road.device->devices()) << w.name << ": nothing written";
    }
}

TEST_F(Journal, OnlyACopyThatAMoveWouldOverwriteIsStaged)
{
    // Of the three moves of "raw-moves" one is staged, in the old place of "support-list",
    // which the content writes erase anyway. "log" is read from where it was; "cfg" is
    // written once, at its new place in free flash, and its move finds the bytes there.
    // What the whole flash sees erased: that staged block, the new places of "log" and
    // "data", which held bytes, and the plan's and its records' blocks in free flash once
    // done (they read 0xFF before: no erase).
    upgrade_road road = make_upgrade_road("raw-moves");
    std::vector<uint64_t> erased;
    const run_result r = run_logging_erases(road, {}, &erased);
    ASSERT_EQ(0, r.status) << r.out;
    EXPECT_FALSE(has_trace_starting(r.out, "layout change is not protected")) << r.out;
    EXPECT_EQ((std::vector<uint64_t>{0x30000, 0x90000, 0xB0000, 0xE0000, 0xF0000}), erased);
    EXPECT_EQ(std::string(0x20000, '\xff'), road.device->bytes("/dev/mtd0").substr(0xE0000))
        << "the free flash is left as it was";
    EXPECT_TRUE(pattern(0x10000, 25) == road.device->bytes("/dev/mtd0").substr(0xC0000, 0x10000));
    // The new place of "cfg" is read to find it erased, to read its copy back and to check
    // it (and its first 16 bytes by the search for a pending plan); its move does not read
    // it again.
    EXPECT_EQ(3u * 0x10000 + 16, bytes_read(road, 0xC0000, 0xD0000));
}

TEST_F(Journal, APlanThatDoesNotFitTheFlashIsLeftAlone)
{
    // A plan whose check holds, in the free flash of "raw-moves" (1 MiB), each row with one
    // field that does not fit; the first fits and is taken up.
    struct row {
        const char *what;
        plan_fields f;
        bool fits;
    };
    std::vector<row> rows(11, {"", plan_fields{}, false});
    rows[0] = {"fits", {}, true};
    rows[1].what = "another erase block size";
    rows[1].f.erase = 0x20000;
    rows[2].what = "record slots smaller than a record";
    rows[2].f.unit = 16;
    rows[3].what = "a staged block past the flash";
    rows[3].f.staged_base = 0x100000;
    rows[4].what = "a block to erase that wraps around 4 GiB";
    rows[4].f.after_base = 0xFFFF0000;
    rows[4].f.after_len = 0x10000;
    rows[5].what = "a move longer than its staged stream";
    rows[5].f.move_len = 0x10000;
    rows[5].f.move_staged = 0x8000;
    rows[6].what = "record blocks past the flash";
    rows[6].f.record_blocks = 100;
    rows[7].what = "a staged block not on a block boundary";
    rows[7].f.staged_base = 0xF0800;
    rows[8] = {"a copy at its old place, outside the staged stream", {}, true};
    rows[8].f.copy = 1;
    rows[8].f.move_staged = 0x8000;
    rows[9].what = "a copy in a place of no known kind";
    rows[9].f.copy = 3;
    rows[10] = {"a plan of version 1, every copy staged", {}, true};
    rows[10].f.version = 1;
    for (const row &r : rows) {
        upgrade_road road = make_upgrade_road("raw-moves");
        std::string flash = road.device->bytes("/dev/mtd0");
        flash.replace(0xE0000, 0x10000, padded(plan_bytes(r.f, 0xE0000), 0x10000));
        write_file(road.device->at("/dev/mtd0"), flash);
        const run_result run = run_road(road);
        EXPECT_EQ(r.fits, has_trace_starting(run.out, kResumed)) << r.what << run.out;
        EXPECT_EQ(!r.fits, has_trace(run.out, "journal at 0x000e0000 does not fit this flash: "
                                              "left alone."))
            << r.what << run.out;
        if (!r.fits) {
            EXPECT_EQ(0, run.status) << r.what << run.out;
        }
    }
}

TEST_F(Journal, ABadBlockIsNeverRoomForIt)
{
    // The first block of the free flash behind "raw-moves" is bad: it refuses an erase. The
    // plan and its records need two blocks in a row, so the journal goes to the old places
    // of what the image carries, and the free flash is left alone.
    upgrade_road road = make_upgrade_road("raw-moves");
    std::vector<uint64_t> erased;
    const run_result r = run_logging_erases(
        road, {"VIREO_BAD_BLOCKS=" + road.device->at("/dev/mtd0") + "@0xe0000"}, &erased);
    EXPECT_EQ(0, r.status) << r.out;
    EXPECT_FALSE(has_trace_starting(r.out, "layout change is not protected")) << r.out;
    EXPECT_EQ(
        0, std::count_if(erased.begin(), erased.end(), [](uint64_t at) { return at >= 0xE0000; }));
    EXPECT_TRUE(road.device->bytes("/dev/mtd0").substr(0xE0000, 0x20000) ==
                std::string(0x20000, '\xff'))
        << "the free flash is left as it was";
}

TEST_F(Journal, ALayoutWithoutRoomMovesAsBeforeAndSaysSo)
{
    // "data" and "log" trade places over the whole rest of the flash; the image carries its
    // table and support list alone, so no flash is free of what the upgrade keeps.
    const std::vector<raw_ptn> ptns =
        with_records({{"data", 0x40000, 0x60000, pattern(0x60000, 61)},
                      {"log", 0xA0000, 0x60000, pattern(0x60000, 62)}},
                     4);
    std::vector<raw_ptn> next = ptns;
    next[4] = {"log", 0x40000, 0x60000, ""};
    next[5] = {"data", 0xA0000, 0x60000, ""};
    raw_device dev(ptns);
    install_stand_ins(dev);
    pack_images(dev, {{kFits, table_json(next, 0x100000), "", {}}});
    const run_result r = run_program(VIREO_FAKE_ROOT_TOOL,
                                     {dev.path, "-U", "-u", dev.join("up.bin")}, tool_env(dev));
    ASSERT_EQ(0, r.status) << r.out;
    EXPECT_TRUE(has_trace(r.out, "layout change is not protected against a power cut: the flash "
                                 "has no room free of what this upgrade keeps."))
        << r.out;
    const std::string flash = dev.bytes("/dev/mtd0");
    EXPECT_TRUE(pattern(0x60000, 61) == flash.substr(0xA0000, 0x60000));
    EXPECT_TRUE(pattern(0x60000, 62) == flash.substr(0x40000, 0x60000));
}

TEST_F(Journal, FreeFlashIsReadOnlyAsFarAsTheJournalNeedsIt)
{
    // "data" moves into free flash, and 3 MiB of free flash follow. The journal needs two
    // blocks of it (the plan and its records); beyond them only the first 16 bytes of each
    // block are read, by the search for a pending plan.
    const std::vector<raw_ptn> ptns =
        with_records({{"data", 0x100000, 0x10000, pattern(0x10000, 64)}}, 4);
    std::vector<raw_ptn> next = ptns;
    next[4].base = 0x110000;
    raw_device dev(ptns, 0x400000);
    install_stand_ins(dev);
    pack_images(dev, {{kFits, table_json(next, 0x400000), "", {}}});
    std::vector<std::string> env = tool_env(dev);
    env.push_back("VIREO_READ_LOG=" + dev.join("read.log"));
    const run_result r =
        run_program(VIREO_FAKE_ROOT_TOOL, {dev.path, "-U", "-u", dev.join("up.bin")}, env);
    ASSERT_EQ(0, r.status) << r.out;
    EXPECT_FALSE(has_trace_starting(r.out, "layout change is not protected")) << r.out;
    EXPECT_TRUE(pattern(0x10000, 64) == dev.bytes("/dev/mtd0").substr(0x110000, 0x10000));
    std::istringstream lines(read_file(dev.join("read.log")));
    std::string path;
    uint64_t at = 0, len = 0, beyond = 0;
    while (lines >> path >> at >> len)
        if (path == dev.at("/dev/mtd0") && at >= 0x140000)
            beyond += len;
    EXPECT_EQ((0x400000u - 0x140000u) / 0x10000u * 16u, beyond);
}

TEST_F(Journal, APlanThatItsListsOutgrowGetsAnotherBlock)
{
    // On flash of 4 KiB blocks, "data" (1 MiB) moves up by half its size, over its own old
    // place: staged in 256 blocks of free flash, which the plan lists twice (staging, and to
    // erase when done): 4 KiB of lists, where the rest of the plan takes less than 1 KiB.
    // Laid out for the rest alone, the plan would run into its records.
    const uint32_t size = 0x100000;
    const std::vector<raw_ptn> ptns =
        with_records({{"data", 0x100000, size, pattern(size, 65)}}, 4);
    std::vector<raw_ptn> next = ptns;
    next[4].base = 0x100000 + size / 2;
    raw_device dev(ptns, 0x400000);
    install_stand_ins(dev);
    pack_images(dev, {{kFits, table_json(next, 0x400000), "", {}}});
    std::vector<std::string> env = tool_env(dev);
    env.push_back("VIREO_FLASH_ERASE=4096");
    const run_result r =
        run_program(VIREO_FAKE_ROOT_TOOL, {dev.path, "-U", "-u", dev.join("up.bin")}, env);
    ASSERT_EQ(0, r.status) << r.out;
    EXPECT_FALSE(has_trace_starting(r.out, "layout change is not protected")) << r.out;
    const std::string flash = dev.bytes("/dev/mtd0");
    EXPECT_TRUE(pattern(size, 65) == flash.substr(next[4].base, size));
    const uint32_t end = next[4].base + size;
    EXPECT_TRUE(std::string(0x400000 - end, '\xff') == flash.substr(end))
        << "the free flash is left as it was";
}

TEST_F(Journal, WhatMovesIsNeverHeldInMemory)
{
    if (VIREO_SANITIZED)
        GTEST_SKIP() << "the sanitizers' shadow memory is private memory too";
    if (VIREO_EMULATED)
        GTEST_SKIP() << "the emulator's translation buffers are the tool's private memory too";
    // 24 MiB of "data" move up by half their size, over their own old place: staged in the
    // free flash behind them.
    const uint32_t size = 24 << 20;
    const std::vector<raw_ptn> ptns =
        with_records({{"data", 0x100000, size, pattern(size, 63)}}, 4);
    std::vector<raw_ptn> next = ptns;
    next[4].base = 0x100000 + size / 2;
    const uint32_t disk = 0x200000 + 3 * size;
    raw_device dev(ptns, disk);
    install_stand_ins(dev);
    pack_images(dev, {{kFits, table_json(next, disk), "", {}}});
    struct stat st;
    ASSERT_EQ(0, stat(dev.join("up.bin").c_str(), &st));
    const long budget = 4096 + static_cast<long>(st.st_size / 4096 * 8 / 1024);
    const run_result r = run_program(
        VIREO_FAKE_ROOT_TOOL, {dev.path, "-U", "-u", dev.join("up.bin")}, tool_env(dev), true);
    ASSERT_EQ(0, r.status) << r.out;
    EXPECT_FALSE(has_trace_starting(r.out, "layout change is not protected")) << r.out;
    EXPECT_GT(r.peak_anon_kb, 0) << "the run was watched";
    EXPECT_LE(r.peak_anon_kb, budget);
    EXPECT_TRUE(pattern(size, 63) == dev.bytes("/dev/mtd0").substr(next[4].base, size));
}

} // namespace
