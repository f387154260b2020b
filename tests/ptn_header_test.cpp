#include "ptn/vireo_ptn_header.h"

#include "fake_root.h"

#include <gtest/gtest.h>

namespace
{

struct header_run {
    int32_t verify, content, offset = -1, length = -1;
    std::string out;
};

// Both readers of the header on the first size bytes of buf.
header_run read_header(const std::string &buf, int32_t size)
{
    header_run r{};
    const uint8_t *p = reinterpret_cast<const uint8_t *>(buf.data());
    r.out = capture_stdout([&] {
        r.verify = vireo_ptn_header_verify(p, size);
        r.content = vireo_ptn_header_get_content_pos(p, size, &r.offset, &r.length);
    });
    return r;
}

} // namespace

TEST(PtnHeader, ContentOfFiveBytesNeedsTwentyOneByteBuffer)
{
    const std::string buf = content_header(5) + "xxxxx";
    header_run r = read_header(buf, 21);
    EXPECT_EQ(1, r.verify);
    EXPECT_EQ(1, r.content);
    EXPECT_EQ(16, r.offset);
    EXPECT_EQ(5, r.length);
    EXPECT_NE(std::string::npos, r.out.find("magic_0     0xaa55d98f\n"
                                            "magic_1     0x04e955aa\n"
                                            "length      0x00000005 (5)\n"
                                            "checksum    0x00000000\n"));
    r = read_header(buf, 20);
    EXPECT_EQ(0, r.verify + r.content);
    EXPECT_EQ(std::vector<std::string>(2, "content[5]+header[16] > bufsize[20]"),
              trace_messages(r.out));
}

TEST(PtnHeader, RefusedHeaders)
{
    // A length near 4 GiB must not wrap: 0xFFFFFFF0 + 16 is 0 in 32 bits.
    header_run r = read_header(content_header(0xFFFFFFF0u) + std::string(48, '\0'), 64);
    EXPECT_EQ(0, r.verify + r.content);
    EXPECT_TRUE(has_trace(r.out, "content[4294967280]+header[16] > bufsize[64]"));
    // The magic in little-endian order.
    std::string little = content_header(0);
    for (size_t w = 0; w < 8; w += 4)
        std::reverse(little.begin() + w, little.begin() + w + 4);
    r = read_header(little, 16);
    EXPECT_EQ(0, r.verify + r.content);
    EXPECT_TRUE(has_trace(r.out, "Magic unmatch.magic_0[0x8fd955aa],magic_1[0xaa55e904]"));
    EXPECT_TRUE(has_trace(r.out, "Magic unmatch."));
    // A buffer too short for a header, before any dump; no place for the length.
    r = read_header(content_header(0), 15);
    const std::string valid = content_header(0);
    int32_t length;
    r.out += capture_stdout([&] {
        EXPECT_EQ(0, vireo_ptn_header_get_content_pos(
                         reinterpret_cast<const uint8_t *>(valid.data()), 16, nullptr, &length));
    });
    EXPECT_EQ(0, r.verify + r.content);
    EXPECT_EQ(std::string::npos, r.out.find("magic_0")) << r.out;
    EXPECT_EQ(3u, trace_messages(r.out).size());
    // A non-zero checksum is reported but accepted.
    r = read_header(content_header(0, 1), 16);
    EXPECT_EQ(2, r.verify + r.content);
    EXPECT_TRUE(has_trace(r.out, "Invalid checksum(0x00000001), skip it for NOW."));
}

TEST(PtnHeader, AddWritesBigEndianHeader)
{
    std::vector<uint8_t> buf(32, 0xEE);
    EXPECT_EQ(16, vireo_ptn_header_add(buf.data(), 16, buf.data() + 16, 0));
    EXPECT_EQ(content_header(0), std::string(buf.begin(), buf.begin() + 16));
    EXPECT_EQ(16, vireo_ptn_header_add(buf.data(), 32, buf.data() + 16, 0x01020304));
    EXPECT_EQ(content_header(0x01020304), std::string(buf.begin(), buf.begin() + 16));
    std::vector<uint8_t> untouched(32, 0xEE);
    std::string out = capture_stdout([&] {
        EXPECT_EQ(-1, vireo_ptn_header_add(untouched.data(), 32, untouched.data(), -1));
        EXPECT_EQ(-1, vireo_ptn_header_add(untouched.data(), 15, untouched.data(), 1));
    });
    EXPECT_EQ(std::vector<uint8_t>(32, 0xEE), untouched);
    EXPECT_TRUE(has_trace(out, "Invlaid contenct_size(-1)"));
}
