// SPDX-License-Identifier: Apache-2.0
// The UBI library on a fake tree: its interface version, how it tells UBI device and volume
// nodes from anything else, and the volume write that refuses anything but a volume node.
#include "ubi/vireo_libubi.h"

#include "common/vireo_file.h"
#include "fake_root.h"
#include "test_util.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <memory>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace
{

using lib_ptr = std::unique_ptr<libubi, decltype(&libubi_close)>;

// A character device node under the root; false when nodes cannot be made here.
bool node(const fake_root &root, const std::string &rel, int major, int minor)
{
    unlink(root.write(rel, "").c_str());
    return mknod(root.join(rel).c_str(), S_IFCHR | 0600, makedev(major, minor)) == 0;
}

lib_ptr open_lib(std::string *err)
{
    libubi_t lib = nullptr;
    *err = capture_stderr([&] { lib = libubi_open(); });
    return lib_ptr(lib, libubi_close);
}

// The trace of a write of four bytes to path, which must fail before writing any.
std::string failed_write(const std::string &path)
{
    const uint8_t data[4] = {1, 2, 3, 4};
    uint32_t written = 0;
    std::string out;
    capture_stderr([&] {
        out = capture_stdout(
            [&] { EXPECT_EQ(-1, vireo_ubi_write(path.c_str(), data, 4, &written)); });
    });
    EXPECT_EQ(0u, written);
    return out;
}

} // namespace

TEST(LibUbi, OpensOnlyOnInterfaceVersionOne)
{
    std::string err;
    {
        fake_root no_class;
        errno = EINVAL;
        EXPECT_FALSE(open_lib(&err));
        EXPECT_EQ(0, errno) << "no UBI at all is no error";
        EXPECT_EQ("", err);
        EXPECT_TRUE(has_trace(failed_write("/dev/null"), "UBI is not present in the system"));
    }
    fake_root root;
    const std::string version = root.at("/sys/class/ubi/version");
    const struct {
        std::string text, err;
    } cases[] = {
        {"1\n", ""},
        {"2\n", "libubi: error!: this library was made for UBI version 1, but UBI version 2 is "
                "detected\n\n"},
        {"x\n", "libubi: error!: cannot read integer from \"" + version + "\"\n\n"},
    };
    for (const auto &c : cases) {
        root.write("sys/class/ubi/version", c.text);
        EXPECT_EQ(c.err.empty(), static_cast<bool>(open_lib(&err))) << c.text;
        EXPECT_EQ(c.err, err);
    }
    EXPECT_EQ(std::vector<std::string>{"cannot open libubi"},
              trace_messages(failed_write("/dev/null")));
}

TEST(LibUbi, ProbeTellsVolumeNodesFromAnythingElseAndOnlyVolumesAreWritten)
{
    fake_root root;
    if (!node(root, "dev/ubi0", 250, 0) || !node(root, "dev/ubi0_3", 250, 4) ||
        !node(root, "dev/mtdblock0", 31, 0))
        GTEST_SKIP() << "cannot make device nodes here";
    root.write("sys/class/ubi/version", "1\n");
    root.write("sys/class/ubi/ubi0/dev", "250:0\n");
    // /dev/null (1:3) stands for volume 2 of a device whose major is 1.
    root.write("sys/class/ubi/ubi1/dev", "1:0\n");
    root.write("sys/class/ubi/ubi1_2/name", "vol\n");
    root.write("sys/class/ubi/ubi3/dev", "251:0\n"); // ubi2 is absent: the scan skips it
    const std::string file = root.write("dev/file", "x"), none = root.join("dev/none");
    const std::string device = root.join("dev/ubi0"), no_vol = root.join("dev/ubi0_3");
    const auto unknown = [&](const std::string &node, const char *numbers) {
        return "libubi: error!: \"" + node + "\" has major:minor " + numbers +
               ", but this does not correspond to any existing UBI device or volume\n";
    };
    const struct {
        std::string node;
        int result, error;
        std::string err, write; // what a write traces last; empty: not tried
    } cases[] = {
        {device, 1, 0, "", "\"" + device + "\" is an UBI device node, not an UBI volume node"},
        {"/dev/null", 2, 0, "", "cannot start volume \"/dev/null\" update"},
        {no_vol, -1, ENODEV, unknown(no_vol, "250:4"), // volume 3 has no directory
         "\"" + no_vol + "\" is not an UBI volume node"},
        {root.join("dev/mtdblock0"), -1, ENODEV, unknown(root.join("dev/mtdblock0"), "31:0"), ""},
        {file, -1, EINVAL, "libubi: error!: \"" + file + "\" is not a character device\n",
         "error while probing \"" + file + "\""},
        {none, -1, ENOENT,
         "libubi: error!: cannot get information about \"" + none +
             "\"\n        error 2 (No such file or directory)\n",
         ""},
    };
    std::string err;
    lib_ptr lib = open_lib(&err);
    ASSERT_TRUE(lib);
    for (const auto &c : cases) {
        int r = 0;
        errno = 0;
        err = capture_stderr([&] { r = ubi_probe_node(lib.get(), c.node.c_str()); });
        EXPECT_EQ(c.result, r) << c.node;
        EXPECT_EQ(c.error, r < 0 ? errno : 0) << c.node;
        EXPECT_EQ(c.err, err);
        EXPECT_TRUE(c.write.empty() || has_trace(failed_write(c.node), c.write)) << c.node;
    }
}
