#include "firmware/vireo_firmware.h"

#include "common/vireo_common.h"

static const char VIREO_MODULE[] = "vireo_firmware";

int32_t vireo_firmware_check(const char *up_path)
{
    VIREO_TRACE("raw-flash check of '%s' is not available in this build.\n",
                up_path ? up_path : "(none)");
    return -1;
}

int32_t vireo_firmware_upgrade(const char *up_path)
{
    VIREO_TRACE("raw-flash upgrade of '%s' is not available in this build.\n",
                up_path ? up_path : "(none)");
    return -1;
}
