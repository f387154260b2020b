// SPDX-License-Identifier: Apache-2.0
// Whole commands on a large signed firmware file, each against md5sum of the same file in
// the same run: one hash pass over the file is the floor of a check. The file is measured
// where a router keeps it, in tmpfs, and on disk. Prints the median wall time, the ratio,
// the peak resident set (a mapped file's pages included) and the largest private memory.
#include "raw_device.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <random>
#include <unistd.h>

namespace
{

struct measure {
    double seconds;   // median wall time
    long max_rss_kb;  // largest peak resident set of the runs
    long max_anon_kb; // largest private memory seen
    int status;
};

// Runs the command through the static probe, whose own small footprint is all that the
// child's peak memory counts from before its exec: the timed runs without its memory
// sampler (which would take a core from a command that keeps two busy), then one more with
// it for the private memory.
measure run(const std::vector<std::string> &argv, int runs)
{
    std::string args;
    for (const std::string &a : argv)
        args += " '" + a + "'";
    std::vector<double> times;
    measure m{0, 0, 0, 0};
    for (int i = 0; i <= runs; i++) {
        const bool sampled = i == runs;
        const std::string cmd =
            std::string(VIREO_RSS_PROBE) + (sampled ? "" : " --no-sampling") + args;
        FILE *p = popen(cmd.c_str(), "r");
        double seconds = 0;
        long rss = 0, anon = 0;
        if (!p || fscanf(p, "%d %lf %ld %ld", &m.status, &seconds, &rss, &anon) != 4)
            m.status = -1;
        if (p)
            pclose(p);
        if (!sampled)
            times.push_back(seconds);
        m.max_rss_kb = std::max(m.max_rss_kb, rss);
        m.max_anon_kb = std::max(m.max_anon_kb, anon);
    }
    std::sort(times.begin(), times.end());
    m.seconds = times[times.size() / 2];
    return m;
}

// One line; false when a target was missed.
bool report(const char *what, const measure &m, const measure &ref, double limit, long anon_limit)
{
    const double ratio = m.seconds / ref.seconds;
    const bool ok = m.status == 0 && ratio <= limit && m.max_anon_kb <= anon_limit;
    printf("  %-12s %8.1f ms  %.2fx (target <= %.2fx)  peak %7ld KiB, private %5ld KiB "
           "(target <= %ld)  %s\n",
           what, m.seconds * 1e3, ratio, limit, m.max_rss_kb, m.max_anon_kb, anon_limit,
           ok ? "ok" : "MISSED");
    return ok;
}

// A device of twelve partitions: record_size each but for the kernel and rootfs of big.
std::vector<raw_ptn> twelve_partitions(const std::string &devinfo, uint32_t big,
                                       uint32_t record_size)
{
    const char *names[] = {"partition-table", "device-info",  "device-info.b", "extra-para",
                           "extra-para.b",    "support-list", "firmware-info", "firmware-info.b",
                           "kernel",          "rootfs",       "rootfs_data",   "log"};
    std::vector<raw_ptn> ptns;
    uint32_t base = 0;
    for (const char *name : names) {
        const std::string n = name;
        const uint32_t size = n == "kernel" || n == "rootfs" ? big : record_size;
        ptns.push_back(
            {n, base, size,
             n == "device-info" || n == "device-info.b" ? with_content_header(devinfo) : ""});
        base += size;
    }
    return ptns;
}

} // namespace

int main(int argc, char **argv)
{
    const int mib = argc > 1 ? atoi(argv[1]) : 64;
    const int runs = argc > 2 ? atoi(argv[2]) : 7;
    // The size of each small partition of the twelve-partition device (records, logs).
    const uint32_t record_mib = argc > 3 ? static_cast<uint32_t>(atoi(argv[3])) : 1;
    // Under the require policy the file also carries an Ed25519 signature of the test key,
    // and the targets allow the second signature's cost.
    const bool require = VIREO_SIGNATURE_REQUIRE;
    const double limit = require ? 1.15 : 1.05;
    if (require)
        set_pack_ed25519_keys({std::string(VIREO_KEY_DIR) + "/vireo_test_ed25519_DO_NOT_SHIP.pem"});
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
    // The layout an independent check used: six partitions in the image, twelve on the device.
    temp_dir six_dir;
    const std::vector<raw_ptn> twelve =
        twelve_partitions(devinfo, (static_cast<uint32_t>(mib) + 1) << 20, record_mib << 20);
    const uint32_t twelve_size = twelve.back().base + twelve.back().size;
    std::vector<raw_ptn> carried(twelve.begin(), twelve.begin() + 2);
    const std::vector<uint8_t> six =
        pack_firmware(six_dir, fw_manifest(six_dir, {{list,
                                                      table_json(twelve, twelve_size),
                                                      fwinfo,
                                                      {{"kernel", kernel},
                                                       {"rootfs", pattern(300000, 2)},
                                                       {"rootfs_data", pattern(1000, 3)},
                                                       {"log", pattern(1000, 4)}}}}));
    if (six.empty()) {
        fprintf(stderr, "packing the six-partition firmware file failed\n");
        return 1;
    }
    kernel = std::string();
    raw_device device(raw_device::layout(devinfo));
    raw_device device12(twelve, twelve_size);
    fake_root ubi;
    ubi.ubi_volume(0, 0, "device-info", with_content_header(devinfo));
    ubi.ubi_volume(0, 1, "firmware-info", with_content_header(fwinfo));
    // 4 MiB and the seals (8 bytes for each 4 KiB of the file); -t holds even less.
    const long anon_limit = 4096 + static_cast<long>(file.size() / 4096 * 8 / 1024);
    printf("signature policy: %s; firmware file: %d MiB, signed%s; %d runs each, median\n",
           require ? "require" : "legacy", mib, require ? " (RSA and Ed25519)" : "", runs);

    // tmpfs first, where a router keeps the file; then the disk.
    char shm[] = "/dev/shm/vireo_bench_XXXXXX";
    const bool have_shm = mkdtemp(shm) != nullptr;
    const std::string tmpfs = have_shm ? std::string(shm) + "/up.bin" : "";
    const std::string tmpfs_six = have_shm ? std::string(shm) + "/six.bin" : "";
    if (have_shm) {
        write_file(tmpfs, std::string(file.begin(), file.end()));
        write_file(tmpfs_six, std::string(six.begin(), six.end()));
    }
    bool ok = true;
    for (const std::string &up : {tmpfs, dir.join("up.bin")}) {
        if (up.empty())
            continue;
        printf("%s:\n", up == tmpfs ? "in tmpfs (/dev/shm)" : "on disk (/tmp)");
        const measure md5 = run({"/usr/bin/md5sum", up}, runs);
        printf("  %-12s %8.1f ms  (reference)                peak %7ld KiB, private %5ld KiB\n",
               "md5sum", md5.seconds * 1e3, md5.max_rss_kb, md5.max_anon_kb);
        ok &= report("-C", run({VIREO_FAKE_ROOT_TOOL, device.path, "-C", "-u", up}, runs), md5,
                     limit, anon_limit);
        ok &= report("-C -w ubi",
                     run({VIREO_FAKE_ROOT_TOOL, ubi.path, "-C", "-w", "ubi", "-u", up}, runs), md5,
                     limit, anon_limit);
        const measure head = run({VIREO_TOOL, "-t", up}, runs);
        ok &= report("-t", head, md5, limit, anon_limit);
        if (up == tmpfs) {
            const measure md5_six = run({"/usr/bin/md5sum", tmpfs_six}, runs);
            printf("  %-12s %8.1f ms  (reference of the six-partition file)\n", "md5sum",
                   md5_six.seconds * 1e3);
            ok &= report("-C 6 of 12",
                         run({VIREO_FAKE_ROOT_TOOL, device12.path, "-C", "-u", tmpfs_six}, runs),
                         md5_six, limit, anon_limit);
        }
        printf("  -t peak resident set: %ld KiB (target < 4096 KiB) %s\n", head.max_rss_kb,
               head.max_rss_kb < 4096 ? "ok" : "MISSED");
        ok &= head.max_rss_kb < 4096;
    }
    if (have_shm) {
        unlink(tmpfs_six.c_str());
        unlink(tmpfs.c_str());
        rmdir(shm);
    }
    return ok ? 0 : 1;
}
