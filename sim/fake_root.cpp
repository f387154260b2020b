// SPDX-License-Identifier: Apache-2.0
#include "fake_root.h"

#include "common/vireo_endian.h"
#include "common/vireo_platform.h"

#include <algorithm>
#include <dirent.h>
#include <unistd.h>

fake_root::fake_root()
{
    vireo_platform_set_root(path.c_str());
}

fake_root::~fake_root()
{
    vireo_platform_set_root(nullptr);
}

void fake_root::mtd(int i, const std::string &name, size_t size, const std::string &content,
                    long base)
{
    const std::string n = std::to_string(i);
    write("sys/class/mtd/mtd" + n + "/name", name + "\n");
    if (base >= 0)
        write("sys/class/mtd/mtd" + n + "/offset", std::to_string(base) + "\n");
    std::string bytes = content;
    if (bytes.size() < size)
        bytes.resize(size, '\xff');
    write("dev/mtd" + n, bytes);
    const std::string block = join("dev/mtdblock" + n);
    unlink(block.c_str());
    // A second name of the same file, as the kernel's block device is of the same flash.
    if (link(join("dev/mtd" + n).c_str(), block.c_str()) != 0)
        write("dev/mtdblock" + n, bytes);
}

void fake_root::ubi_volume(int dev, int vol, const std::string &name, const std::string &content)
{
    const std::string d = std::to_string(dev);
    const std::string v = std::to_string(vol);
    write("sys/class/ubi/ubi" + d + "/ubi" + d + "_" + v + "/name", name + "\n");
    // What the UBI library reads to tell a volume node: the interface version, the device's
    // numbers and the volume's own class directory.
    write("sys/class/ubi/version", "1\n");
    write("sys/class/ubi/ubi" + d + "/dev", std::to_string(240 + dev) + ":0\n");
    write("sys/class/ubi/ubi" + d + "_" + v + "/name", name + "\n");
    // Dynamic, in eraseblocks of 16 KiB (the preloaded library's FAKE_LEB).
    const size_t lebs = std::max<size_t>(1, (content.size() + 16383) / 16384);
    write("sys/class/ubi/ubi" + d + "_" + v + "/type", "dynamic\n");
    write("sys/class/ubi/ubi" + d + "_" + v + "/reserved_ebs", std::to_string(lebs) + "\n");
    write("sys/class/ubi/ubi" + d + "_" + v + "/usable_eb_size", "16384\n");
    write("dev/ubi" + d + "_" + v, content);
}

std::string fake_root::at(const std::string &fixed) const
{
    return path + fixed;
}

std::string fake_root::bytes(const std::string &fixed) const
{
    return read_file(at(fixed));
}

std::map<std::string, std::string> fake_root::devices() const
{
    std::map<std::string, std::string> out;
    DIR *dir = opendir(join("dev").c_str());
    for (const dirent *e; dir && (e = readdir(dir));)
        if (e->d_name[0] != '.')
            out[e->d_name] = bytes(std::string("/dev/") + e->d_name);
    if (dir)
        closedir(dir);
    return out;
}

std::string content_header(uint32_t length, uint32_t checksum)
{
    std::string h("\xAA\x55\xD9\x8F\x04\xE9\x55\xAA", 8);
    for (uint32_t word : {length, checksum})
        for (int shift = 24; shift >= 0; shift -= 8)
            h += static_cast<char>(word >> shift);
    return h;
}

std::string with_content_header(const std::string &doc)
{
    return content_header(static_cast<uint32_t>(doc.size())) + doc;
}

std::string content_of(const std::string &bytes)
{
    const uint32_t len =
        bytes.size() < 16 ? 0 : vireo_get_be32(reinterpret_cast<const uint8_t *>(&bytes[8]));
    return bytes.size() >= 16 && len <= bytes.size() - 16 ? bytes.substr(16, len) : "";
}
