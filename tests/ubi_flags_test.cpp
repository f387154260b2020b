// Scores and boot flags of the two images: which image an upgrade switches off and on,
// and what each flag volume holds afterwards. The volumes are MTD partitions of the same
// names here, as the lookups fall back to them when no UBI volume has the name.
#include "ubi/vireo_ubi_flags.h"

#include "ptn/vireo_extra_para.h"

#include "fake_root.h"

#include <gtest/gtest.h>

namespace
{

std::string doc(bool on, int score)
{
    char text[128];
    on ? vireo_extra_para_format_flag_on(score, text, sizeof(text))
       : vireo_extra_para_format_flag_off(score, text, sizeof(text));
    return text;
}

// A volume holding a record with the given score, or erased (no record) when none.
std::string volume(const int *score)
{
    return score ? with_content_header(doc(true, *score) + '\0') : std::string();
}

// The record a volume holds: the text its header accounts for, NUL included.
std::string record(const std::string &bytes)
{
    const uint32_t len = (uint8_t(bytes[8]) << 24) | (uint8_t(bytes[9]) << 16) |
                         (uint8_t(bytes[10]) << 8) | uint8_t(bytes[11]);
    return len < 256 ? bytes.substr(16, len) : "";
}

} // namespace

TEST(Flags, TheLowerScoreIsSwitchedOffThenOnAboveBoth)
{
    const int five = 5, seven = 7, three = 3, minus = -1, zero = 0;
    struct {
        const char *what;
        const int *primary, *backup; // none: erased
        bool target_primary;
        int off_score, on_score;
    } cases[] = {
        {"5 and 7", &five, &seven, true, 5, 8},
        {"equal scores", &three, &three, false, 3, 4},
        {"both erased", nullptr, nullptr, false, 0, 1},
        {"signed comparison", &minus, &zero, true, -1, 1},
        {"primary erased", nullptr, &seven, true, 0, 8},
    };
    for (const auto &c : cases) {
        fake_root root;
        root.mtd(0, "extra-para", 0x1000, volume(c.primary));
        root.mtd(1, "extra-para.b", 0x1000, volume(c.backup));
        const std::string target = root.at(c.target_primary ? "/dev/mtd0" : "/dev/mtd1");
        const std::string other = root.at(c.target_primary ? "/dev/mtd1" : "/dev/mtd0");
        const std::string untouched = read_file(other);
        int32_t p = 0, b = 0;
        capture_stdout([&] { EXPECT_EQ(0, vireo_firmware_get_score(0, &p, &b)); });
        EXPECT_EQ(c.primary ? *c.primary : 0, p) << c.what;
        EXPECT_EQ(c.backup ? *c.backup : 0, b) << c.what;

        capture_stdout([&] { EXPECT_EQ(0, vireo_firmware_pre_update(0)); });
        const std::string off = read_file(target);
        EXPECT_EQ(doc(false, c.off_score) + '\0', record(off)) << c.what << ": n + 1 with the NUL";
        const std::string out =
            capture_stdout([&] { EXPECT_EQ(0, vireo_firmware_post_update(0)); });
        EXPECT_EQ(doc(true, c.on_score) + '\0', record(read_file(target))) << c.what;
        EXPECT_EQ(untouched, read_file(other)) << c.what;
        EXPECT_EQ(0x1000u, read_file(target).size()) << c.what;
        const size_t behind = 17 + doc(true, c.on_score).size();
        if (!(c.target_primary ? c.primary : c.backup)) {
            EXPECT_EQ(std::string(0x1000 - behind, '\xff'), read_file(target).substr(behind))
                << c.what << ": behind a fresh record the volume stays erased";
        }
        EXPECT_TRUE(has_trace(out, "extra score: primary score[" + std::to_string(p) +
                                       "], backup score[" + std::to_string(c.on_score) + "]"))
            << c.what << out;
    }
}

TEST(Flags, MissingVolumes)
{
    fake_root root;
    root.mtd(0, "extra-para", 0x1000, volume(nullptr));
    std::string out = capture_stdout([] { EXPECT_EQ(0, vireo_firmware_post_update(0)); });
    EXPECT_TRUE(has_trace(out, "PTN[extra-para.b] volume path:")) << out;
    EXPECT_FALSE(has_trace(out, "new on extra:" + doc(true, 1)));
    // Pre-update targets the missing backup: nothing written.
    capture_stdout([] { EXPECT_EQ(0, vireo_firmware_pre_update(0)); });
    EXPECT_EQ(std::string(0x1000, '\xff'), root.bytes("/dev/mtd0"));

    vireo_flag_volume v{};
    capture_stdout(
        [&] { EXPECT_EQ(0, vireo_firmware_get_score_by_extra_para(0, "extra-para.b", &v)); });
    EXPECT_STREQ("", v.path);
    EXPECT_EQ(0, v.score);
    // An erased volume holds no record.
    out = capture_stdout(
        [&] { EXPECT_EQ(-1, vireo_firmware_get_score_by_extra_para(0, "extra-para", &v)); });
    EXPECT_TRUE(has_trace(out, "ubi volume[extra-para] is not a valid partition.[" +
                                   root.at("/dev/mtdblock0") + "]"));
}
