// SPDX-License-Identifier: Apache-2.0
// Journal plans as docs/journal.md lays them out, written here from the format rather than by
// the tool's writer, for the tests and the fuzz seeds.
#pragma once

#include <cstdint>
#include <string>

// 64 KiB blocks, slots of 2 KiB, one plan block, one record block, one staged block, nothing
// to erase after unless after_len, and one move of "cfg" (0xB0000 to 0xC0000, 64 KiB each)
// with its copy in the staged stream at move_staged (copy 0; 1 at its old place, 2 at its
// new one), its check 0. Version 1 plans have no copy field: every copy is staged.
struct plan_fields {
    uint32_t version = 2;
    uint32_t copy = 0;
    uint32_t erase = 0x10000, unit = 0x800, plan_blocks = 1, record_blocks = 1;
    uint32_t staged_base = 0xF0000, staged_len = 0x10000;
    uint32_t after_base = 0, after_len = 0;
    uint32_t move_len = 0x10000;
    uint64_t move_staged = 0;
};

// The plan's bytes for home (its own flash offset), its check as a reader makes it.
std::string plan_bytes(const plan_fields &f, uint32_t home);
// The check a plan ends with: over the bytes before it, under the journal's fixed key.
uint64_t plan_check(const uint8_t *data, size_t len);
