// SPDX-License-Identifier: Apache-2.0
#include "main/vireo_firmware_upgrade_main.h"

int main(int argc, char **argv)
{
    return vireo_firmware_upgrade_main(argc, argv);
}
