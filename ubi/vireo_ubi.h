// Commands of work mode "ubi": check, install and roll back on a dual-image UBI device.
#pragma once

#include <cstdint>

// 0 when an image of the file fits this device, else -1.
int32_t vireo_firmware_check_ubi(uint32_t ubi_num, const char *up_path);
// 0 when an image of the file was installed, else -1.
int32_t vireo_firmware_upgrade_ubi(uint32_t ubi_num, const char *up_path);
// 0 when the backup image now outranks the primary, else -1.
int32_t vireo_firmware_roll_back_ubi(uint32_t ubi_num);

// 1 when the device's settings list special_id among the special ids it accepts, else 0.
int32_t vireo_firmware_check_upgradable_special_id(const char *special_id);
