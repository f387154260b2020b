// SPDX-License-Identifier: Apache-2.0
#include "road_image.h"

#include <algorithm>
#include <cstdio>
#include <stdexcept>

namespace
{

using range = std::pair<uint64_t, uint64_t>; // [first, second)

struct road_items {
    const upgrade_road &road;
    std::vector<range> flash_taken; // the flash bytes that may change

    // "mtd<N>" names partition N - 1 of the layout; "ubi<D>_<V>" a volume.
    const raw_ptn *partition_of(const std::string &node) const
    {
        unsigned n = 0;
        if (sscanf(node.c_str(), "/dev/mtd%u", &n) != 1 || n == 0 || n > road.layout.size())
            return nullptr;
        return &road.layout[n - 1];
    }

    const road_volume *volume_of(const std::string &node) const
    {
        int dev = -1, vol = -1;
        if (sscanf(node.c_str(), "/dev/ubi%d_%d", &dev, &vol) != 2)
            return nullptr;
        for (const road_volume &v : road.volumes)
            if (v.dev == dev && v.vol == vol)
                return &v;
        return nullptr;
    }

    std::string flash_item(uint64_t from, uint64_t to)
    {
        flash_taken.push_back({from, to});
        return "flash:" + std::to_string(from) + ":" + std::to_string(to - from);
    }

    std::string item(const byte_range &r)
    {
        if (r.file == "/dev/mtd0")
            return flash_item(r.offset, r.len ? r.offset + r.len : road.disk_size);
        if (const raw_ptn *p = partition_of(r.file))
            return flash_item(p->base + r.offset, p->base + (r.len ? r.offset + r.len : p->size));
        const road_volume *v = volume_of(r.file);
        if (!v || r.offset || r.len)
            throw std::invalid_argument("no item for " + r.file);
        return "ubi" + std::to_string(v->dev) + ":" + v->name;
    }

    std::string items(const std::vector<byte_range> &ranges)
    {
        std::string out;
        for (const byte_range &r : ranges)
            out += (out.empty() ? "" : " ") + item(r);
        return out;
    }

    std::string flag()
    {
        if (const raw_ptn *p = partition_of(road.flag)) {
            flash_taken.push_back({p->base, p->base + p->size});
            return "mtd:" + p->name;
        }
        return item({road.flag, 0, 0});
    }

    // What must never change: the flash outside every range taken and every UBI device's
    // home (whose blocks UBI rewrites as it likes), and the volumes no road item names.
    std::string other(const std::string &named)
    {
        for (const auto &[dev, home] : road.ubi_homes)
            for (const raw_ptn &p : road.layout)
                if (p.name == home)
                    flash_taken.push_back({p.base, p.base + p.size});
        std::sort(flash_taken.begin(), flash_taken.end());
        std::string out;
        uint64_t at = 0;
        for (const range &r : flash_taken) {
            if (r.first > at)
                out += "flash:" + std::to_string(at) + ":" + std::to_string(r.first - at) + " ";
            at = std::max(at, r.second);
        }
        if (at < road.disk_size)
            out += "flash:" + std::to_string(at) + ":" + std::to_string(road.disk_size - at) + " ";
        for (const road_volume &v : road.volumes) {
            const std::string id = "ubi" + std::to_string(v.dev) + ":" + v.name;
            if ((" " + named + " ").find(" " + id + " ") == std::string::npos)
                out += id + " ";
        }
        return out.empty() ? out : out.substr(0, out.size() - 1);
    }
};

} // namespace

road_image_items road_image_items_of(const upgrade_road &road)
{
    road_items items{road, {}};
    road_image_items out;
    out.flag = items.flag();
    out.carried = items.items(road.carried);
    out.user = items.items(road.user);
    out.spare = items.items(road.spare);
    out.other = items.other(out.flag + " " + out.carried + " " + out.user + " " + out.spare);
    return out;
}
