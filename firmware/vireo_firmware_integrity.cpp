#include "firmware/vireo_firmware_integrity.h"

#include "common/vireo_common.h"

static const char VIREO_MODULE[] = "vireo_firmware";

uint8_t digest_from_image = 1;
uint8_t supplied_digest[16];
uint8_t supplied_digest_valid = 0;
uint32_t rsa_passed = 0;

int32_t vireo_check_rsa(uint8_t *, uint32_t)
{
    VIREO_TRACE("signature check is not available in this build.\n");
    return -1;
}

int32_t vireo_check_head_rsa(const char *)
{
    VIREO_TRACE("signature check is not available in this build.\n");
    return -1;
}

int32_t vireo_check_md5(const char *)
{
    VIREO_TRACE("digest file is not available in this build.\n");
    return -1;
}
