// A temporary platform root holding a fake sysfs and /dev tree; the tool's fixed paths
// point into it while the object lives.
#pragma once

#include "test_util.h"

#include <string>

struct fake_root : temp_dir {
    fake_root();
    ~fake_root();
    // MTD partition i: its sysfs name file, and /dev/mtd<i> and /dev/mtdblock<i> as
    // regular files of size bytes of 0xFF.
    void mtd(int i, const std::string &name, size_t size = 0);
    // Volume vol of UBI device dev: its sysfs name file and /dev/ubi<dev>_<vol>.
    void ubi_volume(int dev, int vol, const std::string &name, const std::string &content = "");
    // The fixed path under this root.
    std::string at(const std::string &fixed) const;
};
