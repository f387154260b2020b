// SPDX-License-Identifier: Apache-2.0
#include "firmware/vireo_firmware_seal.h"

#include "common/vireo_common.h"
#include "crypto/vireo_siphash.h"

#include <cstring>
#include <sys/random.h>

static const char VIREO_MODULE[] = "vireo_firmware";

static vireo_seals *armed = nullptr;

int32_t vireo_seals_init(vireo_seals *seals, const uint8_t *file, uint32_t size)
{
    if (getrandom(seals->key, sizeof(seals->key), 0) != static_cast<ssize_t>(sizeof(seals->key))) {
        VIREO_TRACE("no random key to seal the firmware file with.\n");
        return -1;
    }
    const size_t blocks = (static_cast<size_t>(size) + VIREO_SEAL_BLOCK - 1) / VIREO_SEAL_BLOCK;
    try {
        seals->macs.assign(blocks, 0);
        seals->sealed.assign(blocks, false);
    } catch (...) {
        VIREO_TRACE("Failed to alloc %d bytes memory.\n", static_cast<int>(blocks * 8));
        return -1;
    }
    seals->file = file;
    seals->size = size;
    return 0;
}

void vireo_seals_arm(vireo_seals *seals)
{
    armed = seals;
}

void vireo_seals_disarm()
{
    armed = nullptr;
}

vireo_seals *vireo_seals_armed_for(const uint8_t *buf, uint32_t size)
{
    return armed && armed->file == buf && armed->size == size ? armed : nullptr;
}

void vireo_seals_record(vireo_seals *seals, uint32_t index, const uint8_t *copy, uint32_t len)
{
    seals->macs[index] = vireo_siphash24(seals->key, copy, len);
    seals->sealed[index] = true;
}

static uint32_t block_len(const vireo_seals &seals, uint32_t index)
{
    const uint64_t start = static_cast<uint64_t>(index) * VIREO_SEAL_BLOCK;
    const uint64_t left = seals.size - start;
    return left < VIREO_SEAL_BLOCK ? static_cast<uint32_t>(left) : VIREO_SEAL_BLOCK;
}

void vireo_seals_complete(vireo_seals *seals)
{
    uint8_t copy[VIREO_SEAL_BLOCK];
    for (uint32_t i = 0; i < seals->macs.size(); i++) {
        if (seals->sealed[i])
            continue;
        const uint32_t len = block_len(*seals, i);
        memcpy(copy, seals->file + static_cast<size_t>(i) * VIREO_SEAL_BLOCK, len);
        vireo_seals_record(seals, i, copy, len);
    }
}

bool vireo_sealed_reader::copy(uint64_t offset, uint32_t len, uint8_t *dst)
{
    if (offset + len > seals->size) {
        VIREO_TRACE("firmware bytes {0x%08x:0x%08x} lie outside the file.\n",
                    static_cast<uint32_t>(offset), len);
        return false;
    }
    while (len > 0) {
        const uint32_t index = static_cast<uint32_t>(offset / VIREO_SEAL_BLOCK);
        if (index != cached) {
            const uint32_t n = block_len(*seals, index);
            // Copy first, then prove the copy: the mapping may change at any moment.
            memcpy(block, seals->file + static_cast<size_t>(index) * VIREO_SEAL_BLOCK, n);
            if (!seals->sealed[index] ||
                vireo_siphash24(seals->key, block, n) != seals->macs[index]) {
                VIREO_TRACE("firmware file changed at 0x%08x since it was verified.\n",
                            index * VIREO_SEAL_BLOCK);
                cached = UINT32_MAX;
                return false;
            }
            cached = index;
        }
        const uint32_t in_block = static_cast<uint32_t>(offset % VIREO_SEAL_BLOCK);
        const uint32_t n = VIREO_SEAL_BLOCK - in_block < len ? VIREO_SEAL_BLOCK - in_block : len;
        memcpy(dst, block + in_block, n);
        dst += n;
        offset += n;
        len -= n;
    }
    return true;
}
