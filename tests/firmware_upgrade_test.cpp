// SPDX-License-Identifier: Apache-2.0
// The raw-flash upgrade on a fake device, run as a user runs it. Stand-ins for the
// router's "mtd", "ubiattach" and "ubidetach" log their calls; a preloaded library makes
// every flash file of the tree behave like NOR flash (a write only clears bits, an erase
// sets them), logs every write and erase of the tool, and can make writes to a file fail.
#include "openssl_ref.h"
#include "pack_fixture.h"
#include "upgrade_roads.h"

#include <gtest/gtest.h>
#include <sstream>
#include <sys/stat.h>

namespace
{

std::vector<raw_ptn> layout()
{
    return {{"partition-table", 0x00000, 0x10000, ""},
            {"device-info", 0x10000, 0x10000, with_content_header(kDevice)},
            {"extra-para", 0x20000, 0x10000, with_content_header(flag_doc(true, 0))},
            {"support-list", 0x30000, 0x10000, ""},
            {"firmware-info", 0x40000, 0x10000, ""},
            {"kernel", 0x50000, 0x20000, std::string(0x1000, 'k')},
            {"rootfs", 0x70000, 0x20000, std::string(0x1000, 'r')}};
}

struct upgrade_run {
    int status;
    std::string out;
    std::vector<std::string> calls;        // of the stand-ins
    std::map<std::string, size_t> written; // bytes per device file
    std::map<std::string, size_t> erased;  // erase blocks erased by the tool, per device file
};

class Upgrade : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        install(layout());
    }
    // A fresh device of these partitions, with the stand-ins.
    void install(const std::vector<raw_ptn> &ptns)
    {
        dev = std::make_unique<raw_device>(ptns);
        install_stand_ins(*dev);
    }
    std::string device(const std::string &name) const
    {
        for (size_t i = 0; i < dev->ptns.size(); i++)
            if (dev->ptns[i].name == name)
                return dev->at("/dev/mtd" + std::to_string(i + 1));
        return {};
    }
    upgrade_run upgrade(const std::vector<std::string> &env = {})
    {
        const std::string log = dev->write("calls.log", ""), writes = dev->write("writes.log", ""),
                          erases = dev->write("erases.log", "");
        std::vector<std::string> all = tool_env(*dev);
        all.push_back("VIREO_WRITE_LOG=" + writes);
        all.push_back("VIREO_ERASE_LOG=" + erases);
        all.insert(all.end(), env.begin(), env.end());
        run_result r =
            run_program(VIREO_FAKE_ROOT_TOOL, {dev->path, "-U", "-u", dir.join("up.bin")}, all);
        upgrade_run u{r.status, r.out, {}, {}, {}};
        std::istringstream calls(read_file(log)), w(read_file(writes));
        for (std::string line; std::getline(calls, line);)
            u.calls.push_back(line);
        std::string path;
        for (size_t n; w >> path >> n;)
            if (path.rfind(dev->join("dev/"), 0) == 0)
                u.written[path.substr(dev->path.size())] += n;
        std::istringstream e(read_file(erases));
        for (size_t at, n; e >> path >> at >> n;)
            u.erased[path.substr(dev->path.size())]++;
        return u;
    }
    temp_dir dir;
    std::unique_ptr<raw_device> dev;
};

} // namespace

TEST_F(Upgrade, SameLayoutRewritesEveryCarriedPartitionOnce)
{
    const std::string kernel = pattern(0x5000, 1), rootfs = pattern(0x1801, 2);
    pack_images(dir, {{kFits,
                       table_json(dev->ptns, dev->disk_size),
                       "",
                       {{"kernel", kernel}, {"rootfs", rootfs}}}});
    const upgrade_run u = upgrade();
    ASSERT_EQ(0, u.status) << u.out;
    EXPECT_EQ((std::vector<std::string>{"mtd erase support-list", "mtd erase kernel",
                                        "mtd erase rootfs"}),
              u.calls);
    EXPECT_EQ(padded(kernel, 0x20000), read_file(device("kernel")));
    EXPECT_EQ(padded(rootfs, 0x20000), read_file(device("rootfs")));
    // Each content byte written once, padded only to the next 2048-byte unit.
    EXPECT_EQ(0x5000u, u.written.at("/dev/mtd6"));
    EXPECT_EQ(0x2000u, u.written.at("/dev/mtd7"));
    EXPECT_EQ(0u, u.written.count("/dev/mtd1")) << "the unchanged table is not rewritten";
    // Contents land on what "mtd erase" erased; the flag partition, which nothing erases, is
    // erased by the writer before each flag write, and only its record's unit is programmed.
    EXPECT_EQ((std::map<std::string, size_t>{{"/dev/mtd3", 2}}), u.erased);
    EXPECT_EQ(2u * 2048, u.written.at("/dev/mtd3")) << "flags off, flags on: read back at once";
    EXPECT_EQ(flag_doc(true, 0), content_of(read_file(device("extra-para"))));
}

TEST_F(Upgrade, LayoutChangeMovesOverProgrammedFlash)
{
    // "data" and "log" trade places, overlapping, "log" growing; "radio" is new. The moves
    // land on programmed flash, across erase blocks; what is not moved keeps its bytes.
    std::vector<raw_ptn> ptns = layout();
    ptns.push_back({"data", 0x90000, 0x10000, pattern(0x10000, 11)});
    ptns.push_back({"log", 0xA0000, 0x10000, pattern(0x10000, 12)});
    ptns.push_back({"tail", 0xC0000, 0x10000, pattern(0x10000, 13)});
    install(ptns);
    std::vector<raw_ptn> next = ptns;
    next[7] = {"log", 0x90000, 0x18000, ""};
    next[8] = {"data", 0xA8000, 0x10000, ""};
    next.push_back({"radio", 0xD0000, 0x8000, ""});
    const std::string kernel = pattern(0x3000, 14), flash = dev->bytes("/dev/mtd0");
    pack_images(dir, {{kFits, table_json(next, dev->disk_size), "", {{"kernel", kernel}}}});
    const upgrade_run u = upgrade();
    ASSERT_EQ(0, u.status) << u.out;
    std::string want = flash;
    want.replace(0x90000, 0x10000, flash.substr(0xA0000, 0x10000));
    want.replace(0xA8000, 0x10000, flash.substr(0x90000, 0x10000));
    // The partitions written in place are the same bytes in the whole flash.
    for (const raw_ptn &p : ptns)
        if (p.name == "partition-table" || p.name == "extra-para" || p.name == "support-list" ||
            p.name == "kernel")
            want.replace(p.base, p.size, read_file(device(p.name)));
    EXPECT_TRUE(want == dev->bytes("/dev/mtd0")) << "the flash as it was, moved";
    EXPECT_EQ(padded(kernel, 0x20000), read_file(device("kernel")));
    EXPECT_EQ(flag_doc(true, 0), content_of(read_file(device("extra-para"))));
}

TEST_F(Upgrade, FlagsThatNeverReadBackBl2AndNoExtraPara)
{
    const std::string bl2 = pattern(0x900, 4);
    dev->ptns.push_back({"BL2", 0xE0000, 0x10000, ""});
    dev->mtd(static_cast<int>(dev->ptns.size()), "BL2", 0x10000);
    pack_images(dir, {{kFits, table_json(dev->ptns, dev->disk_size), "", {{"BL2", bl2}}}});
    // Flag-on writes that never land are tried four times; the upgrade succeeds.
    write_file(device("extra-para"), padded(with_content_header(flag_doc(false, 1)), 0x10000));
    upgrade_run u = upgrade({"VIREO_FAIL_PATHS=" + device("extra-para")});
    ASSERT_EQ(0, u.status) << u.out;
    EXPECT_EQ(3u, count_trace(u.out, "failed to get extra-para GOOD try again."));
    EXPECT_EQ(padded(bl2, 0x1000), dev->bytes("/dev/mtd0").substr(0xE0000, 0x1000))
        << "BL2 goes through the whole flash at its base";
    EXPECT_EQ((std::vector<std::string>{"mtd erase partition-table", "mtd erase support-list",
                                        "mtd erase BL2"}),
              u.calls);

    // Without extra-para there is no flag to switch, and the upgrade goes on.
    std::vector<raw_ptn> bare = layout();
    bare.erase(bare.begin() + 2);
    install(bare);
    pack_images(dir, {{kFits, table_json(bare, 0x100000), "", {{"kernel", "k"}}}});
    u = upgrade();
    EXPECT_EQ(0, u.status) << u.out;

    // A flag that never reads back as off: nothing is erased or written.
    install(layout());
    pack_images(dir, {{kFits, table_json(layout(), 0x100000), "", {{"kernel", "k"}}}});
    const auto before = dev->devices();
    u = upgrade({"VIREO_FAIL_PATHS=" + device("extra-para")});
    EXPECT_EQ(255, u.status);
    EXPECT_TRUE(has_trace(u.out, "extra-para[" + device("extra-para") +
                                     "] does not read back as flagged off."));
    EXPECT_TRUE(u.calls.empty());
    EXPECT_EQ(before, dev->devices());
}

TEST_F(Upgrade, FailuresLeaveTheImageFlaggedOff)
{
    const std::string table = table_json(layout(), 0x100000), kernel = pattern(0x8000, 5);
    // A rootfs entry whose size reaches past the end of the file, signed again.
    std::vector<uint8_t> outside =
        pack_images(dir, {{kFits, table, "", {{"kernel", "k"}, {"rootfs", "r"}}}});
    set_entry_size(outside, "rootfs", "0x00FFFFFF");
    resign_firmware(outside);
    struct {
        const char *what;
        std::vector<uint8_t> file;
        std::string env;
        const char *trace; // the start of a trace that must appear once
        bool writes;       // whether anything reached the device at all
    } cases[] = {
        {"image for another model",
         pack_images(
             dir,
             {{"[" + entry_json("VR200", "1.0", "55530000") + "]", "", "", {{"kernel", "k"}}}}),
         "", "Firmware is not allowed to upgrade this up table into this device.", false},
        {"entry outside the file", outside, "", "PTN[rootfs] base ", false},
        {"name the device lacks",
         pack_images(dir, {{kFits, table, "", {{"kernel", kernel}, {"nvram", "n"}}}}), "",
         "PTN[nvram] not found at device's disk.", true},
        {"bad block in a partition", pack_images(dir, {{kFits, table, "", {{"kernel", kernel}}}}),
         "VIREO_BAD_BLOCKS={kernel}@0x0", "Faield to update ptn-content.", true},
        {"erase that does not erase", pack_images(dir, {{kFits, table, "", {{"kernel", kernel}}}}),
         "VIREO_MTD_NO_ERASE=1", "PTN[kernel] reads back other bytes than written, at 0x", true},
        {"a worn-out byte that programs do not change",
         pack_images(dir, {{kFits, table, "", {{"kernel", kernel}}}}),
         "VIREO_STUCK_BYTES={kernel}@0x1234",
         "PTN[kernel] reads back other bytes than written, at 0x00001234 of ", true},
        {"file rewritten after its verification",
         pack_images(dir, {{kFits, table, "", {{"kernel", kernel}}}}),
         "VIREO_MTD_REWRITE=" + dir.join("up.bin"), "firmware file changed at 0x", true},
    };
    for (const auto &c : cases) {
        install(layout());
        const auto before = dev->devices();
        write_file(dir.join("up.bin"), std::string(c.file.begin(), c.file.end()));
        std::string env = c.env;
        if (env.find("{kernel}") != std::string::npos)
            env.replace(env.find("{kernel}"), 8, device("kernel"));
        const upgrade_run u =
            upgrade(env.empty() ? std::vector<std::string>{} : std::vector<std::string>{env});
        EXPECT_EQ(255, u.status) << c.what;
        const auto traces = trace_messages(u.out);
        EXPECT_EQ(1, std::count_if(traces.begin(), traces.end(),
                                   [&](const std::string &t) { return t.rfind(c.trace, 0) == 0; }))
            << c.what << u.out;
        EXPECT_EQ(c.writes, !u.written.empty()) << c.what;
        EXPECT_EQ(c.writes, !u.calls.empty()) << c.what;
        if (c.writes) {
            EXPECT_EQ(flag_doc(false, 1), content_of(read_file(device("extra-para")))) << c.what;
            EXPECT_NE(before.at("mtd6"), read_file(device("kernel"))) << "earlier entries written";
        } else {
            EXPECT_EQ(before, dev->devices()) << c.what;
        }
    }
}

TEST_F(Upgrade, ImageWithUbiUsesTheFlagVolumesAndTheBackupSlot)
{
    // No UBI here and no "extra-para-ubi" to attach (the virtual router attaches
    // one): the flag volumes are found as MTD partitions of the same names.
    std::vector<raw_ptn> ptns = layout();
    ptns.resize(5); // up to firmware-info
    ptns.push_back({"extra-para.b", 0x50000, 0x10000, ptns[2].content});
    ptns.push_back({"firmware-info.b", 0x60000, 0x10000, ""});
    ptns.push_back({"ubi", 0x80000, 0x20000, ""});
    ptns.push_back({"ubi.b", 0xA0000, 0x20000, ""});
    install(ptns);
    const std::string ubi = pattern(0x4000, 7);
    pack_images(
        dir,
        {{kFits, table_json(ptns, 0x100000), fwinfo_json("1.3.0 Build 1 Rel.1"), {{"ubi", ubi}}}});
    const upgrade_run u = upgrade();
    ASSERT_EQ(0, u.status) << u.out;
    // Equal scores: the backup slot and the backup's flags, now one above both.
    EXPECT_EQ(padded(ubi, 0x20000), read_file(device("ubi.b")));
    EXPECT_EQ(0u, u.written.count("/dev/mtd5")) << "firmware-info is left alone";
    EXPECT_EQ(1u, u.written.count("/dev/mtd7")) << "firmware-info.b is written";
    EXPECT_EQ(padded(ptns[2].content, 0x10000), read_file(device("extra-para")));
    EXPECT_EQ(flag_doc(true, 1) + '\0', content_of(read_file(device("extra-para.b"))));
    EXPECT_EQ((std::vector<std::string>{"mtd erase support-list", "mtd erase firmware-info.b",
                                        "mtd erase ubi.b"}),
              u.calls);
}
