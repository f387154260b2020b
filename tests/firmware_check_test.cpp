// The raw-flash check command on a fake device: what it accepts and refuses, and that it
// changes no byte of the device or of the file.
#include "common/vireo_common.h"
#include "firmware/vireo_firmware.h"
#include "firmware/vireo_firmware_integrity.h"

#include "openssl_ref.h"
#include "pack_fixture.h"
#include "raw_device.h"

#include <algorithm>
#include <gtest/gtest.h>

namespace
{

const std::string kDevice = devinfo_json("VR100", "1.0", "55530000");
const std::string kFits = "[" + entry_json("VR100", "1.0", "55530000") + "]";
const std::string kOther = "[" + entry_json("VR200", "1.0", "55530000") + "]";

struct check_run {
    int32_t result;
    std::string out;
};

class CheckCommand : public ::testing::Test
{
  protected:
    void TearDown() override
    {
        reset_integrity_state();
    }

    std::vector<uint8_t> pack(const std::vector<fw_image> &images)
    {
        std::vector<uint8_t> file = pack_firmware(dir, fw_manifest(dir, images));
        EXPECT_FALSE(file.empty());
        return file;
    }

    // Runs -C on file against the device; no byte of either may change.
    check_run check(raw_device &dev, const std::vector<uint8_t> &file)
    {
        reset_integrity_state();
        const std::string path = dir.join("up.bin");
        write_file(path, std::string(file.begin(), file.end()));
        const auto before = dev.devices();
        check_run r{};
        r.out = capture_stdout([&] { r.result = vireo_firmware_check(path.c_str()); });
        EXPECT_EQ(before, dev.devices()) << "a device file changed";
        EXPECT_EQ(std::string(file.begin(), file.end()), read_file(path)) << "the file changed";
        return r;
    }

    temp_dir dir;
};

uint32_t nextpos_of(const std::vector<uint8_t> &file, uint32_t image = 0)
{
    const uint8_t *p = file.data() + image + 28;
    return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | p[3];
}

size_t count_of(const std::vector<std::string> &v, const std::string &s)
{
    return static_cast<size_t>(std::count(v.begin(), v.end(), s));
}

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
        {"model in other case", kDevice, "[" + entry_json("vr100", "1.0", "55530000") + "]"},
        {"version in other case", devinfo_json("VR100", "v1", "55530000"),
         "[" + entry_json("VR100", "V1", "55530000") + "]"},
        {"any special id in the list", kDevice, "[" + entry_json("VR100", "1.0", "00000001") + "]",
         "match by support list entry 0 (VR100, 1.0, 00000001)!"},
        {"any special id on the device", devinfo_json("VR100", "1.0", "00000001"), kFits},
        {"first of two fitting entries", kDevice,
         "[" + entry_json("VR200", "1.0", "55530000") + "," +
             entry_json("VR100", "1.0", "00000001") + "," + entry_json("VR100", "1.0", "55530000") +
             "]",
         "match by support list entry 1 (VR100, 1.0, 00000001)!"},
        {"flash version on neither side", kDevice,
         "[" + entry_json("VR100", "1.0", "55530000", "00000000") + "]",
         "match by support list entry 0 (VR100, 1.0, 55530000)!"},
        {"flash version in the list only", kDevice,
         "[" + entry_json("VR100", "1.0", "55530000", "00000001") + "]"},
        {"flash version on the device only", devinfo_json("VR100", "1.0", "55530000", "00000001"),
         kFits},
        {"empty support list", kDevice, "[]"},
    };
    for (const auto &c : cases) {
        raw_device dev(raw_device::layout(c.device));
        const check_run r = check(dev, pack({{c.entries, "", "", {{"kernel", "k"}}}}));
        const auto traces = trace_messages(r.out);
        if (c.match) {
            EXPECT_EQ(0, r.result) << c.what;
            EXPECT_EQ(1u, count_of(traces, c.match)) << c.what << r.out;
            EXPECT_NE(std::string::npos, r.out.find(std::string(c.match) + "\n\n")) << c.what;
            EXPECT_EQ("Firmware is upgradable for this DEVICE. ", traces.back()) << c.what;
        } else {
            EXPECT_EQ(-1, r.result) << c.what;
            EXPECT_EQ("Firmware is not allowed to upgrade into this device.", traces.back())
                << c.what;
        }
    }
}

TEST_F(CheckCommand, SecondImageIsTriedAtNextpos)
{
    raw_device dev(raw_device::layout(kDevice));
    const std::vector<uint8_t> file =
        pack({{kOther, "", "", {{"kernel", "k"}}}, {kFits, "", "", {{"kernel", "k2"}}}});
    const uint32_t next = nextpos_of(file);
    const check_run r = check(dev, file);
    EXPECT_EQ(0, r.result);
    const auto traces = trace_messages(r.out);
    char expected[64];
    snprintf(expected, sizeof(expected), "try next firmware header %u (0x%08x).", next, next);
    EXPECT_EQ(1u, count_of(traces, "Firmware is not allowed to upgrade into this device."));
    EXPECT_EQ(1u, count_of(traces, expected)) << r.out;
    EXPECT_EQ("Firmware is upgradable for this DEVICE. ", traces.back());
}

TEST_F(CheckCommand, BrokenFilesEndTheWalk)
{
    raw_device dev(raw_device::layout(kDevice));
    std::vector<uint8_t> bad_magic =
        pack({{kOther, "", "", {{"kernel", "k"}}}, {kFits, "", "", {{"kernel", "k2"}}}});
    bad_magic[0] ^= 1; // outside the signature: only the magic test sees it
    std::vector<uint8_t> loop =
        pack({{kOther, "", "", {{"kernel", "k"}}}, {kOther, "", "", {{"kernel", "k2"}}}});
    const uint32_t next = nextpos_of(loop);
    loop[next + 31] = static_cast<uint8_t>(next); // the last image points back at itself
    loop[next + 30] = static_cast<uint8_t>(next >> 8);
    loop[next + 29] = static_cast<uint8_t>(next >> 16);
    resign_firmware(loop);
    std::vector<uint8_t> outside = pack({{kFits, "", "", {{"kernel", "k"}}}});
    const std::string table(reinterpret_cast<const char *>(outside.data()) + 4160);
    const size_t at = table.find("0x", table.find("size", table.find("support-list")));
    const std::string huge = "0x7FFFFFFF";
    std::copy(huge.begin(), huge.end(), outside.begin() + 4160 + static_cast<long>(at));
    resign_firmware(outside);
    const std::vector<uint8_t> short_file(outside.begin(), outside.begin() + 69695);

    struct {
        const char *what;
        std::vector<uint8_t> file;
        std::vector<std::string> traces; // that must appear, the walk's last one last
        size_t images;                   // "up.bin buf" lines
    } cases[] = {
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
          "support_list of FIRMWARE not found!",
          "Firmware is not allowed to upgrade into this device."},
         1},
        {"short file",
         short_file,
         {"firmware header truncated, file size is 69695, minimal header size is 69696.",
          "Firmware header validate *FAILED*."},
         1},
    };
    for (const auto &c : cases) {
        const check_run r = check(dev, c.file);
        EXPECT_EQ(-1, r.result) << c.what;
        const auto traces = trace_messages(r.out);
        for (const std::string &t : c.traces)
            EXPECT_EQ(1u, count_of(traces, t)) << c.what << ": " << t << "\n" << r.out;
        EXPECT_EQ(c.traces.back(), traces.back()) << c.what;
        size_t images = 0;
        for (const std::string &t : traces)
            images += t.rfind("up.bin buf  = ", 0) == 0;
        EXPECT_EQ(c.images, images) << c.what;
    }
}

TEST_F(CheckCommand, DeviceRecordsAndTheirFallBack)
{
    const std::vector<uint8_t> file = pack({{kFits, "", "", {{"kernel", "k"}}}});
    {
        // A damaged device-info: device-info.b decides.
        std::vector<raw_ptn> ptns = raw_device::layout(devinfo_json("VR900", "1.0", "55530000"));
        ptns[1].content = "garbage";
        ptns[2].content = with_content_header(kDevice);
        raw_device dev(ptns);
        const check_run r = check(dev, file);
        EXPECT_EQ(0, r.result) << r.out;
        const auto traces = trace_messages(r.out);
        EXPECT_EQ(1u, count_of(traces, "flash[0x00010000] is not a valid partition."));
        EXPECT_EQ(1u, count_of(traces, "dev_info: device-info.b, model_name: VR100."));
    }
    {
        // Neither copy: the image is refused.
        std::vector<raw_ptn> ptns = raw_device::layout(kDevice);
        ptns[1].name = "devinfo";
        ptns[2].name = "devinfo.b";
        raw_device dev(ptns);
        const check_run r = check(dev, file);
        EXPECT_EQ(-1, r.result);
        const auto traces = trace_messages(r.out);
        EXPECT_EQ(1u, count_of(traces, "PTN[device-info] not found."));
        EXPECT_EQ(1u, count_of(traces, "PTN[device-info.b] not found."));
        EXPECT_EQ(1u, count_of(traces, "Faield to get device info of FLASH."));
    }
    {
        // An erased partition table: nothing else is looked at.
        std::vector<raw_ptn> ptns = raw_device::layout(kDevice);
        ptns[0].content = std::string(16, '\xff');
        raw_device dev(ptns);
        const check_run r = check(dev, file);
        EXPECT_EQ(-1, r.result);
        EXPECT_EQ("Failed to build ptn_table of flash", trace_messages(r.out).back());
        EXPECT_TRUE(has_trace(r.out, dev.at("/dev/mtd1") + " is not a valid partition."));
    }
    const std::string out = capture_stdout([] { EXPECT_EQ(-1, vireo_firmware_check(nullptr)); });
    EXPECT_EQ(std::vector<std::string>{"Invalid param, (nil)."}, trace_messages(out));
}
