#include "firmware/vireo_firmware_header.h"
#include "firmware/vireo_firmware_integrity.h"

#include "pack_fixture.h"

#include <cstring>
#include <gtest/gtest.h>

namespace
{

using bytes = std::vector<uint8_t>;

struct parsed {
    int32_t result;
    std::string out;
    firmware_header header;
};

parsed parse(bytes &buf, int32_t mode, int32_t size = -1)
{
    parsed p{};
    p.out = capture_stdout([&] {
        p.result = vireo_firmware_header_parse(
            buf.data(), size < 0 ? static_cast<int32_t>(buf.size()) : size, &p.header, mode);
    });
    return p;
}

// An image without partitions: header and table region only, 69696 bytes.
bytes empty_image(const temp_dir &dir)
{
    return pack_firmware(dir, R"({"images": [{"partitions": []}]})");
}

class FirmwareHeader : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        reset_integrity_state();
    }
    void TearDown() override
    {
        reset_integrity_state();
    }
    temp_dir dir;
};

} // namespace

TEST_F(FirmwareHeader, SmallestImagePassesBothModes)
{
    bytes image = empty_image(dir);
    ASSERT_EQ(static_cast<size_t>(FIRMWARE_MIN_SIZE), image.size());
    parsed digest = parse(image, 0);
    EXPECT_EQ(0, digest.result) << digest.out;
    EXPECT_EQ(FIRMWARE_HEADER_SIZE, static_cast<int>(digest.header.header_len));
    EXPECT_EQ(0u, digest.header.nextpos);
    parsed sig = parse(image, 1);
    EXPECT_EQ(0, sig.result) << sig.out;
    EXPECT_TRUE(has_trace(sig.out, "Rsa check pass"));
}

TEST_F(FirmwareHeader, EachFailureHasItsMessage)
{
    bytes image = empty_image(dir);
    parsed p = parse(image, 0, 69695);
    EXPECT_EQ(-1, p.result);
    EXPECT_TRUE(has_trace(p.out, "firmware header truncated, file size is 69695, minimal header "
                                 "size is 69696."));

    bytes little = image;
    for (int w = 0; w < 12; w++)
        std::reverse(little.begin() + 4 * w, little.begin() + 4 * w + 4);
    p = parse(little, 0);
    EXPECT_TRUE(has_trace(p.out, "Invalid magic number."));

    bytes v2 = image;
    v2[27] = 2;
    p = parse(v2, 0);
    EXPECT_TRUE(has_trace(p.out, "Invalid firmware version(0x00000002)."));

    bytes longer = image;
    longer.push_back(0);
    p = parse(longer, 0);
    EXPECT_EQ(-1, p.result);
    EXPECT_TRUE(has_trace(p.out, "firmware size un-match, buf_size is 69697 header[total_len] is "
                                 "69696."));

    firmware_header h;
    std::string out = capture_stdout([&] {
        EXPECT_EQ(-1, vireo_firmware_header_parse(nullptr, 10, &h, 0));
        EXPECT_EQ(nullptr, vireo_firmware_header_build(image.data(), 0));
    });
    EXPECT_EQ(2u, trace_messages(out).size());
}

TEST_F(FirmwareHeader, DigestModeCoversRegionAndPayloadOnly)
{
    bytes file = pack_firmware(dir, two_image_manifest(dir));
    ASSERT_FALSE(file.empty());
    // Unexamined header bytes (reserved words and zero areas) may hold anything.
    for (size_t pos : {40, 47, 100, 2000, 4159}) {
        bytes changed = file;
        changed[pos] ^= 0x5A;
        EXPECT_EQ(0, parse(changed, 0).result) << pos;
    }
    for (size_t pos : {size_t(4160), size_t(4161), size_t(70000), file.size() - 1}) {
        bytes changed = file;
        changed[pos] ^= 1;
        parsed p = parse(changed, 0);
        EXPECT_EQ(-1, p.result) << pos;
        const auto msgs = trace_messages(p.out);
        ASSERT_EQ(1u, msgs.size());
        EXPECT_EQ(0u, msgs[0].find("Playload md5 unmatch, header[md5]=")) << msgs[0];
    }
}

TEST_F(FirmwareHeader, HeaderLengthPastTheImageIsRefused)
{
    bytes image = empty_image(dir);
    image[32] = 0x7F; // header_len far beyond the buffer
    parsed p = parse(image, 0);
    EXPECT_EQ(-1, p.result);
    EXPECT_EQ(1u, trace_messages(p.out).size());
}

TEST_F(FirmwareHeader, SignatureModeSkipsTheCheckAfterDigestWasSupplied)
{
    bytes image = empty_image(dir);
    image[FIRMWARE_SIGNATURE_OFFSET] ^= 1;
    parsed p = parse(image, 1);
    EXPECT_EQ(-1, p.result);
    EXPECT_TRUE(has_trace(p.out, "Rsa check not pass"));
    std::string out = capture_stdout(
        [&] { EXPECT_EQ(nullptr, vireo_firmware_header_build(image.data(), 69696)); });
    digest_from_image = 0;
    p = parse(image, 1);
    EXPECT_EQ(0, p.result);
    EXPECT_TRUE(p.out.empty()) << p.out;
}

TEST_F(FirmwareHeader, ChainWalkReachesSecondImageAtNextpos)
{
    bytes file = pack_firmware(dir, two_image_manifest(dir));
    const int32_t size = static_cast<int32_t>(file.size());
    firmware_header *first = nullptr;
    std::string out =
        capture_stdout([&] { first = vireo_firmware_header_build(file.data(), size); });
    ASSERT_TRUE(first) << out;
    int32_t next = 0;
    ASSERT_EQ(1, vireo_firmware_chain_next(0, first, size, &next));
    EXPECT_EQ(static_cast<int32_t>(first->nextpos), next);
    firmware_header *second = nullptr;
    out = capture_stdout(
        [&] { second = vireo_firmware_header_build(file.data() + next, size - next); });
    ASSERT_TRUE(second) << out;
    EXPECT_EQ(static_cast<uint32_t>(size - next), second->total_len);
    EXPECT_TRUE(out.empty()) << "the signature check already passed: " << out;
    EXPECT_EQ(0, vireo_firmware_chain_next(next, second, size, &next));
    free(first);
    free(second);
}

TEST_F(FirmwareHeader, ChainThatDoesNotMoveForwardEnds)
{
    firmware_header h{};
    int32_t next = -1;
    for (uint32_t nextpos : {100u, 99u, 200u, 5000u}) {
        h.nextpos = nextpos;
        std::string out =
            capture_stdout([&] { EXPECT_EQ(-1, vireo_firmware_chain_next(100, &h, 200, &next)); });
        EXPECT_EQ(1u, trace_messages(out).size()) << nextpos;
    }
    EXPECT_EQ(-1, next);
    h.nextpos = 150;
    EXPECT_EQ(1, vireo_firmware_chain_next(100, &h, 200, &next));
    EXPECT_EQ(150, next);
}
