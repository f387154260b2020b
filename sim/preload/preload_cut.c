// SPDX-License-Identifier: Apache-2.0
/* The power cut. With VIREO_CUT_AT=N the process is killed (SIGKILL: no cleanup, no flush) at
 * its Nth flash-changing operation: before it (VIREO_CUT_MODE=before, the default), after it
 * (after), or, for a write, once its first half has landed (tear; other operations are cut
 * before). Flash-changing operations: a write to a flash node (".../dev/mtd<N>",
 * "mtdblock<N>" or "ubi<D>_<V>", real or fake), an erase (MEMERASE), the start of a volume
 * update (UBI_IOCVOLUP; its data are the writes that follow) and each system() command.
 * With N = 0 nothing is cut: the operations are only counted. VIREO_CUT_LOG: each operation
 * appended as "<n> <kind> <what>"; with VIREO_CUT_CLOCK=1 the line starts with the
 * milliseconds of the monotonic clock at which the operation began, for profiles.
 *
 * VIREO_MEDDLE_AT=N (with VIREO_CUT_AT set, 0 for no cut) changes the firmware file under
 * the tool just before its Nth operation, as another process could: VIREO_MEDDLE is
 * "truncate:FILE:SIZE" (the file cut to SIZE bytes) or "flip:FILE:OFFSET" (one byte inverted
 * in place). */
#include "preload.h"

#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

static long operations;

static void meddle(void)
{
    const char *how = getenv("VIREO_MEDDLE");
    char file[4096];
    unsigned long at = 0;
    if (!how)
        return;
    if (sscanf(how, "truncate:%4095[^:]:%lu", file, &at) == 2) {
        if (truncate(file, (off_t)at) != 0)
            perror("VIREO_MEDDLE truncate");
    } else if (sscanf(how, "flip:%4095[^:]:%lu", file, &at) == 2) {
        unsigned char byte = 0;
        const int fd = open(file, O_RDWR);
        if (fd < 0 || real_pread(fd, &byte, 1, (off_t)at) != 1)
            perror("VIREO_MEDDLE flip");
        byte = (unsigned char)~byte;
        if (fd >= 0 && real_pwrite(fd, &byte, 1, (off_t)at) != 1)
            perror("VIREO_MEDDLE flip");
        if (fd >= 0)
            close(fd);
    }
}

void cut_now(void)
{
    kill(getpid(), SIGKILL);
    for (;;)
        pause();
}

int cut_point(const char *kind, const char *what, int tearable)
{
    const char *at = getenv("VIREO_CUT_AT");
    if (!at)
        return CUT_NONE;
    const long n = ++operations;
    if (n == (long)env_number("VIREO_MEDDLE_AT", 0))
        meddle();
    if (getenv("VIREO_CUT_CLOCK")) {
        struct timespec now;
        clock_gettime(CLOCK_MONOTONIC, &now);
        log_line("VIREO_CUT_LOG", "%ld.%03ld ", (long)now.tv_sec, now.tv_nsec / 1000000);
    }
    log_line("VIREO_CUT_LOG", "%ld %s %s\n", n, kind, what);
    if (n != strtol(at, NULL, 0))
        return CUT_NONE;
    const char *mode = getenv("VIREO_CUT_MODE");
    if (mode && strcmp(mode, "after") == 0)
        return CUT_AFTER;
    if (mode && strcmp(mode, "tear") == 0 && tearable)
        return CUT_TEAR;
    cut_now();
}
