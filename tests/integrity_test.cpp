// The signature check over whole files, heads and digests; then damaged firmware files fed
// to the readers: failures are fine, reads outside the buffers are not (the sanitizer
// build checks that).
#include "firmware/vireo_firmware_integrity.h"

#include "firmware/vireo_firmware_header.h"
#include "firmware/vireo_firmware_up_ptn_table.h"
#include "ptn/vireo_ptn.h"
#include "ptn/vireo_ptn_header.h"

#include "pack_fixture.h"

#include <gtest/gtest.h>
#include <random>

namespace
{

using bytes = std::vector<uint8_t>;

class Integrity : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        reset_integrity_state();
        file = pack_firmware(dir, two_image_manifest(dir));
        ASSERT_FALSE(file.empty());
    }
    void TearDown() override
    {
        reset_integrity_state();
    }
    // vireo_check_rsa as a new run would do it.
    int32_t check(bytes &buf, std::string *out = nullptr)
    {
        rsa_passed = 0;
        return quietly(
            [&] { return vireo_check_rsa(buf.data(), static_cast<uint32_t>(buf.size())); }, out);
    }

    temp_dir dir;
    bytes file;
};

// Reads every record of every image the walk finds; returns the number of partition
// contents located inside the file.
int read_all_images(const std::vector<uint8_t> &file)
{
    int located = 0;
    // Signature mode after -m: structure only, so damage reaches the readers.
    walk_images(file, 1, [&](int32_t offset, const firmware_header &header, up_ptn_table *t) {
        const uint32_t payload =
            static_cast<uint32_t>(offset) + header.header_len + UP_PTN_TABLE_SIZE;
        for (uint32_t i = 0; t && i < t->ptn_cnt; i++) {
            const uint8_t *c =
                vireo_firmware_ptn_content(file.data(), file.size(), payload, &t->ptns[i]);
            located += c ? 1 : 0;
            const int32_t size = static_cast<int32_t>(t->ptns[i].size);
            int32_t off = 0, len = 0;
            if (c && vireo_ptn_header_verify(c, size) &&
                vireo_ptn_header_get_content_pos(c, size, &off, &len))
                if (ptn_table *p =
                        vireo_ptn_build_by_json_data(reinterpret_cast<const char *>(c + off), len))
                    vireo_ptn_destroy(p);
        }
    });
    return located;
}

} // namespace

TEST_F(Integrity, SignedFilePassesAndBufferIsUnchanged)
{
    bytes buf = file;
    std::string out;
    EXPECT_EQ(0, check(buf, &out));
    EXPECT_EQ(std::vector<std::string>({"Rsa check pass"}), trace_messages(out));
    EXPECT_EQ("| Rsa check pass\n\n", out.substr(out.size() - 18)) << "an empty line follows";
    EXPECT_EQ(file, buf);
    EXPECT_EQ(1u, rsa_passed);
    // Once a verification passed, later ones pass at once.
    bytes garbage(500, 0xAB);
    out = capture_stdout([&] { EXPECT_EQ(0, vireo_check_rsa(garbage.data(), 500)); });
    EXPECT_EQ("", out);
}

TEST_F(Integrity, EveryChangedByteFromOffset20FailsAndEarlierOnesDoNot)
{
    // The smallest signed image keeps the sweep short. Every byte from offset 20 on; the
    // sanitizer build, many times slower, takes the whole header region (signature field
    // included) and a stride through the rest.
    temp_dir small_dir;
    const bytes image = pack_firmware(small_dir, R"({"images": [{"partitions": []}]})");
    ASSERT_EQ(static_cast<size_t>(FIRMWARE_MIN_SIZE), image.size());
    bytes buf = image;
    size_t checked = 0;
    std::vector<size_t> passed;
    const std::string out = capture_stdout([&] {
        for (size_t p = 20; p < buf.size(); p++) {
            if (VIREO_SANITIZED && p >= FIRMWARE_HEADER_SIZE && p % 613 != 0 && p + 1 != buf.size())
                continue;
            buf[p] ^= 0x01;
            rsa_passed = 0;
            if (vireo_check_rsa(buf.data(), static_cast<uint32_t>(buf.size())) != -1)
                passed.push_back(p);
            buf[p] ^= 0x01;
            checked++;
        }
    });
    EXPECT_TRUE(passed.empty()) << "first accepted change at byte " << passed.front();
    EXPECT_GE(checked, VIREO_SANITIZED ? 4200u : 69676u);
    EXPECT_EQ(checked, count_trace(out, "Rsa check not pass"));
    EXPECT_EQ(image, buf) << "every check put the buffer back";
    for (size_t p = 0; p < 20; p++) {
        buf[p] ^= 0xFF;
        EXPECT_EQ(0, check(buf)) << "byte " << p << " is not covered";
        buf[p] ^= 0xFF;
    }
}

TEST_F(Integrity, ShortFilesAreRefusedWithoutReadingPastThem)
{
    // Short heads and a missing digest file the command tests cover; these are read here.
    const std::string short_head = dir.write("head", std::string(431, 'x'));
    const std::string short_md5 = dir.write("m15", std::string(15, 'x'));
    const std::string empty = dir.write("empty", "");
    bytes tiny(10, 0);
    const std::string out = capture_stdout([&] {
        EXPECT_EQ(-1, vireo_check_head_rsa(short_head.c_str()));
        EXPECT_EQ(-1, vireo_check_md5(short_md5.c_str()));
        EXPECT_EQ(-1, vireo_check_md5(empty.c_str()));
        EXPECT_EQ(-1, vireo_check_head_rsa(nullptr));
        EXPECT_EQ(-1, vireo_check_rsa(tiny.data(), 10));
    });
    EXPECT_EQ(0, supplied_digest_valid) << "a short digest file supplies nothing";
    EXPECT_TRUE(has_trace(out, "Failed to get file size, file='" + empty + "'"));
    EXPECT_TRUE(has_trace(out, "Invalid params, (nil)."));
    EXPECT_TRUE(has_trace(out, "Rsa check not pass"));
}

TEST_F(Integrity, DamagedFirmwareFilesAreReadSafely)
{
    const bytes &good = file;
    const size_t second = be32(good.data() + 28);
    std::mt19937 rng(4160);
    // Fields whose damage matters most: nextpos and the lengths of both images.
    std::vector<size_t> hot;
    for (size_t pos = 28; pos < 40; pos++)
        hot.insert(hot.end(), {pos, second + pos});
    int rounds_with_contents = 0;
    int intact = 0;
    capture_stdout([&] {
        digest_from_image = 0;
        intact = read_all_images(good);
        for (int round = 0; round < 400; round++) {
            bytes damaged = good;
            const int edits = 1 + static_cast<int>(rng() % 4);
            for (int e = 0; e < edits; e++) {
                const uint32_t kind = rng() % 3; // a hot field, the table's text, anywhere
                const size_t pos = kind == 0   ? hot[rng() % hot.size()]
                                   : kind == 1 ? FIRMWARE_HEADER_SIZE + rng() % 600
                                               : rng() % damaged.size();
                damaged[pos] = static_cast<uint8_t>(rng());
            }
            if (rng() % 5 == 0)
                damaged.resize(rng() % damaged.size());
            rounds_with_contents += read_all_images(damaged) > 0 ? 1 : 0;
        }
    });
    EXPECT_EQ(8, intact) << "both images, all partitions";
    // Enough damaged files got as far as their partitions for the run to mean something.
    EXPECT_GT(rounds_with_contents, 100);
}
