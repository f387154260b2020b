// SPDX-License-Identifier: Apache-2.0
#include "ptn/vireo_ptn_header.h"

#include "common/vireo_common.h"
#include "common/vireo_endian.h"

static const char VIREO_MODULE[] = "vireo_ptn_header";

static ptn_header read_header(const uint8_t *buf)
{
    ptn_header h;
    h.magic_0 = vireo_get_be32(buf);
    h.magic_1 = vireo_get_be32(buf + 4);
    h.length = vireo_get_be32(buf + 8);
    h.checksum = vireo_get_be32(buf + 12);
    return h;
}

static bool magic_ok(const ptn_header &h)
{
    return h.magic_0 == PTN_HEADER_MAGIC_0 && h.magic_1 == PTN_HEADER_MAGIC_1;
}

// Compared in 64 bits: a length near 4 GiB must not wrap below the buffer size.
static bool content_fits(const ptn_header &h, int32_t size)
{
    return static_cast<uint64_t>(h.length) + PTN_HEADER_SIZE <= static_cast<uint64_t>(size);
}

uint32_t vireo_ptn_header_extent(const uint8_t *buf, int32_t size)
{
    if (!buf || size < PTN_HEADER_SIZE)
        return 0;
    const ptn_header h = read_header(buf);
    return magic_ok(h) && content_fits(h, size) ? h.length + PTN_HEADER_SIZE : 0;
}

int32_t vireo_ptn_header_verify(const uint8_t *buf, int32_t size)
{
    if (!buf || size < PTN_HEADER_SIZE) {
        VIREO_TRACE("Invlaid buf(0x%p) or bufsize(%d)\n", static_cast<const void *>(buf), size);
        return 0;
    }
    const ptn_header h = read_header(buf);
    vireo_ptn_header_dump(&h);
    if (!magic_ok(h)) {
        VIREO_TRACE("Magic unmatch.magic_0[0x%08x],magic_1[0x%08x]\n", h.magic_0, h.magic_1);
        return 0;
    }
    if (!content_fits(h, size)) {
        VIREO_TRACE("content[%u]+header[%u] > bufsize[%u]\n", h.length, PTN_HEADER_SIZE,
                    static_cast<uint32_t>(size));
        return 0;
    }
    if (h.checksum != 0)
        VIREO_TRACE("Invalid checksum(0x%08x), skip it for NOW.\n", h.checksum);
    return 1;
}

int32_t vireo_ptn_header_get_content_pos(const uint8_t *buf, int32_t size, int32_t *offset,
                                         int32_t *length)
{
    if (!buf || size < PTN_HEADER_SIZE || !offset || !length) {
        VIREO_TRACE("Invlaid buf(0x%p) or bufsize(%d)\n", static_cast<const void *>(buf), size);
        return 0;
    }
    const ptn_header h = read_header(buf);
    vireo_ptn_header_dump(&h);
    if (!magic_ok(h)) {
        VIREO_TRACE("Magic unmatch.\n");
        return 0;
    }
    if (!content_fits(h, size)) {
        VIREO_TRACE("content[%u]+header[%u] > bufsize[%u]\n", h.length, PTN_HEADER_SIZE,
                    static_cast<uint32_t>(size));
        return 0;
    }
    *offset = PTN_HEADER_SIZE;
    // Fits in the buffer, so it fits in 31 bits.
    *length = static_cast<int32_t>(h.length);
    return 1;
}

int32_t vireo_ptn_header_add(uint8_t *buf, int32_t room, const uint8_t *, int32_t content_len)
{
    if (!buf || room < PTN_HEADER_SIZE) {
        VIREO_TRACE("Invlaid buf(0x%p) or bufsize(%d)\n", static_cast<const void *>(buf), room);
        return -1;
    }
    if (content_len < 0) {
        VIREO_TRACE("Invlaid contenct_size(%d)\n", content_len);
        return -1;
    }
    vireo_put_be32(buf, PTN_HEADER_MAGIC_0);
    vireo_put_be32(buf + 4, PTN_HEADER_MAGIC_1);
    vireo_put_be32(buf + 8, static_cast<uint32_t>(content_len));
    vireo_put_be32(buf + 12, 0);
    return PTN_HEADER_SIZE;
}

void vireo_ptn_header_dump(const ptn_header *header)
{
    if (!header)
        return;
    printf("magic_0     0x%08x\n", header->magic_0);
    printf("magic_1     0x%08x\n", header->magic_1);
    printf("length      0x%08x (%d)\n", header->length, static_cast<int>(header->length));
    printf("checksum    0x%08x\n", header->checksum);
}
