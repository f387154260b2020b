// The host tools, run as their users run them.
#include "firmware/vireo_firmware_header.h"
#include "firmware/vireo_firmware_up_ptn_table.h"
#include "pack_fixture.h"
#include "test_util.h"

#include <gtest/gtest.h>
#include <sstream>
#include <unistd.h>

namespace
{

const std::string kKeyDir = VIREO_KEY_DIR;

// The "name '...' base 0x..." lines of a table dump, from the name on.
std::vector<std::string> entry_lines(const std::string &text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        if (line.find("name '") != std::string::npos && line.find(" base 0x") != std::string::npos)
            lines.push_back(line.substr(line.find("name '")));
    return lines;
}

run_result pack(const std::vector<std::string> &args)
{
    return run_program(VIREO_PACK_TOOL, args);
}

} // namespace

TEST(KeyText, ConvertsA1024BitRsaKeyAndRefusesAnythingElse)
{
    temp_dir dir;
    const std::string key2048 = dir.join("k2048.pem"),
                      text = read_file(kKeyDir + "/vireo_test_key.txt");
    ASSERT_EQ(0, system(("openssl genrsa -out " + key2048 + " 2048 2>/dev/null").c_str()));
    const struct {
        std::vector<std::string> args;
        int status;
        std::string out, err; // all of the output, part of the errors
    } cases[] = {
        {{kKeyDir + "/vireo_test_key.pub.pem"}, 0, text, ""},
        {{kKeyDir + "/vireo_test_key_DO_NOT_SHIP.pem"}, 0, text, ""},
        {{dir.write("junk.pem", "not a key\n")}, 1, "", "cannot read an RSA key"},
        {{key2048}, 1, "", "2048 bits"},
        {{}, 2, "", "Usage:"},
    };
    for (const auto &c : cases) {
        run_result r = run_program(VIREO_KEY_TEXT_TOOL, c.args);
        EXPECT_EQ(c.status, r.status) << r.err;
        EXPECT_EQ(c.out, r.out);
        EXPECT_NE(std::string::npos, r.err.find(c.err)) << r.err;
    }
}

TEST(Pack, InspectReadsWhatTheDeviceParsersRead)
{
    temp_dir dir;
    std::vector<uint8_t> file = pack_firmware(dir, two_image_manifest(dir));
    run_result r = pack({"inspect", dir.join("up.bin")});
    EXPECT_EQ(0, r.status) << r.out << r.err;
    EXPECT_NE(std::string::npos, r.out.find("well formed and signed"));
    // The device's parsers, image by image along the chain.
    std::string device_dump;
    capture_stdout([&] {
        EXPECT_EQ(2, walk_images(file, 0, [&](int32_t, const firmware_header &, up_ptn_table *t) {
                      device_dump += capture_stdout([&] { vireo_firmware_up_ptn_table_dump(t); });
                  }));
    });
    EXPECT_EQ(8u, entry_lines(device_dump).size());
    EXPECT_EQ(entry_lines(device_dump), entry_lines(r.out));
}

TEST(Pack, InspectReportsDamageAndWrongKey)
{
    temp_dir dir;
    std::vector<uint8_t> file = pack_firmware(dir, two_image_manifest(dir));
    std::string damaged(file.begin(), file.end());
    damaged[70000] ^= 1;
    run_result r = pack({"inspect", dir.write("damaged.bin", damaged)});
    EXPECT_EQ(1, r.status);
    EXPECT_NE(std::string::npos, r.out.find("problem: md5_digest does not match")) << r.out;
    EXPECT_NE(std::string::npos, r.out.find("signature: INVALID"));
    const std::string other = dir.join("other.pem");
    ASSERT_EQ(0, system(("openssl genrsa -out " + other + " 1024 2>/dev/null").c_str()));
    r = pack({"inspect", dir.join("up.bin"), "--key", other});
    EXPECT_EQ(1, r.status);
    EXPECT_NE(std::string::npos, r.out.find("problem: the signature does not verify"));
    r = pack({"inspect", dir.write("short.bin", "tiny")});
    EXPECT_EQ(1, r.status);
    EXPECT_NE(std::string::npos, r.out.find("an image needs at least 69696"));
}

TEST(Pack, BadManifestsGiveClearErrorsAndNoFile)
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
        {R"({"images": [{"partitions": [{"name": "k", "file": "k.bin", "content-header": 1}]}]})",
         "must be true or false"},
        {R"({"images": [{"support-list": 5}]})", "must be a file name or a JSON document"},
    };
    for (const auto &c : cases) {
        std::string error;
        EXPECT_TRUE(pack_firmware(dir, c.manifest, &error).empty()) << c.manifest;
        EXPECT_NE(std::string::npos, error.find(c.message)) << c.manifest << "\n" << error;
        EXPECT_NE(0, access(dir.join("up.bin").c_str(), F_OK)) << "no output file is left";
        EXPECT_NE(0, access(dir.join("up.bin.tmp").c_str(), F_OK));
    }
}

TEST(Pack, UsageAndHelp)
{
    run_result help = pack({"--help"});
    EXPECT_EQ(0, help.status);
    EXPECT_NE(std::string::npos, help.out.find("Usage:"));
    EXPECT_EQ(2, pack({}).status);
    EXPECT_EQ(2, pack({"frobnicate"}).status);
    EXPECT_EQ(2, pack({"build", "m.json"}).status) << "no key, no output";
    EXPECT_EQ(2, pack({"inspect"}).status);
}

TEST(Pack, LargeFilesReportProgress)
{
    temp_dir dir;
    dir.write("big.bin", std::string(17u << 20, '\x5a'));
    std::string error;
    const std::vector<uint8_t> file = pack_firmware(
        dir, R"({"images": [{"partitions": [{"name": "ubi", "file": "big.bin"}]}]})", &error);
    ASSERT_EQ((17u << 20) + FIRMWARE_MIN_SIZE, file.size()) << error;
    EXPECT_NE(std::string::npos, error.find("vireo_firmware_pack: hashing 16 of 17 MiB")) << error;
    EXPECT_NE(std::string::npos, error.find("vireo_firmware_pack: writing 17 of 17 MiB"));
}
