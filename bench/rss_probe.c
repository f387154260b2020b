// SPDX-License-Identifier: Apache-2.0
/* rss_probe [--no-sampling] COMMAND [ARGS...]: runs the command with its output discarded
 * and prints "<exit status> <wall seconds> <peak resident KiB> <peak private KiB>": the peak
 * resident set (ru_maxrss, a mapped file's pages included) and the largest private memory
 * (RssAnon) seen while sampling it every millisecond. With --no-sampling it only waits, and
 * the private memory is 0: the sampler wakes every millisecond and takes a core from a
 * command that keeps two busy, so timed runs go without it. Built static and tiny, so that
 * what the child's peak memory counts from before its exec is negligible. */
#include <string.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

int main(int argc, char **argv)
{
    const int sampling = !(argc > 1 && strcmp(argv[1], "--no-sampling") == 0);
    if (!sampling) {
        argv++;
        argc--;
    }
    if (argc < 2) {
        fprintf(stderr, "usage: rss_probe [--no-sampling] COMMAND [ARGS...]\n");
        return 2;
    }
    struct timespec t0, t1;
    clock_gettime(CLOCK_MONOTONIC, &t0);
    const pid_t pid = fork();
    if (pid == 0) {
        const int null = open("/dev/null", O_WRONLY);
        dup2(null, 1);
        dup2(null, 2);
        execv(argv[1], argv + 1);
        _exit(127);
    }
    int status = 0;
    struct rusage usage;
    long anon = 0;
    char path[64];
    snprintf(path, sizeof(path), "/proc/%d/status", (int)pid);
    for (;;) {
        const pid_t done = pid < 0 ? -1 : wait4(pid, &status, sampling ? WNOHANG : 0, &usage);
        if (done == pid)
            break;
        if (done != 0)
            return 1;
        FILE *f = fopen(path, "r");
        char line[256];
        long kb;
        while (f && fgets(line, sizeof(line), f))
            if (sscanf(line, "RssAnon: %ld", &kb) == 1 && kb > anon)
                anon = kb;
        if (f)
            fclose(f);
        const struct timespec tick = {0, 1000000};
        nanosleep(&tick, NULL);
    }
    clock_gettime(CLOCK_MONOTONIC, &t1);
    printf("%d %.6f %ld %ld\n", WIFEXITED(status) ? WEXITSTATUS(status) : -1,
           (double)(t1.tv_sec - t0.tv_sec) + (double)(t1.tv_nsec - t0.tv_nsec) / 1e9,
           usage.ru_maxrss, anon);
    return 0;
}
