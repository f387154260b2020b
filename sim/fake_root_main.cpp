// SPDX-License-Identifier: Apache-2.0
// vireo_fake_root_tool ROOT ARGS...: the device tool with every fixed path under ROOT, so
// that tests and benchmarks run its commands as a user would, on a fake device tree.
#include "common/vireo_platform.h"
#include "main/vireo_firmware_upgrade_main.h"

#include <cstdio>

int main(int argc, char **argv)
{
    if (argc < 2) {
        fprintf(stderr, "usage: %s ROOT [vireo_firmware_upgrade options]\n", argv[0]);
        return 2;
    }
    vireo_platform_set_root(argv[1]);
    argv[1] = argv[0];
    return vireo_firmware_upgrade_main(argc - 1, argv + 1);
}
