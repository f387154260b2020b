// SPDX-License-Identifier: Apache-2.0
// A layout change that a power cut cannot spoil. Before the first move, the old contents of
// the partitions that move are staged in flash that holds nothing to keep (flash no
// partition holds, or the old places of partitions this upgrade erases and rewrites anyway),
// and a plan is written beside them: both places of every move, the image's new partition
// table and a check value of each staged copy. The moves are then made from the staged
// copies, a record appended after each one is read back. A run that finds a plan pending
// makes the moves not yet recorded and writes the new table before anything else, so a cut
// anywhere between the first move and the new table loses nothing. The format is written
// down in docs/journal.md.
#pragma once

#include "firmware/vireo_firmware_content.h"
#include "firmware/vireo_firmware_up_ptn_table.h"
#include "ptn/vireo_ptn.h"

#include <cstdint>
#include <vector>

// What a run's journal leaves to be erased once the image's contents are written.
struct vireo_journal {
    bool active = false;
    uint64_t check = 0;                                     // the plan's check value
    uint32_t home = 0;                                      // flash offset of the plan
    std::vector<std::pair<uint32_t, uint32_t>> erase_after; // base, length: free flash used
};

// Moves every partition that changes place, as vireo_firmware_update_ptn_table does and
// with its traces, under a journal when the flash has room for one (else as before, after
// one trace line saying so); up_table and payload give the image's partition table. 0 / -1.
int32_t vireo_journal_moves(const ptn_table *old_table, const ptn_table *new_table,
                            const up_ptn_table *up_table, const vireo_payload &payload,
                            vireo_journal *journal);
// Erases the free flash this run's journal used, plan first; 0 / -1.
int32_t vireo_journal_retire(const vireo_journal &journal);
// Finishes the layout change of a plan pending in flash: the moves not recorded, then the
// new partition table; then retires it. 0 when none was pending or it finished, -1 (traced)
// when it could not be finished.
int32_t vireo_journal_resume();
