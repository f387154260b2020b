// SPDX-License-Identifier: Apache-2.0
// Signature and digest checks of a firmware file, with their process-wide state.
#pragma once

#include <cstdint>

// Set at start: the digest is computed from the buffer being verified. Cleared by -m:
// the supplied digest is used and header parsing skips the signature check.
extern uint8_t digest_from_image;
// The digest read by vireo_check_md5 and whether one was read.
extern uint8_t supplied_digest[16];
extern uint8_t supplied_digest_valid;
// Set once a verification passed; later checks pass at once.
extern uint32_t rsa_passed;
// The BLAKE2b-512 prehash that may follow the digest in a -m file, and whether one did; used
// only by builds that require the Ed25519 signature.
extern uint8_t supplied_prehash[64];
extern uint8_t supplied_prehash_valid;

// 0 when the signature of the image at buf is valid (now or earlier in the run), else -1.
// The buffer is only read: the signature field counts as zeros in the digest. A build with
// VIREO_SIGNATURE_REQUIRE also requires a valid Ed25519 signature in the header's signature
// block by a key of its ring, and then always digests the buffer, -m or not.
int32_t vireo_check_rsa(const uint8_t *buf, uint32_t size);
// -t FILE: the verdict of vireo_check_rsa on the whole file, read in chunks so that memory
// stays the same whatever the file's size; -1 on any input failure.
int32_t vireo_check_head_rsa(const char *path);
// -m FILE: reads a raw 16-byte digest; 0 when read, -1 on any input failure.
int32_t vireo_check_md5(const char *path);
