// The raw-flash check command on a fake device: what it accepts and refuses, and that it
// changes no byte of the device or of the file.
#include "common/vireo_common.h"
#include "firmware/vireo_firmware.h"

#include "openssl_ref.h"
#include "pack_fixture.h"
#include "raw_device.h"

#include <gtest/gtest.h>

namespace
{

const std::string kOther = one_entry_list("VR200", "1.0", "55530000");
const char kRefused[] = "Firmware is not allowed to upgrade into this device.";
const char kUpgradable[] = "Firmware is upgradable for this DEVICE. ";

struct check_run {
    int32_t result;
    std::string out;
    std::string last; // trace message
};

class CheckCommand : public ::testing::Test
{
  protected:
    void TearDown() override
    {
        reset_integrity_state();
    }
    // Runs -C on file against the device; no byte of either may change.
    check_run check(raw_device &dev, const std::vector<uint8_t> &file)
    {
        reset_integrity_state();
        const std::string path = dir.write("up.bin", std::string(file.begin(), file.end()));
        const auto before = dev.devices();
        check_run r{};
        r.out = capture_stdout([&] { r.result = vireo_firmware_check(path.c_str()); });
        EXPECT_EQ(before, dev.devices()) << "a device file changed";
        EXPECT_EQ(std::string(file.begin(), file.end()), read_file(path)) << "the file changed";
        const auto traces = trace_messages(r.out);
        r.last = traces.empty() ? "" : traces.back();
        return r;
    }
    std::vector<uint8_t> one_image(const std::string &list)
    {
        return pack_images(dir, {{list, "", "", {{"kernel", "k"}}}});
    }

    temp_dir dir;
};

} // namespace

TEST_F(CheckCommand, MatchingFollowsTheSupportListExactly)
{
    struct {
        const char *what;
        std::string device;
        std::string entries;
        const char *match = nullptr; // the match trace, or none when refused
    } cases[] = {
        {"same device", kDevice, kFits, "match by support list entry 0 (VR100, 1.0, 55530000)!"},
        {"model in other case", kDevice, one_entry_list("vr100", "1.0", "55530000")},
        {"version in other case", devinfo_json("VR100", "v1", "55530000"),
         one_entry_list("VR100", "V1", "55530000")},
        {"any special id in the list", kDevice, one_entry_list("VR100", "1.0", "00000001"),
         "match by support list entry 0 (VR100, 1.0, 00000001)!"},
        {"any special id on the device", devinfo_json("VR100", "1.0", "00000001"), kFits},
        {"first of two fitting entries", kDevice,
         "[" + entry_json("VR200", "1.0", "55530000") + "," +
             entry_json("VR100", "1.0", "00000001") + "," + entry_json("VR100", "1.0", "55530000") +
             "]",
         "match by support list entry 1 (VR100, 1.0, 00000001)!"},
        {"flash version on neither side", kDevice,
         one_entry_list("VR100", "1.0", "55530000", "00000000"),
         "match by support list entry 0 (VR100, 1.0, 55530000)!"},
        {"flash version in the list only", kDevice,
         one_entry_list("VR100", "1.0", "55530000", "00000001")},
        {"flash version on the device only", devinfo_json("VR100", "1.0", "55530000", "00000001"),
         kFits},
        {"empty support list", kDevice, "[]"},
    };
    for (const auto &c : cases) {
        raw_device dev(raw_device::layout(c.device));
        const check_run r = check(dev, one_image(c.entries));
        EXPECT_EQ(c.match ? 0 : -1, r.result) << c.what;
        EXPECT_EQ(c.match ? kUpgradable : kRefused, r.last) << c.what;
        if (c.match) {
            EXPECT_EQ(1u, count_trace(r.out, c.match)) << c.what << r.out;
            EXPECT_NE(std::string::npos, r.out.find(std::string(c.match) + "\n\n")) << c.what;
        }
    }
}

TEST_F(CheckCommand, WalkAlongTheChainAndTheDeviceRecords)
{
    const std::vector<uint8_t> second_fits = pack_images(
        dir, {{kOther, "", "", {{"kernel", "k"}}}, {kFits, "", "", {{"kernel", "k2"}}}});
    const uint32_t next = be32(second_fits.data() + 28);
    std::vector<uint8_t> bad_magic = second_fits;
    bad_magic[0] ^= 1; // outside the signature: only the magic test sees it
    std::vector<uint8_t> loop = pack_images(
        dir, {{kOther, "", "", {{"kernel", "k"}}}, {kOther, "", "", {{"kernel", "k2"}}}});
    for (int i = 0; i < 4; i++) // the last image points back at itself
        loop[next + 28 + i] = static_cast<uint8_t>(next >> (24 - 8 * i));
    resign_firmware(loop);
    const std::vector<uint8_t> fits = one_image(kFits);
    std::vector<uint8_t> outside = fits;
    set_entry_size(outside, "support-list", "0x7FFFFFFF");
    resign_firmware(outside);
    const std::vector<uint8_t> short_file(outside.begin(), outside.begin() + 69695);
    std::vector<raw_ptn> garbage = raw_device::layout(kDevice), none = garbage, erased = garbage;
    garbage[1].content = "garbage";
    none[1].name = "devinfo";
    none[2].name = "devinfo.b";
    erased[0].content = std::string(16, '\xff');

    struct {
        const char *what;
        std::vector<uint8_t> file;
        // Traces that must appear once, the last one last; one starting with '/' is a path
        // below the root.
        std::vector<std::string> traces;
        size_t images; // "up.bin buf" lines
        std::vector<raw_ptn> ptns = raw_device::layout(kDevice);
    } cases[] = {
        {"second image fits",
         second_fits,
         {kRefused, vireo_strf("try next firmware header %u (0x%08x).", next, next), kUpgradable},
         2},
        {"corrupted first header",
         bad_magic,
         {"Invalid magic number.", "Firmware header validate *FAILED*."},
         1},
        {"chain looping back",
         loop,
         {vireo_strf("bad firmware chain: nextpos %u (0x%08x) after image at %u, file size %u.",
                     next, next, next, static_cast<unsigned>(loop.size()))},
         2},
        {"support list outside the file",
         outside,
         {"PTN[support-list] base 0 size 2147483647 lies outside the firmware file (69822 bytes).",
          "support_list of FIRMWARE not found!", kRefused},
         1},
        {"short file",
         short_file,
         {"firmware header truncated, file size is 69695, minimal header size is 69696.",
          "Firmware header validate *FAILED*."},
         1},
        {"damaged device-info, good device-info.b",
         fits,
         {"flash[0x00010000] is not a valid partition.",
          "dev_info: device-info.b, model_name: VR100.", kUpgradable},
         1,
         garbage},
        {"neither copy of device-info",
         fits,
         {"PTN[device-info] not found.", "PTN[device-info.b] not found.",
          "Faield to get device info of FLASH.", kRefused},
         1,
         none},
        {"erased partition table: nothing else is looked at",
         fits,
         {"/dev/mtd1 is not a valid partition.", "Failed to build ptn_table of flash"},
         0,
         erased},
    };
    for (const auto &c : cases) {
        raw_device dev(c.ptns);
        const check_run r = check(dev, c.file);
        EXPECT_EQ(c.traces.back() == kUpgradable ? 0 : -1, r.result) << c.what;
        for (const std::string &t : c.traces)
            EXPECT_EQ(1u, count_trace(r.out, t[0] == '/' ? dev.at(t) : t))
                << c.what << ": " << t << "\n"
                << r.out;
        EXPECT_EQ(c.traces.back(), r.last) << c.what;
        size_t images = 0;
        for (const std::string &t : trace_messages(r.out))
            images += t.rfind("up.bin buf  = ", 0) == 0;
        EXPECT_EQ(c.images, images) << c.what;
    }
    const std::string out = capture_stdout([] { EXPECT_EQ(-1, vireo_firmware_check(nullptr)); });
    EXPECT_EQ(std::vector<std::string>{"Invalid param, (nil)."}, trace_messages(out));
}
