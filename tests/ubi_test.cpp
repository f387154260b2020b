// Work mode "ubi" on a fake dual-image device: the records read from volumes, the check
// command, and the upgrade and roll-back as far as they get without the kernel's UBI
// driver (volume updates themselves are tried on the virtual router).
#include "ubi/vireo_ubi.h"

#include "firmware/vireo_firmware_integrity.h"
#include "ptn/vireo_extra_para.h"

#include "openssl_ref.h"
#include "pack_fixture.h"
#include "raw_device.h"

#include <gtest/gtest.h>

namespace
{

const std::string kDevice = devinfo_json("VR100", "1.0", "55530000");
const std::string kFits = "[" + entry_json("VR100", "1.0", "55530000") + "]";

std::string fwinfo_doc(const std::string &version)
{
    return R"({"software-version": ")" + version + R"(", "firmware-id": "ID"})";
}

std::string flags(bool on, int score)
{
    char text[128];
    on ? vireo_extra_para_format_flag_on(score, text, sizeof(text))
       : vireo_extra_para_format_flag_off(score, text, sizeof(text));
    return with_content_header(std::string(text) + '\0');
}

// UBI device 0 with the device's records; further volumes and partitions as a test adds.
struct ubi_device : fake_root {
    explicit ubi_device(const std::string &installed = "1.4.0 Build 1 Rel.00001",
                        const std::string &devinfo = kDevice)
    {
        write("sys/class/ubi/version", "1\n");
        ubi_volume(0, 0, "device-info", with_content_header(devinfo));
        ubi_volume(0, 1, "firmware-info", with_content_header(fwinfo_doc(installed)));
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

    void pack(const std::vector<fw_image> &images)
    {
        ASSERT_FALSE(pack_firmware(dir, fw_manifest(dir, images)).empty());
    }
    void pack_version(const std::string &version, const std::string &list = kFits)
    {
        pack({{list, "", fwinfo_doc(version), {{"kernel", "k"}}}});
    }
    run check()
    {
        reset_integrity_state();
        same_software_version = false;
        run r{};
        const std::string path = dir.join("up.bin");
        r.out = capture_stdout([&] { r.result = vireo_firmware_check_ubi(0, path.c_str()); });
        return r;
    }
    run upgrade()
    {
        reset_integrity_state();
        same_software_version = false;
        run r{};
        const std::string path = dir.join("up.bin");
        r.out = capture_stdout([&] { r.result = vireo_firmware_upgrade_ubi(0, path.c_str()); });
        return r;
    }

    temp_dir dir;
};

} // namespace

TEST_F(UbiMode, RecordsComeFromTheUnsuffixedVolumes)
{
    ubi_device dev;
    dev.mtd(0, "firmware-info", 0x1000, with_content_header(fwinfo_doc("9.9.9 Build 1 Rel.1")));
    std::string out;
    fwinfo *fw = nullptr;
    out = capture_stdout([&] { fw = vireo_flash_build_firmware_info_ubi(0); });
    ASSERT_NE(nullptr, fw);
    EXPECT_EQ(1u, fw->software_version[0]) << "the volume wins over the MTD partition";
    EXPECT_TRUE(has_trace(out, "PTN[firmware-info] ubi volume path " + dev.at("/dev/ubi0_1")));
    vireo_ptn_firmware_info_destroy(fw);
    out = capture_stdout([&] { EXPECT_EQ(nullptr, vireo_flash_build_device_info_ubi(1)); });
    EXPECT_TRUE(has_trace(out, "PTN[device-info] not found."));

    ubi_device erased;
    erased.ubi_volume(0, 0, "device-info", std::string(4096, '\xff'));
    erased.ubi_volume(0, 2, "device-info.b", with_content_header(kDevice));
    out = capture_stdout([&] { EXPECT_EQ(nullptr, vireo_flash_build_device_info_ubi(0)); });
    EXPECT_TRUE(has_trace(out, "ubi volume[device-info] is not a valid partition.")) << out;
    // A non-zero checksum is reported and accepted.
    std::string doc = with_content_header(kDevice);
    doc[15] = 1;
    erased.ubi_volume(0, 0, "device-info", doc);
    devinfo *info = nullptr;
    out = capture_stdout([&] { info = vireo_flash_build_device_info_ubi(0); });
    ASSERT_NE(nullptr, info);
    EXPECT_STREQ("VR100", info->model_name);
    vireo_ptn_device_info_destroy(info);
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
        const run r = check();
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
        {"model in other case", "", "[" + entry_json("vr100", "1.0", "55530000") + "]", nullptr},
    };
    for (const auto &c : cases) {
        ubi_device dev;
        if (!c.settings.empty())
            dev.write("etc/profile.d/profile", c.settings);
        pack_version("1.4.1 Build 1 Rel.00001", c.entries);
        const run r = check();
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
    pack({{"[" + entry_json("VR200", "1.0", "55530000") + "]",
           "",
           fwinfo_doc("1.4.1 Build 1 Rel.1"),
           {{"kernel", "k"}}},
          {kFits, "", fwinfo_doc("1.4.1 Build 1 Rel.1"), {{"kernel", "k2"}}}});
    run r = check();
    EXPECT_EQ(0, r.result) << r.out;
    EXPECT_TRUE(has_trace(r.out, "Firmware is not allowed to upgrade into this device."));
    EXPECT_EQ("Firmware is upgradable for this DEVICE. ", trace_messages(r.out).back());

    ubi_device none;
    none.ubi_volume(0, 0, "devinfo", with_content_header(kDevice));
    r = check();
    EXPECT_EQ(-1, r.result);
    size_t missing = 0;
    for (const std::string &t : trace_messages(r.out))
        missing += t == "Faield to get device info of FLASH.";
    EXPECT_EQ(2u, missing) << "every image is refused";

    write_file(dir.join("up.bin"), "");
    r = check();
    EXPECT_TRUE(has_trace(r.out, "Failed to get file size, file='" + dir.join("up.bin") + "'"));
    r.out = capture_stdout([&] { r.result = vireo_firmware_check_ubi(0, nullptr); });
    EXPECT_EQ(std::vector<std::string>{"Invalid params, 0,(nil)."}, trace_messages(r.out));
}

TEST_F(UbiMode, UpgradeStopsWhereItFailsWithTheTargetOff)
{
    // Volumes as MTD partitions: written in place without the UBI driver.
    const auto make = [](ubi_device &dev, bool with_rootfs_pair) {
        dev.mtd(0, "extra-para", 0x1000, flags(true, 5));
        dev.mtd(1, "extra-para.b", 0x1000, flags(true, 7));
        dev.mtd(2, "kernel", 0x4000);
        dev.mtd(3, "support-list", 0x1000);
        dev.mtd(4, "firmware-info.b", 0x1000);
        if (with_rootfs_pair) {
            dev.mtd(5, "rootfs_data", 0x1000, "user data");
            dev.mtd(6, "rootfs_data.b", 0x1000);
        }
    };
    // The image's firmware-info goes to the backup's twin, a partition here.
    const auto image = [](const std::string &version,
                          std::vector<std::pair<std::string, std::string>> parts) {
        parts.insert(parts.begin(), {"firmware-info.b", with_content_header(fwinfo_doc(version))});
        return fw_image{kFits, "", "", parts};
    };
    const std::string off5 = flags(false, 5);
    {
        ubi_device dev;
        make(dev, false);
        pack({image("1.4.1 Build 1 Rel.1", {{"kernel", "new kernel"}, {"nvram", "n"}})});
        const run r = upgrade();
        EXPECT_EQ(-1, r.result);
        EXPECT_TRUE(has_trace(r.out, "PTN[nvram] not found at ubi device.")) << r.out;
        EXPECT_TRUE(has_trace(r.out, "Failed to upgrade firmware into this device."));
        EXPECT_EQ("new kernel", dev.bytes("/dev/mtd2").substr(0, 10)) << "earlier entries written";
        EXPECT_EQ(off5, dev.bytes("/dev/mtd0").substr(0, off5.size())) << "the lower score is off";
        EXPECT_EQ(flags(true, 7), dev.bytes("/dev/mtd1").substr(0, flags(true, 7).size()));
    }
    {
        // The user data copy needs a UBI volume as its destination.
        ubi_device dev;
        make(dev, true);
        pack({image("1.4.1 Build 1 Rel.1", {{"kernel", "new kernel"}})});
        const run r = upgrade();
        EXPECT_EQ(-1, r.result);
        EXPECT_TRUE(has_trace(r.out, "Faield to copy PTN[rootfs_data] to PTN[rootfs_data.b]."));
        EXPECT_EQ(off5, dev.bytes("/dev/mtd0").substr(0, off5.size()));
    }
    {
        // The same build as installed: nothing is touched.
        ubi_device dev("1.3.0 Build 1 Rel.00001");
        make(dev, false);
        pack({image("1.3.0 Build 1 Rel.00001", {{"kernel", "new kernel"}})});
        const run r = upgrade();
        EXPECT_EQ(0, r.result);
        EXPECT_TRUE(has_trace(r.out, "same software version, no need to upgrade"));
        EXPECT_EQ(std::string(0x4000, '\xff'), dev.bytes("/dev/mtd2"));
        EXPECT_EQ(flags(true, 5), dev.bytes("/dev/mtd0").substr(0, flags(true, 5).size()));
    }
}

TEST_F(UbiMode, RollBack)
{
    {
        ubi_device dev;
        dev.ubi_volume(0, 2, "extra-para", flags(true, 8) + std::string(100, '\xff'));
        dev.ubi_volume(0, 3, "extra-para.b", flags(true, 3) + std::string(100, '\xff'));
        const std::string out =
            capture_stdout([] { EXPECT_EQ(-1, vireo_firmware_roll_back_ubi(0)); });
        EXPECT_TRUE(has_trace(out, "extra score: primary score[8], backup score[9]"));
        // Regular files are no UBI volumes: the write is refused and reported.
        EXPECT_TRUE(has_trace(out, "vireo ubi write error[-1]")) << out;
    }
    {
        ubi_device dev;
        dev.ubi_volume(0, 2, "extra-para", flags(true, 8));
        dev.ubi_volume(0, 3, "extra-para.b", std::string(100, '\xff'));
        const std::string before = dev.bytes("/dev/ubi0_3");
        const std::string out =
            capture_stdout([] { EXPECT_EQ(-1, vireo_firmware_roll_back_ubi(0)); });
        EXPECT_TRUE(has_trace(out, "Failed to get backup image 'extra-para' score.")) << out;
        EXPECT_EQ(before, dev.bytes("/dev/ubi0_3"));
    }
}
