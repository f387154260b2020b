// The common module: traces, JSON and names, device lookups by name (under the platform
// root the fake trees set) and the file helpers.
#include "common/vireo_common.h"
#include "common/vireo_device.h"
#include "common/vireo_file.h"

#include "fake_root.h"

#include <gtest/gtest.h>
#include <regex>
#include <sys/stat.h>

namespace
{
static const char VIREO_MODULE[] = "vireo_common_test";

void viero_ptn_validate()
{
    VIREO_TRACE("PTN[%s] size is 0.\n", "device-info");
}

const uint8_t *bytes(const std::string &s)
{
    return reinterpret_cast<const uint8_t *>(s.data());
}
} // namespace

TEST(Trace, LineHasModuleLineFunctionAndMessage)
{
    const std::string out = capture_stdout([] { viero_ptn_validate(); });
    EXPECT_TRUE(std::regex_match(
        out, std::regex("vireo_common_test:[0-9]+: \\[TRACE\\]viero_ptn_validate\\(\\) \\| "
                        "PTN\\[device-info\\] size is 0\\.\n")))
        << out;
}

TEST(ParseJsonData, ParsesOnlyTheGivenBytes)
{
    const char text[] = "{\"a\":\"b\"}garbage that is not json";
    cjson_ptr tree(nullptr, cJSON_Delete);
    std::string out = capture_stdout([&] { tree.reset(vireo_parse_json_data(text, 9)); });
    ASSERT_TRUE(tree) << out;
    EXPECT_STREQ("b", cJSON_GetObjectItem(tree.get(), "a")->valuestring);
    EXPECT_TRUE(has_trace(out, "json_data:{\"a\":\"b\"}"));
    out = capture_stdout([&] { tree.reset(vireo_parse_json_data(text, 0)); });
    EXPECT_FALSE(tree);
    EXPECT_TRUE(
        has_trace(out, vireo_strf("Failed to parse <%p,0>'", static_cast<const void *>(text))))
        << out;
}

TEST(PtnNameValidate, AcceptsTheNameAlphabetOnly)
{
    for (const char *ok : {"rootfs_data.b", "extra-para", "device-info", "A_b-9.x", ""})
        EXPECT_EQ(1, viero_ptn_name_validate(ok)) << ok;
    for (const char *bad : {"a b", "a/b", "caf\xc3\xa9", "\x80", "tab\t"})
        EXPECT_EQ(0, viero_ptn_name_validate(bad)) << bad;
}

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

TEST(FileIo, SizeWholeReadAndReadByOffset)
{
    temp_dir dir;
    const std::string content = pattern(100, 1), path = dir.write("f", content);
    EXPECT_EQ(100, vireo_file_get_size(path.c_str()));
    EXPECT_EQ(-1, vireo_file_get_size(dir.join("missing").c_str()));
    std::vector<uint8_t> buf(300, 0);
    uint32_t got = 0;
    EXPECT_EQ(0, vireo_file_read(path.c_str(), buf.data(), 300, &got));
    EXPECT_EQ(content, std::string(buf.begin(), buf.begin() + got));
    EXPECT_EQ(-1, vireo_file_read(path.c_str(), buf.data(), 0, &got));
    EXPECT_EQ(-1, vireo_file_read("", buf.data(), 10, &got));

    std::string out = capture_stdout([&] {
        EXPECT_EQ(-1, vireo_file_read_by_offset(path.c_str(), 100, buf.data(), 10, &got));
        EXPECT_EQ(-1, vireo_file_read_by_offset(path.c_str(), -1, buf.data(), 10, &got));
        EXPECT_EQ(-1, vireo_file_read_by_offset(dir.join("none").c_str(), 0, buf.data(), 10, &got));
        EXPECT_EQ(-1, vireo_file_read_by_offset(path.c_str(), 0, buf.data(), 0, &got));
    });
    EXPECT_TRUE(has_trace(out, "[" + path + "]offset[100] > file_size[100]!"));
    EXPECT_TRUE(has_trace(out, "[" + path + "]offset[-1] > file_size[100]!"));
    EXPECT_TRUE(has_trace(out, "[" + dir.join("none") + "]failed to open : 2!"));
    EXPECT_TRUE(has_trace(out, "error parameters!"));
    EXPECT_EQ(0, vireo_file_read_by_offset(path.c_str(), 99, buf.data(), 10, &got));
    EXPECT_EQ(content.substr(99), std::string(buf.begin(), buf.begin() + got));
}

TEST(FileIo, InPlaceWriteStaysInsideTheFile)
{
    temp_dir dir;
    const std::string original = pattern(64, 2), path = dir.write("f", original);
    const std::string data(64, 'Z');
    uint32_t wrote = 0;
    EXPECT_EQ(-1, vireo_file_write_by_offset(path.c_str(), 0, bytes(data), 65, &wrote));
    EXPECT_EQ(-1, vireo_file_write_by_offset(path.c_str(), 1, bytes(data), 64, &wrote));
    EXPECT_EQ(-1, vireo_file_write_by_offset(path.c_str(), 64, bytes(data), 1, &wrote));
    EXPECT_EQ(-1, vireo_file_write_by_offset(path.c_str(), -1, bytes(data), 1, &wrote));
    EXPECT_EQ(-1, vireo_file_write_by_offset(dir.join("new").c_str(), 0, bytes(data), 1, &wrote));
    EXPECT_EQ(original, read_file(path)) << "refused writes change nothing";
    EXPECT_EQ(0u, wrote);
    EXPECT_EQ(0, vireo_file_write_by_offset(path.c_str(), 0, bytes(data), 64, &wrote));
    EXPECT_EQ(64u, wrote);
    EXPECT_EQ(data, read_file(path));
}

TEST(FileIo, BlockModeBoundsAndShortLastUnit)
{
    temp_dir dir;
    const std::string original(4096, '\0'), path = dir.write("mtd", original);
    const std::string data = pattern(5000, 4);
    uint32_t wrote = 0;
    std::string out = capture_stdout([&] {
        EXPECT_EQ(-1, vireo_file_write_by_offset_block_mode(path.c_str(), 1, bytes(data), 4096,
                                                            2048, &wrote));
        EXPECT_EQ(-1, vireo_file_write_by_offset_block_mode(path.c_str(), 4096, bytes(data), 1,
                                                            2048, &wrote));
        EXPECT_EQ(-1,
                  vireo_file_write_by_offset_block_mode(path.c_str(), 0, nullptr, 1, 2048, &wrote));
    });
    EXPECT_TRUE(has_trace(out, "write overflow offset=1 buf_size=4096 file=4096"));
    EXPECT_TRUE(has_trace(out, "Invlaid offset(4096)."));
    EXPECT_TRUE(has_trace(out, "Invalid param"));
    EXPECT_EQ(original, read_file(path));
    // Ends exactly at the end: accepted, but the padded last unit does not fit.
    out = capture_stdout([&] {
        EXPECT_EQ(-1, vireo_file_write_by_offset_block_mode(path.c_str(), 3000, bytes(data), 1096,
                                                            2048, &wrote));
    });
    EXPECT_NE(std::string::npos, out.find("ERROR write(1096) return 1096.")) << out;
    EXPECT_EQ(4096u, read_file(path).size()) << "the target never grows";
    EXPECT_EQ(0u, wrote);
}
