// The host tools, run as their users run them.
#include "firmware/vireo_firmware_header.h"
#include "firmware/vireo_firmware_up_ptn_table.h"
#include "pack_fixture.h"
#include "test_util.h"

#include <gtest/gtest.h>
#include <unistd.h>

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

namespace
{

std::vector<std::string> entry_lines(const std::string &text)
{
    std::vector<std::string> lines;
    size_t pos = 0;
    while (pos < text.size()) {
        size_t nl = text.find('\n', pos);
        if (nl == std::string::npos)
            nl = text.size();
        std::string line = text.substr(pos, nl - pos);
        const size_t start = line.find("name '");
        if (start != std::string::npos && line.find(" base 0x") != std::string::npos)
            lines.push_back(line.substr(start));
        pos = nl + 1;
    }
    return lines;
}

run_result pack(const std::vector<std::string> &args)
{
    return run_program(VIREO_PACK_TOOL, args);
}

} // namespace

TEST(Pack, InspectReadsWhatTheDeviceParsersRead)
{
    temp_dir dir;
    std::vector<uint8_t> file = pack_firmware(dir, two_image_manifest(dir));
    ASSERT_FALSE(file.empty());
    run_result r = pack({"inspect", dir.join("up.bin")});
    EXPECT_EQ(0, r.status) << r.out << r.err;
    EXPECT_NE(std::string::npos, r.out.find("well formed and signed"));

    // The device's parsers, image by image along the chain.
    std::string device_dump;
    int32_t offset = 0;
    const int32_t size = static_cast<int32_t>(file.size());
    int images = 0;
    capture_stdout([&] {
        for (;;) {
            firmware_header header;
            ASSERT_EQ(0,
                      vireo_firmware_header_parse(file.data() + offset, size - offset, &header, 0));
            up_ptn_table *t = vireo_firmware_up_ptn_table_build_by_fimware(file.data() + offset,
                                                                           size - offset, &header);
            ASSERT_TRUE(t);
            device_dump += capture_stdout([&] { vireo_firmware_up_ptn_table_dump(t); });
            vireo_firmware_up_ptn_table_destroy(t);
            images++;
            if (vireo_firmware_chain_next(offset, &header, size, &offset) != 1)
                break;
        }
    });
    EXPECT_EQ(2, images);
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
