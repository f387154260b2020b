#include "firmware/vireo_firmware_integrity.h"

#include "common/vireo_common.h"
#include "common/vireo_file.h"
#include "crypto/vireo_md5.h"
#include "crypto/vireo_rsa.h"
#include "firmware/vireo_firmware_header.h"

#include <cstring>
#include <vector>

static const char VIREO_MODULE[] = "vireo_firmware";

uint8_t digest_from_image = 1;
uint8_t supplied_digest[16];
uint8_t supplied_digest_valid = 0;
uint32_t rsa_passed = 0;

int32_t vireo_check_rsa(uint8_t *buf, uint32_t size)
{
    if (rsa_passed)
        return 0;
    // The signature field must be there to be read and zeroed.
    if (!buf || size < FIRMWARE_SIGNATURE_OFFSET + FIRMWARE_SIGNATURE_SIZE) {
        VIREO_TRACE("firmware too short for a signature: %u bytes.\n", size);
        VIREO_TRACE("Rsa check not pass\n\n");
        return -1;
    }
    uint8_t *field = buf + FIRMWARE_SIGNATURE_OFFSET;
    uint8_t saved[FIRMWARE_SIGNATURE_SIZE];
    memcpy(saved, field, sizeof(saved));
    memset(field, 0, sizeof(saved));

    uint8_t digest[16];
    if (digest_from_image) {
        vireo_md5(buf + FIRMWARE_SIGNED_FROM, size - FIRMWARE_SIGNED_FROM, digest);
    } else if (supplied_digest_valid) {
        memcpy(digest, supplied_digest, sizeof(digest));
    } else {
        VIREO_TRACE("no md5 Rsa check not pass\n\n");
        memcpy(field, saved, sizeof(saved));
        return -1;
    }

    const int32_t valid = rsa_verify_base64_key(builtin_public_key, builtin_public_key_len, digest,
                                                sizeof(digest), saved, sizeof(saved));
    if (valid) {
        VIREO_TRACE("Rsa check pass\n\n");
        rsa_passed = 1;
    } else {
        VIREO_TRACE("Rsa check not pass\n\n");
    }
    memcpy(field, saved, sizeof(saved));
    return valid ? 0 : -1;
}

// Reads a whole file for -t and -m; empty (traced) on any failure.
static std::vector<uint8_t> read_whole(const char *path)
{
    if (!path) {
        VIREO_TRACE("Invalid params, %p.\n", static_cast<const void *>(path));
        return {};
    }
    const int32_t size = vireo_file_get_size(path);
    if (size <= 0) {
        VIREO_TRACE("Failed to get file size, file='%s'\n", path);
        return {};
    }
    std::vector<uint8_t> buf;
    try {
        buf.assign(static_cast<size_t>(size), 0);
    } catch (...) {
        VIREO_TRACE("Failed to alloc %d bytes memory\n", size);
        return {};
    }
    if (vireo_file_read(path, buf.data(), size, nullptr) != 0) {
        VIREO_TRACE("Failed to read file '%s'\n", path);
        return {};
    }
    return buf;
}

int32_t vireo_check_head_rsa(const char *path)
{
    std::vector<uint8_t> buf = read_whole(path);
    if (buf.empty())
        return -1;
    return vireo_check_rsa(buf.data(), static_cast<uint32_t>(buf.size()));
}

int32_t vireo_check_md5(const char *path)
{
    std::vector<uint8_t> buf = read_whole(path);
    if (buf.empty())
        return -1;
    // Fewer than 16 bytes is no digest: nothing is supplied.
    if (buf.size() < sizeof(supplied_digest)) {
        VIREO_TRACE("digest file '%s' holds %d bytes, a digest is %d.\n", path,
                    static_cast<int>(buf.size()), static_cast<int>(sizeof(supplied_digest)));
        return -1;
    }
    memcpy(supplied_digest, buf.data(), sizeof(supplied_digest));
    supplied_digest_valid = 1;
    return 0;
}
