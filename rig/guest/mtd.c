// SPDX-License-Identifier: Apache-2.0
// Stand-in for the router's "mtd" utility, which Debian does not ship: only "mtd erase NAME",
// the one form the tool runs. It finds the partition by its name in /proc/mtd and erases all
// of it, block by block, passing over bad blocks. A program of its own (built static for the
// router) rather than a script: a script forks a shell, awk and flash_erase, which under the
// emulator costs several times the erase of a small partition.
#include <fcntl.h>
#include <mtd/mtd-user.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

// The index of the partition named name in /proc/mtd ("mtd3: 00020000 00010000 \"log\""), or -1.
static int find_partition(const char *name)
{
    FILE *f = fopen("/proc/mtd", "r");
    if (!f)
        return -1;
    char line[256], quoted[128];
    int found = -1;
    snprintf(quoted, sizeof(quoted), "\"%s\"", name);
    while (found < 0 && fgets(line, sizeof(line), f)) {
        int index;
        const char *label = strchr(line, '"');
        line[strcspn(line, "\n")] = '\0';
        if (sscanf(line, "mtd%d:", &index) == 1 && label && strcmp(label, quoted) == 0)
            found = index;
    }
    fclose(f);
    return found;
}

int main(int argc, char **argv)
{
    if (argc != 3 || strcmp(argv[1], "erase") != 0) {
        fprintf(stderr, "Usage: mtd erase <partition name>\n");
        return 1;
    }
    const int index = find_partition(argv[2]);
    char path[64];
    snprintf(path, sizeof(path), "/dev/mtd%d", index);
    const int fd = index < 0 ? -1 : open(path, O_RDWR);
    struct mtd_info_user info;
    if (fd < 0 || ioctl(fd, MEMGETINFO, &info) != 0 || info.erasesize == 0) {
        fprintf(stderr, "Could not open mtd device: %s\n", argv[2]);
        return 1;
    }
    int status = 0;
    for (unsigned int at = 0; at < info.size; at += info.erasesize) {
        long long off = at; // the kernel's loff_t
        if (ioctl(fd, MEMGETBADBLOCK, &off) > 0)
            continue;
        struct erase_info_user e = {at, info.erasesize};
        if (ioctl(fd, MEMERASE, &e) != 0) {
            fprintf(stderr, "Failed to erase block on %s at 0x%x\n", path, at);
            status = 1;
        }
    }
    close(fd);
    return status;
}
