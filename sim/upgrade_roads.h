// SPDX-License-Identifier: Apache-2.0
// The roads of an upgrade, run as a user runs them on a fake device under the preloaded
// flash library: the devices, their firmware files, the stand-ins for the router's "mtd",
// "ubiattach" and "ubidetach", and what each road may change. Shared by the upgrade tests
// and the power-cut sweep.
#pragma once

#include "raw_device.h"

#include <memory>
#include <string>
#include <vector>

// Bytes of a device file ("/dev/mtd0"): [offset, offset + len), or the whole file (len 0).
struct byte_range {
    std::string file;
    size_t offset = 0;
    size_t len = 0;
};

// A volume of one of a road's UBI devices, its content padded to its reserved room.
struct road_volume {
    int dev;
    int vol;
    std::string name;
    std::string content;
};

struct upgrade_road {
    std::string name;
    // The flash as a router's kernel holds it: the MTD partitions at their bases with their
    // contents (a raw device's own; where a road has none of its own, the partition-table and
    // the partitions that hold its UBI devices), the flash's size, each UBI device's volumes
    // and the partition each device lives in.
    std::vector<raw_ptn> layout;
    uint32_t disk_size = 0;
    std::vector<road_volume> volumes;
    std::vector<std::pair<int, std::string>> ubi_homes;
    // Holds the firmware file (up.bin) too; shared, so that a raw_device is deleted as one.
    std::shared_ptr<fake_root> device;
    std::vector<std::string> args;   // of the tool, after the root
    std::vector<byte_range> carried; // what the image brings into the target
    std::vector<byte_range> user;    // user data the upgrade carries over: moves, copies
    // Flash free of partitions that may hold a journal while the upgrade runs: any value at
    // a cut, erased again once the upgrade is done.
    std::vector<byte_range> spare;
    std::string flag;      // the device file of the target's flag record
    std::string flag_done; // the flag record's document once installed
};

// The roads by name: "raw-moves" (a layout change with overlapping, growing and new
// partitions), "raw" (the same layout), "raw-ubi" (an image carrying "ubi", the flag volumes
// on UBI device 4 of "extra-para-ubi"), "ubi" (the UBI work mode, user data copied) and
// "rollback". Every base and size of a layout is a multiple of 64 KiB times scale, so that
// scale 2 fits flash of 128 KiB erase blocks; the contents keep their sizes.
std::vector<std::string> upgrade_road_names();
upgrade_road make_upgrade_road(const std::string &name, uint32_t scale = 1);

// The environment of a tool run on root: the stand-ins first on the PATH, the preloaded
// library and its flash emulation, and the stand-ins' log (root/calls.log).
std::vector<std::string> tool_env(const fake_root &root);
// Installs the stand-ins into root/bin. VIREO_MTD_NO_ERASE=1 makes "mtd erase" erase nothing;
// VIREO_MTD_REWRITE=FILE changes a byte 256 from FILE's end before the erase.
void install_stand_ins(const fake_root &root);
// Runs the tool on the road's device with these settings added to tool_env.
run_result run_road(const upgrade_road &road, const std::vector<std::string> &env = {});
