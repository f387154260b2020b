// Scores and boot flags of the two images: which image an upgrade switches off and on,
// and what each flag volume holds afterwards. The volumes are MTD partitions of the same
// names here, as the lookups fall back to them when no UBI volume has the name.
#include "ubi/vireo_ubi_flags.h"

#include "raw_device.h"

#include <gtest/gtest.h>

namespace
{

// A volume holding a record with the given score, or erased (no record) when none.
std::string volume(const int *score)
{
    return score ? with_content_header(flag_doc(true, *score) + '\0') : std::string();
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
        EXPECT_EQ(flag_doc(false, c.off_score) + '\0', content_of(off))
            << c.what << ": n + 1 with the NUL";
        const std::string out =
            capture_stdout([&] { EXPECT_EQ(0, vireo_firmware_post_update(0)); });
        EXPECT_EQ(flag_doc(true, c.on_score) + '\0', content_of(read_file(target))) << c.what;
        EXPECT_EQ(untouched, read_file(other)) << c.what;
        EXPECT_EQ(0x1000u, read_file(target).size()) << c.what;
        const size_t behind = 17 + flag_doc(true, c.on_score).size();
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
    EXPECT_FALSE(has_trace(out, "new on extra:" + flag_doc(true, 1)));
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
