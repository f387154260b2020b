// SPDX-License-Identifier: Apache-2.0
// The host tools, run as their users run them.
#include "pack_fixture.h"
#include "test_util.h"

#include <gtest/gtest.h>
#include <unistd.h>

namespace
{

run_result pack(const std::vector<std::string> &args)
{
    return run_program(VIREO_PACK_TOOL, args);
}

} // namespace

TEST(KeyText, ConvertsA1024BitRsaKeyAndRefusesAnythingElse)
{
    temp_dir dir;
    const std::string keys = VIREO_KEY_DIR, text = read_file(keys + "/vireo_test_key.txt");
    const std::string key2048 = dir.join("k2048.pem");
    ASSERT_EQ(0, system(("openssl genrsa -out " + key2048 + " 2048 2>/dev/null").c_str()));
    const struct {
        std::string key;
        int status;
        std::string out, err; // all of the output, part of the errors
    } cases[] = {
        {keys + "/vireo_test_key.pub.pem", 0, text, ""},
        {keys + "/vireo_test_key_DO_NOT_SHIP.pem", 0, text, ""},
        {dir.write("junk.pem", "not a key\n"), 1, "", "cannot read an RSA key"},
        {key2048, 1, "", "2048 bits"},
    };
    for (const auto &c : cases) {
        run_result r = run_program(VIREO_KEY_TEXT_TOOL, {c.key});
        EXPECT_EQ(c.status, r.status) << r.err;
        EXPECT_EQ(c.out, r.out);
        EXPECT_NE(std::string::npos, r.err.find(c.err)) << r.err;
    }
}

TEST(Pack, InspectPassesASignedFileAndReportsDamageAndAWrongKey)
{
    temp_dir dir;
    std::vector<uint8_t> file = pack_firmware(dir, two_image_manifest(dir));
    run_result r = pack({"inspect", dir.join("up.bin")});
    EXPECT_EQ(0, r.status) << r.out << r.err;
    EXPECT_NE(std::string::npos, r.out.find("well formed and signed"));

    const std::string other = dir.join("other.pem");
    ASSERT_EQ(0, system(("openssl genrsa -out " + other + " 1024 2>/dev/null").c_str()));
    file[70000] ^= 1;
    const std::pair<std::vector<std::string>, std::string> damaged[] = {
        {{"inspect", dir.write("damaged.bin", std::string(file.begin(), file.end()))},
         "problem: md5_digest does not match"},
        {{"inspect", dir.join("up.bin"), "--key", other}, "problem: the signature does not verify"},
        {{"inspect", dir.write("short.bin", "tiny")}, "an image needs at least 69696"},
    };
    for (const auto &[args, problem] : damaged) {
        r = pack(args);
        EXPECT_EQ(1, r.status) << problem;
        EXPECT_NE(std::string::npos, r.out.find(problem)) << r.out;
    }
}

TEST(Pack, BadManifestsAndUsageGiveClearErrorsAndNoFile)
{
    temp_dir dir;
    dir.write("k.bin", "kernel");
    const struct {
        std::string manifest;
        std::string message;
    } cases[] = {
        {"{", "not valid JSON"},
        {R"({"images": []})", "\"images\" must be a non-empty array"},
        {R"({"images": [{"partitions": [{"name": "k"}]}]})", "\"file\" (a string) is required"},
        {R"({"images": [{"partitions": [{"name": "k", "file": "none.bin"}]}]})", "cannot open"},
        {R"({"images": [{"partitions": [{"name": "a b", "file": "k.bin"}]}]})", "may hold only"},
        {R"({"images": [{"partitions": [{"name": "k", "file": "k.bin"}, {"name": "k", "file": "k.bin"}]}]})",
         "listed twice"},
        {R"({"images": [{"support-list": 5}]})", "must be a file name or a JSON document"},
    };
    for (const auto &c : cases) {
        std::string error;
        EXPECT_TRUE(pack_firmware(dir, c.manifest, &error).empty()) << c.manifest;
        EXPECT_NE(std::string::npos, error.find(c.message)) << c.manifest << "\n" << error;
        EXPECT_NE(0, access(dir.join("up.bin").c_str(), F_OK)) << "no output file is left";
    }
    // Wrong usage: no command, an unknown one, build without key and output, inspect alone.
    for (const std::vector<std::string> &args :
         {std::vector<std::string>{}, {"frobnicate"}, {"build", "m.json"}, {"inspect"}})
        EXPECT_EQ(2, pack(args).status) << args.size();
}
