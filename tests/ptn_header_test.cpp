#include "ptn/vireo_ptn_header.h"

#include "test_util.h"

#include <gtest/gtest.h>
#include <vector>

namespace
{

std::vector<uint8_t> header_bytes(uint32_t length, uint32_t checksum = 0)
{
    std::vector<uint8_t> b = {0xAA, 0x55, 0xD9, 0x8F, 0x04, 0xE9, 0x55, 0xAA};
    for (uint32_t w : {length, checksum})
        for (int s = 24; s >= 0; s -= 8)
            b.push_back(static_cast<uint8_t>(w >> s));
    return b;
}

} // namespace

TEST(PtnHeader, ContentOfFiveBytesNeedsTwentyOneByteBuffer)
{
    std::vector<uint8_t> buf = header_bytes(5);
    buf.resize(21, 'x');
    int32_t offset = -1, length = -1;
    std::string out = capture_stdout([&] {
        EXPECT_EQ(1, vireo_ptn_header_verify(buf.data(), 21));
        EXPECT_EQ(1, vireo_ptn_header_get_content_pos(buf.data(), 21, &offset, &length));
    });
    EXPECT_EQ(16, offset);
    EXPECT_EQ(5, length);
    EXPECT_NE(std::string::npos, out.find("magic_0     0xaa55d98f\n"
                                          "magic_1     0x04e955aa\n"
                                          "length      0x00000005 (5)\n"
                                          "checksum    0x00000000\n"));

    out = capture_stdout([&] {
        EXPECT_EQ(0, vireo_ptn_header_verify(buf.data(), 20));
        EXPECT_EQ(0, vireo_ptn_header_get_content_pos(buf.data(), 20, &offset, &length));
    });
    const auto msgs = trace_messages(out);
    ASSERT_EQ(2u, msgs.size());
    EXPECT_EQ("content[5]+header[16] > bufsize[20]", msgs[0]);
    EXPECT_EQ(msgs[0], msgs[1]);
}

TEST(PtnHeader, NonZeroChecksumIsReportedButAccepted)
{
    std::vector<uint8_t> buf = header_bytes(0, 1);
    std::string out =
        capture_stdout([&] { EXPECT_EQ(1, vireo_ptn_header_verify(buf.data(), 16)); });
    EXPECT_TRUE(has_trace(out, "Invalid checksum(0x00000001), skip it for NOW."));
}

TEST(PtnHeader, RejectsShortBufferBeforeAnyDump)
{
    std::vector<uint8_t> buf = header_bytes(0);
    int32_t offset, length;
    std::string out = capture_stdout([&] {
        EXPECT_EQ(0, vireo_ptn_header_verify(buf.data(), 15));
        EXPECT_EQ(0, vireo_ptn_header_get_content_pos(buf.data(), 15, &offset, &length));
        EXPECT_EQ(0, vireo_ptn_header_get_content_pos(buf.data(), 16, nullptr, &length));
    });
    EXPECT_EQ(std::string::npos, out.find("magic_0")) << out;
    EXPECT_EQ(3u, trace_messages(out).size());
}

TEST(PtnHeader, RejectsLittleEndianMagic)
{
    std::vector<uint8_t> buf = {0x8F, 0xD9, 0x55, 0xAA, 0xAA, 0x55, 0xE9, 0x04,
                                0,    0,    0,    0,    0,    0,    0,    0};
    int32_t offset, length;
    std::string out = capture_stdout([&] {
        EXPECT_EQ(0, vireo_ptn_header_verify(buf.data(), 16));
        EXPECT_EQ(0, vireo_ptn_header_get_content_pos(buf.data(), 16, &offset, &length));
    });
    EXPECT_TRUE(has_trace(out, "Magic unmatch.magic_0[0x8fd955aa],magic_1[0xaa55e904]"));
    EXPECT_TRUE(has_trace(out, "Magic unmatch."));
}

TEST(PtnHeader, LengthNearFourGigabytesDoesNotWrap)
{
    // 0xFFFFFFF0 + 16 wraps to 0 in 32 bits, which would pass a 32-bit comparison.
    std::vector<uint8_t> buf = header_bytes(0xFFFFFFF0u);
    buf.resize(64);
    std::string out =
        capture_stdout([&] { EXPECT_EQ(0, vireo_ptn_header_verify(buf.data(), 64)); });
    EXPECT_TRUE(has_trace(out, "content[4294967280]+header[16] > bufsize[64]"));
}

TEST(PtnHeader, AddWritesBigEndianHeader)
{
    std::vector<uint8_t> buf(32, 0xEE);
    EXPECT_EQ(16, vireo_ptn_header_add(buf.data(), 16, buf.data() + 16, 0));
    EXPECT_EQ(header_bytes(0), std::vector<uint8_t>(buf.begin(), buf.begin() + 16));
    EXPECT_EQ(16, vireo_ptn_header_add(buf.data(), 32, buf.data() + 16, 0x01020304));
    EXPECT_EQ(header_bytes(0x01020304), std::vector<uint8_t>(buf.begin(), buf.begin() + 16));

    std::vector<uint8_t> untouched(32, 0xEE);
    std::string out = capture_stdout([&] {
        EXPECT_EQ(-1, vireo_ptn_header_add(untouched.data(), 32, untouched.data(), -1));
        EXPECT_EQ(-1, vireo_ptn_header_add(untouched.data(), 15, untouched.data(), 1));
    });
    EXPECT_EQ(std::vector<uint8_t>(32, 0xEE), untouched);
    EXPECT_TRUE(has_trace(out, "Invlaid contenct_size(-1)"));
}
