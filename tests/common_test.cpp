#include "common/vireo_common.h"
#include "common/vireo_platform.h"
#include "test_util.h"

#include <gtest/gtest.h>
#include <regex>

namespace
{
static const char VIREO_MODULE[] = "vireo_common_test";

void viero_ptn_validate()
{
    VIREO_TRACE("PTN[%s] size is 0.\n", "device-info");
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

TEST(PlatformPath, PrefixesTheRootAndStripsItAgain)
{
    char buf[256];
    vireo_platform_set_root("/tmp/fake/");
    ASSERT_GT(vireo_platform_path(buf, sizeof(buf), VIREO_MTD_NAME_FMT, 3), 0);
    EXPECT_STREQ("/tmp/fake/sys/class/mtd/mtd3/name", buf);
    EXPECT_STREQ("/sys/class/mtd/mtd3/name", vireo_platform_strip_root(buf));
    vireo_platform_set_root(nullptr);
    ASSERT_GT(vireo_platform_path(buf, sizeof(buf), VIREO_MTD_DEV_FMT, 3), 0);
    EXPECT_STREQ("/dev/mtd3", buf);
}
