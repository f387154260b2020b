// SPDX-License-Identifier: Apache-2.0
// Work mode "ubi" on a fake dual-image device: the boot flags and scores of the two images
// (which image an upgrade switches off and on, and what each flag volume holds afterwards),
// the check command, and the upgrade and roll-back. In the test's own process volumes are
// MTD partitions, as the lookups fall back to them when no UBI volume has the name; the
// tool run under the preloaded library writes emulated volumes through volume updates.
#include "ubi/vireo_ubi.h"
#include "ubi/vireo_ubi_flags.h"

#include "pack_fixture.h"
#include "upgrade_roads.h"

#include <gtest/gtest.h>

namespace
{

// A flag volume's bytes: the record behind its header, with its NUL.
std::string flags(bool on, int score)
{
    return with_content_header(flag_doc(on, score) + '\0');
}

// UBI device 0 with the device's records; further volumes and partitions as a test adds.
// The firmware file is up.bin in the same tree.
struct ubi_device : fake_root {
    explicit ubi_device(const std::string &installed = "1.4.0 Build 1 Rel.00001")
    {
        write("sys/class/ubi/version", "1\n");
        ubi_volume(0, 0, "device-info", with_content_header(kDevice));
        ubi_volume(0, 1, "firmware-info", with_content_header(fwinfo_json(installed)));
    }
    // The check (or with upgrade, the upgrade) of up.bin on UBI device 0; its trace lands
    // in out.
    int32_t command(bool upgrade = false)
    {
        reset_integrity_state();
        same_software_version = false;
        const std::string file = join("up.bin");
        const auto run = upgrade ? vireo_firmware_upgrade_ubi : vireo_firmware_check_ubi;
        return quietly([&] { return run(0, file.c_str()); }, &out);
    }

    std::string out;
};

} // namespace

TEST(UbiFlags, TheLowerScoreIsSwitchedOffThenOnAboveBoth)
{
    // Equal scores (the backup is the target) the upgrade of an image with UBI shows.
    const int five = 5, seven = 7, minus = -1, zero = 0;
    struct {
        const int *primary, *backup; // none: erased
        bool target_primary;
        int off_score, on_score;
    } cases[] = {
        {&seven, &five, false, 5, 8},
        {nullptr, nullptr, false, 0, 1},
        {&minus, &zero, true, -1, 1}, // a signed comparison
        {nullptr, &seven, true, 0, 8},
    };
    for (const auto &c : cases) {
        fake_root root;
        root.mtd(0, "extra-para", 0x1000, c.primary ? flags(true, *c.primary) : "");
        root.mtd(1, "extra-para.b", 0x1000, c.backup ? flags(true, *c.backup) : "");
        const std::string target = root.at(c.target_primary ? "/dev/mtd0" : "/dev/mtd1");
        const std::string other = root.at(c.target_primary ? "/dev/mtd1" : "/dev/mtd0");
        const std::string untouched = read_file(other), what = std::to_string(c.on_score);
        EXPECT_EQ(0, quietly([] { return vireo_firmware_pre_update(0); }));
        EXPECT_EQ(flag_doc(false, c.off_score) + '\0', content_of(read_file(target)))
            << what << ": n + 1 with the NUL";
        EXPECT_EQ(0, quietly([] { return vireo_firmware_post_update(0); }));
        const std::string on = read_file(target);
        EXPECT_EQ(flag_doc(true, c.on_score) + '\0', content_of(on)) << what;
        EXPECT_EQ(untouched, read_file(other)) << what;
        EXPECT_EQ(0x1000u, on.size()) << what;
        const size_t behind = 17 + flag_doc(true, c.on_score).size();
        // Behind a fresh record the volume stays erased.
        EXPECT_TRUE((c.target_primary ? c.primary : c.backup) ||
                    std::string(0x1000 - behind, '\xff') == on.substr(behind))
            << what;
    }
}

TEST(UbiFlags, NothingIsWrittenWithoutTheBackupVolume)
{
    fake_root root;
    root.mtd(0, "extra-para", 0x1000, "");
    EXPECT_EQ(0, quietly([] { return vireo_firmware_pre_update(0); })) << "the backup's turn";
    EXPECT_EQ(0, quietly([] { return vireo_firmware_post_update(0); }));
    EXPECT_EQ(std::string(0x1000, '\xff'), root.bytes("/dev/mtd0"));
}

TEST(UbiMode, CheckDecidesByVersionThenSupportList)
{
    const std::string ids = "[" + entry_json("VR100", "1.0", "45550000", "00000000") + "," +
                            entry_json("VR100", "1.0", "00000001") + "]";
    const char *v140 = "1.4.0 Build 1 Rel.00001", *v141 = "1.4.1 Build 1 Rel.00001",
               *v130 = "1.3.0 Build 5 Rel.00007";
    struct {
        const char *installed, *offered;
        int32_t result; // -1: refused for the version, -2: by the support list
        bool same = false;
        std::string list = kFits;
        const char *settings = nullptr; // a line of the special_id_support_list section
        const char *match = nullptr;
    } cases[] = {
        {v140, "0.9.9 Build 1 Rel.00001", -1},
        {"9.0.0 Build 1 Rel.00001", "2.0.0 Build 1 Rel.00001", 0}, // no downgrade test
        {v130, v130, 0, true},
        {v130, "1.3.0 Build 5 Rel.00008", 0},
        {"1.4.0 Build 5 Rel.00007", "1.4.0 Build 5 Rel.00007", 0},
        {v140, v141, 0, false, ids, "\tlist special_id '45550000'\n",
         "match by support list entry 0 (VR100, 1.0, 45550000, 00000000)!"},
        {v140, v141, -2, false, ids, "\toption special_id '45550000'\n"}, // not a list
        {v140, v141, -2, false, ids}, // 00000001 means nothing special unless listed
        {v140, v141, 0, false, ids, "\tlist special_id '00000001'\n",
         "match by support list entry 1 (VR100, 1.0, 00000001, 00000000)!"},
        {v140, v141, -2, false, "[" + entry_json("vr100", "1.0", "55530000") + "]"}, // model's case
    };
    for (const auto &c : cases) {
        ubi_device dev(c.installed);
        if (c.settings)
            dev.write("etc/profile.d/profile",
                      std::string("config special_id_support_list\n") + c.settings);
        pack_images(dev, {{c.list, "", fwinfo_json(c.offered), {{"kernel", "k"}}}});
        EXPECT_EQ(c.result < 0 ? -1 : 0, dev.command()) << c.offered << dev.out;
        EXPECT_EQ(c.result == -1, has_trace(dev.out, "firmware software version is unmatch"));
        EXPECT_EQ(c.same, same_software_version) << c.installed << " / " << c.offered;
        EXPECT_TRUE(!c.match || has_trace(dev.out, c.match)) << dev.out;
    }
}

TEST(UbiMode, CheckWalksTheChainAndReadsTheUnsuffixedVolumes)
{
    ubi_device dev;
    const std::string version = fwinfo_json("1.4.1 Build 1 Rel.1");
    pack_images(
        dev, {{"[" + entry_json("VR200", "1.0", "55530000") + "]", "", version, {{"kernel", "k"}}},
              {kFits, "", version, {{"kernel", "k2"}}}});
    EXPECT_EQ(0, dev.command()) << dev.out;
    EXPECT_EQ("Firmware is upgradable for this DEVICE. ", trace_messages(dev.out).back());

    // No fall-back to the backup's record.
    dev.ubi_volume(0, 0, "devinfo", with_content_header(kDevice));
    dev.ubi_volume(0, 2, "device-info.b", with_content_header(kDevice));
    EXPECT_EQ(-1, dev.command());
    EXPECT_EQ(2u, count_trace(dev.out, "Faield to get device info of FLASH.")) << "every image";
    EXPECT_TRUE(has_trace(dev.out, "PTN[device-info] not found."));
}

TEST(UbiMode, UpgradeStopsWhereItFailsWithTheTargetOff)
{
    const std::string on5 = flags(true, 5), on7 = flags(true, 7), off5 = flags(false, 5);
    struct {
        const char *version; // installed and offered, else 1.4.0 and 1.4.1
        bool nvram;          // a partition the device lacks, after the kernel
        bool rootfs_pair;    // the user data copy needs a UBI volume as its destination
        const char *trace;
        const std::string &primary; // what extra-para starts with afterwards
    } cases[] = {
        {nullptr, true, false, "PTN[nvram] not found at ubi device.", off5},
        {nullptr, false, true, "Faield to copy PTN[rootfs_data] to PTN[rootfs_data.b].", off5},
        {"1.3.0 Build 1 Rel.1", false, false, "same software version, no need to upgrade", on5},
    };
    for (const auto &c : cases) {
        // Volumes as MTD partitions: written in place without the UBI driver.
        ubi_device dev(c.version ? c.version : "1.4.0 Build 1 Rel.1");
        dev.mtd(0, "extra-para", 0x1000, on5);
        dev.mtd(1, "extra-para.b", 0x1000, on7);
        dev.mtd(2, "kernel", 0x4000);
        dev.mtd(3, "support-list", 0x1000);
        dev.mtd(4, "firmware-info.b", 0x1000); // the backup's twin takes the image's record
        if (c.rootfs_pair) {
            dev.mtd(5, "rootfs_data", 0x1000, "user data");
            dev.mtd(6, "rootfs_data.b", 0x1000);
        }
        const std::string record =
            with_content_header(fwinfo_json(c.version ? c.version : "1.4.1 Build 1 Rel.1"));
        fw_image image{kFits, "", "", {{"firmware-info.b", record}, {"kernel", "new kernel"}}};
        if (c.nvram)
            image.parts.push_back({"nvram", "n"});
        pack_images(dev, {image});
        EXPECT_EQ(c.version ? 0 : -1, dev.command(true)) << c.trace;
        EXPECT_TRUE(has_trace(dev.out, c.trace)) << dev.out;
        EXPECT_EQ(c.version ? std::string(10, '\xff') : "new kernel",
                  dev.bytes("/dev/mtd2").substr(0, 10))
            << c.trace << ": earlier entries are written";
        EXPECT_EQ(c.primary, dev.bytes("/dev/mtd0").substr(0, c.primary.size()))
            << c.trace << ": the lower score is the target";
        EXPECT_EQ(on7, dev.bytes("/dev/mtd1").substr(0, on7.size())) << c.trace;
    }
}

TEST(UbiMode, RollBackFailures)
{
    const std::string erased(100, '\xff');
    // The backup volume: with a score, erased, or missing.
    for (const std::string &backup : {flags(true, 3) + erased, erased, std::string()}) {
        ubi_device dev;
        dev.ubi_volume(0, 2, "extra-para", flags(true, 8) + erased);
        if (!backup.empty())
            dev.ubi_volume(0, 3, "extra-para.b", backup);
        EXPECT_EQ(-1, quietly([] { return vireo_firmware_roll_back_ubi(0); }, &dev.out));
        // Regular files are no UBI volumes: the write is refused and reported.
        EXPECT_EQ(backup != erased,
                  has_trace(dev.out, "extra score: primary score[8], backup score[9]") &&
                      has_trace(dev.out, "vireo ubi write error[-1]"))
            << dev.out;
        EXPECT_EQ(backup == erased,
                  has_trace(dev.out, "Failed to get backup image 'extra-para' score."));
        EXPECT_TRUE(backup.empty() || backup == dev.bytes("/dev/ubi0_3")) << "left as it was";
    }
}

TEST(UbiMode, UpgradeAndRollBackThroughVolumeUpdates)
{
    // The tool as a user runs it, with volume updates emulated by the preloaded library.
    upgrade_road road = make_upgrade_road("ubi");
    fake_root &dev = *road.device;
    const auto before = dev.devices();
    run_result r = run_road(road);
    ASSERT_EQ(0, r.status) << r.out << r.err;
    std::map<std::string, std::string> want = before;
    want["ubi0_2"] = padded(with_content_header(fwinfo_json("1.4.1 Build 1 Rel.1")), 0x4000);
    want["ubi0_7"] = padded(pattern(0x4801, 37), 0x8000);
    want["ubi0_9"] = before.at("ubi0_8"); // rootfs_data copied onto its twin, whole
    want["ubi0_11"] = before.at("ubi0_10");
    want.erase("ubi0_5"); // the flag record, over the old one's bytes
    want["ubi0_3"] = dev.bytes("/dev/ubi0_3");
    EXPECT_NE(before.at("ubi0_3"), want["ubi0_3"]) << "the support list is written";
    const auto after = dev.devices();
    for (const auto &[name, bytes] : want)
        EXPECT_TRUE(bytes == after.at(name)) << name;
    EXPECT_EQ(road.flag_done, content_of(after.at("ubi0_5")));

    // A twin too small for its source: the volume update refuses to start, and the target
    // stays flagged off.
    road = make_upgrade_road("ubi");
    road.device->ubi_volume(0, 11, "log.b", std::string(0x1000, '\xff'));
    r = run_road(road);
    EXPECT_EQ(255, r.status);
    EXPECT_TRUE(
        has_trace(r.out, "cannot start volume \"" + road.device->at("/dev/ubi0_11") + "\" update"));
    EXPECT_TRUE(has_trace(r.out, "Faield to copy PTN[log] to PTN[log.b]."));
    EXPECT_EQ(with_content_header(flag_doc(false, 1) + '\0'),
              road.device->bytes("/dev/ubi0_5").substr(0, 16 + flag_doc(false, 1).size() + 1));

    // Roll-back gives the backup the score above the primary's.
    road = make_upgrade_road("rollback");
    r = run_road(road);
    EXPECT_EQ(0, r.status);
    EXPECT_TRUE(has_trace(r.out, "Roll Back Success.")) << r.out;
    EXPECT_EQ(road.flag_done, content_of(road.device->bytes(road.flag)));
}

TEST(UbiMode, VolumesOfOneEraseblockChangeAtomically)
{
    if (!VIREO_POWER_CUT_RECOVERY)
        GTEST_SKIP() << "built without power-cut recovery (VIREO_POWER_CUT_RECOVERY=OFF)";
    // "extra-para.b" (volume 5) is rewritten by the roll-back and by the upgrade, which
    // switches that image off first; the power goes half-way through the first write of its
    // record. One eraseblock: the old record stays. Two: the update interrupted leaves the
    // volume damaged. A damaged one is mended by an update (the upgrade, uncut).
    struct cut_case {
        const char *road;
        size_t room;
        bool damaged;
        const char *cut_at;
        const char *kind; // of the first flash operation on the volume
        const char *left; // "old", "new" or "damaged"
    };
    const cut_case cases[] = {
        {"rollback", 0x4000, false, "2", "ebch", "old"},
        {"rollback", 0x8000, false, "2", "volup", "damaged"},
        {"ubi", 0x4000, true, "0", "volup", "new"},
    };
    for (const cut_case &c : cases) {
        upgrade_road road = make_upgrade_road(c.road);
        fake_root &dev = *road.device;
        const std::string old = flags(true, 1);
        dev.ubi_volume(0, 5, "extra-para.b", padded(old, c.room));
        if (c.damaged)
            dev.write("dev/.ubi0_5.updating", "");
        const std::string log = dev.join("cuts.log");
        const run_result r = run_road(road, {std::string("VIREO_CUT_AT=") + c.cut_at,
                                             "VIREO_CUT_MODE=tear", "VIREO_CUT_LOG=" + log});
        const std::string what = std::string(c.road) + ", room " + std::to_string(c.room);
        EXPECT_EQ(c.cut_at[0] == '0' ? 0 : -1, r.status) << what << r.out;
        const std::string ops = read_file(log);
        const size_t first = ops.find("/dev/ubi0_5");
        ASSERT_NE(std::string::npos, first) << what << ": " << ops;
        const size_t line = ops.rfind('\n', first) + 1; // "<n> <kind> <path>"
        const size_t kind = ops.find(' ', line) + 1;
        EXPECT_EQ(c.kind, ops.substr(kind, ops.find(' ', kind) - kind)) << what << ": " << ops;
        const bool damaged = access(dev.join("dev/.ubi0_5.updating").c_str(), F_OK) == 0;
        const std::string record = content_of(dev.bytes("/dev/ubi0_5"));
        const std::string left = damaged                     ? "damaged"
                                 : record == content_of(old) ? "old"
                                 : record == road.flag_done  ? "new"
                                                             : "other: " + record;
        EXPECT_EQ(c.left, left) << what;
        EXPECT_EQ(c.room, dev.bytes("/dev/ubi0_5").size()) << what;
    }
}
