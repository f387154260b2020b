// Whole commands on a large signed firmware file, each against md5sum of the same file in
// the same run: one hash pass over the file is the floor of a check. Prints the median
// wall time and the peak resident memory of each, and the ratios.
#include "pack_fixture.h"
#include "raw_device.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <random>

namespace
{

struct measure {
    double seconds;  // median wall time
    long max_rss_kb; // largest peak resident set of the runs
    int status;
};

// Runs the command through the static probe, whose own small footprint is all that the
// child's peak memory counts from before its exec.
measure run(const std::vector<std::string> &argv, int runs)
{
    std::string cmd = VIREO_RSS_PROBE;
    for (const std::string &a : argv)
        cmd += " '" + a + "'";
    std::vector<double> times;
    measure m{0, 0, 0};
    for (int i = 0; i < runs; i++) {
        FILE *p = popen(cmd.c_str(), "r");
        double seconds = 0;
        long rss = 0;
        if (!p || fscanf(p, "%d %lf %ld", &m.status, &seconds, &rss) != 3)
            m.status = -1;
        if (p)
            pclose(p);
        times.push_back(seconds);
        m.max_rss_kb = std::max(m.max_rss_kb, rss);
    }
    std::sort(times.begin(), times.end());
    m.seconds = times[times.size() / 2];
    return m;
}

void report(const char *what, const measure &m, const measure &ref, double limit)
{
    const double ratio = m.seconds / ref.seconds;
    printf("%-28s %8.1f ms %8ld KiB  exit %3d  time ratio %.2fx (target <= %.2fx) %s\n", what,
           m.seconds * 1e3, m.max_rss_kb, m.status, ratio, limit, ratio <= limit ? "ok" : "MISSED");
}

} // namespace

int main(int argc, char **argv)
{
    const int mib = argc > 1 ? atoi(argv[1]) : 64;
    const int runs = argc > 2 ? atoi(argv[2]) : 7;
    temp_dir dir;
    std::string kernel(static_cast<size_t>(mib) << 20, '\0');
    std::mt19937 rng(1);
    for (char &c : kernel)
        c = static_cast<char>(rng());
    const std::string devinfo = devinfo_json("VR100", "1.0", "55530000");
    const std::string list = "[" + entry_json("VR100", "1.0", "55530000") + "]";
    const std::string fwinfo =
        R"({"software-version": "1.4.0 Build 1 Rel.1", "firmware-id": "ID"})";
    const std::vector<uint8_t> file =
        pack_firmware(dir, fw_manifest(dir, {{list, "", fwinfo, {{"kernel", kernel}}}}));
    if (file.empty()) {
        fprintf(stderr, "packing the firmware file failed\n");
        return 1;
    }
    const std::string up = dir.join("up.bin");
    kernel = std::string();
    raw_device device(raw_device::layout(devinfo));
    printf("firmware file: %d MiB, signed; %d runs each, median\n", mib, runs);

    const measure md5 = run({"/usr/bin/md5sum", up}, runs);
    printf("%-28s %8.1f ms %8ld KiB\n", "md5sum (reference)", md5.seconds * 1e3, md5.max_rss_kb);
    const measure check = run({VIREO_FAKE_ROOT_TOOL, device.path, "-C", "-u", up}, runs);
    report("-C (raw flash)", check, md5, 1.10);
    const measure head = run({VIREO_TOOL, "-t", up}, runs);
    report("-t", head, md5, 1.10);
    printf("-t peak memory: %ld KiB (target < 4096 KiB) %s\n", head.max_rss_kb,
           head.max_rss_kb < 4096 ? "ok" : "MISSED");

    fake_root ubi;
    ubi.write("sys/class/ubi/version", "1\n");
    ubi.ubi_volume(0, 0, "device-info", with_content_header(devinfo));
    ubi.ubi_volume(0, 1, "firmware-info", with_content_header(fwinfo));
    const measure check_ubi =
        run({VIREO_FAKE_ROOT_TOOL, ubi.path, "-C", "-w", "ubi", "-u", up}, runs);
    report("-C -w ubi", check_ubi, md5, 1.30);
    const long budget = static_cast<long>(file.size() / 1024) + 4096;
    printf("-C -w ubi peak memory: %ld KiB (target <= file + 4 MiB = %ld KiB) %s\n",
           check_ubi.max_rss_kb, budget, check_ubi.max_rss_kb <= budget ? "ok" : "MISSED");
    return check.status == 0 && head.status == 0 && check_ubi.status == 0 ? 0 : 1;
}
