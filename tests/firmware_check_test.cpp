// SPDX-License-Identifier: Apache-2.0
// The raw-flash check command on a fake device: what it accepts and refuses, and that it
// changes no byte of the device or of the file.
#include "common/vireo_common.h"
#include "common/vireo_endian.h"
#include "firmware/vireo_firmware.h"

#include "openssl_ref.h"
#include "pack_fixture.h"
#include "raw_device.h"

#include <gtest/gtest.h>

namespace
{

const char kRefused[] = "Firmware is not allowed to upgrade into this device.";
const char kUpgradable[] = "Firmware is upgradable for this DEVICE. ";

// The usual layout of a device of this model, version, special id and flash version.
std::vector<raw_ptn> device(const std::string &model = "VR100", const std::string &version = "1.0",
                            const std::string &id = "55530000", const std::string &flash = "")
{
    return raw_device::layout(devinfo_json(model, version, id, flash));
}

} // namespace

TEST(CheckCommand, MatchingWalkAndDeviceRecords)
{
    temp_dir dir;
    const auto one_image = [&](const std::string &list) {
        return pack_images(dir, {{list, "", "", {{"kernel", "k"}}}});
    };
    // A file of one image whose support list holds this one entry.
    const auto file = [&](const char *model, const char *version, const char *id,
                          const char *flash = "") {
        return one_image("[" + entry_json(model, version, id, flash) + "]");
    };
    const std::string other = "[" + entry_json("VR200", "1.0", "55530000") + "]";
    const std::vector<uint8_t> second_fits =
        pack_images(dir, {{other, "", "", {{"kernel", "k"}}}, {kFits, "", "", {{"kernel", "k2"}}}});
    const uint32_t next = vireo_get_be32(second_fits.data() + 28);
    std::vector<uint8_t> bad_magic = second_fits;
    bad_magic[0] ^= 1; // outside the signature: only the magic test sees it
    std::vector<uint8_t> loop =
        pack_images(dir, {{other, "", "", {{"kernel", "k"}}}, {other, "", "", {{"kernel", "k2"}}}});
    for (int i = 0; i < 4; i++) // the last image points back at itself
        loop[next + 28 + i] = static_cast<uint8_t>(next >> (24 - 8 * i));
    resign_firmware(loop);
    const std::vector<uint8_t> fits = one_image(kFits);
    std::vector<uint8_t> outside = fits;
    set_entry_size(outside, "support-list", "0x7FFFFFFF");
    resign_firmware(outside);
    const std::vector<uint8_t> short_file(outside.begin(), outside.begin() + 69695);
    std::vector<raw_ptn> garbage = device(), erased = garbage;
    garbage[1].content = "garbage";
    erased[0].content = std::string(16, '\xff');

    struct {
        const char *what;
        std::vector<uint8_t> file;
        // Traces that must appear once, the last one last; one starting with '/' is a path
        // below the root.
        std::vector<std::string> traces;
        std::vector<raw_ptn> ptns = device();
    } cases[] = {
        // Model, version and special id match exactly, but "00000001" in the list stands for
        // any special id; the flash version must be alike on both sides.
        {"model, other case", file("vr100", "1.0", "55530000"), {kRefused}},
        {"version, other case", file("VR100", "V1", "55530000"), {kRefused}, device("VR100", "v1")},
        {"any id in list",
         file("VR100", "1.0", "00000001"),
         {"match by support list entry 0 (VR100, 1.0, 00000001)!", kUpgradable}},
        {"any id on device", fits, {kRefused}, device("VR100", "1.0", "00000001")},
        {"first of two fitting entries",
         one_image("[" + entry_json("VR200", "1.0", "55530000") + "," +
                   entry_json("VR100", "1.0", "00000001") + "," +
                   entry_json("VR100", "1.0", "55530000") + "]"),
         {"match by support list entry 1 (VR100, 1.0, 00000001)!", kUpgradable}},
        {"flash in list only", file("VR100", "1.0", "55530000", "00000001"), {kRefused}},
        {"flash on device only", fits, {kRefused}, device("VR100", "1.0", "55530000", "00000001")},
        {"empty support list", one_image("[]"), {kRefused}},
        // The walk along the chain of images.
        {"corrupted first header",
         bad_magic,
         {"Invalid magic number.", "Firmware header validate *FAILED*."}},
        {"chain looping back",
         loop,
         {vireo_strf("bad firmware chain: nextpos %u (0x%08x) after image at %u, file size %u.",
                     next, next, next, static_cast<unsigned>(loop.size()))}},
        {"support list outside the file",
         outside,
         {"PTN[support-list] base 0 size 2147483647 lies outside the firmware file (69822 bytes).",
          "support_list of FIRMWARE not found!", kRefused}},
        {"short file",
         short_file,
         {"firmware header truncated, file size is 69695, minimal header size is 69696.",
          "Firmware header validate *FAILED*."}},
        // The device's records.
        {"damaged device-info, good device-info.b",
         fits,
         {"flash[0x00010000] is not a valid partition.",
          "dev_info: device-info.b, model_name: VR100.", kUpgradable},
         garbage},
        {"erased partition table: nothing else is looked at",
         fits,
         {"/dev/mtd1 is not a valid partition.", "Failed to build ptn_table of flash"},
         erased},
    };
    for (const auto &c : cases) {
        raw_device dev(c.ptns);
        reset_integrity_state();
        const std::string path = dir.write("up.bin", std::string(c.file.begin(), c.file.end()));
        const auto before = dev.devices();
        int32_t result = 0;
        const std::string out =
            capture_stdout([&] { result = vireo_firmware_check(path.c_str()); });
        EXPECT_EQ(c.traces.back() == kUpgradable ? 0 : -1, result) << c.what;
        for (const std::string &t : c.traces)
            EXPECT_EQ(1u, count_trace(out, t[0] == '/' ? dev.at(t) : t))
                << c.what << ": " << t << "\n"
                << out;
        const auto traces = trace_messages(out);
        EXPECT_EQ(c.traces.back(), traces.empty() ? "" : traces.back()) << c.what;
        // No byte of the device or of the file changes.
        EXPECT_EQ(before, dev.devices()) << c.what;
        EXPECT_EQ(std::string(c.file.begin(), c.file.end()), read_file(path)) << c.what;
    }
}
