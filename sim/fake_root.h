// SPDX-License-Identifier: Apache-2.0
// A temporary platform root holding a fake sysfs and /dev tree; the tool's fixed paths
// point into it while the object lives.
#pragma once

#include "sim_util.h"

#include <cstdint>
#include <map>
#include <string>

struct fake_root : temp_dir {
    fake_root();
    ~fake_root();
    // MTD partition i: its sysfs name file, /dev/mtd<i> holding content padded with 0xFF
    // to size bytes (at least the content), and /dev/mtdblock<i>, the same bytes. With a
    // base, sysfs gives its offset in the whole flash (/dev/mtd0), and the preloaded library
    // keeps the two views of those bytes one, as the kernel's partitions are.
    void mtd(int i, const std::string &name, size_t size = 0, const std::string &content = "",
             long base = -1);
    // Volume vol of UBI device dev: its sysfs files and /dev/ubi<dev>_<vol>, holding content
    // (a plain file here; a UBI volume of content's size for a tool run under the preloaded
    // library).
    void ubi_volume(int dev, int vol, const std::string &name, const std::string &content = "");
    // The fixed path under this root.
    std::string at(const std::string &fixed) const;
    // The bytes of a fixed path under this root.
    std::string bytes(const std::string &fixed) const;
    // Every file below dev/ but hidden ones, by name: what a command must leave as it found it.
    std::map<std::string, std::string> devices() const;
};

// The 16-byte content header (big-endian magic, length, checksum); a document behind it.
std::string content_header(uint32_t length, uint32_t checksum = 0);
std::string with_content_header(const std::string &doc);
// The content that the header at the start of bytes accounts for ("" when it does not fit).
std::string content_of(const std::string &bytes);
