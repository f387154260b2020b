#include "fake_root.h"

#include "common/vireo_platform.h"

fake_root::fake_root()
{
    vireo_platform_set_root(path.c_str());
}

fake_root::~fake_root()
{
    vireo_platform_set_root(nullptr);
}

void fake_root::mtd(int i, const std::string &name, size_t size)
{
    const std::string n = std::to_string(i);
    write("sys/class/mtd/mtd" + n + "/name", name + "\n");
    write("dev/mtd" + n, std::string(size, '\xff'));
    write("dev/mtdblock" + n, std::string(size, '\xff'));
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
