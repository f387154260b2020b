// The UBI module on a fake tree. The library: its interface version, and how it tells UBI
// device and volume nodes from anything else. The scores and boot flags of the two images:
// which image an upgrade switches off and on, and what each flag volume holds afterwards;
// the flag volumes are MTD partitions of the same names here, as the lookups fall back to
// them when no UBI volume has the name.
#include "ubi/vireo_libubi.h"
#include "ubi/vireo_ubi_flags.h"

#include "common/vireo_file.h"
#include "raw_device.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <memory>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace
{

using lib_ptr = std::unique_ptr<libubi, decltype(&libubi_close)>;

struct ubi_tree : fake_root {
    ubi_tree()
    {
        write("sys/class/ubi/version", "1\n");
    }
    void device(int n, const std::string &dev)
    {
        write("sys/class/ubi/ubi" + std::to_string(n) + "/dev", dev);
    }
    // A character device node under the root; false when nodes cannot be made here.
    bool node(const std::string &rel, int major, int minor)
    {
        unlink(write(rel, "").c_str());
        return mknod(join(rel).c_str(), S_IFCHR | 0600, makedev(major, minor)) == 0;
    }
    // ubi_probe_node on a node below the root; its standard error lands in *err.
    int probe(libubi *lib, const std::string &rel, std::string *err = nullptr)
    {
        int r = 0;
        const std::string text =
            capture_stderr([&] { r = ubi_probe_node(lib, join(rel).c_str()); });
        if (err)
            *err = text;
        return r;
    }
};

lib_ptr open_lib(std::string *err)
{
    libubi_t lib = nullptr;
    *err = capture_stderr([&] { lib = libubi_open(); });
    return lib_ptr(lib, libubi_close);
}

// A volume holding a record with the given score, or erased (no record) when none.
std::string volume(const int *score)
{
    return score ? with_content_header(flag_doc(true, *score) + '\0') : std::string();
}

} // namespace

TEST(LibUbi, OpensOnlyOnInterfaceVersionOne)
{
    {
        fake_root no_class;
        std::string err;
        errno = EINVAL;
        EXPECT_FALSE(open_lib(&err));
        EXPECT_EQ(0, errno) << "no UBI at all is no error";
        EXPECT_EQ("", err);
    }
    ubi_tree root;
    const std::string version = root.at("/sys/class/ubi/version");
    const struct {
        std::string text, err;
    } cases[] = {
        {"1\n", ""},
        {"2\n", "libubi: error!: this library was made for UBI version 1, but UBI version 2 is "
                "detected\n\n"},
        {std::string(50, '1'), "libubi: error!: contents of \"" + version + "\" is too long\n"},
        {"x\n", "libubi: error!: cannot read integer from \"" + version + "\"\n\n"},
    };
    for (const auto &c : cases) {
        root.write("sys/class/ubi/version", c.text);
        std::string err;
        EXPECT_EQ(c.err.empty(), static_cast<bool>(open_lib(&err))) << c.text;
        EXPECT_EQ(c.err, err);
    }
}

TEST(LibUbi, ProbeTellsDeviceAndVolumeNodesFromAnythingElse)
{
    ubi_tree root;
    if (!root.node("dev/ubi0", 250, 0) || !root.node("dev/ubi0_3", 250, 4) ||
        !root.node("dev/ubi2_0", 251, 1) || !root.node("dev/mtdblock0", 31, 0) ||
        !root.node("dev/ubi5", 252, 0))
        GTEST_SKIP() << "cannot make device nodes here";
    root.device(0, "250:0\n");
    root.device(2, "251:0\n"); // ubi1 is absent: the scan skips it
    root.write("sys/class/ubi/ubi2_0/name", "rootfs\n");
    root.write("dev/file", "x");
    std::string err;
    lib_ptr lib = open_lib(&err);
    ASSERT_TRUE(lib);
    const auto unknown = [&](const std::string &node, const char *numbers) {
        return "libubi: error!: \"" + root.join(node) + "\" has major:minor " + numbers +
               ", but this does not correspond to any existing UBI device or volume\n";
    };
    const struct {
        std::string node;
        int result, error;
        std::string err;
    } cases[] = {
        {"dev/ubi0", 1, 0, ""},
        {"dev/ubi2_0", 2, 0, ""},
        {"dev/ubi0_3", -1, ENODEV, unknown("dev/ubi0_3", "250:4")}, // volume 3 has no directory
        {"dev/mtdblock0", -1, ENODEV, unknown("dev/mtdblock0", "31:0")},
        {"dev/file", -1, EINVAL,
         "libubi: error!: \"" + root.join("dev/file") + "\" is not a character device\n"},
        {"dev/none", -1, ENOENT,
         "libubi: error!: cannot get information about \"" + root.join("dev/none") +
             "\"\n        error 2 (No such file or directory)\n"},
    };
    for (const auto &c : cases) {
        errno = 0;
        EXPECT_EQ(c.result, root.probe(lib.get(), c.node, &err)) << c.node;
        EXPECT_EQ(c.error, c.result < 0 ? errno : 0) << c.node;
        EXPECT_EQ(c.err, err);
    }
    root.write("sys/class/ubi/ubi0_3/name", "data\n");
    EXPECT_EQ(2, root.probe(lib.get(), "dev/ubi0_3"));

    ubi_info info;
    ASSERT_EQ(0, ubi_get_info(lib.get(), &info));
    // Devices 0 and 2, interface version 1; a missing control device reads as major -1.
    EXPECT_EQ((std::vector<int>{2, 0, 2, 1, -1}),
              (std::vector<int>{info.dev_count, info.lowest_dev_num, info.highest_dev_num,
                                info.version, info.ctrl_major}));

    root.device(5, "252\n");
    EXPECT_EQ(-1, root.probe(lib.get(), "dev/ubi5", &err));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ("libubi: error!: \"" + root.at("/sys/class/ubi/ubi5/dev") +
                  "\" does not have major:minor format\n",
              err);
}

TEST(UbiWrite, RefusesDeviceNodesAndReportsEachStep)
{
    ubi_tree root;
    if (!root.node("dev/ubi0", 250, 0))
        GTEST_SKIP() << "cannot make device nodes here";
    root.device(0, "250:0\n");
    // /dev/null (1:3) stands for volume 2 of a device whose major is 1.
    root.device(1, "1:0\n");
    root.write("sys/class/ubi/ubi1_2/name", "vol\n");
    const uint8_t data[4] = {1, 2, 3, 4};
    uint32_t written = 0;
    const auto write = [&](const std::string &path) {
        std::string out;
        capture_stderr([&] {
            out = capture_stdout(
                [&] { EXPECT_EQ(-1, vireo_ubi_write(path.c_str(), data, 4, &written)); });
        });
        return out;
    };
    EXPECT_TRUE(has_trace(write(root.join("dev/ubi0")),
                          "\"" + root.join("dev/ubi0") +
                              "\" is an UBI device node, not an UBI volume node"));
    EXPECT_TRUE(has_trace(write("/dev/null"), "cannot start volume \"/dev/null\" update"));
    EXPECT_EQ(0u, written);
    const std::string file = root.write("dev/plain", "x");
    EXPECT_TRUE(has_trace(write(file), "error while probing \"" + file + "\""));
    root.write("sys/class/ubi/version", "2\n");
    const std::string out = write("/dev/null");
    EXPECT_TRUE(has_trace(out, "cannot open libubi"));
    EXPECT_FALSE(has_trace(out, "UBI is not present in the system"));
}

TEST(Flags, TheLowerScoreIsSwitchedOffThenOnAboveBoth)
{
    // Equal scores (the backup is the target) the upgrade of an image with UBI shows.
    const int five = 5, seven = 7, minus = -1, zero = 0;
    struct {
        const char *what;
        const int *primary, *backup; // none: erased
        bool target_primary;
        int off_score, on_score;
    } cases[] = {
        {"5 and 7", &five, &seven, true, 5, 8},
        {"both erased", nullptr, nullptr, false, 0, 1},
        {"signed comparison", &minus, &zero, true, -1, 1},
        {"primary erased", nullptr, &seven, true, 0, 8},
    };
    for (const auto &c : cases) {
        fake_root root;
        root.mtd(0, "extra-para", 0x1000, volume(c.primary));
        root.mtd(1, "extra-para.b", 0x1000, volume(c.backup));
        const std::string target = root.at(c.target_primary ? "/dev/mtd0" : "/dev/mtd1");
        const std::string other = root.at(c.target_primary ? "/dev/mtd1" : "/dev/mtd0");
        const std::string untouched = read_file(other);
        int32_t p = 0, b = 0;
        capture_stdout([&] { EXPECT_EQ(0, vireo_firmware_get_score(0, &p, &b)); });
        EXPECT_EQ(c.primary ? *c.primary : 0, p) << c.what;
        EXPECT_EQ(c.backup ? *c.backup : 0, b) << c.what;

        capture_stdout([&] { EXPECT_EQ(0, vireo_firmware_pre_update(0)); });
        const std::string off = read_file(target);
        EXPECT_EQ(flag_doc(false, c.off_score) + '\0', content_of(off))
            << c.what << ": n + 1 with the NUL";
        const std::string out =
            capture_stdout([&] { EXPECT_EQ(0, vireo_firmware_post_update(0)); });
        EXPECT_EQ(flag_doc(true, c.on_score) + '\0', content_of(read_file(target))) << c.what;
        EXPECT_EQ(untouched, read_file(other)) << c.what;
        EXPECT_EQ(0x1000u, read_file(target).size()) << c.what;
        const size_t behind = 17 + flag_doc(true, c.on_score).size();
        if (!(c.target_primary ? c.primary : c.backup)) {
            EXPECT_EQ(std::string(0x1000 - behind, '\xff'), read_file(target).substr(behind))
                << c.what << ": behind a fresh record the volume stays erased";
        }
        EXPECT_TRUE(has_trace(out, "extra score: primary score[" + std::to_string(p) +
                                       "], backup score[" + std::to_string(c.on_score) + "]"))
            << c.what << out;
    }
}

TEST(Flags, MissingVolumes)
{
    fake_root root;
    root.mtd(0, "extra-para", 0x1000, volume(nullptr));
    std::string out = capture_stdout([] { EXPECT_EQ(0, vireo_firmware_post_update(0)); });
    EXPECT_TRUE(has_trace(out, "PTN[extra-para.b] volume path:")) << out;
    EXPECT_FALSE(has_trace(out, "new on extra:" + flag_doc(true, 1)));
    // Pre-update targets the missing backup: nothing written.
    capture_stdout([] { EXPECT_EQ(0, vireo_firmware_pre_update(0)); });
    EXPECT_EQ(std::string(0x1000, '\xff'), root.bytes("/dev/mtd0"));

    vireo_flag_volume v{};
    capture_stdout(
        [&] { EXPECT_EQ(0, vireo_firmware_get_score_by_extra_para(0, "extra-para.b", &v)); });
    EXPECT_STREQ("", v.path);
    EXPECT_EQ(0, v.score);
    // An erased volume holds no record.
    out = capture_stdout(
        [&] { EXPECT_EQ(-1, vireo_firmware_get_score_by_extra_para(0, "extra-para", &v)); });
    EXPECT_TRUE(has_trace(out, "ubi volume[extra-para] is not a valid partition.[" +
                                   root.at("/dev/mtdblock0") + "]"));
}
