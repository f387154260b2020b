// SPDX-License-Identifier: Apache-2.0
// Seals of a firmware file's bytes, taken in the very pass that verifies its signature.
// The file stays mapped shared while an upgrade works on it, so another process could
// change it after the check; every byte the upgrade reads afterwards is copied out of the
// mapping and proven against its block's seal, so the bytes written are the bytes that
// were verified. A seal is SipHash-2-4 of a 4 KiB block under a key made for this run.
// Cost: 8 bytes of memory per 4 KiB of file, one keyed hash of each block while
// verifying, and another when the block is copied out.
#pragma once

#include <cstdint>
#include <vector>

#define VIREO_SEAL_BLOCK 4096

struct vireo_seals {
    uint64_t key[2] = {0, 0};
    const uint8_t *file = nullptr;
    uint32_t size = 0;
    std::vector<uint64_t> macs; // one per block
    std::vector<bool> sealed;
};

// Makes the run's key and room for the seals of the file; 0, or -1 (traced).
int32_t vireo_seals_init(vireo_seals *seals, const uint8_t *file, uint32_t size);
// While armed, the signature check seals every block it digests of this file.
void vireo_seals_arm(vireo_seals *seals);
void vireo_seals_disarm();
// The armed seals when buf is the start of their file, else none.
vireo_seals *vireo_seals_armed_for(const uint8_t *buf, uint32_t size);
// Records the seal of block index from its private copy.
void vireo_seals_record(vireo_seals *seals, uint32_t index, const uint8_t *copy, uint32_t len);
// Seals what no verification has sealed (when the signature test was turned off).
void vireo_seals_complete(vireo_seals *seals);

// Copies file bytes out, proving every block against its seal; keeps the last proven
// block so that units read in order cost one proof per block.
struct vireo_sealed_reader {
    const vireo_seals *seals;
    uint32_t cached = UINT32_MAX;
    uint8_t block[VIREO_SEAL_BLOCK];
    explicit vireo_sealed_reader(const vireo_seals *s) : seals(s) {}
    // false (traced) when a block differs from what was verified or lies outside the file.
    bool copy(uint64_t offset, uint32_t len, uint8_t *dst);
};
