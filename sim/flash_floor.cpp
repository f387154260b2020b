// SPDX-License-Identifier: Apache-2.0
#include "flash_floor.h"

#include <algorithm>

namespace
{

bool all_erased(const std::string &s, size_t at, size_t n)
{
    return std::all_of(s.begin() + static_cast<std::ptrdiff_t>(at),
                       s.begin() + static_cast<std::ptrdiff_t>(at + n),
                       [](char c) { return static_cast<uint8_t>(c) == 0xFF; });
}

} // namespace

bool flash_floor_of(const std::string &before, const std::string &after, uint32_t erase_size,
                    uint32_t program_size, const std::vector<flash_region> &erased_by_name,
                    flash_floor *out, std::string *error)
{
    if (before.size() != after.size()) {
        *error = "the two images differ in size";
        return false;
    }
    if (erase_size == 0 || program_size == 0 || erase_size % program_size != 0) {
        *error = "the erase block must be a whole number of program units";
        return false;
    }
    const uint64_t size = after.size();
    const uint64_t blocks = (size + erase_size - 1) / erase_size;
    std::vector<bool> erased(blocks, false);
    for (const flash_region &r : erased_by_name) {
        if (r.size == 0 || r.base >= size || r.size > size - r.base) {
            *error = "a region erased by name lies outside the flash";
            return false;
        }
        for (uint64_t b = r.base / erase_size; b * erase_size < r.base + r.size; ++b)
            erased[b] = true;
    }
    flash_floor f;
    for (uint64_t b = 0; b < blocks; ++b) {
        const uint64_t at = b * erase_size;
        const uint64_t len = std::min<uint64_t>(erase_size, size - at);
        bool erase = erased[b];
        uint64_t fills = 0; // units that change from erased
        for (uint64_t p = at; p < at + len && !erase; p += program_size) {
            const uint64_t n = std::min<uint64_t>(program_size, at + len - p);
            if (before.compare(p, n, after, p, n) == 0)
                continue;
            if (all_erased(before, p, n))
                ++fills;
            else
                erase = true;
        }
        if (!erase) {
            f.programs += fills;
            continue;
        }
        ++f.erases;
        for (uint64_t p = at; p < at + len; p += program_size)
            if (!all_erased(after, p, std::min<uint64_t>(program_size, at + len - p)))
                ++f.programs;
    }
    *out = f;
    return true;
}
