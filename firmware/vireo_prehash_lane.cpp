// SPDX-License-Identifier: Apache-2.0
#include "firmware/vireo_prehash_lane.h"

#include "common/vireo_fd.h"
#include "firmware/vireo_firmware_sigblock.h"

#include <cstring>
#include <new>
#include <system_error>

namespace
{

// Sleeps on the lane's lock until ready() holds. The flag is raised before ready() is
// looked at, and the other side changes its counter before it looks at the flag (both in
// sequential order), so one of the two always sees the other: no wake-up is lost.
template <typename Ready>
void sleep_until(vireo_prehash_lane *lane, std::atomic<bool> *sleeping, Ready ready)
{
    if (ready())
        return;
    std::unique_lock<std::mutex> held(lane->lock);
    sleeping->store(true);
    lane->changed.wait(held, ready);
    sleeping->store(false);
}

// Wakes the other side when it sleeps and what it waits for now holds. The lock orders the
// notice after its wait has begun.
template <typename Ready>
void wake_if(vireo_prehash_lane *lane, const std::atomic<bool> &sleeping, Ready ready)
{
    if (!sleeping.load() || !ready())
        return;
    {
        std::lock_guard<std::mutex> held(lane->lock);
    }
    lane->changed.notify_all();
}

uint64_t ready_chunks(const vireo_prehash_lane *lane)
{
    return lane->filled.load() - lane->taken.load();
}

uint8_t *slot(vireo_prehash_lane *lane, uint64_t index)
{
    return lane->bufs.data() + index % VIREO_LANE_SLOTS * VIREO_LANE_CHUNK;
}

// Copies or reads chunk index into its slot and prehashes it; false when it is the last.
// The signature fields are prehashed as zeros, from a masked copy of the head.
bool make_chunk(vireo_prehash_lane *lane, uint64_t index)
{
    const uint64_t pos = lane->made;
    const uint64_t left = lane->size - pos;
    const int64_t want = static_cast<int64_t>(left < VIREO_LANE_CHUNK ? left : VIREO_LANE_CHUNK);
    uint8_t *chunk = slot(lane, index);
    int64_t got = want;
    if (lane->buf)
        memcpy(chunk, lane->buf + pos, static_cast<size_t>(want));
    else
        got = vireo_read_up_to(lane->fd, chunk, want);
    lane->lens[index % VIREO_LANE_SLOTS] = got;
    if (got <= 0)
        return false;
    const uint64_t n = static_cast<uint64_t>(got);
    uint64_t head = 0;
    if (pos < SIGBLOCK_END) {
        uint8_t masked[SIGBLOCK_END];
        head = SIGBLOCK_END - pos < n ? SIGBLOCK_END - pos : n;
        memcpy(masked, chunk, head);
        vireo_sigblock_mask(pos, masked, head);
        crypto_generichash_update(&lane->state, masked, head);
    }
    crypto_generichash_update(&lane->state, chunk + head, n - head);
    lane->made += n;
    return got == want && lane->made < lane->size;
}

// Makes chunks ahead of the digesting side; on a full ring it sleeps until a batch of slots
// is free again.
void lane_run(vireo_prehash_lane *lane)
{
    if (lane->size == 0)
        return;
    for (uint64_t index = 0;; index++) {
        if (index - lane->taken.load() == VIREO_LANE_SLOTS)
            sleep_until(lane, &lane->lane_sleeping, [&] {
                return index - lane->taken.load() <= VIREO_LANE_SLOTS - VIREO_LANE_BATCH ||
                       lane->closing.load();
            });
        if (lane->closing.load())
            return;
        const bool more = make_chunk(lane, index);
        lane->filled.store(index + 1);
        wake_if(lane, lane->taker_sleeping, [&] { return ready_chunks(lane) > 0; });
        if (!more)
            return;
    }
}

void lane_stop(vireo_prehash_lane *lane)
{
    if (!lane->threaded)
        return;
    lane->closing.store(true);
    wake_if(lane, lane->lane_sleeping, [] { return true; });
    lane->worker.join();
    lane->threaded = false;
}

} // namespace

vireo_prehash_lane::~vireo_prehash_lane()
{
    lane_stop(this);
}

int32_t vireo_prehash_lane_start(vireo_prehash_lane *lane, const uint8_t *buf, int fd,
                                 uint64_t size)
{
    if (sodium_init() < 0)
        return -1;
    crypto_generichash_init(&lane->state, nullptr, 0, 64);
    lane->buf = buf;
    lane->fd = fd;
    lane->size = size;
    try {
        lane->bufs.resize(static_cast<size_t>(VIREO_LANE_SLOTS) * VIREO_LANE_CHUNK);
    } catch (const std::bad_alloc &) {
        return -1;
    }
    // A router without a second thread to spare still verifies, on one core.
    try {
        lane->worker = std::thread(lane_run, lane);
        lane->threaded = true;
    } catch (const std::system_error &) {
        lane->threaded = false;
    }
    return 0;
}

int64_t vireo_prehash_lane_next(vireo_prehash_lane *lane, const uint8_t **chunk)
{
    if (lane->holding) {
        lane->holding = false;
        lane->taken.store(lane->taken.load() + 1);
        if (lane->threaded)
            wake_if(lane, lane->lane_sleeping,
                    [&] { return ready_chunks(lane) <= VIREO_LANE_SLOTS - VIREO_LANE_BATCH; });
    }
    if (lane->ended || lane->given >= lane->size)
        return 0;
    const uint64_t index = lane->taken.load();
    if (lane->threaded)
        sleep_until(lane, &lane->taker_sleeping, [&] { return ready_chunks(lane) > 0; });
    else
        make_chunk(lane, index);
    const uint64_t left = lane->size - lane->given;
    const int64_t want = static_cast<int64_t>(left < VIREO_LANE_CHUNK ? left : VIREO_LANE_CHUNK);
    const int64_t len = lane->lens[index % VIREO_LANE_SLOTS];
    lane->holding = true;
    *chunk = slot(lane, index);
    if (len != want)
        lane->ended = true;
    if (len > 0)
        lane->given += static_cast<uint64_t>(len);
    return len;
}

void vireo_prehash_lane_finish(vireo_prehash_lane *lane, uint8_t out[64])
{
    lane_stop(lane);
    crypto_generichash_final(&lane->state, out, 64);
}
