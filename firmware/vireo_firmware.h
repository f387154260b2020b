// SPDX-License-Identifier: Apache-2.0
// Commands of work mode "default": check and install a firmware file on raw MTD flash,
// and the steps they are made of.
#pragma once

#include "firmware/vireo_firmware_content.h"
#include "firmware/vireo_firmware_header.h"
#include "firmware/vireo_firmware_up_ptn_table.h"
#include "ptn/vireo_ptn.h"

#include <cstdint>
#include <functional>
#include <vector>

// The UBI device an image carrying "ubi" attaches "extra-para-ubi" as.
#define VIREO_RAW_UBI_DEVICE 4

// 0 when an image of the file fits this device, else -1.
int32_t vireo_firmware_check(const char *up_path);
// 0 when an image of the file was installed, else -1.
int32_t vireo_firmware_upgrade(const char *up_path);

// Whether the image may be installed: its support list names this device.
bool vireo_firmware_check_upgradable(const ptn_table *ptn_table, const firmware_header *header,
                                     const up_ptn_table *up_ptn_table,
                                     const vireo_payload &payload);

// The device's partition table, from its "partition-table" MTD partition.
ptn_table *vireo_fireware_build_ptn_table_by_flash();
// The image's partition table, from its "partition-table" entry.
ptn_table *vireo_firmware_get_ptn_table(const up_ptn_table *up_ptn_table,
                                        const vireo_payload &payload);
// Copies every partition that moves from its old place to its new one; 0 / -1.
int32_t vireo_firmware_update_ptn_table(const ptn_table *old_table, const ptn_table *new_table);

// A partition that moves: entry index of the new table, its two places, and the bytes it
// carries (never more than its new extent holds).
struct vireo_ptn_move {
    uint32_t index;
    const ptn_info *from;
    const ptn_info *to;
    uint32_t len;
};
std::vector<vireo_ptn_move> vireo_firmware_ptn_moves(const ptn_table *old_table,
                                                     const ptn_table *new_table);
// Where the moves take their bytes from, and what follows each one.
struct vireo_ptn_move_hooks {
    std::function<int32_t()> before_first; // once, before the first write; 0 / -1
    // The chunk at done of the move of new-table entry index.
    std::function<const uint8_t *(uint32_t index, uint32_t done, uint32_t chunk)> bytes;
    std::function<int32_t(uint32_t index)> moved; // after the move is read back; 0 / -1
    // Whether the move's bytes stand at its new place already, written and read back
    // before: it is then neither written nor read again. None: never.
    std::function<bool(uint32_t index)> placed;
};
// The same moves with the same traces, their bytes from hooks instead of a snapshot.
int32_t vireo_firmware_update_ptn_table(const ptn_table *old_table, const ptn_table *new_table,
                                        const vireo_ptn_move_hooks &hooks);
// 1 when the tables differ (order of entries aside), else 0.
int32_t vireo_firmware_ptn_table_changed(const ptn_table *table_a, const ptn_table *table_b);

// Installs the image: flags off, moves, every carried partition erased and rewritten,
// flags on. The table's names may be changed in place to their ".b" twins.
int32_t vireo_firmware_update_ptn(const ptn_table *old_table, const firmware_header *header,
                                  up_ptn_table *up_ptn_table, const vireo_payload &payload);
// Erases and rewrites every partition the image carries; 0 / -1.
int32_t vireo_firmware_update_ptn_content(const ptn_table *new_table, up_ptn_table *up_ptn_table,
                                          int32_t table_changed, const vireo_payload &payload,
                                          int32_t ubi_device);
// Renames an entry to the slot it is written to, by the scores of the two images: "ubi" and
// "firmware-info" may go to their ".b" twins.
void vireo_firmware_choose_slot(up_ptn_info *entry, bool has_ubi, int32_t pscore, int32_t bscore);
// The bytes a partition of the new table carries from its old place; 0 when it does not move
// (or is new).
uint32_t vireo_firmware_move_length(const ptn_table *old_table, const ptn_info &new_ptn);
// 1 when an entry is named "ubi", else 0.
int32_t vireo_firmware_up_ptn_table_has_ubi(const up_ptn_table *up_ptn_table);
