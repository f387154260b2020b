// The host tools, run as their users run them.
#include "test_util.h"

#include <gtest/gtest.h>

namespace
{
const std::string kKeyDir = VIREO_KEY_DIR;
}

TEST(KeyText, ConvertsPemToTheCommittedKeyText)
{
    for (const char *pem : {"vireo_test_key.pub.pem", "vireo_test_key_DO_NOT_SHIP.pem"}) {
        run_result r = run_program(VIREO_KEY_TEXT_TOOL, {kKeyDir + "/" + pem});
        EXPECT_EQ(0, r.status) << r.err;
        EXPECT_EQ(read_file(kKeyDir + "/vireo_test_key.txt"), r.out) << pem;
    }
}

TEST(KeyText, RefusesWhatIsNotA1024BitRsaKey)
{
    temp_dir dir;
    const std::string junk = dir.write("junk.pem", "not a key\n");
    run_result r = run_program(VIREO_KEY_TEXT_TOOL, {junk});
    EXPECT_EQ(1, r.status);
    EXPECT_NE(std::string::npos, r.err.find("cannot read an RSA key")) << r.err;
    EXPECT_EQ("", r.out);

    const std::string key2048 = dir.join("k2048.pem");
    ASSERT_EQ(0, system(("openssl genrsa -out " + key2048 + " 2048 2>/dev/null").c_str()));
    r = run_program(VIREO_KEY_TEXT_TOOL, {key2048});
    EXPECT_EQ(1, r.status);
    EXPECT_NE(std::string::npos, r.err.find("2048 bits")) << r.err;

    r = run_program(VIREO_KEY_TEXT_TOOL, {});
    EXPECT_EQ(2, r.status);
    EXPECT_NE(std::string::npos, r.err.find("Usage:"));
}
