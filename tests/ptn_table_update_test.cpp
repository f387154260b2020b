// The device's partition table against an image's: reading the image's, comparing the
// two, and carrying moved partitions through the whole-flash device.
#include "firmware/vireo_firmware.h"

#include "raw_device.h"
#include "unit_fixture.h"

#include <gtest/gtest.h>
#include <memory>

namespace
{

using table_ptr = ptn_table_ptr;

table_ptr table_of(const std::vector<raw_ptn> &ptns, uint32_t disk = 0x10000)
{
    return ptn_table_of(table_json(ptns, disk));
}

// The image's table from a one-entry payload holding entry.
table_ptr image_table(const std::string &entry, std::string *out = nullptr)
{
    up_ptn_table up{};
    up.ptn_cnt = 1;
    snprintf(up.ptns[0].name, sizeof(up.ptns[0].name), "partition-table");
    up.ptns[0].size = static_cast<uint32_t>(entry.size());
    const vireo_payload payload{reinterpret_cast<const uint8_t *>(entry.data()),
                                static_cast<uint32_t>(entry.size()), 0,
                                static_cast<uint32_t>(entry.size())};
    return table_ptr(quietly([&] { return vireo_firmware_get_ptn_table(&up, payload); }, out),
                     vireo_ptn_destroy);
}

} // namespace

TEST(PtnTableUpdate, ImageTableWithOrWithoutContentHeader)
{
    const std::string json = table_json({{"kernel", 0x1000, 0x1000, ""}}, 0x10000);
    EXPECT_TRUE(image_table(json));
    EXPECT_TRUE(image_table(with_content_header(json)));
    // A header that does not account for the entry exactly is not believed.
    std::string out;
    EXPECT_FALSE(image_table(with_content_header(json) + " ", &out));
    EXPECT_TRUE(has_trace(out, "Failed to parse json."));
    EXPECT_FALSE(image_table("{}", &out));
}

TEST(PtnTableUpdate, ChangedIgnoresOrderButNotAttr)
{
    const std::vector<raw_ptn> two = {{"a", 0, 0x1000, ""}, {"b", 0x1000, 0x1000, ""}};
    table_ptr a = table_of(two);
    table_ptr reordered = table_of({two[1], two[0]});
    EXPECT_EQ(0, vireo_firmware_ptn_table_changed(a.get(), a.get()));
    // Built by hand: the validation would refuse the order.
    ptn_table swapped = *a;
    std::swap(swapped.ptns[0], swapped.ptns[1]);
    EXPECT_EQ(0, vireo_firmware_ptn_table_changed(a.get(), &swapped));
    ptn_table attr = *a;
    attr.ptns[1].attr = 1;
    EXPECT_EQ(1, vireo_firmware_ptn_table_changed(a.get(), &attr));
    EXPECT_EQ(1, vireo_firmware_ptn_table_changed(a.get(), table_of({two[0]}).get()));
    EXPECT_EQ(1, vireo_firmware_ptn_table_changed(a.get(), table_of(two, 0x20000).get()));
    EXPECT_EQ(1, vireo_firmware_ptn_table_changed(a.get(), nullptr));
    EXPECT_EQ(nullptr, reordered) << "a table out of order is refused";
}

TEST(PtnTableUpdate, MovesCarryTheFlashAsItWas)
{
    // g grows in place; s moves up and shrinks; z is left out.
    const std::vector<raw_ptn> old_ptns = {{"g", 0x0000, 0x0700, std::string(0x700, 'G')},
                                           {"s", 0x1000, 0x1000, std::string(0x1000, 'S')},
                                           {"z", 0x8000, 0x1000, std::string(0x1000, 'Z')}};
    raw_device dev(old_ptns, 0x10000);
    std::string flash = dev.bytes("/dev/mtd0");
    flash.replace(0x700, 0x900, std::string(0x900, 'x')); // bytes behind g
    write_file(dev.at("/dev/mtd0"), flash);
    table_ptr old_table = table_of(old_ptns);
    table_ptr new_table = table_of({{"g", 0x0000, 0x1000, ""}, {"s", 0x2000, 0x0800, ""}});
    std::string out;
    const auto update = [&](const table_ptr &from, const table_ptr &to) {
        return quietly([&] { return vireo_firmware_update_ptn_table(from.get(), to.get()); }, &out);
    };
    ASSERT_EQ(0, update(old_table, new_table)) << out;
    std::string want = flash;
    want.replace(0x700, 0x100, std::string(0x100, '\xff')); // the padding of g's last unit
    want.replace(0x2000, 0x800, std::string(0x800, 'S'));   // no more than s now holds
    EXPECT_TRUE(want == dev.bytes("/dev/mtd0")) << "the flash as it was, moved";
    EXPECT_TRUE(
        has_trace(out, "ptn[s] moved from {0x00001000:0x00001000} to {0x00002000:0x00000800}."));

    // Nothing moves: the flash is not even read.
    remove(dev.at("/dev/mtd0").c_str());
    EXPECT_EQ(0, update(new_table, new_table)) << out;
    // A move past the end of the flash is refused before anything is written.
    write_file(dev.at("/dev/mtd0"), flash);
    EXPECT_EQ(-1, update(old_table, table_of({{"s", 0xF800, 0x1000, ""}}, 0x20000)));
    EXPECT_TRUE(has_trace(out, "PTN[s] move to {0x0000f800:0x00001000} failed."));
    EXPECT_TRUE(flash == dev.bytes("/dev/mtd0")) << "nothing written";
}

TEST(PtnTableUpdate, FlashTableIsReadFromTheFirst64KiB)
{
    // A table behind a content header, padded with spaces to fill the first 65536 bytes
    // of its partition exactly, or to reach one byte past them.
    const std::string json = table_json({{"partition-table", 0, 0x20000, ""}}, 0x100000);
    for (size_t length : {size_t(0x10000 - 16), size_t(0x10000 - 15)}) {
        const std::string content =
            with_content_header(json + std::string(length - json.size(), ' '));
        raw_device dev({{"partition-table", 0, 0x20000, content}}, 0x100000);
        std::string out;
        table_ptr t(quietly([] { return vireo_fireware_build_ptn_table_by_flash(); }, &out),
                    vireo_ptn_destroy);
        EXPECT_EQ(length + 16 <= 0x10000, t != nullptr) << length << out.substr(0, 2000);
    }
}
