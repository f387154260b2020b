// Commands of work mode "default": check and install a firmware file on raw MTD flash.
#pragma once

#include <cstdint>

// 0 when an image of the file fits this device, else -1.
int32_t vireo_firmware_check(const char *up_path);
// 0 when an image of the file was installed, else -1.
int32_t vireo_firmware_upgrade(const char *up_path);
