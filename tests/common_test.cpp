// SPDX-License-Identifier: Apache-2.0
// The common module: JSON, device lookups by name (under the platform
// root the fake trees set) and the file helpers.
#include "common/vireo_common.h"
#include "common/vireo_device.h"
#include "common/vireo_file.h"

#include "fake_root.h"
#include "test_util.h"

#include <gtest/gtest.h>

TEST(ParseJsonData, ParsesOnlyTheGivenBytes)
{
    const char text[] = "{\"a\":\"b\"}garbage that is not json";
    cjson_ptr tree(quietly([&] { return vireo_parse_json_data(text, 9); }), cJSON_Delete);
    ASSERT_TRUE(tree);
    EXPECT_STREQ("b", cJSON_GetObjectItem(tree.get(), "a")->valuestring);
}

TEST(DeviceLookup, IndexByNameUpToTheFirstMissingIndex)
{
    fake_root root;
    for (int i : {0, 1, 3}) {
        root.mtd(i, "p" + std::to_string(i));
        root.ubi_volume(1, i, "p" + std::to_string(i));
    }
    EXPECT_EQ(1, get_mtd_index_by_name("p1"));
    EXPECT_EQ(1, get_ubi_volume_index_by_name(1, "p1"));
    EXPECT_EQ(-1, get_ubi_volume_index_by_name(0, "p1")) << "on another device";
    EXPECT_EQ(-1, get_mtd_index_by_name("p3"));
    EXPECT_EQ(-1, get_ubi_volume_index_by_name(1, "p3"));
    // A name file without its newline matches; letter case counts; the name is whole.
    root.write("sys/class/mtd/mtd0/name", "firmware-info");
    EXPECT_EQ(0, get_mtd_index_by_name("firmware-info"));
    EXPECT_EQ(-1, get_mtd_index_by_name("Firmware-info"));
    EXPECT_EQ(-1, get_mtd_index_by_name("firmware-inf"));
}

TEST(DeviceLookup, PathBuildersPreferVolumesOverMtdPartitions)
{
    fake_root root;
    for (int v = 0; v < 4; v++)
        root.ubi_volume(0, v, v == 3 ? "firmware-info" : "v" + std::to_string(v));
    root.mtd(0, "firmware-info");
    root.mtd(1, "log");
    char buf[256];
    const std::string volume = root.at("/dev/ubi0_3"), block = root.at("/dev/mtdblock1");
    for (const auto &[name, path] : {std::pair<const char *, std::string>{"firmware-info", volume},
                                     {"log", block},
                                     {"none", ""}}) {
        strcpy(buf, "");
        EXPECT_EQ(static_cast<int>(path.size()), get_ptn_path_by_name(0, name, buf, sizeof(buf)));
        EXPECT_EQ(path, buf);
        EXPECT_EQ(path == volume, is_ubi_volume_path(buf)) << name;
    }
    EXPECT_TRUE(ptn_paths_exist(0, "firmware-info", "log"));
    EXPECT_FALSE(ptn_paths_exist(0, "firmware-info", "log.b"));
    EXPECT_FALSE(is_ubi_volume_path("/dev/ub"));
}

TEST(FileIo, ReadsStayInsideTheFile)
{
    temp_dir dir;
    const std::string content = pattern(100, 1), path = dir.write("f", content);
    std::vector<uint8_t> buf(300, 0);
    uint32_t got = 0;
    const std::string out = capture_stdout([&] {
        for (int32_t offset : {100, -1})
            EXPECT_EQ(-1, vireo_file_read_by_offset(path.c_str(), offset, buf.data(), 10, &got));
    });
    EXPECT_TRUE(has_trace(out, "[" + path + "]offset[-1] > file_size[100]!"));
    EXPECT_EQ(0, vireo_file_read_by_offset(path.c_str(), 99, buf.data(), 10, &got));
    EXPECT_EQ(content.substr(99), std::string(buf.begin(), buf.begin() + got));
}

TEST(FileIo, WritesStayInsideTheFile)
{
    temp_dir dir;
    const std::string original = pattern(64, 2), path = dir.write("f", original);
    const std::string data = pattern(100, 4);
    const auto *bytes = reinterpret_cast<const uint8_t *>(data.data());
    uint32_t wrote = 0;
    const std::string out = capture_stdout([&] {
        for (const auto &[at, len] :
             {std::pair<int32_t, int32_t>{0, 65}, {1, 64}, {64, 1}, {-1, 1}}) {
            EXPECT_EQ(-1, vireo_file_write_by_offset(path.c_str(), at, bytes, len, &wrote));
            EXPECT_EQ(-1, vireo_file_write_by_offset_block_mode(path.c_str(), at, bytes, len, 32,
                                                                &wrote));
        }
        // Ends exactly at the end: accepted, but the padded last unit does not fit.
        EXPECT_EQ(-1,
                  vireo_file_write_by_offset_block_mode(path.c_str(), 40, bytes, 24, 32, &wrote));
    });
    EXPECT_TRUE(has_trace(out, "write overflow offset=1 buf_size=64 file=64"));
    EXPECT_TRUE(has_trace(out, "Invlaid offset(64)."));
    EXPECT_NE(std::string::npos, out.find("ERROR write(24) return 24.")) << out;
    EXPECT_EQ(original.substr(0, 40), read_file(path).substr(0, 40)) << "nothing refused lands";
    EXPECT_EQ(64u, read_file(path).size()) << "the target never grows";
    EXPECT_EQ(0u, wrote);
    EXPECT_EQ(0, vireo_file_write_by_offset(path.c_str(), 0, bytes, 64, &wrote));
    EXPECT_EQ(64u, wrote);
    EXPECT_EQ(data.substr(0, 64), read_file(path));
}
