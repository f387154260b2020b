// SPDX-License-Identifier: Apache-2.0
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
const std::string kData = VIREO_TEST_DATA;

const temp_dir kRoot;
const std::string kPidFile = kRoot.write("tmp/vireo_firmware_upgrade.pid", "");

run_result tool(std::vector<std::string> args)
{
    args.insert(args.begin(), kRoot.path);
    return run_program(VIREO_FAKE_ROOT_TOOL, args);
}

} // namespace

TEST(CommandLine, PrecedenceUsageLockAndExitStatus)
{
    const struct {
        std::vector<std::string> args;
        int status;
        bool usage, lock; // the usage text without the lock is the whole output
    } cases[] = {
        {{}, 255, true, false},
        {{"-h"}, 0, true, false},
        {{"--help"}, 0, true, false},
        {{"-x"}, 0, true, false},
        {{"-u"}, 0, true, false}, // a missing argument also asks for usage
        {{"-s"}, 255, true, false},
        {{"-r", "-h"}, 0, true, false}, // usage outranks everything
        {{"-U"}, 255, true, true},
        {{"-C", "-r"}, 0, false, false}, // roll-back outranks check and always exits 0
        {{"-C"}, 255, false, false},
        {{"-P", kData + "/ptn_valid.json"}, 0, false, true}, // no command without -s: locked
    };
    for (const auto &c : cases) {
        const std::string what = c.args.empty() ? "no arguments" : c.args.back();
        run_result r = tool(c.args);
        EXPECT_EQ(c.status, r.status) << what;
        EXPECT_EQ(c.usage, r.out.find(kUsage) != std::string::npos) << what;
        EXPECT_EQ(c.lock, r.out.find("is locked by") != std::string::npos) << what << r.out;
        EXPECT_TRUE(!c.usage || c.lock || r.out == kUsage) << what << r.out;
        EXPECT_EQ(what == "-x" || what == "-u", r.err.find("option") != std::string::npos) << r.err;
    }
}

TEST(CommandLine, ShowPrintsDumpAndBothJsonFormsOrWhyNot)
{
    // The expected text holds the dump, both JSON prints and the '=' lines; addresses
    // differ from run to run, and trace lines are compared by message only.
    run_result r = tool({"-s", "-P", kData + "/ptn_valid.json"});
    EXPECT_EQ(0, r.status);
    std::string plain;
    std::istringstream lines(r.out);
    for (std::string line; std::getline(lines, line);)
        if (line.find(": [TRACE]") == std::string::npos)
            plain += std::regex_replace(line, std::regex("= 0x[0-9a-f]+$"), "= ADDR") + "\n";
    EXPECT_EQ(read_file(kData + "/ptn_valid.show.txt"), plain);
    EXPECT_EQ(std::vector<std::string>({"json file size : 236 .", "read() return 236.", "ptn_cnt 2",
                                        "PTN  0 : name 'partition-table' base 0x00000000 size "
                                        "0x00010000 attr 0x00000000",
                                        "PTN  1 : name 'device-info' base 0x00010000 size "
                                        "0x00010000 attr 0x00000001"}),
              trace_messages(r.out));

    // A file that is no table: its reason is the last trace, and the exit status is still 0.
    temp_dir dir;
    const std::pair<std::string, std::string> failures[] = {
        {dir.join("missing.json"), "Failed to open 'partition.json', errno=2."},
        {dir.write("garbage.json", "{not json"), "Failed to parse 'partition.json'"},
        {kData + "/ptn_overlap.json", "Failed to build ptn table."}};
    for (const auto &[path, why] : failures) {
        r = tool({"-s", "-P", path});
        EXPECT_EQ(0, r.status);
        const std::vector<std::string> traces = trace_messages(r.out);
        EXPECT_EQ(why, traces.empty() ? "" : traces.back()) << r.out;
    }
}

TEST(CommandLine, LockFileHoldsThePidAndRefusesASecondInstance)
{
    run_result r = tool({"-u", "up.bin"});
    EXPECT_EQ(0, r.status) << r.err;
    std::smatch m;
    ASSERT_TRUE(std::regex_match(r.out, m, std::regex("file: (.*) is locked by ([0-9]+)\n")));
    EXPECT_EQ(kPidFile, m[1].str());
    EXPECT_EQ(m[2].str() + std::string(1, '\0'), read_file(kPidFile));

    // The tool's lock is exclusive: even a shared lock held elsewhere keeps it out.
    const int fd = open(kPidFile.c_str(), O_RDONLY);
    struct flock lock = {};
    lock.l_type = F_RDLCK;
    ASSERT_EQ(0, fcntl(fd, F_SETLK, &lock));
    r = tool({"-U", "-u", "up.bin"});
    EXPECT_EQ(255, r.status);
    EXPECT_EQ("file: " + kPidFile +
                  " already locked\n"
                  "The program is already running, exit(-1)!\n",
              r.err);
    EXPECT_EQ("", r.out);
    close(fd);
}

TEST(CommandLine, WorkModeUbiIsExact)
{
    // Only the raw-flash check starts from the flash partition table.
    for (const char *mode : {"UBI", "foo", "default", "ubi"}) {
        run_result r = tool({"-C", "-w", mode, "-u", "up.bin"});
        EXPECT_EQ(std::string(mode) != "ubi",
                  has_trace(r.out, "Failed to build ptn_table of flash"))
            << mode << r.out;
    }
}

TEST(SignatureTest, PacksPassTamperedFilesFailAndASuppliedDigestChecksTheHead)
{
    temp_dir dir;
    std::vector<uint8_t> file = pack_firmware(dir, two_image_manifest(dir));
    const std::string up = dir.join("up.bin"), m = dir.join("m");
    run_result r = tool({"-t", up});
    EXPECT_EQ(0, r.status);
    EXPECT_EQ(std::vector<std::string>({"Rsa check pass"}), trace_messages(r.out));
    EXPECT_EQ(0, tool({"-t", up, "-U", "-u", up}).status) << "the verdict of -t outranks -U";

    // A digest supplied by -m before -t: the signature of the head alone is checked.
    ASSERT_EQ(0, run_program(VIREO_PACK_TOOL, {"digest", up, "-o", m}).status);
    std::string head(file.begin(), file.begin() + 432);
    const std::string head_path = dir.write("head", head);
    EXPECT_EQ(0, tool({"-m", m, "-t", head_path}).status);
    EXPECT_TRUE(has_trace(tool({"--rsa", m, "--head", head_path}).out, "Rsa check pass"));
    head[305] ^= 1; // the signature itself
    EXPECT_EQ(255, tool({"-m", m, "-t", dir.write("h305", head)}).status);
    r = tool({"-t", head_path, "-m", m});
    EXPECT_EQ(255, r.status) << "the digest came after the test";
    EXPECT_TRUE(has_trace(r.out, "Rsa check not pass"));
    r = tool({"-m", dir.join("none"), "-t", head_path});
    EXPECT_EQ(255, r.status);
    EXPECT_TRUE(has_trace(r.out, "no md5 Rsa check not pass")) << r.out;
    EXPECT_TRUE(has_trace(r.out, "Failed to get file size, file='" + dir.join("none") + "'"));
}

TEST(CommandLine, ReportOptionChangesNeitherOptionsNorPrecedence)
{
    temp_dir dir;
    const std::string report = dir.join("report.json"), up = dir.join("up.bin");
    pack_firmware(dir, two_image_manifest(dir));
    const struct {
        std::vector<std::string> with, without; // the same run with and without the report
        bool written;                           // a report is written
    } cases[] = {
        {{"-h", "--report", report}, {"-h"}, false},
        {{"--report", report, "-t", up, "-C", "-u", up}, {"-t", up, "-C", "-u", up}, false},
        {{"-s", "--report=" + report}, {"-s"}, false},
        {{"-p", "0", "--report", report}, {"-p", "0"}, false}, // no command: the lock alone
        {{"-C", "--report=" + report, "-u", up}, {"-C", "-u", up}, true},
        {{"-C", "-r", "--report", report}, {"-C", "-r"}, true},
        // An option's argument that reads "--report" is that option's argument.
        {{"-C", "-u", "--report", report}, {"-C", "-u", "--report", report}, false},
        // "--r" stays the abbreviation of "--rsa": it reads its digest file at once.
        {{"--r", up, "--report", report, "-h"}, {"--rsa", up, "-h"}, false},
        // Without its file, "--report" asks for the usage text as any missing argument does.
        {{"-C", "-u", up, "--report"}, {"-C", "-u", up, "-P"}, false},
    };
    for (const auto &c : cases) {
        unlink(report.c_str());
        const run_result w = tool(c.with), wo = tool(c.without);
        const std::string what = c.with.front() + " " + c.with.back();
        EXPECT_EQ(wo.status, w.status) << what;
        EXPECT_EQ(std::regex_replace(wo.out, std::regex("0x[0-9a-f]{9,}|by [0-9]+"), "X"),
                  std::regex_replace(w.out, std::regex("0x[0-9a-f]{9,}|by [0-9]+"), "X"))
            << what;
        EXPECT_EQ(c.written, access(report.c_str(), F_OK) == 0) << what;
    }
    // A report file that cannot be written is said so on standard error; nothing else changes.
    const run_result w = tool({"-C", "-u", up, "--report", dir.join("no/such/dir")});
    EXPECT_EQ(tool({"-C", "-u", up}).status, w.status);
    EXPECT_NE(std::string::npos, w.err.find("cannot write the report to")) << w.err;
}
