// SPDX-License-Identifier: Apache-2.0
// The firmware module: the image header and the chain of images, the up-ptn-table region
// and the contents it locates, and the device's partition table against an image's
// (comparing the two, carrying moved partitions through the whole-flash device).
#include "firmware/vireo_firmware.h"
#include "firmware/vireo_firmware_header.h"
#include "firmware/vireo_firmware_integrity.h"
#include "firmware/vireo_firmware_up_ptn_table.h"

#include "common/vireo_common.h"
#include "pack_fixture.h"
#include "raw_device.h"
#include "unit_fixture.h"

#include <climits>
#include <gtest/gtest.h>
#include <memory>

namespace
{

using bytes = std::vector<uint8_t>;

using up_table_ptr = std::unique_ptr<up_ptn_table, decltype(&vireo_firmware_up_ptn_table_destroy)>;

// An up-ptn-table document of n one-byte entries named p0, p1...
std::string entries(int n)
{
    std::string s = "{\"up-ptn-table\":[";
    for (int i = 0; i < n; i++)
        s += std::string(i ? "," : "") + "{\"name\":\"p" + std::to_string(i) +
             "\",\"base\":\"0\",\"size\":\"1\"}";
    return s + "]}";
}

// The partition table listing ptns.
ptn_table_ptr table_of(const std::vector<raw_ptn> &ptns, uint32_t disk = 0x10000)
{
    return ptn_table_of(table_json(ptns, disk));
}

} // namespace

TEST(FirmwareHeader, RefusalsAndTheBytesEachModeCovers)
{
    reset_integrity_state();
    temp_dir dir;
    // An image without partitions: header and table region only, 69696 bytes.
    const bytes image = pack_firmware(dir, R"({"images": [{"partitions": []}]})");
    ASSERT_EQ(static_cast<size_t>(FIRMWARE_MIN_SIZE), image.size());
    const auto flipped = [&](size_t pos, uint8_t mask) {
        bytes b = image;
        b[pos] ^= mask;
        return b;
    };
    bytes longer = image, far = image;
    longer.push_back(0);
    far[33] = 0x01; // header_len 69697, one past the end
    far[35] = 0x41;
    const struct {
        bytes buf;
        int32_t mode;
        std::string trace;     // the start of the one trace of a refusal, or empty: accepted
        bool supplied = false; // -m supplied the digest
    } cases[] = {
        {flipped(27, 3), 0, "Invalid firmware version(0x00000002)."},
        {longer, 0, "firmware size un-match, buf_size is 69697 header[total_len] is 69696."},
        {far, 0, "header length 69697 exceeds total length 69696."},
        // The digest covers the table region and the payload from 4160 on; the header's
        // other bytes (reserved words, zero areas) may hold anything.
        {flipped(4159, 0x5A), 0, ""},
        {flipped(4160, 0x5A), 0, "Playload md5 unmatch, header[md5]="},
        {flipped(image.size() - 1, 0x5A), 0, "Playload md5 unmatch, header[md5]="},
        {flipped(FIRMWARE_SIGNATURE_OFFSET, 1), 1, "Rsa check not pass"},
        // After -m supplied the digest, signature mode checks the structure alone.
        {flipped(FIRMWARE_SIGNATURE_OFFSET, 1), 1, "", true},
    };
    for (const auto &c : cases) {
        digest_from_image = !c.supplied;
        firmware_header h;
        const int32_t size = static_cast<int32_t>(c.buf.size());
        int32_t result = 0;
        const std::string out = capture_stdout(
            [&] { result = vireo_firmware_header_parse(c.buf.data(), size, &h, c.mode); });
        EXPECT_EQ(c.trace.empty() ? 0 : -1, result) << c.trace;
        const auto msgs = trace_messages(out);
        EXPECT_EQ(c.trace.empty() ? 0u : 1u, msgs.size()) << c.trace << out;
        EXPECT_EQ(0u, msgs.empty() ? 0 : msgs[0].rfind(c.trace, 0)) << out;
    }
}

TEST(FirmwareChain, MovesOnlyForwardInsideTheFile)
{
    // From the image at 100 of a file of 200 bytes; 0 marks the last image.
    const std::pair<uint32_t, int32_t> cases[] = {{100, -1},  {99, -1}, {200, -1},
                                                  {5000, -1}, {150, 1}, {0, 0}};
    for (const auto &[pos, result] : cases) {
        firmware_header h{};
        h.nextpos = pos;
        int32_t next = -1;
        EXPECT_EQ(result, quietly([&] { return vireo_firmware_chain_next(100, &h, 200, &next); }))
            << pos;
        EXPECT_EQ(result == 1 ? 150 : -1, next) << pos;
    }
}

TEST(UpPtnTable, BuiltFromTheImageRegionOnlyWhenItIsSound)
{
    // An image of 69696 bytes whose table region holds text.
    const auto image = [](const std::string &text) {
        std::vector<uint8_t> b(FIRMWARE_MIN_SIZE, 0);
        std::copy(text.begin(), text.end(), b.begin() + FIRMWARE_HEADER_SIZE);
        return b;
    };
    const std::string n31(31, 'n'), n32(32, 'n');
    const auto one = [](const std::string &name) {
        return "{\"up-ptn-table\":[{\"name\":\"" + name + "\",\"base\":\"0\",\"size\":\"1\"}]}";
    };
    const int32_t size = FIRMWARE_MIN_SIZE;
    const struct {
        std::vector<uint8_t> buf;
        std::string trace; // one of a refusal, or empty when the table is built
        uint32_t header_len = FIRMWARE_HEADER_SIZE, total_len = FIRMWARE_MIN_SIZE;
    } cases[] = {
        // Keys in any letter case; hexadecimal numbers with or without 0x, a base from
        // 0x80000000 on negative (an earlier image's content).
        {image(R"({"Up-Ptn-Table":[{"Name":"a","BASE":"10000","size":"0X10"},
                  {"name":"b","base":"0xFFFF0000","size":"1"}]})"),
         ""},
        {image(R"({"up-ptn-table":[]})"), ""},
        {image(one(n31)), ""},
        {image(entries(64)), ""},
        {image("{}"), "json 'up-ptn-table' not found."},
        {image(one(n32)), "ptn json 'name' string len too long, '" + n32 + "', 32/32"},
        {image(R"({"up-ptn-table":[{"name":"a","base":65536,"size":"1"}]})"),
         "ptn json 'base' must be String type."},
        {image(R"({"up-ptn-table":[{"name":"a","base":"0"}]})"), "ptn json 'size' not found."},
        {image(R"({"up-ptn-table":[{"base":"0","size":"1"}]})"), "ptn json 'name' not found."},
        {image(R"({"up-ptn-table":"a"})"), "json 'up-ptn-table' must be Array type."},
        {image(entries(65)), "too much up partitions, 65/64."},
        // A region reaching past the buffer or the image is refused before it is read.
        {image(entries(2)),
         "up_ptn_table region [4161, +65536) lies outside the image of 69696 bytes.",
         FIRMWARE_HEADER_SIZE + 1, size + 1},
        {image(entries(2)),
         "up_ptn_table region [4160, +65536) lies outside the image of 69696 bytes.",
         FIRMWARE_HEADER_SIZE, size - 1},
        // A region without a NUL byte is no text; text that is not JSON is no table.
        {std::vector<uint8_t>(size, '{'), "up_ptn_table region holds no NUL-terminated text."},
        {image("x"), "Failed to parse up_ptn_table json."},
    };
    for (const auto &c : cases) {
        firmware_header header{};
        header.header_len = c.header_len;
        header.total_len = c.total_len;
        std::string out;
        const auto build = [&] {
            return vireo_firmware_up_ptn_table_build_by_fimware(c.buf.data(), size, &header);
        };
        up_table_ptr t(quietly(build, &out), vireo_firmware_up_ptn_table_destroy);
        EXPECT_EQ(c.trace.empty(), t != nullptr) << c.trace << out;
        EXPECT_TRUE(c.trace.empty() || has_trace(out, c.trace)) << c.trace << out;
        if (&c == cases) { // the entries of the first document
            ASSERT_TRUE(t && t->ptn_cnt == 2);
            EXPECT_STREQ("b", t->ptns[1].name);
            EXPECT_EQ(0x10000, t->ptns[0].base);
            EXPECT_EQ(0x10u, t->ptns[0].size);
            EXPECT_EQ(-0x10000, t->ptns[1].base);
        }
    }
}

TEST(UpPtnTable, ContentExtentsStayInsideTheFile)
{
    // A file of 1000 bytes whose payload starts at 100: a negative base may reach back to
    // the file's first byte, never before it.
    const std::vector<uint8_t> file(1000, 0);
    const struct {
        int32_t base;
        uint32_t size;
        bool inside;
    } cases[] = {
        {-100, 1000, true},      {-101, 10, false},     {0, 900, true},
        {0, 901, false},         {900, 0, true},        {900, 1, false},
        {1, 0xFFFFFFFFu, false}, {INT32_MAX, 0, false}, {INT32_MIN, 0, false},
    };
    for (const auto &c : cases) {
        const up_ptn_info entry{"x", c.base, c.size};
        EXPECT_EQ(c.inside ? file.data() + 100 + c.base : nullptr, quietly([&] {
                      return vireo_firmware_ptn_content(file.data(), 1000, 100, &entry);
                  }))
            << c.base << " " << c.size;
    }
}

TEST(PtnTableUpdate, ChangedIgnoresOrderButNotAttr)
{
    ptn_table_ptr a = table_of({{"a", 0, 0x1000, ""}, {"b", 0x1000, 0x1000, ""}});
    // Built by hand: the validation would refuse the order.
    ptn_table swapped = *a, attr = *a, disk = *a, fewer = *a;
    std::swap(swapped.ptns[0], swapped.ptns[1]);
    attr.ptns[1].attr = 1;
    disk.disk_size = 0x20000;
    fewer.ptn_cnt = 1;
    const std::pair<const ptn_table *, int32_t> cases[] = {
        {a.get(), 0}, {&swapped, 0}, {&attr, 1}, {&disk, 1}, {&fewer, 1}};
    for (const auto &[other, changed] : cases)
        EXPECT_EQ(changed, vireo_firmware_ptn_table_changed(a.get(), other));
}

TEST(PtnTableUpdate, MovesCarryTheFlashAsItWas)
{
    // g grows in place; s moves up and shrinks; p and q swap places; z is left out.
    const std::vector<raw_ptn> old_ptns = {{"g", 0x0000, 0x0700, std::string(0x700, 'G')},
                                           {"s", 0x1000, 0x1000, std::string(0x1000, 'S')},
                                           {"p", 0x4000, 0x1000, std::string(0x1000, 'P')},
                                           {"q", 0x5000, 0x1000, std::string(0x1000, 'Q')},
                                           {"z", 0x8000, 0x1000, std::string(0x1000, 'Z')}};
    raw_device dev(old_ptns, 0x10000);
    std::string flash = dev.bytes("/dev/mtd0");
    flash.replace(0x700, 0x900, std::string(0x900, 'x')); // bytes behind g
    write_file(dev.at("/dev/mtd0"), flash);
    ptn_table_ptr old_table = table_of(old_ptns);
    ptn_table_ptr new_table = table_of({{"g", 0x0000, 0x1000, ""},
                                        {"s", 0x2000, 0x0800, ""},
                                        {"q", 0x4000, 0x1000, ""},
                                        {"p", 0x5000, 0x1000, ""}});
    std::string out;
    const auto update = [&](const ptn_table_ptr &from, const ptn_table_ptr &to) {
        return quietly([&] { return vireo_firmware_update_ptn_table(from.get(), to.get()); }, &out);
    };
    ASSERT_EQ(0, update(old_table, new_table)) << out;
    std::string want = flash;
    want.replace(0x700, 0x100, std::string(0x100, '\xff')); // the padding of g's last unit
    want.replace(0x2000, 0x800, std::string(0x800, 'S'));   // no more than s now holds
    want.replace(0x4000, 0x1000, std::string(0x1000, 'Q'));
    want.replace(0x5000, 0x1000, std::string(0x1000, 'P'));
    EXPECT_TRUE(want == dev.bytes("/dev/mtd0")) << "the flash as it was, moved";

    // A move past the end of the flash is refused before anything is written.
    write_file(dev.at("/dev/mtd0"), flash);
    EXPECT_EQ(-1, update(old_table, table_of({{"s", 0xF800, 0x1000, ""}}, 0x20000)));
    EXPECT_TRUE(flash == dev.bytes("/dev/mtd0")) << "nothing written";
}
