// SPDX-License-Identifier: Apache-2.0
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
// A support-list entry.
std::string entry_json(const std::string &model, const std::string &version,
                       const std::string &special_id, const std::string &flash_version = "");
// A firmware-info document of this software version.
std::string fwinfo_json(const std::string &version);
// A partition-table document listing the partitions.
std::string table_json(const std::vector<raw_ptn> &ptns, uint32_t disk_size);
// The boot-flag record an upgrade writes: flag on (GOOD) or off (BAD) with the score.
std::string flag_doc(bool on, int score);
// content padded with 0xFF to size bytes.
std::string padded(const std::string &content, size_t size);

// The device most tests use, and a support list that fits it alone.
inline const std::string kDevice = devinfo_json("VR100", "1.0", "55530000");
inline const std::string kFits = "[" + entry_json("VR100", "1.0", "55530000") + "]";

// The record partitions a layout starts with, 64 KiB each from 0: "partition-table",
// "device-info" (kDevice), "extra-para" (flag on, score 0), "support-list" and, unless
// count is 4, "firmware-info"; then the partitions given.
std::vector<raw_ptn> with_records(std::vector<raw_ptn> rest, size_t count = 5);

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
};

// One image of a firmware manifest.
struct fw_image {
    std::string support_list; // the JSON array
    std::string table;        // a partition-table document, or empty for none
    std::string fwinfo = fwinfo_json("1.3.0 Build 20261123 Rel.00001"); // or empty for none
    std::vector<std::pair<std::string, std::string>> parts;             // name, content
};

// Ed25519 private keys (PEM paths) with which pack_firmware also signs every file from now
// on, besides the RSA test key; none by default.
void set_pack_ed25519_keys(const std::vector<std::string> &pem_paths);

// Writes the manifest into dir, packs it with the test key and returns the file's bytes; the
// file itself is dir/up.bin. Empty (with the pack tool's message in *error) when packing
// failed.
std::vector<uint8_t> pack_firmware(const temp_dir &dir, const std::string &manifest,
                                   std::string *error = nullptr);
// The manifest of these images; the part contents are written into dir.
std::string fw_manifest(const temp_dir &dir, const std::vector<fw_image> &images);
// Packs the images into dir/up.bin; returns the bytes (throws when packing fails).
std::vector<uint8_t> pack_images(const temp_dir &dir, const std::vector<fw_image> &images);
