/* rss_probe COMMAND [ARGS...]: runs the command with its output discarded and prints
 * "<exit status> <wall seconds> <peak resident KiB>". Built static and tiny, so that what
 * the child's peak memory counts from before its exec is negligible. */
#include <fcntl.h>
#include <stdio.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

int main(int argc, char **argv)
{
    if (argc < 2) {
        fprintf(stderr, "usage: %s COMMAND [ARGS...]\n", argv[0]);
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
    if (pid < 0 || wait4(pid, &status, 0, &usage) != pid)
        return 1;
    clock_gettime(CLOCK_MONOTONIC, &t1);
    printf("%d %.6f %ld\n", WIFEXITED(status) ? WEXITSTATUS(status) : -1,
           (double)(t1.tv_sec - t0.tv_sec) + (double)(t1.tv_nsec - t0.tv_nsec) / 1e9,
           usage.ru_maxrss);
    return 0;
}
