#include "common/vireo_file.h"

#include "test_util.h"

#include <gtest/gtest.h>

namespace
{

const uint8_t *bytes(const std::string &s)
{
    return reinterpret_cast<const uint8_t *>(s.data());
}

} // namespace

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
