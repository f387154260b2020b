// Runs the built tool as a user would and checks its output and exit status.
#include "pack_fixture.h"
#include "raw_device.h"
#include "test_util.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <regex>
#include <sstream>
#include <unistd.h>

namespace
{

const char kUsage[] = "Usage:\n"
                      "./vireo_firmware_upgrade -C -u up.bin [ -w ubi -p 0 ]\n"
                      "./vireo_firmware_upgrade -U -u up.bin [ -w ubi -p 0 ]\n"
                      "\n";
const char kPidFile[] = "/tmp/vireo_firmware_upgrade.pid";

run_result tool(const std::vector<std::string> &args)
{
    return run_program(VIREO_TOOL, args);
}

std::string data(const std::string &name)
{
    return std::string(VIREO_TEST_DATA) + "/" + name;
}

} // namespace

TEST(CommandLine, NoArgumentsPrintsUsageAndFails)
{
    run_result r = tool({});
    EXPECT_EQ(255, r.status);
    EXPECT_EQ(kUsage, r.out);
}

TEST(CommandLine, HelpAndUnknownOptionPrintUsageAndSucceed)
{
    for (const char *opt : {"-h", "--help"}) {
        run_result r = tool({opt});
        EXPECT_EQ(0, r.status) << opt;
        EXPECT_EQ(kUsage, r.out) << opt;
    }
    run_result unknown = tool({"-x"});
    EXPECT_EQ(0, unknown.status);
    EXPECT_EQ(kUsage, unknown.out);
    EXPECT_NE(std::string::npos, unknown.err.find("invalid option")) << unknown.err;
    run_result missing = tool({"-u"});
    EXPECT_EQ(0, missing.status) << "a missing argument also asks for usage";
    EXPECT_EQ(kUsage, missing.out);
}

TEST(CommandLine, ShowWithoutTableFileFails)
{
    run_result r = tool({"-s"});
    EXPECT_EQ(255, r.status);
    EXPECT_EQ(kUsage, r.out);
}

TEST(CommandLine, ShowPrintsDumpAndBothJsonForms)
{
    // The expected text holds the dump, both JSON prints and the '=' lines; addresses
    // differ from run to run, and trace lines are compared by message only.
    run_result r = tool({"-s", "-P", data("ptn_valid.json")});
    EXPECT_EQ(0, r.status);
    std::string plain;
    std::istringstream lines(r.out);
    for (std::string line; std::getline(lines, line);)
        if (line.find(": [TRACE]") == std::string::npos)
            plain += std::regex_replace(line, std::regex("= 0x[0-9a-f]+$"), "= ADDR") + "\n";
    EXPECT_EQ(read_file(data("ptn_valid.show.txt")), plain);
    EXPECT_EQ(std::vector<std::string>({"json file size : 236 .", "read() return 236.", "ptn_cnt 2",
                                        "PTN  0 : name 'partition-table' base 0x00000000 size "
                                        "0x00010000 attr 0x00000000",
                                        "PTN  1 : name 'device-info' base 0x00010000 size "
                                        "0x00010000 attr 0x00000001"}),
              trace_messages(r.out));
}

TEST(CommandLine, ShowOfBadFilesTracesAndStillSucceeds)
{
    temp_dir dir;
    const std::string garbage = dir.write("garbage.json", "{not json");
    const struct {
        std::string path;
        std::string message;
    } cases[] = {
        {dir.join("missing.json"), "Failed to open 'partition.json', errno=2."},
        {garbage, "Failed to parse 'partition.json'"},
        {data("ptn_overlap.json"), "Failed to build ptn table."},
    };
    for (const auto &c : cases) {
        run_result r = tool({"-s", "-P", c.path});
        EXPECT_EQ(0, r.status) << c.path;
        EXPECT_TRUE(has_trace(r.out, c.message)) << r.out;
        EXPECT_EQ(std::string::npos, r.out.find(std::string(41, '='))) << "no dump for a bad file";
    }
}

TEST(CommandLine, UpAloneTakesTheLockAndWritesPidWithNul)
{
    run_result r = tool({"-u", "up.bin"});
    EXPECT_EQ(0, r.status) << r.err;
    std::smatch m;
    ASSERT_TRUE(std::regex_match(
        r.out, m, std::regex("file: /tmp/vireo_firmware_upgrade\\.pid is locked by ([0-9]+)\n")))
        << r.out;
    EXPECT_EQ(m[1].str() + std::string(1, '\0'), read_file(kPidFile));
}

TEST(CommandLine, SecondInstanceIsRefusedWhileLockIsHeld)
{
    const int fd = open(kPidFile, O_RDWR | O_CREAT, 0644);
    ASSERT_GE(fd, 0);
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    ASSERT_EQ(0, fcntl(fd, F_SETLK, &lock));
    for (const std::vector<std::string> &args : {std::vector<std::string>{"-u", "up.bin"},
                                                 std::vector<std::string>{"-U", "-u", "up.bin"}}) {
        run_result r = tool(args);
        EXPECT_EQ(255, r.status);
        EXPECT_EQ("file: /tmp/vireo_firmware_upgrade.pid already locked\n"
                  "The program is already running, exit(-1)!\n",
                  r.err);
        EXPECT_EQ("", r.out);
    }
    close(fd);
}

TEST(CommandLine, UpgradeWithoutFileTakesLockThenPrintsUsage)
{
    run_result r = tool({"-U"});
    EXPECT_EQ(255, r.status);
    EXPECT_NE(std::string::npos, r.out.find("is locked by")) << r.out;
    EXPECT_NE(std::string::npos, r.out.find(kUsage)) << r.out;
}

TEST(CommandLine, WorkModeUbiIsExactAndUbiIdIsDecimal)
{
    // Only the raw-flash check starts from the flash partition table.
    const std::string raw_only = "Failed to build ptn_table of flash";
    for (const char *mode : {"UBI", "foo", "default"}) {
        run_result r = tool({"-C", "-w", mode, "-u", "up.bin"});
        EXPECT_TRUE(has_trace(r.out, raw_only)) << mode << ": " << r.out;
    }
    run_result ubi = tool({"-C", "-w", "ubi", "-u", "up.bin"});
    EXPECT_FALSE(has_trace(ubi.out, raw_only)) << ubi.out;
    run_result bad_id = tool({"-r", "-p", "abc"});
    run_result zero_id = tool({"-r", "-p", "0"});
    EXPECT_EQ(0, bad_id.status);
    EXPECT_EQ(trace_messages(zero_id.out), trace_messages(bad_id.out)) << "-p abc reads as 0";
}

TEST(CommandLine, PrecedenceOfCommands)
{
    // Roll-back outranks check and always exits 0.
    run_result rb = tool({"-C", "-r"});
    EXPECT_EQ(0, rb.status);
    // Usage outranks everything.
    run_result help = tool({"-r", "-h"});
    EXPECT_EQ(0, help.status);
    EXPECT_EQ(kUsage, help.out);
    // Check without a file: the check command reports and fails.
    run_result check = tool({"-C"});
    EXPECT_EQ(255, check.status);
    EXPECT_EQ(std::string::npos, check.out.find("is locked by")) << "check takes no lock";
    // -P without -s is ignored: no command, so the lock is taken.
    run_result lock = tool({"-P", data("ptn_valid.json")});
    EXPECT_EQ(0, lock.status);
    EXPECT_NE(std::string::npos, lock.out.find("is locked by"));
}

TEST(SignatureTest, PacksPassAndTamperedFilesFail)
{
    temp_dir dir;
    std::vector<uint8_t> file = pack_firmware(dir, two_image_manifest(dir));
    ASSERT_FALSE(file.empty());
    const std::string up = dir.join("up.bin");
    run_result ok = tool({"-t", up});
    EXPECT_EQ(0, ok.status);
    EXPECT_EQ(std::vector<std::string>({"Rsa check pass"}), trace_messages(ok.out));

    for (size_t pos :
         {size_t(20), size_t(48), size_t(304), size_t(431), size_t(5000), file.size() - 1}) {
        std::string changed(file.begin(), file.end());
        changed[pos] ^= 0x10;
        const std::string path = dir.write("bad.bin", changed);
        run_result bad = tool({"-t", path});
        EXPECT_EQ(255, bad.status) << pos;
        EXPECT_TRUE(has_trace(bad.out, "Rsa check not pass")) << pos;
    }
    std::string magic(file.begin(), file.end());
    magic[0] ^= 0x10;
    magic[19] ^= 0x10;
    EXPECT_EQ(0, tool({"-t", dir.write("magic.bin", magic)}).status);
    // The verdict of -t outranks the other commands.
    EXPECT_EQ(0, tool({"-t", up, "-U", "-u", up}).status);
}

TEST(SignatureTest, SuppliedDigestChecksTheHeadAlone)
{
    temp_dir dir;
    std::vector<uint8_t> file = pack_firmware(dir, two_image_manifest(dir));
    ASSERT_FALSE(file.empty());
    ASSERT_EQ(
        0,
        run_program(VIREO_PACK_TOOL, {"digest", dir.join("up.bin"), "-o", dir.join("m")}).status);
    const std::string head = dir.write("head", std::string(file.begin(), file.begin() + 432));
    EXPECT_EQ(0, tool({"-m", dir.join("m"), "-t", head}).status);
    EXPECT_EQ(0, tool({"--rsa", dir.join("m"), "--head", head}).status);
    run_result reversed = tool({"-t", head, "-m", dir.join("m")});
    EXPECT_EQ(255, reversed.status) << "the digest came after the test";
    EXPECT_TRUE(has_trace(reversed.out, "Rsa check not pass"));

    run_result missing = tool({"-m", dir.join("none"), "-t", head});
    EXPECT_EQ(255, missing.status);
    EXPECT_TRUE(has_trace(missing.out, "no md5 Rsa check not pass")) << missing.out;
    EXPECT_TRUE(has_trace(missing.out, "Failed to get file size, file='" + dir.join("none") + "'"));

    run_result short_head = tool({"-m", dir.join("m"), "-t", dir.write("h", "tiny")});
    EXPECT_EQ(255, short_head.status);
}

TEST(CommandLine, CheckOnAFakeDeviceGivesItsVerdictAsExitStatus)
{
    temp_dir dir;
    raw_device dev(raw_device::layout(devinfo_json("VR100", "1.0", "55530000")));
    for (const char *model : {"VR100", "VR200"}) {
        const std::string list = std::string("[") + entry_json(model, "1.0", "55530000") + "]";
        ASSERT_FALSE(
            pack_firmware(dir, fw_manifest(dir, {{list, "", "", {{"kernel", "k"}}}})).empty());
        run_result r =
            run_program(VIREO_FAKE_ROOT_TOOL, {dev.path, "-C", "-u", dir.join("up.bin")});
        EXPECT_EQ(std::string(model) == "VR100" ? 0 : 255, r.status) << model << r.out;
        EXPECT_EQ(std::string::npos, r.out.find("is locked by")) << "check takes no lock";
    }
}
