#include "common/vireo_device.h"

#include "fake_root.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

TEST(DeviceLookup, MtdIndexByName)
{
    fake_root root;
    for (int i = 0; i < 10; i++)
        root.mtd(i, i == 7 ? "device-info" : "p" + std::to_string(i));
    // An unreadable name file at index 8 would end the search with -1 if it were read.
    remove(root.join("sys/class/mtd/mtd8/name").c_str());
    mkdir(root.join("sys/class/mtd/mtd8/name").c_str(), 0755);
    EXPECT_EQ(7, get_mtd_index_by_name("device-info"));
    EXPECT_EQ(-1, get_mtd_index_by_name("p9")) << "nothing is found past it";
    // A name file without its newline matches; letter case counts; the name is whole.
    root.write("sys/class/mtd/mtd0/name", "firmware-info");
    EXPECT_EQ(0, get_mtd_index_by_name("firmware-info"));
    EXPECT_EQ(-1, get_mtd_index_by_name("Firmware-info"));
    EXPECT_EQ(-1, get_mtd_index_by_name("firmware-inf"));
    // Only 31 characters are read: a 32-character name never matches, and its file
    // matches the 31-character prefix.
    const std::string n32(32, 'n');
    root.mtd(1, n32);
    EXPECT_EQ(-1, get_mtd_index_by_name(n32.c_str()));
    EXPECT_EQ(1, get_mtd_index_by_name(n32.substr(0, 31).c_str()));
}

TEST(DeviceLookup, GapInIndexesHidesLaterOnes)
{
    fake_root root;
    root.mtd(0, "x");
    root.mtd(2, "z");
    EXPECT_EQ(-1, get_mtd_index_by_name("z"));
    root.ubi_volume(0, 0, "a");
    root.ubi_volume(0, 1, "b");
    root.ubi_volume(0, 3, "d");
    EXPECT_EQ(1, get_ubi_volume_index_by_name(0, "b"));
    EXPECT_EQ(-1, get_ubi_volume_index_by_name(0, "d"));
    EXPECT_EQ(-1, get_ubi_volume_index_by_name(1, "a"));
}

TEST(DeviceLookup, PathBuildersPreferVolumesOverMtdPartitions)
{
    fake_root root;
    for (int v = 0; v < 4; v++)
        root.ubi_volume(0, v, v == 3 ? "firmware-info" : "v" + std::to_string(v));
    root.mtd(0, "firmware-info");
    root.mtd(1, "log");
    char buf[256] = "unchanged";
    std::string out = capture_stdout([&] {
        EXPECT_EQ(0, vireo_get_mtdpath_by_partition_name("log", buf));
        EXPECT_EQ(root.at("/dev/mtd1"), buf);
        EXPECT_EQ(-1, vireo_get_mtdpath_by_partition_name("missing", buf));
    });
    EXPECT_EQ(std::vector<std::string>{"No device found."}, trace_messages(out));
    strcpy(buf, "unchanged");
    EXPECT_EQ(0, get_mtdblock_path_by_name("missing", buf, sizeof(buf)));
    EXPECT_STREQ("unchanged", buf);
    const std::string block = root.at("/dev/mtdblock1");
    EXPECT_EQ(static_cast<int>(block.size()), get_mtdblock_path_by_name("log", buf, sizeof(buf)));
    EXPECT_EQ(block, buf);

    ASSERT_GT(get_ptn_path_by_name(0, "firmware-info", buf, sizeof(buf)), 0);
    EXPECT_EQ(root.at("/dev/ubi0_3"), buf);
    EXPECT_TRUE(is_ubi_volume_path(buf));
    ASSERT_GT(get_ptn_path_by_name(0, "log", buf, sizeof(buf)), 0);
    EXPECT_EQ(block, buf);
    EXPECT_FALSE(is_ubi_volume_path(buf));
    EXPECT_EQ(0, get_ptn_path_by_name(0, "none", buf, sizeof(buf)));
    EXPECT_TRUE(ptn_paths_exist(0, "firmware-info", "log"));
    EXPECT_FALSE(ptn_paths_exist(0, "firmware-info", "log.b"));
    EXPECT_FALSE(ptn_paths_exist(0, "log.b", "log"));
    EXPECT_TRUE(is_ubi_volume_path("/dev/ubiblock0_1"));
    EXPECT_FALSE(is_ubi_volume_path("/dev/ub"));
}
