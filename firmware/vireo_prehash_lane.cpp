// SPDX-License-Identifier: Apache-2.0
#include "firmware/vireo_prehash_lane.h"

#include <new>
#include <system_error>

static void lane_run(vireo_prehash_lane *lane)
{
    std::unique_lock<std::mutex> held(lane->lock);
    for (;;) {
        lane->changed.wait(held, [&] { return lane->hashed < lane->submitted || lane->closing; });
        if (lane->hashed == lane->submitted)
            return; // closing, nothing left
        const uint32_t i = static_cast<uint32_t>(lane->hashed % VIREO_LANE_SLOTS);
        held.unlock();
        crypto_generichash_update(&lane->state, lane->bufs.data() + i * VIREO_LANE_CHUNK,
                                  lane->lens[i]);
        held.lock();
        lane->hashed++;
        lane->changed.notify_all();
    }
}

static void lane_stop(vireo_prehash_lane *lane)
{
    if (!lane->threaded)
        return;
    {
        std::lock_guard<std::mutex> held(lane->lock);
        lane->closing = true;
    }
    lane->changed.notify_all();
    lane->worker.join();
    lane->threaded = false;
}

vireo_prehash_lane::~vireo_prehash_lane()
{
    lane_stop(this);
}

int32_t vireo_prehash_lane_start(vireo_prehash_lane *lane)
{
    if (sodium_init() < 0)
        return -1;
    crypto_generichash_init(&lane->state, nullptr, 0, 64);
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

uint8_t *vireo_prehash_lane_slot(vireo_prehash_lane *lane)
{
    std::unique_lock<std::mutex> held(lane->lock);
    lane->changed.wait(held, [&] { return lane->submitted - lane->hashed < VIREO_LANE_SLOTS; });
    const uint32_t i = static_cast<uint32_t>(lane->submitted % VIREO_LANE_SLOTS);
    return lane->bufs.data() + i * VIREO_LANE_CHUNK;
}

void vireo_prehash_lane_submit(vireo_prehash_lane *lane, uint32_t len)
{
    const uint32_t i = static_cast<uint32_t>(lane->submitted % VIREO_LANE_SLOTS);
    if (!lane->threaded) {
        crypto_generichash_update(&lane->state, lane->bufs.data() + i * VIREO_LANE_CHUNK, len);
        lane->submitted++;
        lane->hashed++;
        return;
    }
    {
        std::lock_guard<std::mutex> held(lane->lock);
        lane->lens[i] = len;
        lane->submitted++;
    }
    lane->changed.notify_all();
}

void vireo_prehash_lane_finish(vireo_prehash_lane *lane, uint8_t out[64])
{
    lane_stop(lane);
    crypto_generichash_final(&lane->state, out, 64);
}
