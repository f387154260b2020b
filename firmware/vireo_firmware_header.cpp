// SPDX-License-Identifier: Apache-2.0
#include "firmware/vireo_firmware_header.h"

#include "common/vireo_common.h"
#include "common/vireo_endian.h"
#include "crypto/vireo_md5.h"
#include "firmware/vireo_firmware_integrity.h"

#include <cstdlib>
#include <cstring>

static const char VIREO_MODULE[] = "vireo_firmware";

void vireo_firmware_header_decode(const uint8_t *raw, firmware_header *header)
{
    memcpy(header, raw, FIRMWARE_HEADER_SIZE);
    uint32_t *const words[12] = {&header->magic_0,   &header->magic_1,    &header->magic_2,
                                 &header->magic_3,   &header->magic_4,    &header->magic_5,
                                 &header->version,   &header->nextpos,    &header->header_len,
                                 &header->total_len, &header->reserved_0, &header->reserved_1};
    for (int i = 0; i < 12; i++)
        *words[i] = vireo_get_be32(raw + 4 * i);
}

int32_t vireo_firmware_header_parse(const uint8_t *buf, int32_t buf_size, firmware_header *header,
                                    int32_t mode)
{
    if (!buf || buf_size <= 0 || !header) {
        VIREO_TRACE("Invalid pass-in params. buf %p buf_size %d firmware_header %p\n",
                    static_cast<const void *>(buf), buf_size, static_cast<void *>(header));
        return -1;
    }
    if (buf_size < FIRMWARE_MIN_SIZE) {
        VIREO_TRACE("firmware header truncated, file size is %d, minimal header size is %d.\n",
                    buf_size, FIRMWARE_MIN_SIZE);
        return -1;
    }
    vireo_firmware_header_decode(buf, header);

    if (header->magic_0 != FIRMWARE_HEADER_MAGIC_0 || header->magic_1 != FIRMWARE_HEADER_MAGIC_1 ||
        header->magic_2 != FIRMWARE_HEADER_MAGIC_2 || header->magic_3 != FIRMWARE_HEADER_MAGIC_3 ||
        header->magic_4 != FIRMWARE_HEADER_MAGIC_4 || header->magic_5 != FIRMWARE_HEADER_MAGIC_5) {
        VIREO_TRACE("Invalid magic number.\n");
        return -1;
    }
    if (header->version != FIRMWARE_HEADER_VERSION) {
        VIREO_TRACE("Invalid firmware version(0x%08x).\n", header->version);
        return -1;
    }
    if (header->total_len != static_cast<uint32_t>(buf_size)) {
        VIREO_TRACE("firmware size un-match, buf_size is %d header[total_len] is %d.\n", buf_size,
                    static_cast<int32_t>(header->total_len));
        return -1;
    }

    if (mode == 1) {
        // -m supplied the digest: no signature check for this run, unless the build
        // requires the Ed25519 signature, which a held file always proves.
        if (!digest_from_image && !VIREO_SIGNATURE_REQUIRE)
            return 0;
        return vireo_check_rsa(buf, static_cast<uint32_t>(buf_size));
    }

    // The digest covers header_len to the end: refuse a header_len past the buffer.
    if (header->header_len > header->total_len) {
        VIREO_TRACE("header length %u exceeds total length %u.\n", header->header_len,
                    header->total_len);
        return -1;
    }
    uint8_t digest[16];
    vireo_md5(buf + header->header_len, header->total_len - header->header_len, digest);
    if (memcmp(digest, header->md5_digest, 16) != 0) {
        char stored[33], computed[33];
        VIREO_TRACE("Playload md5 unmatch, header[md5]=%s payload[md5]=%s.\n",
                    vireo_md5_to_hex(stored, header->md5_digest),
                    vireo_md5_to_hex(computed, digest));
        return -1;
    }
    return 0;
}

firmware_header *vireo_firmware_header_build(const uint8_t *buf, int32_t buf_size)
{
    if (!buf || buf_size <= 0) {
        VIREO_TRACE("Invalid pass-in args, (%p,%d)\n", static_cast<const void *>(buf), buf_size);
        return nullptr;
    }
    firmware_header *header = static_cast<firmware_header *>(malloc(sizeof(firmware_header)));
    if (!header) {
        VIREO_TRACE("Failed to alloc %d bytes memory.\n", FIRMWARE_HEADER_SIZE);
        return nullptr;
    }
    if (vireo_firmware_header_parse(buf, buf_size, header, 1) < 0) {
        free(header);
        return nullptr;
    }
    return header;
}

int32_t vireo_firmware_chain_next(int32_t offset, const firmware_header *header, int32_t file_size,
                                  int32_t *next)
{
    VIREO_ASSERT(header);
    VIREO_ASSERT(next);
    if (header->nextpos == 0)
        return 0;
    // A chain that does not move forward would be walked without end.
    if (header->nextpos <= static_cast<uint32_t>(offset) ||
        header->nextpos >= static_cast<uint32_t>(file_size)) {
        VIREO_TRACE("bad firmware chain: nextpos %u (0x%08x) after image at %d, file size %d.\n",
                    header->nextpos, header->nextpos, offset, file_size);
        return -1;
    }
    *next = static_cast<int32_t>(header->nextpos);
    return 1;
}
