// SPDX-License-Identifier: Apache-2.0
// The upgrade roads as the virtual router's sweep judges them: every byte of the flash and
// every volume in exactly one item, so that no change goes unjudged and none is judged twice.
#include "road_image.h"

#include <gtest/gtest.h>

#include <map>
#include <sstream>

namespace
{

// How many items name each flash byte (by runs) and each volume.
struct coverage {
    std::map<uint64_t, int> starts; // +1 at a run's start, -1 past its end
    std::map<std::string, int> volumes;
    const upgrade_road &road;

    void add_range(uint64_t from, uint64_t len)
    {
        starts[from]++;
        starts[from + len]--;
    }

    void add(const std::string &list)
    {
        std::istringstream in(list);
        for (std::string item; in >> item;) {
            unsigned long long from = 0, len = 0;
            if (sscanf(item.c_str(), "flash:%llu:%llu", &from, &len) == 2) {
                add_range(from, len);
            } else if (item.rfind("mtd:", 0) == 0) {
                for (const raw_ptn &p : road.layout)
                    if (p.name == item.substr(4))
                        add_range(p.base, p.size);
            } else {
                volumes[item]++;
            }
        }
    }

    // The first flash offset named by other than exactly one item, or the disk's size.
    uint64_t first_fault() const
    {
        int depth = 0;
        uint64_t at = 0;
        for (const auto &[offset, delta] : starts) {
            if (offset > at && depth != 1 && offset <= road.disk_size)
                return at;
            depth += delta;
            at = offset;
        }
        return at == road.disk_size && depth == 0 ? road.disk_size : at;
    }
};

TEST(SimRoads, EveryByteAndVolumeOfTheFlashInExactlyOneItem)
{
    for (const std::string &name : upgrade_road_names()) {
        for (uint32_t scale : {1u, 2u}) {
            const upgrade_road road = make_upgrade_road(name, scale);
            const road_image_items items = road_image_items_of(road);
            coverage c{{}, {}, road};
            for (const std::string *list :
                 {&items.flag, &items.carried, &items.user, &items.spare, &items.other})
                c.add(*list);
            for (const auto &[dev, home] : road.ubi_homes)
                c.add("mtd:" + home);
            const std::string what = name + " at scale " + std::to_string(scale);
            EXPECT_EQ(road.disk_size, c.first_fault()) << what;
            EXPECT_EQ(road.volumes.size(), c.volumes.size()) << what;
            for (const auto &[volume, count] : c.volumes)
                EXPECT_EQ(1, count) << what << ": " << volume;
            // The layout grows with the scale, the contents do not.
            for (const raw_ptn &p : road.layout)
                EXPECT_EQ(0u, p.base % (0x10000 * scale)) << what << ": " << p.name;
        }
    }
}

} // namespace
