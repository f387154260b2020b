#include "ubi/vireo_ubi.h"

#include "common/vireo_common.h"

static const char VIREO_MODULE[] = "vireo_ubi";

int32_t vireo_firmware_check_ubi(uint32_t ubi_num, const char *up_path)
{
    VIREO_TRACE("UBI check of '%s' on ubi%u is not available in this build.\n",
                up_path ? up_path : "(none)", ubi_num);
    return -1;
}

int32_t vireo_firmware_upgrade_ubi(uint32_t ubi_num, const char *up_path)
{
    VIREO_TRACE("UBI upgrade of '%s' on ubi%u is not available in this build.\n",
                up_path ? up_path : "(none)", ubi_num);
    return -1;
}

int32_t vireo_firmware_roll_back_ubi(uint32_t ubi_num)
{
    VIREO_TRACE("roll-back on ubi%u is not available in this build.\n", ubi_num);
    return -1;
}
