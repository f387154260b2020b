// SPDX-License-Identifier: Apache-2.0
// What the report and the progress line cost an upgrade: the same -U on fresh copies of one
// fake device (flash emulated by the preloaded library), without either, with --report, and
// with --report and standard error on a terminal (a pseudo-terminal read by this process).
// Runs are interleaved; prints the medians of wall time and of the tool's own processor time
// (user and system, which another load on the machine disturbs less) and their ratios to
// the plain run.
#include "raw_device.h"
#include "upgrade_roads.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <pty.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

double now()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

// Runs the tool with args and env, standard output to /dev/null, standard error to /dev/null
// or to a pseudo-terminal drained here. The wall time in seconds, or -1 on failure; *cpu: the
// tool's user and system time.
double timed_run(const std::vector<std::string> &args, const std::vector<std::string> &env,
                 bool terminal, double *cpu)
{
    std::vector<char *> argv, envp;
    argv.push_back(const_cast<char *>(VIREO_FAKE_ROOT_TOOL));
    for (const std::string &a : args)
        argv.push_back(const_cast<char *>(a.c_str()));
    argv.push_back(nullptr);
    for (const std::string &e : env)
        envp.push_back(const_cast<char *>(e.c_str()));
    envp.push_back(nullptr);
    int master = -1, slave = -1;
    if (terminal && openpty(&master, &slave, nullptr, nullptr, nullptr) != 0)
        return -1;
    const double start = now();
    const pid_t pid = fork();
    if (pid == 0) {
        const int null = open("/dev/null", O_WRONLY);
        dup2(null, 1);
        dup2(terminal ? slave : null, 2);
        execve(argv[0], argv.data(), envp.data());
        _exit(127);
    }
    if (terminal) {
        close(slave);
        char buf[4096];
        while (read(master, buf, sizeof(buf)) > 0) {
        }
        close(master);
    }
    int status = 0;
    rusage usage{};
    wait4(pid, &status, 0, &usage);
    const double seconds = now() - start;
    *cpu = static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
    return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? seconds : -1;
}

double median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

} // namespace

int main(int argc, char **argv)
{
    const int mib = argc > 1 ? atoi(argv[1]) : 8;
    const int runs = argc > 2 ? atoi(argv[2]) : 9;
    const uint32_t part = static_cast<uint32_t>(mib) << 20;
    // A layout change that moves a partition of user data, and two large contents.
    std::vector<raw_ptn> ptns =
        with_records({{"kernel", 0x100000, part, ""},
                      {"rootfs", 0x100000 + part, part, ""},
                      {"data", 0x100000 + 2 * part, 0x100000, pattern(0x100000, 1)}});
    const uint32_t disk = 0x100000 + 2 * part + 0x200000;
    std::vector<raw_ptn> next = ptns;
    next[7] = {"data", 0x100000 + 2 * part + 0x100000, 0x100000, ""};
    raw_device master(ptns, disk);
    pack_images(master,
                {{kFits,
                  table_json(next, disk),
                  "",
                  {{"kernel", pattern(part - 4096, 2)}, {"rootfs", pattern(part / 2, 3)}}}});
    install_stand_ins(master);
    temp_dir work;
    const std::string copy = work.join("dev");
    const std::string report = work.join("report.json");
    printf("-U of two %d MiB contents and a 1 MiB move on the fake device; %d runs each, "
           "interleaved, median\n",
           mib, runs);
    const char *names[] = {"plain", "--report", "--report, terminal"};
    std::vector<double> times[3], cpus[3];
    for (int i = 0; i < runs; i++)
        for (int v = 0; v < 3; v++) {
            if (system(("rm -rf '" + copy + "' && cp -a '" + master.path + "' '" + copy + "'")
                           .c_str()) != 0)
                return 1;
            std::vector<std::string> env = tool_env(master);
            for (std::string &e : env) // the copy's paths, not the master's
                for (size_t at; (at = e.find(master.path)) != std::string::npos;)
                    e.replace(at, master.path.size(), copy);
            std::vector<std::string> args = {copy, "-U", "-u", copy + "/up.bin"};
            if (v > 0)
                args.insert(args.end(), {"--report", report});
            double cpu = 0;
            const double t = timed_run(args, env, v == 2, &cpu);
            if (t < 0) {
                fprintf(stderr, "run %d of %s failed\n", i, names[v]);
                return 1;
            }
            times[v].push_back(t);
            cpus[v].push_back(cpu);
        }
    const double plain = median(times[0]), plain_cpu = median(cpus[0]);
    bool ok = true;
    for (int v = 0; v < 3; v++) {
        const double ratio = median(times[v]) / plain, cpu_ratio = median(cpus[v]) / plain_cpu;
        printf("  %-20s wall %7.1f ms %.4fx  cpu %7.1f ms %.4fx%s\n", names[v],
               median(times[v]) * 1e3, ratio, median(cpus[v]) * 1e3, cpu_ratio,
               v == 0 ? "  (reference)"
                      : (cpu_ratio <= 1.01 ? "  (cpu target <= 1.01x) ok"
                                           : "  (cpu target <= 1.01x) MISSED"));
        ok &= v == 0 || cpu_ratio <= 1.01;
    }
    return ok ? 0 : 1;
}
