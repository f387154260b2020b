// SPDX-License-Identifier: Apache-2.0
// The physical floor of a change of flash: what the chip itself must do to turn one image
// into the other, however clever the writer. A program unit (a NAND page, a NOR byte) is
// programmed once per erase, so an erase block is erased once when one of its units changes
// from anything but erased, and so is every block of a region erased by name whatever it
// holds. In an erased block every unit that does not end as 0xFF is programmed once; in any
// other block every unit that changes (from erased) is. Reads are not counted: a writer may
// or may not read back.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct flash_region {
    uint64_t base = 0;
    uint64_t size = 0;
};

struct flash_floor {
    uint64_t erases = 0;   // erase blocks
    uint64_t programs = 0; // program units
};

// The floor between two images of the same flash. Fails (false, with why in error) when the
// images differ in size, a geometry is zero, the erase block is not a whole number of program
// units, or a region leaves the flash.
bool flash_floor_of(const std::string &before, const std::string &after, uint32_t erase_size,
                    uint32_t program_size, const std::vector<flash_region> &erased_by_name,
                    flash_floor *out, std::string *error);
