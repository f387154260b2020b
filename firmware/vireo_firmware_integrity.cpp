// SPDX-License-Identifier: Apache-2.0
#include "firmware/vireo_firmware_integrity.h"

#include "common/vireo_common.h"
#include "common/vireo_fd.h"
#include "common/vireo_file.h"
#include "crypto/vireo_md5.h"
#include "crypto/vireo_rsa.h"
#include "firmware/vireo_firmware_header.h"
#include "firmware/vireo_firmware_seal.h"
#if VIREO_SIGNATURE_REQUIRE
#include "firmware/vireo_firmware_keyring.h"
#include "firmware/vireo_prehash_lane.h"
#endif

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>
#include <vector>

static const char VIREO_MODULE[] = "vireo_firmware";

uint8_t digest_from_image = 1;
uint8_t supplied_digest[16];
uint8_t supplied_digest_valid = 0;
uint32_t rsa_passed = 0;
uint8_t supplied_prehash[64];
uint8_t supplied_prehash_valid = 0;

#define SIGNATURE_END (FIRMWARE_SIGNATURE_OFFSET + FIRMWARE_SIGNATURE_SIZE)
// Chunk in which -t reads its file.
#define HEAD_READ_CHUNK 65536

namespace
{

// Feeds the signed bytes at file offset pos, len bytes, to the digest: the bytes before
// offset 20 are not signed and the signature field counts as zeros.
void digest_signed(md5_ctx *ctx, uint64_t pos, const uint8_t *data, uint64_t len)
{
    static const uint8_t zeros[FIRMWARE_SIGNATURE_SIZE] = {};
    const uint64_t end = pos + len;
    // The three signed stretches: [20, 304), the zeroed field, [432, end).
    const uint64_t cuts[4] = {FIRMWARE_SIGNED_FROM, FIRMWARE_SIGNATURE_OFFSET, SIGNATURE_END, end};
    for (int i = 0; i < 3; i++) {
        const uint64_t from = pos > cuts[i] ? pos : cuts[i];
        const uint64_t to = end < cuts[i + 1] ? end : cuts[i + 1];
        if (from >= to)
            continue;
        if (i == 1)
            md5_update(ctx, zeros + (from - cuts[i]), static_cast<uint32_t>(to - from));
        else
            md5_update(ctx, data + (from - pos), static_cast<uint32_t>(to - from));
    }
}

// The digest the signature is checked over: computed (by compute) or supplied by -m.
// -1 when -m gave none.
template <typename Compute>
int32_t choose_digest(uint8_t digest[16], Compute compute)
{
    if (digest_from_image)
        return compute(digest);
    if (supplied_digest_valid) {
        memcpy(digest, supplied_digest, 16);
        return 0;
    }
    VIREO_TRACE("no md5 Rsa check not pass\n\n");
    return -1;
}

// The RSA verdict, traced at site: 0 or -1.
int32_t verify_rsa(const vireo_trace_site &site, const uint8_t signature[FIRMWARE_SIGNATURE_SIZE],
                   const uint8_t digest[16])
{
    const int32_t valid = rsa_verify_base64_key(builtin_public_key, builtin_public_key_len, digest,
                                                16, signature, FIRMWARE_SIGNATURE_SIZE);
    if (valid) {
        vireo_trace_at(site, "Rsa check pass\n\n");
        return 0;
    }
    vireo_trace_at(site, "Rsa check not pass\n\n");
    return -1;
}

// The verdict of the whole check: RSA, then (when the build requires it) the signature
// block over the prehash. Remembered for the run once it passes.
// head: the file's first head_len bytes, as digested (the block is read from them).
int32_t verify(const vireo_trace_site &site, const uint8_t signature[FIRMWARE_SIGNATURE_SIZE],
               const uint8_t digest[16], const uint8_t *head, uint64_t head_len,
               const uint8_t *prehash)
{
    if (verify_rsa(site, signature, digest) != 0)
        return -1;
#if VIREO_SIGNATURE_REQUIRE
    if (!prehash) {
        vireo_trace_at(site, "Ed25519 check not pass: no prehash supplied by -m\n\n");
        return -1;
    }
    if (vireo_signature_block_check(site, head, head_len, prehash) != 0)
        return -1;
#else
    (void)head;
    (void)head_len;
    (void)prehash;
#endif
    rsa_passed = 1;
    return 0;
}

void trace_too_short(uint64_t size)
{
    VIREO_TRACE("firmware too short for a signature: %u bytes.\n", static_cast<uint32_t>(size));
    VIREO_TRACE("Rsa check not pass\n\n");
}

// Opens a file for -t or -m and takes its size; -1 (traced) on failure.
int open_input(const char *path, int32_t *size)
{
    if (!path) {
        VIREO_TRACE("Invalid params, %p.\n", static_cast<const void *>(path));
        return -1;
    }
    *size = vireo_file_get_size(path);
    if (*size <= 0) {
        VIREO_TRACE("Failed to get file size, file='%s'\n", path);
        return -1;
    }
    const int fd = open(path, O_RDONLY);
    if (fd < 0)
        VIREO_TRACE("Failed to read file '%s'\n", path);
    return fd;
}

} // namespace

#if !VIREO_SIGNATURE_REQUIRE

int32_t vireo_check_rsa(const uint8_t *buf, uint32_t size)
{
    if (rsa_passed)
        return 0;
    if (!buf || size < SIGNATURE_END) {
        trace_too_short(size);
        return -1;
    }
    uint8_t digest[16];
    uint8_t signature[FIRMWARE_SIGNATURE_SIZE];
    vireo_seals *seals = vireo_seals_armed_for(buf, size);
    if (choose_digest(digest, [&](uint8_t out[16]) {
            md5_ctx ctx;
            md5_init(&ctx);
            if (!seals) {
                digest_signed(&ctx, 0, buf, size);
            } else {
                // Block by block through a private copy, so that the digest and the
                // seal of a block are taken of the same bytes.
                uint8_t copy[VIREO_SEAL_BLOCK];
                for (uint64_t pos = 0; pos < size; pos += VIREO_SEAL_BLOCK) {
                    const uint32_t n = static_cast<uint32_t>(
                        size - pos < VIREO_SEAL_BLOCK ? size - pos : VIREO_SEAL_BLOCK);
                    memcpy(copy, buf + pos, n);
                    vireo_seals_record(seals, static_cast<uint32_t>(pos / VIREO_SEAL_BLOCK), copy,
                                       n);
                    digest_signed(&ctx, pos, copy, n);
                }
            }
            md5_final(out, &ctx);
            return 0;
        }) != 0)
        return -1;
    // The signature as sealed, when sealing: the field lies in the first block.
    memcpy(signature, buf + FIRMWARE_SIGNATURE_OFFSET, sizeof(signature));
    if (seals && digest_from_image) {
        vireo_sealed_reader reader(seals);
        if (!reader.copy(FIRMWARE_SIGNATURE_OFFSET, sizeof(signature), signature))
            return -1;
    }
    return verify(VIREO_SITE(), signature, digest, nullptr, 0, nullptr);
}

int32_t vireo_check_head_rsa(const char *path)
{
    int32_t size = 0;
    fd_guard file{open_input(path, &size)};
    if (file.fd < 0)
        return -1;
    std::vector<uint8_t> chunk(HEAD_READ_CHUNK);
    // The first chunk holds the signature field whenever the file does.
    const ssize_t first =
        vireo_read_up_to(file.fd, chunk.data(), static_cast<int64_t>(chunk.size()));
    if (first < 0) {
        VIREO_TRACE("Failed to read file '%s'\n", path);
        return -1;
    }
    if (rsa_passed)
        return 0;
    if (first < SIGNATURE_END) {
        trace_too_short(static_cast<uint64_t>(first));
        return -1;
    }
    uint8_t signature[FIRMWARE_SIGNATURE_SIZE];
    memcpy(signature, chunk.data() + FIRMWARE_SIGNATURE_OFFSET, sizeof(signature));
    uint8_t digest[16];
    if (choose_digest(digest, [&](uint8_t out[16]) {
            md5_ctx ctx;
            md5_init(&ctx);
            uint64_t pos = 0;
            ssize_t got = first;
            // Only the size taken at the start is read: a file that grows meanwhile
            // does not make the check run on.
            while (got > 0) {
                const uint64_t want = static_cast<uint64_t>(size) - pos;
                const uint64_t use = static_cast<uint64_t>(got) < want ? got : want;
                digest_signed(&ctx, pos, chunk.data(), use);
                pos += use;
                if (pos >= static_cast<uint64_t>(size))
                    break;
                got = vireo_read_up_to(file.fd, chunk.data(), static_cast<int64_t>(chunk.size()));
            }
            if (got < 0 || pos != static_cast<uint64_t>(size)) {
                VIREO_TRACE("Failed to read file '%s'\n", path);
                return -1;
            }
            md5_final(out, &ctx);
            return 0;
        }) != 0)
        return -1;
    return verify(VIREO_SITE(), signature, digest, nullptr, 0, nullptr);
}

#else // VIREO_SIGNATURE_REQUIRE

namespace
{

// One pass over the signed bytes: the lane copies (or reads) each chunk privately and
// prehashes it; here the same copy is sealed and digested for RSA, so that every digest and
// seal is of the same bytes.
struct signed_pass {
    md5_ctx md5;
    vireo_prehash_lane lane;
    vireo_seals *seals = nullptr;
    uint8_t head[SIGBLOCK_END] = {}; // the file's first bytes, as digested
    uint64_t head_len = 0;
    uint64_t pos = 0; // bytes digested
};

// Starts the pass over the first size bytes of buf, or when buf is null of fd.
int32_t pass_start(signed_pass *pass, vireo_seals *seals, const uint8_t *buf, int fd, uint64_t size)
{
    pass->seals = seals;
    md5_init(&pass->md5);
    if (vireo_prehash_lane_start(&pass->lane, buf, fd, size) != 0) {
        VIREO_TRACE("Failed to alloc %d bytes memory\n", VIREO_LANE_SLOTS * VIREO_LANE_CHUNK);
        return -1;
    }
    return 0;
}

// Digests the chunk that follows what was digested.
void pass_chunk(signed_pass *pass, const uint8_t *chunk, uint64_t n)
{
    const uint64_t pos = pass->pos;
    if (pass->seals)
        for (uint64_t off = 0; off < n; off += VIREO_SEAL_BLOCK)
            vireo_seals_record(
                pass->seals, static_cast<uint32_t>((pos + off) / VIREO_SEAL_BLOCK), chunk + off,
                static_cast<uint32_t>(n - off < VIREO_SEAL_BLOCK ? n - off : VIREO_SEAL_BLOCK));
    digest_signed(&pass->md5, pos, chunk, n);
    if (pos < SIGBLOCK_END) {
        const uint64_t k = pos + n < SIGBLOCK_END ? n : SIGBLOCK_END - pos;
        memcpy(pass->head + pos, chunk, k);
        pass->head_len = pos + k;
    }
    pass->pos += n;
}

// Digests every chunk from the lane, the first one (first bytes at chunk) included: the last
// chunk's result, 0 at the end, -1 on a read error.
int64_t pass_rest(signed_pass *pass, const uint8_t *chunk, int64_t first)
{
    int64_t got = first;
    while (got > 0) {
        pass_chunk(pass, chunk, static_cast<uint64_t>(got));
        got = vireo_prehash_lane_next(&pass->lane, &chunk);
    }
    return got;
}

// The verdict over the digests of a finished pass.
int32_t pass_verify(const vireo_trace_site &site, signed_pass *pass)
{
    uint8_t digest[16], prehash[SIGBLOCK_PREHASH_SIZE];
    md5_final(digest, &pass->md5);
    vireo_prehash_lane_finish(&pass->lane, prehash);
    return verify(site, pass->head + FIRMWARE_SIGNATURE_OFFSET, digest, pass->head, pass->head_len,
                  prehash);
}

} // namespace

// -C and -U hold the whole file: its digests are always computed, -m or not.
int32_t vireo_check_rsa(const uint8_t *buf, uint32_t size)
{
    if (rsa_passed)
        return 0;
    if (!buf || size < SIGNATURE_END) {
        trace_too_short(size);
        return -1;
    }
    signed_pass pass;
    if (pass_start(&pass, vireo_seals_armed_for(buf, size), buf, -1, size) != 0)
        return -1;
    const uint8_t *chunk = nullptr;
    // A copy out of memory is never short.
    pass_rest(&pass, chunk, vireo_prehash_lane_next(&pass.lane, &chunk));
    return pass_verify(VIREO_SITE(), &pass);
}

int32_t vireo_check_head_rsa(const char *path)
{
    int32_t size = 0;
    fd_guard file{open_input(path, &size)};
    if (file.fd < 0)
        return -1;
    signed_pass pass;
    if (pass_start(&pass, nullptr, nullptr, file.fd, static_cast<uint64_t>(size)) != 0)
        return -1;
    // The first chunk holds the signature field and the block whenever the file does.
    const uint8_t *chunk = nullptr;
    const int64_t first = vireo_prehash_lane_next(&pass.lane, &chunk);
    if (first < 0) {
        VIREO_TRACE("Failed to read file '%s'\n", path);
        return -1;
    }
    if (rsa_passed)
        return 0;
    if (first < SIGNATURE_END) {
        trace_too_short(static_cast<uint64_t>(first));
        return -1;
    }
    if (!digest_from_image) {
        // -m supplied the digests: the head is not digested.
        if (!supplied_digest_valid) {
            VIREO_TRACE("no md5 Rsa check not pass\n\n");
            return -1;
        }
        const uint64_t k = static_cast<uint64_t>(first) < SIGBLOCK_END ? first : SIGBLOCK_END;
        memcpy(pass.head, chunk, k);
        return verify(VIREO_SITE(), pass.head + FIRMWARE_SIGNATURE_OFFSET, supplied_digest,
                      pass.head, k, supplied_prehash_valid ? supplied_prehash : nullptr);
    }
    // Only the size taken at the start is read: a file that grows meanwhile does not make
    // the check run on.
    if (pass_rest(&pass, chunk, first) < 0 || pass.pos != static_cast<uint64_t>(size)) {
        VIREO_TRACE("Failed to read file '%s'\n", path);
        return -1;
    }
    return pass_verify(VIREO_SITE(), &pass);
}

#endif

int32_t vireo_check_md5(const char *path)
{
    int32_t size = 0;
    fd_guard file{open_input(path, &size)};
    if (file.fd < 0)
        return -1;
    // When the build requires the Ed25519 signature, the prehash may follow the digest.
    uint8_t digest[sizeof(supplied_digest) + sizeof(supplied_prehash)];
    const size_t want =
        sizeof(supplied_digest) + (VIREO_SIGNATURE_REQUIRE ? sizeof(supplied_prehash) : 0);
    const ssize_t got = vireo_read_up_to(file.fd, digest, static_cast<int64_t>(want));
    if (got < 0) {
        VIREO_TRACE("Failed to read file '%s'\n", path);
        return -1;
    }
    // Fewer than 16 bytes is no digest: nothing is supplied.
    if (got < static_cast<ssize_t>(sizeof(supplied_digest))) {
        VIREO_TRACE("digest file '%s' holds %d bytes, a digest is %d.\n", path,
                    static_cast<int>(got), static_cast<int>(sizeof(supplied_digest)));
        return -1;
    }
    memcpy(supplied_digest, digest, sizeof(supplied_digest));
    supplied_digest_valid = 1;
    supplied_prehash_valid = got == static_cast<ssize_t>(sizeof(digest));
    if (supplied_prehash_valid)
        memcpy(supplied_prehash, digest + sizeof(supplied_digest), sizeof(supplied_prehash));
    return 0;
}
