// SPDX-License-Identifier: Apache-2.0
// The report of --report, read as a program reads it: every event of -C, -U and -r on the
// upgrade roads checked against the schema of docs/report.md, the same traces and exit
// status with and without it, percent over a large upgrade, and the failure a result names.
#include "upgrade_roads.h"

#include "common/vireo_common.h"
#include "pack_fixture.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <regex>
#include <set>
#include <fcntl.h>
#include <spawn.h>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

using events = std::vector<cjson_ptr>;

// The report's lines, each parsed; a line that is not a JSON object fails the test.
events read_events(const std::string &path)
{
    events out;
    std::istringstream in(read_file(path));
    for (std::string line; std::getline(in, line);) {
        cJSON *obj = cJSON_Parse(line.c_str());
        EXPECT_TRUE(obj && cJSON_IsObject(obj)) << "not a JSON object: " << line;
        if (obj)
            out.emplace_back(obj, cJSON_Delete);
    }
    return out;
}

std::string name_of(const cJSON *event)
{
    const cJSON *e = cJSON_GetObjectItemCaseSensitive(event, "event");
    return cJSON_IsString(e) ? e->valuestring : "";
}

const cJSON *member(const cJSON *event, const char *key)
{
    return cJSON_GetObjectItemCaseSensitive(event, key);
}

double number(const cJSON *event, const char *key)
{
    const cJSON *m = member(event, key);
    return cJSON_IsNumber(m) ? m->valuedouble : -1;
}

std::string text(const cJSON *event, const char *key)
{
    const cJSON *m = member(event, key);
    return cJSON_IsString(m) ? m->valuestring : "";
}

enum kind { STRING, NUMBER, BOOL, OBJECT, ARRAY, STRING_OR_NULL, OBJECT_OR_NULL };

bool is(const cJSON *m, kind k)
{
    switch (k) {
    case STRING:
        return cJSON_IsString(m);
    case NUMBER:
        return cJSON_IsNumber(m);
    case BOOL:
        return cJSON_IsBool(m);
    case OBJECT:
        return cJSON_IsObject(m);
    case ARRAY:
        return cJSON_IsArray(m);
    case STRING_OR_NULL:
        return cJSON_IsString(m) || cJSON_IsNull(m);
    case OBJECT_OR_NULL:
        return cJSON_IsObject(m) || cJSON_IsNull(m);
    }
    return false;
}

// The members every event of a name carries, as docs/report.md lists them.
const std::map<std::string, std::vector<std::pair<const char *, kind>>> kSchema = {
    {"start", {{"command", STRING}, {"file", STRING_OR_NULL}, {"work_mode", STRING}}},
    {"image",
     {{"offset", NUMBER},
      {"verified", BOOL},
      {"fits", BOOL},
      {"firmware", OBJECT_OR_NULL},
      {"partitions", ARRAY}}},
    {"plan", {{"writes", ARRAY}, {"moves", ARRAY}, {"keeps_settings", BOOL}, {"bytes", NUMBER}}},
    {"progress",
     {{"phase", STRING},
      {"item", STRING},
      {"done", NUMBER},
      {"total", NUMBER},
      {"percent", NUMBER}}},
    {"result", {{"status", NUMBER}}},
};

const std::set<std::string> kPhases = {"verifying", "flags",        "moving",           "erasing",
                                       "writing",   "reading back", "copying user data"};

// Checks each event against the schema and the order start, image..., plan, progress...,
// result; returns the events' names in order (progress events once per run of them).
std::string check_schema(const events &evs, const std::string &what)
{
    std::string order;
    for (const cjson_ptr &ev : evs) {
        const std::string name = name_of(ev.get());
        const auto schema = kSchema.find(name);
        if (schema == kSchema.end()) {
            ADD_FAILURE() << what << ": unknown event '" << name << "'";
            continue;
        }
        for (const auto &[key, k] : schema->second)
            EXPECT_TRUE(is(member(ev.get(), key), k)) << what << ": " << name << "." << key;
        if (name == "progress") {
            EXPECT_TRUE(kPhases.count(text(ev.get(), "phase"))) << what << text(ev.get(), "phase");
            EXPECT_LE(number(ev.get(), "done"), number(ev.get(), "total")) << what;
            EXPECT_GE(number(ev.get(), "percent"), 0) << what;
            EXPECT_LE(number(ev.get(), "percent"), 100) << what;
        }
        if (name == "image") {
            EXPECT_EQ(!cJSON_IsTrue(member(ev.get(), "fits")),
                      cJSON_IsString(member(ev.get(), "reason")))
                << what << ": a refused image says why, a fitting one does not";
        }
        if (name == "plan" && is(member(ev.get(), "writes"), ARRAY)) {
            for (const cJSON *w = member(ev.get(), "writes")->child; w; w = w->next)
                EXPECT_TRUE(is(member(w, "name"), STRING) && is(member(w, "size"), NUMBER)) << what;
        }
        const std::string tag = name == "progress" ? "P" : name.substr(0, 1);
        if (order.empty() || order.back() != 'P' || tag != "P")
            order += tag;
    }
    return order;
}

// Trace lines with the addresses and process IDs that differ from run to run taken out.
std::string comparable(const std::string &out)
{
    static const std::regex address("0x[0-9a-f]{9,}|\\(nil\\)"),
        pid("locked by [0-9]+|proc/[0-9]+"), root("/tmp/vireo_test_[A-Za-z0-9]+");
    std::string s = std::regex_replace(out, address, "ADDR");
    s = std::regex_replace(s, root, "ROOT");
    return std::regex_replace(s, pid, "locked by PID");
}

struct report_run {
    run_result run;
    events evs;
};

// The road with its command replaced by command ("" keeps it), with a report.
report_run run_with_report(const std::string &road_name, const std::string &command,
                           std::vector<std::string> env = {})
{
    upgrade_road road = make_upgrade_road(road_name);
    for (std::string &setting : env)
        if (setting.find("{root}") != std::string::npos)
            setting.replace(setting.find("{root}"), 6, road.device->path);
    if (!command.empty())
        road.args[0] = command;
    const std::string path = road.device->join("report.json");
    road.args.insert(road.args.end(), {"--report", path});
    report_run r{run_road(road, env), {}};
    r.evs = read_events(path);
    return r;
}

} // namespace

TEST(Report, EveryCommandOfEveryRoadFollowsTheSchemaAndChangesNoTrace)
{
    const struct {
        const char *road, *command;
        const char *order; // s: start, i: image, p: plan, P: progress events, r: result
        const char *started;
    } cases[] = {
        {"raw-moves", "-C", "sipr", "check"},  {"raw-moves", "-U", "sPipPr", "upgrade"},
        {"raw", "-C", "sipr", "check"},        {"raw", "-U", "sPipPr", "upgrade"},
        {"raw-ubi", "-C", "sipr", "check"},    {"raw-ubi", "-U", "sPipPr", "upgrade"},
        {"ubi", "-C", "sipr", "check"},        {"ubi", "-U", "sPipPr", "upgrade"},
        {"rollback", "", "spPr", "roll-back"},
    };
    for (const auto &c : cases) {
        const std::string what = std::string(c.road) + " " + c.command;
        const report_run r = run_with_report(c.road, c.command);
        EXPECT_EQ(0, r.run.status) << what << r.run.out;
        EXPECT_EQ(c.order, check_schema(r.evs, what)) << what;
        ASSERT_FALSE(r.evs.empty()) << what;
        EXPECT_EQ(c.started, text(r.evs.front().get(), "command")) << what;
        EXPECT_EQ(0, number(r.evs.back().get(), "status")) << what;
        EXPECT_EQ(nullptr, member(r.evs.back().get(), "message")) << what;
        // The same command on a fresh device without the report: the same traces and status.
        upgrade_road plain = make_upgrade_road(c.road);
        if (*c.command)
            plain.args[0] = c.command;
        const run_result p = run_road(plain);
        EXPECT_EQ(p.status, r.run.status) << what;
        EXPECT_EQ(comparable(p.out), comparable(r.run.out)) << what;
        EXPECT_EQ(comparable(p.err), comparable(r.run.err)) << what << ": no terminal, no line";
    }
}

TEST(Report, PlanNamesTheSlotsMovesAndSettingsTheUpgradeUses)
{
    const struct {
        const char *road, *command, *writes, *moves;
        bool keeps_settings;
    } cases[] = {
        {"raw-moves", "-U", "partition-table support-list firmware-info kernel", "log data cfg",
         true},
        {"raw", "-C", "support-list firmware-info kernel rootfs", "", true},
        // The primary scores higher: "ubi" and "firmware-info" go to their twins.
        {"raw-ubi", "-U", "support-list firmware-info.b ubi.b", "", true},
        {"ubi", "-C", "support-list firmware-info.b kernel.b", "", true},
        {"rollback", "", "extra-para.b", "", true},
    };
    for (const auto &c : cases) {
        const report_run r = run_with_report(c.road, c.command);
        const auto plan = std::find_if(r.evs.begin(), r.evs.end(), [](const cjson_ptr &e) {
            return name_of(e.get()) == "plan";
        });
        ASSERT_NE(r.evs.end(), plan) << c.road;
        std::string writes, moves;
        for (const cJSON *w = member(plan->get(), "writes")->child; w; w = w->next)
            writes += (writes.empty() ? "" : " ") + text(w, "name");
        for (const cJSON *m = member(plan->get(), "moves")->child; m; m = m->next)
            moves += (moves.empty() ? "" : " ") + text(m, "name");
        EXPECT_EQ(c.writes, writes) << c.road;
        EXPECT_EQ(c.moves, moves) << c.road;
        EXPECT_EQ(c.keeps_settings, cJSON_IsTrue(member(plan->get(), "keeps_settings"))) << c.road;
        // What an upgrade writes is what its progress names, in the plan's order.
        std::vector<std::string> written;
        for (const cjson_ptr &e : r.evs)
            if (text(e.get(), "phase") == "writing" && number(e.get(), "done") == 0)
                written.push_back(text(e.get(), "item"));
        if (std::string(c.command) == "-U") {
            std::string names;
            for (const std::string &n : written)
                names += (names.empty() ? "" : " ") + n;
            EXPECT_EQ(c.writes, names) << c.road;
        }
    }
}

TEST(Report, UbiPlanGivesBothImagesScoresAndVersions)
{
    const report_run r = run_with_report("ubi", "-C");
    const auto plan = std::find_if(r.evs.begin(), r.evs.end(),
                                   [](const cjson_ptr &e) { return name_of(e.get()) == "plan"; });
    ASSERT_NE(r.evs.end(), plan);
    const cJSON *images = member(plan->get(), "images");
    EXPECT_EQ(2, number(member(images, "primary"), "score"));
    EXPECT_EQ(1, number(member(images, "backup"), "score"));
    EXPECT_EQ("1.4.0", text(member(member(images, "primary"), "firmware"), "version"));
    EXPECT_EQ("1.2.0", text(member(member(images, "backup"), "firmware"), "version"));
    EXPECT_EQ("backup", text(plan->get(), "target"));
    std::string copies;
    for (const cJSON *c = member(plan->get(), "copies")->child; c; c = c->next)
        copies += text(c, "from") + ">" + text(c, "to") + " ";
    EXPECT_EQ("rootfs_data>rootfs_data.b log>log.b ", copies);
}

TEST(Report, PercentNeverGoesBackAndReachesAHundredWithTheLastByte)
{
    // A large upgrade: a layout change that moves a MiB of user data, and two MiB-sized
    // contents written, read back and erased over.
    std::vector<raw_ptn> ptns = with_records({{"kernel", 0x100000, 0x200000, ""},
                                              {"rootfs", 0x300000, 0x200000, ""},
                                              {"data", 0x500000, 0x100000, pattern(0x100000, 41)}});
    std::vector<raw_ptn> next = ptns;
    next[7] = {"data", 0x600000, 0x100000, ""};
    auto dev = std::make_shared<raw_device>(ptns, 0x800000);
    pack_images(*dev, {{kFits,
                        table_json(next, 0x800000),
                        "",
                        {{"kernel", pattern(0x180000, 42)}, {"rootfs", pattern(0x1c0001, 43)}}}});
    install_stand_ins(*dev);
    upgrade_road road;
    road.device = dev;
    road.args = {"-U", "-u", dev->join("up.bin"), "--report", dev->join("report.json")};
    const run_result r = run_road(road);
    ASSERT_EQ(0, r.status) << r.out;
    const events evs = read_events(dev->join("report.json"));
    double last = -1;
    std::string last_item;
    size_t progress = 0;
    std::string at_hundred; // the first item seen at 100%
    for (const cjson_ptr &e : evs) {
        if (name_of(e.get()) != "progress")
            continue;
        progress++;
        const double p = number(e.get(), "percent");
        const std::string item = text(e.get(), "phase") + " " + text(e.get(), "item");
        EXPECT_GE(p, last) << item;
        // Within a stream of bytes an event comes at least with every whole percent.
        if (item == last_item && text(e.get(), "phase") != "erasing") {
            EXPECT_LE(p - last, 1.5) << item;
        }
        last_item = item;
        if (p == 100 && at_hundred.empty())
            at_hundred = text(e.get(), "phase") + " " + text(e.get(), "item") + " " +
                         std::to_string(number(e.get(), "done") == number(e.get(), "total"));
        last = p;
    }
    EXPECT_EQ(100, last);
    // Weighted by bytes, percent does not sit at its end: it reaches 100 with the last
    // counted byte, the read-back of the last content, and not before.
    EXPECT_EQ("reading back rootfs 1", at_hundred);
    EXPECT_GE(progress, 50u);
}

TEST(Report, FailureNamesWhatDecidedIt)
{
    const struct {
        const char *what, *road, *command, *env;
        const char *message; // the start of the result's message
    } cases[] = {
        {"an erase that did not happen", "raw", "-U", "VIREO_MTD_NO_ERASE=1",
         "PTN[kernel] reads back other bytes than written, at 0x00000000 of /"},
        {"a UBI write that fails", "ubi", "-U", "VIREO_FAIL_PATHS={root}/dev/ubi0_7",
         "cannot write 18433 bytes to volume"},
    };
    for (const auto &c : cases) {
        const report_run r = run_with_report(c.road, c.command, {c.env});
        EXPECT_EQ(255, r.run.status) << c.what;
        ASSERT_FALSE(r.evs.empty()) << c.what;
        const cJSON *result = r.evs.back().get();
        EXPECT_EQ("result", name_of(result)) << c.what;
        EXPECT_EQ(255, number(result, "status")) << c.what;
        const std::string message = text(result, "message");
        EXPECT_EQ(0u, message.rfind(c.message, 0)) << c.what << ": " << message;
        EXPECT_TRUE(has_trace(r.run.out, message))
            << c.what << ": the message is one of the run's traces: " << message;
    }
}

TEST(Report, RefusedAndUnverifiedImagesSayWhy)
{
    // Another model's file, and a file whose signature no longer verifies.
    upgrade_road road = make_upgrade_road("raw");
    road.args[0] = "-C";
    const std::string path = road.device->join("report.json");
    road.args.insert(road.args.end(), {"--report", path});
    pack_images(*road.device, {{"[" + entry_json("VR200", "1.0", "55530000") + "]", "", "", {}}});
    run_result r = run_road(road);
    EXPECT_EQ(255, r.status);
    events evs = read_events(path);
    EXPECT_EQ("sir", check_schema(evs, "another model"));
    ASSERT_EQ(3u, evs.size());
    EXPECT_TRUE(cJSON_IsTrue(member(evs[1].get(), "verified")));
    EXPECT_EQ("Firmware is not allowed to upgrade into this device.", text(evs[1].get(), "reason"));
    EXPECT_EQ("Firmware is not allowed to upgrade into this device.",
              text(evs[2].get(), "message"));

    std::string bytes = read_file(road.device->join("up.bin"));
    bytes[bytes.size() - 1] ^= 0x5a;
    write_file(road.device->join("up.bin"), bytes);
    r = run_road(road);
    EXPECT_EQ(255, r.status);
    evs = read_events(path);
    EXPECT_EQ("sir", check_schema(evs, "tampered"));
    ASSERT_EQ(3u, evs.size());
    EXPECT_FALSE(cJSON_IsTrue(member(evs[1].get(), "verified")));
    EXPECT_FALSE(text(evs[1].get(), "reason").empty());
    EXPECT_EQ(text(evs[1].get(), "reason"), text(evs[2].get(), "message"));
    EXPECT_TRUE(has_trace(r.out, text(evs[2].get(), "message"))) << r.out;
}

// The progress line as a person sees it: -U in a terminal (a tmux pane), its standard
// output sent to a file, the pane captured once the tool has finished.
TEST(Progress, TerminalShowsOneLineUpToItsLastState)
{
    if (!VIREO_PROGRESS_LINE)
        GTEST_SKIP() << "built without the progress line (VIREO_TERMINAL_PROGRESS=OFF)";
    if (run_program("/bin/sh", {"-c", "command -v tmux"}).status != 0)
        GTEST_SKIP() << "tmux is not installed (scripts/deps.sh installs it)";
    upgrade_road road = make_upgrade_road("raw");
    const fake_root &dev = *road.device;
    std::string script = "#!/bin/sh\n";
    for (const std::string &setting : tool_env(dev)) {
        const size_t eq = setting.find('=');
        script += "export " + setting.substr(0, eq) + "='" + setting.substr(eq + 1) + "'\n";
    }
    script += "'" VIREO_FAKE_ROOT_TOOL "' '" + dev.path + "'";
    for (const std::string &arg : road.args)
        script += " '" + arg + "'";
    script += " >'" + dev.join("out.txt") + "'\necho $? >'" + dev.join("status.txt") +
              ".new'\nmv '" + dev.join("status.txt.new") + "' '" + dev.join("status.txt") +
              "'\nexec sleep 60\n";
    const std::string run = dev.write("run.sh", script);
    const std::string socket = dev.join("tmux.sock");
    const auto tmux = [&socket](std::vector<std::string> args) {
        args.insert(args.begin(), {"-S", socket});
        return run_program("/usr/bin/env", [&] {
            std::vector<std::string> all = {"tmux"};
            all.insert(all.end(), args.begin(), args.end());
            return all;
        }());
    };
    ASSERT_EQ(0, tmux({"new-session", "-d", "-x", "200", "-y", "20", "sh " + run}).status);
    std::string status;
    for (int i = 0; i < 600 && status.empty(); i++) {
        usleep(100 * 1000);
        status = read_file(dev.join("status.txt"));
    }
    const run_result pane = tmux({"capture-pane", "-p", "-J"});
    tmux({"kill-server"});
    ASSERT_EQ("0\n", status) << read_file(dev.join("out.txt"));
    std::vector<std::string> lines;
    std::istringstream in(pane.out);
    // Not the tool's: the shell's complaint about the fake tree's missing /proc, and in a
    // cross build the host loader's about the emulated tool's preloaded library.
    for (std::string line; std::getline(in, line);)
        if (!line.empty() && line.find("oom_score_adj") == std::string::npos &&
            line.find("ld.so: object") == std::string::npos)
            lines.push_back(line);
    // One line, drawn over and over, left at its last state; nothing of standard output.
    ASSERT_EQ(1u, lines.size()) << pane.out;
    EXPECT_TRUE(std::regex_search(lines[0],
                                  std::regex("^flags extra-para +64\\.0 KiB/64\\.0 KiB +100\\.0%")))
        << lines[0];
    EXPECT_NE(std::string::npos, read_file(dev.join("out.txt")).find("[TRACE]"));
}

TEST(Report, AReaderThatGoesAwayDoesNotStopTheUpgrade)
{
    // The report goes to a pipe whose reader is gone before the tool starts.
    const upgrade_road road = make_upgrade_road("raw");
    const fake_root &dev = *road.device;
    int p[2];
    ASSERT_EQ(0, pipe(p));
    close(p[0]);
    std::vector<std::string> words = {VIREO_FAKE_ROOT_TOOL, dev.path};
    words.insert(words.end(), road.args.begin(), road.args.end());
    words.insert(words.end(), {"--report", "/dev/fd/3"});
    std::vector<char *> argv, envp;
    for (std::string &w : words)
        argv.push_back(&w[0]);
    argv.push_back(nullptr);
    std::vector<std::string> env = tool_env(dev);
    for (std::string &e : env)
        envp.push_back(&e[0]);
    envp.push_back(nullptr);
    const std::string out = dev.join("out.txt"), err = dev.join("err.txt");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, p[1], 3);
    posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    pid_t pid = 0;
    ASSERT_EQ(0, posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), envp.data()));
    posix_spawn_file_actions_destroy(&actions);
    close(p[1]);
    int status = 0;
    waitpid(pid, &status, 0);
    ASSERT_TRUE(WIFEXITED(status)) << "killed by signal " << WTERMSIG(status);
    EXPECT_EQ(0, WEXITSTATUS(status)) << read_file(out);
    EXPECT_NE(std::string::npos, read_file(err).find("cannot write the report any more"))
        << read_file(err);
    EXPECT_EQ(road.flag_done, content_of(dev.bytes(road.flag))) << "the upgrade went to its end";
}

TEST(Report, UbiImageOfAnOlderVersionIsRefusedWithTheVersionTest)
{
    upgrade_road road = make_upgrade_road("ubi");
    road.args[0] = "-C";
    const std::string path = road.device->join("report.json");
    road.args.insert(road.args.end(), {"--report", path});
    const std::string record = with_content_header(fwinfo_json("1.2.0 Build 1 Rel.1"));
    pack_images(*road.device, {{kFits, "", "", {{"firmware-info.b", record}}}});
    const run_result r = run_road(road);
    EXPECT_EQ(255, r.status);
    const events evs = read_events(path);
    EXPECT_EQ("sir", check_schema(evs, "older version"));
    ASSERT_EQ(3u, evs.size());
    EXPECT_EQ("firmware software version is unmatch", text(evs[1].get(), "reason"));
    EXPECT_EQ("1.2.0", text(member(evs[1].get(), "firmware"), "version"));
    EXPECT_EQ("firmware software version is unmatch", text(evs[2].get(), "message"));
}
