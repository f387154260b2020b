// SPDX-License-Identifier: Apache-2.0
/* The tool's private memory seen from inside, at every read, write and ioctl it makes and at
 * its exit: VIREO_ANON_LOG names a file that receives "<pid> <KiB>", the largest RssAnon
 * seen by each process that loads this library (the commands the tool runs load it too).
 * A copy of the file it installs would be alive while it reads or writes, so it is seen
 * whatever the machine's load, where a sampler from outside can miss a short run. */
#include "preload.h"

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static long peak_kb;

void memory_sample(void)
{
    static int watched = -1;
    if (watched < 0)
        watched = getenv("VIREO_ANON_LOG") != NULL;
    if (!watched)
        return;
    const int fd = open("/proc/self/status", O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return;
    char text[4096];
    const ssize_t n = real_read(fd, text, sizeof(text) - 1);
    close(fd);
    if (n <= 0)
        return;
    text[n] = '\0';
    const char *line = strstr(text, "\nRssAnon:");
    const long kb = line ? atol(line + 9) : 0;
    if (kb > peak_kb)
        peak_kb = kb;
}

__attribute__((destructor)) static void memory_report(void)
{
    memory_sample();
    if (peak_kb > 0)
        log_line("VIREO_ANON_LOG", "%ld %ld\n", (long)getpid(), peak_kb);
}
