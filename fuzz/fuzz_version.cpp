// The version text of a firmware-info record, and the version test between two of them.
// Input: the installed version's text, a NUL, the offered version's text. A text that
// reads must read the same again once printed in the record's format.
#include "fuzz_util.h"

#include "common/vireo_common.h"
#include "ubi/vireo_ubi.h"

#include <cstdlib>
#include <cstring>
#include <string>

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    fuzz_quiet();
    return 0;
}

static bool read_version(const std::string &text, fwinfo *info)
{
    uint32_t v[5];
    if (vireo_ptn_get_firmware_info_software_version(text.c_str(), v) != 0)
        return false;
    uint32_t again[5];
    const std::string printed =
        vireo_strf("%u.%u.%u Build %u Rel.%05u", v[0], v[1], v[2], v[3], v[4]);
    if (vireo_ptn_get_firmware_info_software_version(printed.c_str(), again) != 0 ||
        memcmp(v, again, sizeof(v)) != 0)
        abort();
    memcpy(info->software_version, v, sizeof(info->software_version));
    memcpy(info->build_timestamp, v + 3, sizeof(info->build_timestamp));
    return true;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string input(reinterpret_cast<const char *>(data), size);
    const size_t nul = input.find('\0');
    fwinfo installed{}, offered{};
    const bool both = read_version(input.substr(0, nul), &installed) && nul != std::string::npos &&
                      read_version(input.substr(nul + 1), &offered);
    if (!both)
        return 0;
    same_software_version = false;
    const int32_t r = vireo_firmware_check_software_version(&installed, &offered);
    // The same build of 1.3.0 is marked, and only a passing image can be.
    if (same_software_version && (r != 0 || installed.software_version[0] != 1))
        abort();
    return 0;
}
