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
        write(rel, "");
        unlink(join(rel).c_str());
        return mknod(join(rel).c_str(), S_IFCHR | 0600, makedev(major, minor)) == 0;
    }
};

lib_ptr open_lib(std::string *err)
{
    libubi_t lib = nullptr;
    *err = capture_stderr([&] { lib = libubi_open(); });
    return lib_ptr(lib, libubi_close);
}

} // namespace

TEST(LibUbi, MissingClassDirectoryMeansNoUbiSilently)
{
    fake_root root;
    std::string err;
    errno = EINVAL;
    lib_ptr lib = open_lib(&err);
    EXPECT_FALSE(lib);
    EXPECT_EQ(0, errno);
    EXPECT_EQ("", err);
}

TEST(LibUbi, AcceptsOnlyInterfaceVersionOne)
{
    ubi_tree root;
    std::string err;
    EXPECT_TRUE(open_lib(&err));
    EXPECT_EQ("", err);

    root.write("sys/class/ubi/version", "2\n");
    EXPECT_FALSE(open_lib(&err));
    EXPECT_EQ("libubi: error!: this library was made for UBI version 1, but UBI version 2 is "
              "detected\n\n",
              err);

    root.write("sys/class/ubi/version", std::string(50, '1'));
    EXPECT_FALSE(open_lib(&err));
    EXPECT_EQ("libubi: error!: contents of \"" + root.at("/sys/class/ubi/version") +
                  "\" is too long\n",
              err);

    root.write("sys/class/ubi/version", "x\n");
    EXPECT_FALSE(open_lib(&err));
    EXPECT_EQ("libubi: error!: cannot read integer from \"" + root.at("/sys/class/ubi/version") +
                  "\"\n\n",
              err);
}

TEST(LibUbi, ProbeRejectsRegularAndMissingNodes)
{
    ubi_tree root;
    std::string err;
    lib_ptr lib = open_lib(&err);
    ASSERT_TRUE(lib);
    const std::string file = root.write("dev/file", "x");
    errno = 0;
    err = capture_stderr([&] { EXPECT_EQ(-1, ubi_probe_node(lib.get(), file.c_str())); });
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ("libubi: error!: \"" + file + "\" is not a character device\n", err);

    const std::string missing = root.join("dev/none");
    err = capture_stderr([&] { EXPECT_EQ(-1, ubi_probe_node(lib.get(), missing.c_str())); });
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ("libubi: error!: cannot get information about \"" + missing +
                  "\"\n        error 2 (No such file or directory)\n",
              err);
}

TEST(LibUbi, ProbeClassifiesDeviceAndVolumeNodes)
{
    ubi_tree root;
    if (!root.node("dev/ubi0", 250, 0) || !root.node("dev/ubi0_3", 250, 4) ||
        !root.node("dev/ubi2_0", 251, 1) || !root.node("dev/mtdblock0", 31, 0))
        GTEST_SKIP() << "cannot make device nodes here";
    root.device(0, "250:0\n");
    root.device(2, "251:0\n"); // ubi1 is absent: the scan skips it
    root.write("sys/class/ubi/ubi2_0/name", "rootfs\n");
    std::string err;
    lib_ptr lib = open_lib(&err);
    ASSERT_TRUE(lib);

    EXPECT_EQ(1, ubi_probe_node(lib.get(), root.join("dev/ubi0").c_str()));
    EXPECT_EQ(2, ubi_probe_node(lib.get(), root.join("dev/ubi2_0").c_str()));
    err = capture_stderr(
        [&] { EXPECT_EQ(-1, ubi_probe_node(lib.get(), root.join("dev/ubi0_3").c_str())); });
    EXPECT_EQ(ENODEV, errno) << "volume 3 has no directory";
    EXPECT_EQ("libubi: error!: \"" + root.join("dev/ubi0_3") +
                  "\" has major:minor 250:4, but this does not correspond to any existing UBI "
                  "device or volume\n",
              err);
    root.write("sys/class/ubi/ubi0_3/name", "data\n");
    EXPECT_EQ(2, ubi_probe_node(lib.get(), root.join("dev/ubi0_3").c_str()));

    err = capture_stderr(
        [&] { EXPECT_EQ(-1, ubi_probe_node(lib.get(), root.join("dev/mtdblock0").c_str())); });
    EXPECT_EQ(ENODEV, errno);

    ubi_info info;
    ASSERT_EQ(0, ubi_get_info(lib.get(), &info));
    EXPECT_EQ(2, info.dev_count);
    EXPECT_EQ(0, info.lowest_dev_num);
    EXPECT_EQ(2, info.highest_dev_num);
    EXPECT_EQ(1, info.version);
    EXPECT_EQ(-1, info.ctrl_major) << "a missing control device reads as -1";
}

TEST(LibUbi, MalformedDevFileIsReported)
{
    ubi_tree root;
    if (!root.node("dev/ubi0", 250, 0))
        GTEST_SKIP() << "cannot make device nodes here";
    root.device(0, "250\n");
    std::string err;
    lib_ptr lib = open_lib(&err);
    ASSERT_TRUE(lib);
    err = capture_stderr(
        [&] { EXPECT_EQ(-1, ubi_probe_node(lib.get(), root.join("dev/ubi0").c_str())); });
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ("libubi: error!: \"" + root.at("/sys/class/ubi/ubi0/dev") +
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

    std::string out = capture_stdout(
        [&] { EXPECT_EQ(-1, vireo_ubi_write(root.join("dev/ubi0").c_str(), data, 4, &written)); });
    EXPECT_TRUE(has_trace(out, "\"" + root.join("dev/ubi0") +
                                   "\" is an UBI device node, not an UBI volume node"));

    out = capture_stdout([&] { EXPECT_EQ(-1, vireo_ubi_write("/dev/null", data, 4, &written)); });
    EXPECT_TRUE(has_trace(out, "cannot start volume \"/dev/null\" update")) << out;
    EXPECT_EQ(0u, written);

    const std::string file = root.write("dev/plain", "x");
    out = capture_stdout([&] {
        capture_stderr([&] { EXPECT_EQ(-1, vireo_ubi_write(file.c_str(), data, 4, &written)); });
    });
    EXPECT_TRUE(has_trace(out, "error while probing \"" + file + "\""));

    root.write("sys/class/ubi/version", "2\n");
    out = capture_stdout([&] {
        capture_stderr([&] { EXPECT_EQ(-1, vireo_ubi_write("/dev/null", data, 4, &written)); });
    });
    EXPECT_TRUE(has_trace(out, "cannot open libubi"));
    EXPECT_FALSE(has_trace(out, "UBI is not present in the system"));
}
