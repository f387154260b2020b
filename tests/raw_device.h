// A raw-flash device in a fake tree, and firmware files for it.
#pragma once

#include "fake_root.h"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

struct raw_ptn {
    std::string name;
    uint32_t base;
    uint32_t size;
    std::string content; // stored from the partition's first byte, the rest 0xFF
};

// The devinfo document of a device; flash_version is left out when empty.
std::string devinfo_json(const std::string &model, const std::string &version,
                         const std::string &special_id, const std::string &flash_version = "");
// A partition-table document listing the partitions.
std::string table_json(const std::vector<raw_ptn> &ptns, uint32_t disk_size);

// /dev/mtd0 is the whole flash; partition i of the list is /dev/mtd<i+1>, holding the same
// bytes as its stretch of the flash. A "partition-table" partition without content gets
// the list's own table behind a content header.
struct raw_device : fake_root {
    raw_device(std::vector<raw_ptn> ptns, uint32_t disk_size = 0x100000);
    std::vector<raw_ptn> ptns;
    uint32_t disk_size;
    // The usual layout: partition-table, device-info (this document), device-info.b,
    // extra-para, kernel and rootfs.
    static std::vector<raw_ptn> layout(const std::string &devinfo);
    // Every file below dev/, by name: what a command must leave as it found it.
    std::map<std::string, std::string> devices() const;
    std::string ptn_bytes(const std::string &name) const;
};

// One image of a firmware manifest.
struct fw_image {
    std::string support_list; // the JSON array
    std::string table;        // a partition-table document, or empty for none
    std::string fwinfo =
        R"({"software-version": "1.3.0 Build 20261123 Rel.00001", "firmware-id": "ID"})";
    std::vector<std::pair<std::string, std::string>> parts; // name, content
};

// The manifest of these images; the part contents are written into dir.
std::string fw_manifest(const temp_dir &dir, const std::vector<fw_image> &images);
// A support-list entry.
std::string entry_json(const std::string &model, const std::string &version,
                       const std::string &special_id, const std::string &flash_version = "");
