// SPDX-License-Identifier: Apache-2.0
// vireo_powercut [--list | --stride N] [ROAD...]: cuts the power at every flash-changing
// operation of each upgrade road (all of them when none is named), before it, after it and
// with half of a write landed, on a fake device whose flash behaves as flash (the preloaded
// library). After each cut it classifies the device as the boot loader would see it, then
// runs the same command again on the cut device, which must install. One line per road:
//   ROAD: N cut points, U untouched, O off, I installed, V violations, R/N retries installed,
//   L lost user data, J journal resumed
// and last "N passed, M failed" over the roads. A violation prints the cut point, the variant
// and the first byte that differs from what was allowed there. --list only prints each road's
// operations, as the uncut run counts them; --stride N cuts at every Nth operation only (each
// variant one operation further on), for a quick look.
#include "upgrade_roads.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <unistd.h>

namespace
{

using files = std::map<std::string, std::string>;

// What a retry says when it finishes a layout change from its journal, and when it cannot
// read the partition table.
const char kResumed[] = "finishing the layout change of an interrupted upgrade";
const char kTableUnread[] = "Failed to build ptn_table of flash";

// The device as a command left it: every file below dev/, and the damaged UBI volumes.
struct device_state {
    files bytes;
    std::vector<std::string> damaged;
};

device_state snapshot(const fake_root &dev)
{
    device_state s{dev.devices(), {}};
    for (const auto &entry : s.bytes)
        if (access(dev.join("dev/." + entry.first + ".updating").c_str(), F_OK) == 0)
            s.damaged.push_back(entry.first);
    return s;
}

void restore(const fake_root &dev, const files &bytes)
{
    for (const auto &[name, content] : bytes)
        if (name.rfind("mtdblock", 0) != 0) // the same file as its mtd<N>
            write_file(dev.join("dev/" + name), content);
    for (const auto &[name, content] : bytes)
        unlink(dev.join("dev/." + name + ".updating").c_str());
}

std::string file_name(const std::string &fixed)
{
    return fixed.substr(fixed.rfind('/') + 1);
}

// The first offset of [from, to) at which a and b differ, or npos.
size_t first_difference(const std::string &a, const std::string &b, size_t from, size_t to)
{
    for (size_t i = from; i < to; i++)
        if (i >= a.size() || i >= b.size() || a[i] != b[i])
            return i;
    return std::string::npos;
}

std::string where(const std::string &name, size_t at)
{
    char text[64];
    snprintf(text, sizeof(text), "@0x%zx", at);
    return "/dev/" + name + text;
}

struct road_sweep {
    upgrade_road road;
    files factory, installed;
    std::map<std::string, std::vector<std::pair<size_t, size_t>>> target; // ranges per file

    explicit road_sweep(upgrade_road r) : road(std::move(r))
    {
        for (const auto *set : {&road.carried, &road.user, &road.spare})
            for (const byte_range &range : *set)
                add_target(range);
        add_target({road.flag, 0, 0});
    }

    // A range of the road's, in both views of the flash: a partition's file and the whole
    // flash (/dev/mtd0), which the preloaded library keeps alike.
    void add_target(const byte_range &range)
    {
        target[file_name(range.file)].push_back({range.offset, range.len});
        unsigned n = 0;
        if (sscanf(range.file.c_str(), "/dev/mtd%u", &n) != 1 || n > road.layout.size())
            return;
        if (n > 0) {
            const raw_ptn &p = road.layout[n - 1];
            target["mtd0"].push_back(
                {p.base + range.offset, range.len ? range.len : p.size - range.offset});
            return;
        }
        const size_t end = range.len ? range.offset + range.len : road.disk_size;
        for (size_t i = 0; i < road.layout.size(); i++) {
            const raw_ptn &p = road.layout[i];
            const size_t lo = std::max<size_t>(range.offset, p.base);
            const size_t hi = std::min<size_t>(end, size_t{p.base} + p.size);
            if (lo < hi)
                target["mtd" + std::to_string(i + 1)].push_back({lo - p.base, hi - lo});
        }
    }

    static size_t end_of(const std::pair<size_t, size_t> &range, const std::string &bytes)
    {
        return range.second ? range.first + range.second : bytes.size();
    }

    // A byte changed where nothing was to be written: its place, or "".
    std::string outside_change(const device_state &s) const
    {
        for (const auto &[name, bytes] : factory) {
            if (name.rfind("mtdblock", 0) == 0)
                continue;
            const std::string &now = s.bytes.at(name);
            const auto t = target.find(name);
            std::vector<char> free_byte(bytes.size(), 1);
            if (t != target.end())
                for (const auto &range : t->second)
                    for (size_t i = range.first; i < end_of(range, bytes) && i < bytes.size(); i++)
                        free_byte[i] = 0;
            if (now.size() != bytes.size())
                return where(name, std::min(now.size(), bytes.size()));
            for (size_t i = 0; i < bytes.size(); i++)
                if (free_byte[i] && now[i] != bytes[i])
                    return where(name, i);
        }
        return "";
    }

    // Where the ranges differ from reference (damaged volumes differ at 0), or "".
    static std::string differs(const device_state &s, const std::vector<byte_range> &ranges,
                               const files &reference)
    {
        for (const byte_range &range : ranges) {
            const std::string name = file_name(range.file);
            if (std::find(s.damaged.begin(), s.damaged.end(), name) != s.damaged.end())
                return where(name, 0) + " (damaged volume)";
            const std::string &now = s.bytes.at(name), &want = reference.at(name);
            const size_t to = range.len ? range.offset + range.len : want.size();
            const size_t at = first_difference(now, want, range.offset, to);
            if (at != std::string::npos)
                return where(name, at);
        }
        return "";
    }

    std::vector<byte_range> contents() const
    {
        std::vector<byte_range> all = road.carried;
        all.insert(all.end(), road.user.begin(), road.user.end());
        return all;
    }

    enum flag_state { FLAG_OLD, FLAG_DONE, FLAG_OFF, FLAG_OTHER_GOOD };

    flag_state flag(const device_state &s) const
    {
        const std::string name = file_name(road.flag);
        if (std::find(s.damaged.begin(), s.damaged.end(), name) != s.damaged.end())
            return FLAG_OFF;
        const std::string record = content_of(s.bytes.at(name));
        if (record == content_of(factory.at(name)))
            return FLAG_OLD;
        if (record == road.flag_done)
            return FLAG_DONE;
        return record.find("\"fwFlag\":\"GOOD\"") != std::string::npos ? FLAG_OTHER_GOOD : FLAG_OFF;
    }

    // "untouched", "off", "installed", or "VIOLATION: why; first difference: where".
    std::string classify(const device_state &s) const
    {
        const std::string outside = outside_change(s);
        if (!outside.empty())
            return "VIOLATION: a byte changed where nothing was to be written; first "
                   "difference: " +
                   outside;
        switch (flag(s)) {
        case FLAG_DONE: {
            const std::string at = differs(s, contents(), installed);
            return at.empty()
                       ? "installed"
                       : "VIOLATION: GOOD over a target not installed; first difference: " + at;
        }
        case FLAG_OLD: {
            const std::string at = differs(s, contents(), factory);
            return at.empty() ? "untouched"
                              : "VIOLATION: the old GOOD flag over a changed target; first "
                                "difference: " +
                                    at;
        }
        case FLAG_OTHER_GOOD:
            return "VIOLATION: a GOOD flag record the upgrade never writes; first difference: " +
                   where(file_name(road.flag), 0);
        case FLAG_OFF:
            break;
        }
        return "off";
    }
};

struct tally {
    size_t points = 0, untouched = 0, off = 0, installed = 0, violations = 0, retried = 0, lost = 0,
           refused = 0, resumed = 0, stopped_at_table = 0;
};

std::vector<std::string> read_lines(const std::string &path)
{
    std::vector<std::string> lines;
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

// stride: cut at every stride-th operation only, each variant starting one further on.
bool sweep(const std::string &name, bool list, size_t stride)
{
    road_sweep s(make_upgrade_road(name));
    fake_root &dev = *s.road.device;
    s.factory = snapshot(dev).bytes;
    const std::string log = dev.join("cuts.log");
    // The uncut run counts the operations and gives the installed device.
    run_result r = run_road(s.road, {"VIREO_CUT_AT=0", "VIREO_CUT_LOG=" + log});
    const std::vector<std::string> operations = read_lines(log);
    if (list) {
        for (const std::string &op : operations)
            printf("%s: %s\n", name.c_str(), op.c_str());
        return r.status == 0;
    }
    s.installed = snapshot(dev).bytes;
    if (r.status != 0 || s.classify(snapshot(dev)) != "installed") {
        printf("%s: the uncut run did not install (exit %d): %s\n%s", name.c_str(), r.status,
               s.classify(snapshot(dev)).c_str(), r.out.c_str());
        return false;
    }
    tally t;
    std::string refusals;
    bool ok = true;
    size_t first = 0;
    for (const char *variant : {"before", "after", "tear"}) {
        for (size_t n = first++ % stride + 1; n <= operations.size(); n += stride) {
            restore(dev, s.factory);
            r = run_road(s.road, {"VIREO_CUT_AT=" + std::to_string(n),
                                  std::string("VIREO_CUT_MODE=") + variant});
            t.points++;
            const device_state cut = snapshot(dev);
            const std::string state = s.classify(cut);
            const std::string point =
                std::to_string(n) + " (" + variant + ", " + operations[n - 1] + ")";
            if (r.status != -1) {
                printf("%s: cut point %s: the tool was not cut (exit %d)\n", name.c_str(),
                       point.c_str(), r.status);
                ok = false;
            }
            if (state == "untouched")
                t.untouched++;
            else if (state == "off")
                t.off++;
            else if (state == "installed")
                t.installed++;
            else {
                t.violations++;
                printf("%s: cut point %s: %s\n", name.c_str(), point.c_str(), state.c_str());
            }
            // Recovery: the same command again on the cut device.
            r = run_road(s.road);
            const device_state after = snapshot(dev);
            const bool wrote_nothing = after.bytes == cut.bytes && after.damaged == cut.damaged;
            const bool installed = r.status == 0 && s.flag(after) == road_sweep::FLAG_DONE &&
                                   road_sweep::differs(after, s.road.carried, s.installed).empty();
            if (r.out.find(kResumed) != std::string::npos)
                t.resumed++;
            if (installed)
                t.retried++;
            else if (wrote_nothing && state == "off") {
                t.refused++;
                if (r.out.find(kTableUnread) != std::string::npos)
                    t.stopped_at_table++;
                refusals += " " + std::to_string(n) + std::string(variant, 1);
            } else
                printf("%s: cut point %s: the retry did not install (exit %d)\n", name.c_str(),
                       point.c_str(), r.status);
            // Lost: neither where the new layout puts it nor still where the old one had it
            // (a retry that refused to start leaves it in the old places).
            if (!road_sweep::differs(after, s.road.user, s.installed).empty() &&
                !road_sweep::differs(after, s.road.user, s.factory).empty())
                t.lost++;
        }
    }
    if (t.refused)
        printf("%s: %zu retries wrote nothing, refusing a record they read first that the cut "
               "left unreadable: %zu stopped at the flag record, %zu stopped at the partition "
               "table, at cut points (b: before, a: after, t: tear):%s\n",
               name.c_str(), t.refused, t.refused - t.stopped_at_table, t.stopped_at_table,
               refusals.c_str());
    printf("%s: %zu cut points, %zu untouched, %zu off, %zu installed, %zu violations, %zu/%zu "
           "retries installed, %zu lost user data, %zu journal resumed\n",
           name.c_str(), t.points, t.untouched, t.off, t.installed, t.violations, t.retried,
           t.points, t.lost, t.resumed);
    return ok && t.violations == 0 && t.retried + t.refused == t.points;
}

} // namespace

int main(int argc, char **argv)
{
    const std::vector<std::string> known = upgrade_road_names();
    std::vector<std::string> roads(argv + 1, argv + argc);
    const bool list = !roads.empty() && roads[0] == "--list";
    if (list)
        roads.erase(roads.begin());
    size_t stride = 1;
    if (roads.size() >= 2 && roads[0] == "--stride") {
        stride = strtoul(roads[1].c_str(), nullptr, 10);
        roads.erase(roads.begin(), roads.begin() + 2);
        if (stride == 0) {
            fprintf(stderr, "--stride takes a count of at least 1\n");
            return 2;
        }
    }
    if (roads.empty())
        roads = known;
    int passed = 0, failed = 0;
    for (const std::string &road : roads) {
        if (std::find(known.begin(), known.end(), road) == known.end()) {
            std::string names;
            for (const std::string &name : known)
                names += " " + name;
            fprintf(stderr, "unknown road: %s (roads:%s)\n", road.c_str(), names.c_str());
            return 2;
        }
        (sweep(road, list, stride) ? passed : failed)++;
        fflush(stdout);
    }
    printf("%d passed, %d failed\n", passed, failed);
    return failed ? 1 : 0;
}
