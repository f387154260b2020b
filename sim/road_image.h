// SPDX-License-Identifier: Apache-2.0
// An upgrade road as the virtual router's power-cut sweep judges it: items of the one flash
// the kernel has ("flash:OFFSET:LENGTH", "mtd:NAME", "ubiD:NAME") in place of the fake tree's
// files.
#pragma once

#include "upgrade_roads.h"

#include <string>

struct road_image_items {
    std::string flag;    // the target's flag record
    std::string carried; // what the image brings, space-separated
    std::string user;    // user data the upgrade carries over
    std::string spare;   // free flash a journal may use while the upgrade runs
    std::string other;   // what must never change: the rest of the flash but the UBI devices'
                         // homes, and every volume no other item names
};

// The road's items; throws std::invalid_argument for a range no item can name.
road_image_items road_image_items_of(const upgrade_road &road);
