// SPDX-License-Identifier: Apache-2.0
// vireo_sim_road: the upgrade roads (upgrade_roads.h) laid out for use outside this program.
//
//   vireo_sim_road list
//   vireo_sim_road tree ROAD DIR
//       the road's fake device tree in DIR (a new folder), and on standard output the
//       command that runs the road's upgrade on it under the flash emulation;
//   vireo_sim_road image ROAD DIR [--scale K] [--leb BYTES]
//       the road for a router's kernel, in DIR: factory.img (the whole flash but the UBI
//       devices), up.bin, for each UBI device D ubiD.list ("NAME LEBS FILE" a volume, the
//       volumes' contents beside it) and its home in homes.list ("D BASE SIZE"), flash.conf
//       (FLASH_SIZE, PTN_BASE, UBI_ATTACH) and road.conf (TOOL_ARGS and the items the
//       power-cut sweep judges: FLAG, CARRIED, USER, OTHER), in the items of the virtual
//       router ("flash:OFFSET:LENGTH", "mtd:NAME", "ubiD:NAME"). The layout is built at
//       scale K (2 for 128 KiB erase blocks); a volume takes its content's size in LEBs
//       of BYTES each.
#include "road_image.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <sys/stat.h>

namespace
{

// The road's arguments, with its firmware file where the router keeps it.
std::string tool_args(const upgrade_road &road, const std::string &up)
{
    std::string out;
    for (const std::string &a : road.args)
        out += (out.empty() ? "" : " ") + (a == road.device->join("up.bin") ? up : a);
    return out;
}

void write_image(const upgrade_road &road, const std::string &dir, uint32_t leb)
{
    std::string flash(road.disk_size, '\xff');
    uint32_t ptn_base = 0;
    for (const raw_ptn &p : road.layout) {
        flash.replace(p.base, p.content.size(), p.content);
        if (p.name == "partition-table")
            ptn_base = p.base;
    }
    write_file(dir + "/factory.img", flash);
    write_file(dir + "/up.bin", read_file(road.device->join("up.bin")));
    std::string homes, attach;
    for (const auto &[dev, home] : road.ubi_homes) {
        std::string list;
        for (const road_volume &v : road.volumes) {
            if (v.dev != dev)
                continue;
            const std::string file = dir + "/ubi" + std::to_string(dev) + "-" + v.name;
            write_file(file, v.content);
            const size_t lebs = std::max<size_t>(1, (v.content.size() + leb - 1) / leb);
            list += v.name + " " + std::to_string(lebs) + " " + file + "\n";
        }
        write_file(dir + "/ubi" + std::to_string(dev) + ".list", list);
        for (const raw_ptn &p : road.layout)
            if (p.name == home)
                homes += std::to_string(dev) + " " + std::to_string(p.base) + " " +
                         std::to_string(p.size) + "\n";
        // The upgrade attaches device 4 itself; the router attaches the others at boot.
        if (dev != 4)
            attach += (attach.empty() ? "" : " ") + home + ":" + std::to_string(dev);
    }
    write_file(dir + "/homes.list", homes);
    write_file(dir + "/flash.conf", "FLASH_SIZE=" + std::to_string(road.disk_size) +
                                        " PTN_BASE=" + std::to_string(ptn_base) + " UBI_ATTACH='" +
                                        attach + "'\n");
    const road_image_items items = road_image_items_of(road);
    write_file(dir + "/road.conf", "TOOL_ARGS='" + tool_args(road, "/tmp/up.bin") +
                                       "'\nFLAG=" + items.flag + "\nCARRIED='" + items.carried +
                                       "'\nUSER='" + items.user + "'\nOTHER='" + items.other +
                                       "'\nSPARE='" + items.spare + "'\n");
}

int usage()
{
    fprintf(stderr, "usage: vireo_sim_road list\n"
                    "       vireo_sim_road tree ROAD DIR\n"
                    "       vireo_sim_road image ROAD DIR [--scale K] [--leb BYTES]\n");
    return 2;
}

int run(int argc, char **argv)
{
    const std::vector<std::string> names = upgrade_road_names();
    if (argc == 2 && strcmp(argv[1], "list") == 0) {
        for (const std::string &n : names)
            printf("%s\n", n.c_str());
        return 0;
    }
    if (argc < 4 || std::find(names.begin(), names.end(), argv[2]) == names.end())
        return usage();
    const std::string cmd = argv[1], name = argv[2], dir = argv[3];
    uint32_t scale = 1, leb = 126976;
    for (int i = 4; i + 1 < argc; i += 2) {
        if (strcmp(argv[i], "--scale") == 0)
            scale = static_cast<uint32_t>(strtoul(argv[i + 1], nullptr, 0));
        else if (strcmp(argv[i], "--leb") == 0)
            leb = static_cast<uint32_t>(strtoul(argv[i + 1], nullptr, 0));
        else
            return usage();
    }
    if ((argc - 4) % 2 || scale == 0 || leb == 0 || (cmd != "tree" && cmd != "image"))
        return usage();
    if (mkdir(dir.c_str(), 0755) != 0) {
        perror(dir.c_str());
        return 1;
    }
    const upgrade_road road = make_upgrade_road(name, scale);
    if (cmd == "image") {
        write_image(road, dir, leb);
        return 0;
    }
    // The tree moves to dir whole; what names the old place is said anew.
    const std::string copy = "cp -a '" + road.device->path + "/.' '" + dir + "/'";
    if (system(copy.c_str()) != 0)
        return 1;
    std::string line;
    for (std::string e : tool_env(*road.device)) {
        for (size_t at; (at = e.find(road.device->path)) != std::string::npos;)
            e.replace(at, road.device->path.size(), dir);
        line += "'" + e + "' ";
    }
    printf("env %s%s %s %s\n", line.c_str(), VIREO_FAKE_ROOT_TOOL, dir.c_str(),
           tool_args(road, dir + "/up.bin").c_str());
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    try {
        return run(argc, argv);
    } catch (const std::exception &e) {
        fprintf(stderr, "vireo_sim_road: %s\n", e.what());
        return 1;
    }
}
