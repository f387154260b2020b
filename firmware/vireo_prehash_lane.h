// SPDX-License-Identifier: Apache-2.0
// The BLAKE2b-512 prehash of the Ed25519 signature, taken on a second thread beside the
// MD5 of the same pass. The reading thread fills private chunks and hands them over; the
// lane hashes exactly those bytes, so both digests are of one copy of the file.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <sodium.h>
#include <thread>
#include <vector>

#define VIREO_LANE_CHUNK (64 * 1024)
#define VIREO_LANE_SLOTS 4

struct vireo_prehash_lane {
    std::vector<uint8_t> bufs; // VIREO_LANE_SLOTS chunks
    uint32_t lens[VIREO_LANE_SLOTS] = {};
    uint64_t submitted = 0; // chunks handed over
    uint64_t hashed = 0;    // chunks hashed
    bool closing = false;
    bool threaded = false; // false: hashed on submit, when no thread could be started
    std::mutex lock;
    std::condition_variable changed;
    std::thread worker;
    crypto_generichash_state state;
    ~vireo_prehash_lane();
};

// Starts the lane (and its thread when one can be had); 0, or -1 when out of memory.
int32_t vireo_prehash_lane_start(vireo_prehash_lane *lane);
// The next chunk to fill (VIREO_LANE_CHUNK bytes), once the lane has finished with it.
uint8_t *vireo_prehash_lane_slot(vireo_prehash_lane *lane);
// Hands over the chunk last returned by vireo_prehash_lane_slot, holding len bytes.
void vireo_prehash_lane_submit(vireo_prehash_lane *lane, uint32_t len);
// Waits for every chunk and writes the 64-byte hash.
void vireo_prehash_lane_finish(vireo_prehash_lane *lane, uint8_t out[64]);
