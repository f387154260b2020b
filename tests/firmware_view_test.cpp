// SPDX-License-Identifier: Apache-2.0
// The firmware file held once, in both work modes: a file cut short or rewritten in place
// under an upgrade fails it with the target flagged off, and no command keeps a private copy
// of the file, whatever its size.
#include "pack_fixture.h"
#include "upgrade_roads.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

namespace
{

struct meddled {
    const char *road;
    const char *how; // truncate or flip
    const char *trace;
};

} // namespace

TEST(FileView, AFileChangedUnderTheUpgradeFailsItWithTheTargetOff)
{
    // Changed once the signature is verified, before the target's flag goes off: cut to
    // half its size, or one byte near its end (inside the last content) inverted.
    const meddled cases[] = {
        {"raw", "truncate", "firmware file '{file}' was cut short while it was read."},
        {"raw", "flip", "firmware file changed at 0x"},
        {"ubi", "truncate", "firmware file '{file}' was cut short while it was read."},
        {"ubi", "flip", "firmware file changed at 0x"},
    };
    for (const meddled &c : cases) {
        upgrade_road road = make_upgrade_road(c.road);
        const std::string file = road.device->join("up.bin");
        struct stat st;
        ASSERT_EQ(0, stat(file.c_str(), &st));
        const std::string how = std::string(c.how) + ":" + file + ":" +
                                std::to_string(c.how[0] == 't' ? st.st_size / 2 : st.st_size - 100);
        const run_result r =
            run_road(road, {"VIREO_CUT_AT=0", "VIREO_MEDDLE_AT=2", "VIREO_MEDDLE=" + how});
        const std::string what = std::string(c.road) + " " + c.how;
        EXPECT_EQ(255, r.status) << what << r.out;
        std::string trace = c.trace;
        if (trace.find("{file}") != std::string::npos)
            trace.replace(trace.find("{file}"), 6, file);
        const auto traces = trace_messages(r.out);
        EXPECT_EQ(1, std::count_if(traces.begin(), traces.end(),
                                   [&](const std::string &t) { return t.rfind(trace, 0) == 0; }))
            << what << r.out;
        EXPECT_TRUE(has_trace(r.out, "Failed to upgrade firmware into this device.")) << what;
        const std::string off = road.name == "raw" ? flag_doc(false, 1) : flag_doc(false, 1) + '\0';
        EXPECT_EQ(off, content_of(road.device->bytes(road.flag))) << what;
    }
}

TEST(FileView, PrivateMemoryStaysSmallWhateverTheFileSize)
{
    if (VIREO_SANITIZED)
        GTEST_SKIP() << "the sanitizers' shadow memory is private memory too";
    if (VIREO_EMULATED)
        GTEST_SKIP() << "the emulator's translation buffers are the tool's private memory too";
    const size_t content = 24 << 20;
    const std::string kernel = pattern(content, 41);
    // Raw flash: a kernel partition that takes the content.
    std::vector<raw_ptn> ptns = with_records({{"kernel", 0x50000, 0x1900000, ""}});
    raw_device raw(ptns, 0x1A00000);
    install_stand_ins(raw);
    pack_images(raw, {{kFits, table_json(ptns, 0x1A00000), "", {{"kernel", kernel}}}});
    // UBI: a backup kernel volume that takes it.
    upgrade_road ubi = make_upgrade_road("ubi");
    ubi.device->ubi_volume(0, 7, "kernel.b", std::string(content + 0x10000, '\xff'));
    const std::string record = with_content_header(fwinfo_json("1.4.1 Build 1 Rel.1"));
    pack_images(*ubi.device,
                {{kFits, "", "", {{"firmware-info.b", record}, {"kernel.b", kernel}}}});
    struct stat st;
    ASSERT_EQ(0, stat(raw.join("up.bin").c_str(), &st));
    // The seals: 8 bytes for each 4 KiB of the file.
    const long budget = 4096 + static_cast<long>(st.st_size / 4096 * 8 / 1024);
    const struct {
        const fake_root &dev;
        std::vector<std::string> args;
    } commands[] = {
        {raw, {"-C", "-u", raw.join("up.bin")}},
        {raw, {"-U", "-u", raw.join("up.bin")}},
        {*ubi.device, {"-C", "-w", "ubi", "-u", ubi.device->join("up.bin")}},
        {*ubi.device, {"-U", "-w", "ubi", "-u", ubi.device->join("up.bin")}},
    };
    for (const auto &c : commands) {
        std::vector<std::string> args = {c.dev.path};
        args.insert(args.end(), c.args.begin(), c.args.end());
        const run_result r = run_program(VIREO_FAKE_ROOT_TOOL, args, tool_env(c.dev), true);
        EXPECT_EQ(0, r.status) << c.args[0] << r.out;
        EXPECT_GT(r.peak_anon_kb, 0) << "the run was watched";
        EXPECT_LE(r.peak_anon_kb, budget) << c.args[0] << " " << c.args[1];
    }
    EXPECT_EQ(padded(kernel, 0x1900000), raw.bytes("/dev/mtd6"));
    EXPECT_EQ(padded(kernel, content + 0x10000), ubi.device->bytes("/dev/ubi0_7"));
}
