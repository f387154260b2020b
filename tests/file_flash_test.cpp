// SPDX-License-Identifier: Apache-2.0
// The block-mode writer on flash (emulated by the preloaded library): whatever the device
// held, it ends up holding what a device that simply overwrites would, and an erase block is
// erased only where a program would not land on erased flash.
#include "fake_root.h"

#include <gtest/gtest.h>
#include <sstream>

namespace
{

const size_t kDevice = 0x40000;
const std::string kErased(kDevice, '\xff');

// The device after the write on RAM-like flash: the units padded with 0xFF, as far as the
// device reaches.
std::string overwritten(std::string device, size_t offset, const std::string &data)
{
    std::string span = data;
    span.resize((data.size() + 2047) / 2048 * 2048, '\xff');
    span.resize(std::min(span.size(), device.size() - offset));
    return device.replace(offset, span.size(), span);
}

struct flash_write {
    int status;
    std::string out;
    size_t erases = 0;
    size_t written = 0; // bytes, in all writes
};

// Writes data at offset onto a flash device that holds before, of this geometry.
flash_write write_flash(fake_root &root, const std::string &before, uint32_t erase, uint32_t page,
                        int32_t offset, const std::string &data, const std::string &bad = "")
{
    root.mtd(1, "part", before.size(), before);
    const std::string device = root.at("/dev/mtd1"), file = root.write("data.bin", data);
    const std::string erases = root.write("erases.log", ""), writes = root.write("writes.log", "");
    std::vector<std::string> env = {"LD_PRELOAD=" VIREO_FLASH_PRELOAD,
                                    "VIREO_FLASH_ROOT=" + root.path,
                                    "VIREO_FLASH_ERASE=" + std::to_string(erase),
                                    "VIREO_FLASH_PAGE=" + std::to_string(page),
                                    "VIREO_ERASE_LOG=" + erases,
                                    "VIREO_WRITE_LOG=" + writes,
                                    "ASAN_OPTIONS=verify_asan_link_order=0:detect_leaks=0"};
    if (!bad.empty())
        env.push_back("VIREO_BAD_BLOCKS=" + device + "@" + bad);
    const run_result r =
        run_program(VIREO_FLASH_WRITE_TOOL, {device, std::to_string(offset), file}, env);
    flash_write w{r.status, r.out};
    std::istringstream e(read_file(erases)), wl(read_file(writes));
    for (std::string line; std::getline(e, line);)
        w.erases++;
    std::string path;
    for (size_t n; wl >> path >> n;)
        if (path == device)
            w.written += n;
    return w;
}

} // namespace

TEST(FlashWrite, LandsAsOnRamLikeFlashErasingOnlyWhereNeeded)
{
    const std::string used = pattern(kDevice, 9);
    const std::string d = pattern(0x3000, 1);
    const std::string hole = std::string(0x20FFF, '\xff') + '\0' + kErased.substr(0x21000);
    struct {
        const char *what;
        uint32_t erase, page;
        std::string before;
        int32_t offset;
        std::string data;
        size_t erases;
        long written; // -1: not counted
    } cases[] = {
        {"erased NOR: programmed as it is", 0x10000, 1, kErased, 0x10000, d.substr(0, 5000), 0,
         6144},
        {"programmed NOR: each block touched erased once", 0x10000, 1, used, 0x8000,
         pattern(0x18000, 2), 2, -1},
        {"a unit across two blocks", 0x10000, 1, used, 0x1FC00, d.substr(0, 3000), 2, -1},
        {"erased NAND of 4 KiB pages: whole pages", 0x10000, 4096, kErased, 0x20000,
         d.substr(0, 5000), 0, 8192},
        {"programmed NAND of 4 KiB pages", 0x10000, 4096, used, 0x21000, d.substr(0, 3000), 1, -1},
        {"a page programmed beyond the unit", 0x10000, 4096, hole, 0x20000, d.substr(0, 2048), 1,
         -1},
        {"small pages and blocks", 0x4000, 512, used, 0x3800, d.substr(0, 0x1000), 2, -1},
        {"the bytes already there", 0x10000, 4096, overwritten(used, 0x10000, d), 0x10000, d, 0, 0},
    };
    for (const auto &c : cases) {
        fake_root root;
        const flash_write w = write_flash(root, c.before, c.erase, c.page, c.offset, c.data);
        EXPECT_EQ(0, w.status) << c.what << w.out;
        EXPECT_EQ(overwritten(c.before, static_cast<size_t>(c.offset), c.data),
                  root.bytes("/dev/mtd1"))
            << c.what;
        EXPECT_EQ(c.erases, w.erases) << c.what;
        if (c.written >= 0) {
            EXPECT_EQ(static_cast<size_t>(c.written), w.written) << c.what;
        }
    }
}

TEST(FlashWrite, BadBlockAndDeviceEndFailTheWrite)
{
    const std::string used = pattern(kDevice, 9), d = pattern(0x20000, 3);
    fake_root root;
    // A bad block is never written, even where it reads erased: what comes before it is.
    const std::string half = used.substr(0, 0x10000) + kErased.substr(0x10000);
    flash_write w = write_flash(root, half, 0x10000, 1, 0, d, "0x10000");
    EXPECT_EQ(1, w.status);
    EXPECT_NE(std::string::npos, w.out.find("ERROR write(")) << w.out;
    const std::string after = root.bytes("/dev/mtd1");
    EXPECT_EQ(d.substr(0, 0x10000), after.substr(0, 0x10000));
    EXPECT_EQ(half.substr(0x10000), after.substr(0x10000));

    // The padded last unit passes the end: it lands as far as the device reaches, and fails.
    w = write_flash(root, used, 0x10000, 1, 0x3FC00, d.substr(0, 0x300));
    EXPECT_EQ(1, w.status);
    EXPECT_NE(std::string::npos, w.out.find("ERROR write(768) return 1024.")) << w.out;
    EXPECT_EQ(overwritten(used, 0x3FC00, d.substr(0, 0x300)), root.bytes("/dev/mtd1"));
}
