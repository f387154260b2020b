// SPDX-License-Identifier: Apache-2.0
// The BLAKE2b-512 prehash of the Ed25519 signature, taken on a second thread beside the
// MD5 of the same pass. The lane copies (or reads) the file into private chunks, prehashes
// each one and hands it on in file order; the digesting thread takes exactly those bytes,
// so every digest is of one copy of the file, and the copying is off its path.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <sodium.h>
#include <thread>
#include <vector>

#define VIREO_LANE_CHUNK (32 * 1024)
#define VIREO_LANE_SLOTS 8
// The lane, once the ring is full, sleeps until this many slots are free again: each wake-up
// costs the waker a system call, and one for every chunk had cost a tenth of a check.
#define VIREO_LANE_BATCH (VIREO_LANE_SLOTS / 2)

struct vireo_prehash_lane {
    // The source: the first size bytes of buf, or else of what fd reads.
    const uint8_t *buf = nullptr;
    int fd = -1;
    uint64_t size = 0;
    std::vector<uint8_t> bufs;           // VIREO_LANE_SLOTS chunks
    int64_t lens[VIREO_LANE_SLOTS] = {}; // bytes in a chunk, -1 after a read error
    // Counted without the lock: a chunk's bytes are published by filled and given back by
    // taken. The lock and the flags are only used by a side that goes to sleep.
    std::atomic<uint64_t> filled{0}; // chunks copied and prehashed
    std::atomic<uint64_t> taken{0};  // chunks the digesting side is done with
    std::atomic<bool> closing{false};
    std::atomic<bool> lane_sleeping{false};
    std::atomic<bool> taker_sleeping{false};
    bool threaded = false; // false: each chunk is made when it is asked for
    uint64_t made = 0;     // bytes the lane has copied (its own)
    uint64_t given = 0;    // bytes handed on (the digesting side's own)
    bool holding = false;  // the digesting side holds chunk taken
    bool ended = false;    // a short or failed chunk was handed on
    std::mutex lock;
    std::condition_variable changed;
    std::thread worker;
    crypto_generichash_state state;
    ~vireo_prehash_lane();
};

// Starts the lane over the first size bytes of buf, or, when buf is null, of what fd reads
// from where it stands (on a thread when one can be had); 0, or -1 when out of memory.
int32_t vireo_prehash_lane_start(vireo_prehash_lane *lane, const uint8_t *buf, int fd,
                                 uint64_t size);
// The next chunk in file order, in the lane's private copy, valid until the next call: its
// length; 0 after the last one; fewer bytes than asked when the file ended early, and after
// that 0; -1 on a read error.
int64_t vireo_prehash_lane_next(vireo_prehash_lane *lane, const uint8_t **chunk);
// Stops the lane and writes the 64-byte hash of every chunk made, the signature fields
// counted as zeros.
void vireo_prehash_lane_finish(vireo_prehash_lane *lane, uint8_t out[64]);
