// The UBI library on a fake sysfs tree: its interface version, and how it tells UBI
// device and volume nodes from anything else.
#include "ubi/vireo_libubi.h"

#include "common/vireo_file.h"
#include "fake_root.h"

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
    EXPECT_EQ(2, info.dev_count);
    EXPECT_EQ(0, info.lowest_dev_num);
    EXPECT_EQ(2, info.highest_dev_num);
    EXPECT_EQ(1, info.version);
    EXPECT_EQ(-1, info.ctrl_major) << "a missing control device reads as -1";

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
