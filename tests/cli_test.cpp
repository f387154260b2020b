// Runs the tool's command line as a user would and checks its output and exit status. The
// tool runs with its fixed paths under a root of this process's own, so that its lock file
// is no other test run's.
#include "pack_fixture.h"
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
const std::string kValidTable = std::string(VIREO_TEST_DATA) + "/ptn_valid.json";

const temp_dir &root()
{
    static const temp_dir dir;
    return dir;
}
const std::string kPidFile = root().write("tmp/vireo_firmware_upgrade.pid", "");

run_result tool(std::vector<std::string> args)
{
    args.insert(args.begin(), root().path);
    return run_program(VIREO_FAKE_ROOT_TOOL, args);
}

bool locked(const run_result &r)
{
    return r.out.find("is locked by") != std::string::npos;
}

} // namespace

TEST(CommandLine, PrecedenceUsageLockAndExitStatus)
{
    enum output { USAGE_ONLY, LOCK_AND_USAGE, LOCK, NO_LOCK };
    temp_dir dir;
    const struct {
        std::vector<std::string> args;
        int status;
        output out;
        std::string trace = ""; // one that must appear
    } cases[] = {
        {{}, 255, USAGE_ONLY},
        {{"-h"}, 0, USAGE_ONLY},
        {{"--help"}, 0, USAGE_ONLY},
        {{"-x"}, 0, USAGE_ONLY},
        {{"-u"}, 0, USAGE_ONLY}, // a missing argument also asks for usage
        {{"-s"}, 255, USAGE_ONLY},
        {{"-r", "-h"}, 0, USAGE_ONLY}, // usage outranks everything
        {{"-U"}, 255, LOCK_AND_USAGE},
        {{"-C", "-r"}, 0, NO_LOCK}, // roll-back outranks check and always exits 0
        {{"-C"}, 255, NO_LOCK},
        {{"-P", kValidTable}, 0, LOCK}, // -P without -s: no command, so the lock is taken
        // Showing a file that is no table traces why, prints no dump and still exits 0.
        {{"-s", "-P", dir.join("missing.json")},
         0,
         NO_LOCK,
         "Failed to open 'partition.json', errno=2."},
        {{"-s", "-P", dir.write("garbage.json", "{not json")},
         0,
         NO_LOCK,
         "Failed to parse 'partition.json'"},
        {{"-s", "-P", std::string(VIREO_TEST_DATA) + "/ptn_overlap.json"},
         0,
         NO_LOCK,
         "Failed to build ptn table."},
    };
    for (const auto &c : cases) {
        const std::string what = c.args.empty() ? "no arguments" : c.args.back();
        run_result r = tool(c.args);
        EXPECT_EQ(c.status, r.status) << what;
        if (c.out == USAGE_ONLY) {
            EXPECT_EQ(kUsage, r.out) << what;
        } else {
            EXPECT_EQ(c.out == LOCK_AND_USAGE, r.out.find(kUsage) != std::string::npos) << what;
        }
        EXPECT_EQ(c.out == LOCK || c.out == LOCK_AND_USAGE, locked(r)) << what << r.out;
        EXPECT_EQ(what == "-x", r.err.find("invalid option") != std::string::npos) << r.err;
        if (!c.trace.empty()) {
            EXPECT_TRUE(has_trace(r.out, c.trace)) << what << r.out;
            EXPECT_EQ(std::string::npos, r.out.find(std::string(41, '='))) << "a dump: " << what;
        }
    }
}

TEST(CommandLine, ShowPrintsDumpAndBothJsonForms)
{
    // The expected text holds the dump, both JSON prints and the '=' lines; addresses
    // differ from run to run, and trace lines are compared by message only.
    run_result r = tool({"-s", "-P", kValidTable});
    EXPECT_EQ(0, r.status);
    std::string plain;
    std::istringstream lines(r.out);
    for (std::string line; std::getline(lines, line);)
        if (line.find(": [TRACE]") == std::string::npos)
            plain += std::regex_replace(line, std::regex("= 0x[0-9a-f]+$"), "= ADDR") + "\n";
    EXPECT_EQ(read_file(std::string(VIREO_TEST_DATA) + "/ptn_valid.show.txt"), plain);
    EXPECT_EQ(std::vector<std::string>({"json file size : 236 .", "read() return 236.", "ptn_cnt 2",
                                        "PTN  0 : name 'partition-table' base 0x00000000 size "
                                        "0x00010000 attr 0x00000000",
                                        "PTN  1 : name 'device-info' base 0x00010000 size "
                                        "0x00010000 attr 0x00000001"}),
              trace_messages(r.out));
}

TEST(CommandLine, LockFileHoldsThePidAndRefusesASecondInstance)
{
    run_result r = tool({"-u", "up.bin"});
    EXPECT_EQ(0, r.status) << r.err;
    const std::string said = "file: " + kPidFile + " is locked by ";
    std::smatch m;
    ASSERT_TRUE(std::regex_search(r.out, m, std::regex("([0-9]+)\n$")));
    EXPECT_EQ(said + m[1].str() + "\n", r.out);
    EXPECT_EQ(m[1].str() + std::string(1, '\0'), read_file(kPidFile));

    const int fd = open(kPidFile.c_str(), O_RDWR | O_CREAT, 0644);
    ASSERT_GE(fd, 0);
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    ASSERT_EQ(0, fcntl(fd, F_SETLK, &lock));
    for (const std::vector<std::string> &args : {std::vector<std::string>{"-u", "up.bin"},
                                                 std::vector<std::string>{"-U", "-u", "up.bin"}}) {
        r = tool(args);
        EXPECT_EQ(255, r.status);
        EXPECT_EQ("file: " + kPidFile +
                      " already locked\n"
                      "The program is already running, exit(-1)!\n",
                  r.err);
        EXPECT_EQ("", r.out);
    }
    close(fd);
}

TEST(CommandLine, WorkModeUbiIsExactAndUbiIdIsDecimal)
{
    // Only the raw-flash check starts from the flash partition table.
    const std::string raw_only = "Failed to build ptn_table of flash";
    for (const char *mode : {"UBI", "foo", "default", "ubi"}) {
        run_result r = tool({"-C", "-w", mode, "-u", "up.bin"});
        EXPECT_EQ(std::string(mode) != "ubi", has_trace(r.out, raw_only)) << mode << r.out;
    }
    run_result bad_id = tool({"-r", "-p", "abc"});
    EXPECT_EQ(0, bad_id.status);
    EXPECT_EQ(trace_messages(tool({"-r", "-p", "0"}).out), trace_messages(bad_id.out))
        << "-p abc reads as 0";
}

TEST(SignatureTest, PacksPassTamperedFilesFailAndASuppliedDigestChecksTheHead)
{
    temp_dir dir;
    std::vector<uint8_t> file = pack_firmware(dir, two_image_manifest(dir));
    ASSERT_FALSE(file.empty());
    const std::string up = dir.join("up.bin"), m = dir.join("m");
    run_result r = tool({"-t", up});
    EXPECT_EQ(0, r.status);
    EXPECT_EQ(std::vector<std::string>({"Rsa check pass"}), trace_messages(r.out));
    // Every byte from offset 20 is covered (the sweep of the integrity tests); here the
    // first and the last, as the tool reads the file, and two of the magic, which is not.
    for (size_t pos : {size_t(20), file.size() - 1, size_t(0), size_t(19)}) {
        std::string changed(file.begin(), file.end());
        changed[pos] ^= 0x10;
        r = tool({"-t", dir.write("bad.bin", changed)});
        EXPECT_EQ(pos < 20 ? 0 : 255, r.status) << pos;
        EXPECT_EQ(pos >= 20, has_trace(r.out, "Rsa check not pass")) << pos;
    }
    EXPECT_EQ(0, tool({"-t", up, "-U", "-u", up}).status) << "the verdict of -t outranks -U";

    // A digest supplied by -m before -t: the signature of the head alone is checked.
    ASSERT_EQ(0, run_program(VIREO_PACK_TOOL, {"digest", up, "-o", m}).status);
    std::string head(file.begin(), file.begin() + 432);
    const std::string head_path = dir.write("head", head);
    EXPECT_EQ(0, tool({"-m", m, "-t", head_path}).status);
    EXPECT_EQ(0, tool({"--rsa", m, "--head", head_path}).status);
    head[300] ^= 1; // inside the signed range, but the digest is the supplied one
    EXPECT_EQ(0, tool({"-m", m, "-t", dir.write("h300", head)}).status);
    head[305] ^= 1; // the signature itself
    EXPECT_EQ(255, tool({"-m", m, "-t", dir.write("h305", head)}).status);
    r = tool({"-t", head_path, "-m", m});
    EXPECT_EQ(255, r.status) << "the digest came after the test";
    EXPECT_TRUE(has_trace(r.out, "Rsa check not pass"));
    r = tool({"-m", dir.join("none"), "-t", head_path});
    EXPECT_EQ(255, r.status);
    EXPECT_TRUE(has_trace(r.out, "no md5 Rsa check not pass")) << r.out;
    EXPECT_TRUE(has_trace(r.out, "Failed to get file size, file='" + dir.join("none") + "'"));
    EXPECT_EQ(255, tool({"-m", m, "-t", dir.write("h", "tiny")}).status);
}
