#include "firmware/vireo_firmware_header.h"
#include "firmware/vireo_firmware_integrity.h"

#include "pack_fixture.h"
#include "unit_fixture.h"

#include <gtest/gtest.h>

namespace
{

using bytes = std::vector<uint8_t>;

struct parsed {
    int32_t result;
    std::string out;
    firmware_header header;
};

parsed parse(bytes &buf, int32_t mode)
{
    parsed p{};
    p.out = capture_stdout([&] {
        p.result = vireo_firmware_header_parse(buf.data(), static_cast<int32_t>(buf.size()),
                                               &p.header, mode);
    });
    return p;
}

class FirmwareHeader : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        reset_integrity_state();
        // An image without partitions: header and table region only, 69696 bytes.
        image = pack_firmware(dir, R"({"images": [{"partitions": []}]})");
        ASSERT_EQ(static_cast<size_t>(FIRMWARE_MIN_SIZE), image.size());
    }
    void TearDown() override
    {
        reset_integrity_state();
    }
    temp_dir dir;
    bytes image;
};

} // namespace

TEST_F(FirmwareHeader, EachFailureHasItsMessage)
{
    // A bad magic and a short file: the check command's walk tests have their messages.
    bytes v2 = image, longer = image, far = image, bad_sig = image;
    v2[27] = 2;
    longer.push_back(0);
    far[33] = 0x01; // header_len 69697, one past the end
    far[34] = 0x10;
    far[35] = 0x41;
    bad_sig[FIRMWARE_SIGNATURE_OFFSET] ^= 1;
    struct {
        bytes &buf;
        int32_t mode;
        const char *trace;
    } cases[] = {
        {v2, 0, "Invalid firmware version(0x00000002)."},
        {longer, 0, "firmware size un-match, buf_size is 69697 header[total_len] is 69696."},
        {far, 0, "header length 69697 exceeds total length 69696."},
        {bad_sig, 1, "Rsa check not pass"},
    };
    for (auto &c : cases) {
        const parsed p = parse(c.buf, c.mode);
        EXPECT_EQ(-1, p.result) << c.trace;
        EXPECT_TRUE(has_trace(p.out, c.trace)) << p.out;
    }
    firmware_header h;
    const std::string out = capture_stdout([&] {
        EXPECT_EQ(-1, vireo_firmware_header_parse(nullptr, 10, &h, 0));
        EXPECT_EQ(nullptr, vireo_firmware_header_build(image.data(), 0));
        EXPECT_EQ(nullptr, vireo_firmware_header_build(bad_sig.data(), 69696));
    });
    EXPECT_EQ(3u, trace_messages(out).size()) << out;
    // After -m supplied the digest, signature mode checks the structure alone.
    digest_from_image = 0;
    const parsed p = parse(bad_sig, 1);
    EXPECT_EQ(0, p.result);
    EXPECT_EQ("", p.out);
}

TEST_F(FirmwareHeader, DigestModeCoversRegionAndPayloadOnly)
{
    bytes file = pack_firmware(dir, two_image_manifest(dir));
    // Unexamined header bytes (reserved words and zero areas) may hold anything; from the
    // table region at 4160 on, every byte counts.
    for (size_t pos : {size_t(40), size_t(47), size_t(2000), size_t(4159), size_t(4160),
                       size_t(4161), size_t(70000), file.size() - 1}) {
        bytes changed = file;
        changed[pos] ^= 0x5A;
        const parsed p = parse(changed, 0);
        EXPECT_EQ(pos < 4160 ? 0 : -1, p.result) << pos;
        const auto msgs = trace_messages(p.out);
        EXPECT_EQ(pos >= 4160,
                  msgs.size() == 1 && msgs[0].rfind("Playload md5 unmatch, header[md5]=", 0) == 0)
            << pos << p.out;
    }
}

TEST(FirmwareChain, MovesOnlyForwardInsideTheFile)
{
    // From the image at 100 of a file of 200 bytes.
    firmware_header h{};
    int32_t next = -1;
    for (uint32_t bad : {100u, 99u, 200u, 5000u}) {
        h.nextpos = bad;
        EXPECT_EQ(-1, quietly([&] { return vireo_firmware_chain_next(100, &h, 200, &next); }))
            << bad;
    }
    EXPECT_EQ(-1, next);
    h.nextpos = 150;
    EXPECT_EQ(1, vireo_firmware_chain_next(100, &h, 200, &next));
    EXPECT_EQ(150, next);
    h.nextpos = 0;
    EXPECT_EQ(0, vireo_firmware_chain_next(100, &h, 200, &next)) << "the last image";
}
