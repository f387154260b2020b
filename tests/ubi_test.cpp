// Work mode "ubi" on a fake dual-image device: the records read from volumes, the check
// command, and the upgrade and roll-back as far as they get without the kernel's UBI
// driver (volume updates themselves are tried on the virtual router).
#include "ubi/vireo_ubi.h"

#include "pack_fixture.h"
#include "raw_device.h"

#include <gtest/gtest.h>

namespace
{

// A flag volume's bytes: the record behind its header, with its NUL.
std::string flags(bool on, int score)
{
    return with_content_header(flag_doc(on, score) + '\0');
}

// UBI device 0 with the device's records; further volumes and partitions as a test adds.
struct ubi_device : fake_root {
    explicit ubi_device(const std::string &installed = "1.4.0 Build 1 Rel.00001")
    {
        write("sys/class/ubi/version", "1\n");
        ubi_volume(0, 0, "device-info", with_content_header(kDevice));
        ubi_volume(0, 1, "firmware-info", with_content_header(fwinfo_json(installed)));
    }
};

struct run {
    int32_t result;
    std::string out;
};

class UbiMode : public ::testing::Test
{
  protected:
    void TearDown() override
    {
        reset_integrity_state();
    }
    void pack_version(const std::string &version, const std::string &list = kFits)
    {
        pack_images(dir, {{list, "", fwinfo_json(version), {{"kernel", "k"}}}});
    }
    // The check (or with upgrade, the upgrade) of dir/up.bin on UBI device 0.
    run command(bool upgrade = false)
    {
        reset_integrity_state();
        same_software_version = false;
        run r{};
        const std::string path = dir.join("up.bin");
        r.out = capture_stdout([&] {
            r.result = upgrade ? vireo_firmware_upgrade_ubi(0, path.c_str())
                               : vireo_firmware_check_ubi(0, path.c_str());
        });
        return r;
    }

    temp_dir dir;
};

} // namespace

TEST_F(UbiMode, RecordsComeFromTheUnsuffixedVolumes)
{
    ubi_device dev;
    dev.mtd(0, "firmware-info", 0x1000, with_content_header(fwinfo_json("9.9.9 Build 1 Rel.1")));
    fwinfo *fw = nullptr;
    std::string out = capture_stdout([&] { fw = vireo_flash_build_firmware_info_ubi(0); });
    ASSERT_NE(nullptr, fw);
    EXPECT_EQ(1u, fw->software_version[0]) << "the volume wins over the MTD partition";
    EXPECT_TRUE(has_trace(out, "PTN[firmware-info] ubi volume path " + dev.at("/dev/ubi0_1")));
    vireo_ptn_firmware_info_destroy(fw);
    out = capture_stdout([&] { EXPECT_EQ(nullptr, vireo_flash_build_device_info_ubi(1)); });
    EXPECT_TRUE(has_trace(out, "PTN[device-info] not found."));

    // No fall-back to the backup's copy.
    ubi_device erased;
    erased.ubi_volume(0, 0, "device-info", std::string(4096, '\xff'));
    erased.ubi_volume(0, 2, "device-info.b", with_content_header(kDevice));
    out = capture_stdout([&] { EXPECT_EQ(nullptr, vireo_flash_build_device_info_ubi(0)); });
    EXPECT_TRUE(has_trace(out, "ubi volume[device-info] is not a valid partition.")) << out;
}

TEST_F(UbiMode, SoftwareVersionTest)
{
    struct {
        const char *installed, *offered;
        int32_t result;
        bool same;
    } cases[] = {
        {"1.4.0 Build 1 Rel.00001", "0.9.9 Build 1 Rel.00001", -1, false},
        {"1.4.0 Build 1 Rel.00001", "1.2.9 Build 1 Rel.00001", -1, false},
        {"1.4.0 Build 1 Rel.00001", "1.3.0 Build 1 Rel.00001", 0, false},
        {"1.4.0 Build 1 Rel.00001", "1.10.0 Build 1 Rel.00001", 0, false},
        {"9.0.0 Build 1 Rel.00001", "2.0.0 Build 1 Rel.00001", 0, false}, // no downgrade test
        {"1.3.0 Build 5 Rel.00007", "1.3.0 Build 5 Rel.00007", 0, true},
        {"1.3.0 Build 5 Rel.00007", "1.3.0 Build 5 Rel.00008", 0, false},
        {"1.4.0 Build 5 Rel.00007", "1.4.0 Build 5 Rel.00007", 0, false},
    };
    for (const auto &c : cases) {
        ubi_device dev(c.installed);
        pack_version(c.offered);
        const run r = command();
        EXPECT_EQ(c.result, r.result) << c.offered;
        EXPECT_EQ(c.result != 0, has_trace(r.out, "firmware software version is unmatch"))
            << c.offered;
        EXPECT_EQ(c.same, same_software_version) << c.installed << " / " << c.offered;
    }
}

TEST_F(UbiMode, SupportListMatchWithSettings)
{
    const std::string list = "[" + entry_json("VR100", "1.0", "45550000", "00000000") + "," +
                             entry_json("VR100", "1.0", "00000001") + "]";
    struct {
        const char *what;
        std::string settings;
        std::string entries;
        const char *match; // or none
    } cases[] = {
        {"another id listed", "config special_id_support_list\n\tlist special_id '45550000'\n",
         list, "match by support list entry 0 (VR100, 1.0, 45550000, 00000000)!"},
        {"a plain option does not count",
         "config special_id_support_list\n\toption special_id '45550000'\n", list, nullptr},
        {"00000001 means nothing special", "", list, nullptr},
        {"unless listed", "config special_id_support_list\n\tlist special_id '00000001'\n", list,
         "match by support list entry 1 (VR100, 1.0, 00000001, 00000000)!"},
        {"model in other case", "", one_entry_list("vr100", "1.0", "55530000"), nullptr},
    };
    for (const auto &c : cases) {
        ubi_device dev;
        if (!c.settings.empty())
            dev.write("etc/profile.d/profile", c.settings);
        pack_version("1.4.1 Build 1 Rel.00001", c.entries);
        const run r = command();
        EXPECT_EQ(c.match ? 0 : -1, r.result) << c.what << r.out;
        if (c.match) {
            EXPECT_TRUE(has_trace(r.out, c.match)) << c.what;
            EXPECT_NE(std::string::npos, r.out.find(std::string(c.match) + "\n\n")) << c.what;
        }
    }
}

TEST_F(UbiMode, CheckWalksTheChainAndFailsWithoutDevice)
{
    ubi_device dev;
    const std::string version = fwinfo_json("1.4.1 Build 1 Rel.1");
    pack_images(dir, {{one_entry_list("VR200", "1.0", "55530000"), "", version, {{"kernel", "k"}}},
                      {kFits, "", version, {{"kernel", "k2"}}}});
    run r = command();
    EXPECT_EQ(0, r.result) << r.out;
    EXPECT_TRUE(has_trace(r.out, "Firmware is not allowed to upgrade into this device."));
    EXPECT_EQ("Firmware is upgradable for this DEVICE. ", trace_messages(r.out).back());

    ubi_device none;
    none.ubi_volume(0, 0, "devinfo", with_content_header(kDevice));
    r = command();
    EXPECT_EQ(-1, r.result);
    EXPECT_EQ(2u, count_trace(r.out, "Faield to get device info of FLASH."))
        << "every image is refused";

    write_file(dir.join("up.bin"), "");
    r = command();
    EXPECT_TRUE(has_trace(r.out, "Failed to get file size, file='" + dir.join("up.bin") + "'"));
    r.out = capture_stdout([&] { r.result = vireo_firmware_check_ubi(0, nullptr); });
    EXPECT_EQ(std::vector<std::string>{"Invalid params, 0,(nil)."}, trace_messages(r.out));
}

TEST_F(UbiMode, UpgradeStopsWhereItFailsWithTheTargetOff)
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
        const std::string offered = c.version ? c.version : "1.4.1 Build 1 Rel.1";
        fw_image image{kFits,
                       "",
                       "",
                       {{"firmware-info.b", with_content_header(fwinfo_json(offered))},
                        {"kernel", "new kernel"}}};
        if (c.nvram)
            image.parts.push_back({"nvram", "n"});
        pack_images(dir, {image});
        const run r = command(true);
        EXPECT_EQ(c.version ? 0 : -1, r.result) << c.trace;
        EXPECT_TRUE(has_trace(r.out, c.trace)) << r.out;
        EXPECT_EQ(!c.version, has_trace(r.out, "Failed to upgrade firmware into this device."));
        EXPECT_EQ(c.version ? std::string(10, '\xff') : "new kernel",
                  dev.bytes("/dev/mtd2").substr(0, 10))
            << c.trace << ": earlier entries are written";
        EXPECT_EQ(c.primary, dev.bytes("/dev/mtd0").substr(0, c.primary.size()))
            << c.trace << ": the lower score is the target";
        EXPECT_EQ(on7, dev.bytes("/dev/mtd1").substr(0, on7.size())) << c.trace;
    }
}

TEST_F(UbiMode, RollBackFailures)
{
    const std::string erased(100, '\xff');
    for (bool backup_has_score : {true, false}) {
        ubi_device dev;
        dev.ubi_volume(0, 2, "extra-para", flags(true, 8) + erased);
        dev.ubi_volume(0, 3, "extra-para.b", backup_has_score ? flags(true, 3) + erased : erased);
        const std::string before = dev.bytes("/dev/ubi0_3");
        const std::string out =
            capture_stdout([] { EXPECT_EQ(-1, vireo_firmware_roll_back_ubi(0)); });
        // Regular files are no UBI volumes: the write is refused and reported.
        EXPECT_EQ(backup_has_score,
                  has_trace(out, "extra score: primary score[8], backup score[9]") &&
                      has_trace(out, "vireo ubi write error[-1]"))
            << out;
        EXPECT_EQ(!backup_has_score,
                  has_trace(out, "Failed to get backup image 'extra-para' score."));
        EXPECT_TRUE(backup_has_score || before == dev.bytes("/dev/ubi0_3"));
    }
}
