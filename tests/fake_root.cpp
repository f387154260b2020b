#include "fake_root.h"

#include "common/vireo_platform.h"

#include <unistd.h>

fake_root::fake_root()
{
    vireo_platform_set_root(path.c_str());
}

fake_root::~fake_root()
{
    vireo_platform_set_root(nullptr);
}

void fake_root::mtd(int i, const std::string &name, size_t size, const std::string &content)
{
    const std::string n = std::to_string(i);
    write("sys/class/mtd/mtd" + n + "/name", name + "\n");
    std::string bytes = content;
    if (bytes.size() < size)
        bytes.resize(size, '\xff');
    write("dev/mtd" + n, bytes);
    const std::string block = join("dev/mtdblock" + n);
    unlink(block.c_str());
    if (symlink(("mtd" + n).c_str(), block.c_str()) != 0)
        write("dev/mtdblock" + n, bytes);
}

void fake_root::ubi_volume(int dev, int vol, const std::string &name, const std::string &content)
{
    const std::string d = std::to_string(dev);
    const std::string v = std::to_string(vol);
    write("sys/class/ubi/ubi" + d + "/ubi" + d + "_" + v + "/name", name + "\n");
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

std::string with_content_header(const std::string &doc)
{
    const uint32_t n = static_cast<uint32_t>(doc.size());
    const unsigned char h[16] = {0xAA,
                                 0x55,
                                 0xD9,
                                 0x8F,
                                 0x04,
                                 0xE9,
                                 0x55,
                                 0xAA,
                                 static_cast<unsigned char>(n >> 24),
                                 static_cast<unsigned char>(n >> 16),
                                 static_cast<unsigned char>(n >> 8),
                                 static_cast<unsigned char>(n),
                                 0,
                                 0,
                                 0,
                                 0};
    return std::string(reinterpret_cast<const char *>(h), sizeof(h)) + doc;
}
