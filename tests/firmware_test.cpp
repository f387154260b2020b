// The firmware module: the image header and the chain of images, the up-ptn-table region
// and the contents it locates, and the device's partition table against an image's
// (reading the image's, comparing the two, carrying moved partitions through the
// whole-flash device).
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

struct parsed {
    int32_t result;
    std::string out;
    firmware_header header;
};

parsed parse(bytes &buf, int32_t mode)
{
    parsed p{};
    p.out = capture_stdout([&] {
        p.result = vireo_firmware_header_parse(buf.data(), static_cast<int32_t>(buf.size()),
                                               &p.header, mode);
    });
    return p;
}

class FirmwareHeader : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        reset_integrity_state();
        // An image without partitions: header and table region only, 69696 bytes.
        image = pack_firmware(dir, R"({"images": [{"partitions": []}]})");
        ASSERT_EQ(static_cast<size_t>(FIRMWARE_MIN_SIZE), image.size());
    }
    void TearDown() override
    {
        reset_integrity_state();
    }
    temp_dir dir;
    bytes image;
};

using up_table_ptr = std::unique_ptr<up_ptn_table, decltype(&vireo_firmware_up_ptn_table_destroy)>;

// The up-ptn-table json describes, or none; the build's traces go to *out.
up_table_ptr up_table_of(const std::string &json, std::string *out)
{
    cjson_ptr root(cJSON_Parse(json.c_str()), cJSON_Delete);
    return up_table_ptr(
        quietly([&] { return vireo_firmware_up_ptn_table_build_by_json(root.get()); }, out),
        vireo_firmware_up_ptn_table_destroy);
}

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

// The image's table from a one-entry payload holding entry.
ptn_table_ptr image_table(const std::string &entry, std::string *out = nullptr)
{
    up_ptn_table up{};
    up.ptn_cnt = 1;
    snprintf(up.ptns[0].name, sizeof(up.ptns[0].name), "partition-table");
    up.ptns[0].size = static_cast<uint32_t>(entry.size());
    const vireo_payload payload{reinterpret_cast<const uint8_t *>(entry.data()),
                                static_cast<uint32_t>(entry.size()), 0,
                                static_cast<uint32_t>(entry.size())};
    return ptn_table_ptr(quietly([&] { return vireo_firmware_get_ptn_table(&up, payload); }, out),
                         vireo_ptn_destroy);
}

} // namespace

TEST_F(FirmwareHeader, EachFailureHasItsMessage)
{
    // A bad magic and a short file: the check command's walk tests have their messages.
    bytes v2 = image, longer = image, far = image, bad_sig = image;
    v2[27] = 2;
    longer.push_back(0);
    far[33] = 0x01; // header_len 69697, one past the end
    far[34] = 0x10;
    far[35] = 0x41;
    bad_sig[FIRMWARE_SIGNATURE_OFFSET] ^= 1;
    struct {
        bytes &buf;
        int32_t mode;
        const char *trace;
    } cases[] = {
        {v2, 0, "Invalid firmware version(0x00000002)."},
        {longer, 0, "firmware size un-match, buf_size is 69697 header[total_len] is 69696."},
        {far, 0, "header length 69697 exceeds total length 69696."},
        {bad_sig, 1, "Rsa check not pass"},
    };
    for (auto &c : cases) {
        const parsed p = parse(c.buf, c.mode);
        EXPECT_EQ(-1, p.result) << c.trace;
        EXPECT_TRUE(has_trace(p.out, c.trace)) << p.out;
    }
    firmware_header h;
    const std::string out = capture_stdout([&] {
        EXPECT_EQ(-1, vireo_firmware_header_parse(nullptr, 10, &h, 0));
        EXPECT_EQ(nullptr, vireo_firmware_header_build(image.data(), 0));
        EXPECT_EQ(nullptr, vireo_firmware_header_build(bad_sig.data(), 69696));
    });
    EXPECT_EQ(3u, trace_messages(out).size()) << out;
    // After -m supplied the digest, signature mode checks the structure alone.
    digest_from_image = 0;
    const parsed p = parse(bad_sig, 1);
    EXPECT_EQ(0, p.result);
    EXPECT_EQ("", p.out);
}

TEST_F(FirmwareHeader, DigestModeCoversRegionAndPayloadOnly)
{
    bytes file = pack_firmware(dir, two_image_manifest(dir));
    // Unexamined header bytes (reserved words and zero areas) may hold anything; from the
    // table region at 4160 on, every byte counts.
    for (size_t pos : {size_t(40), size_t(47), size_t(2000), size_t(4159), size_t(4160),
                       size_t(4161), size_t(70000), file.size() - 1}) {
        bytes changed = file;
        changed[pos] ^= 0x5A;
        const parsed p = parse(changed, 0);
        EXPECT_EQ(pos < 4160 ? 0 : -1, p.result) << pos;
        const auto msgs = trace_messages(p.out);
        EXPECT_EQ(pos >= 4160,
                  msgs.size() == 1 && msgs[0].rfind("Playload md5 unmatch, header[md5]=", 0) == 0)
            << pos << p.out;
    }
}

TEST(FirmwareChain, MovesOnlyForwardInsideTheFile)
{
    // From the image at 100 of a file of 200 bytes.
    firmware_header h{};
    int32_t next = -1;
    for (uint32_t bad : {100u, 99u, 200u, 5000u}) {
        h.nextpos = bad;
        EXPECT_EQ(-1, quietly([&] { return vireo_firmware_chain_next(100, &h, 200, &next); }))
            << bad;
    }
    EXPECT_EQ(-1, next);
    h.nextpos = 150;
    EXPECT_EQ(1, vireo_firmware_chain_next(100, &h, 200, &next));
    EXPECT_EQ(150, next);
    h.nextpos = 0;
    EXPECT_EQ(0, vireo_firmware_chain_next(100, &h, 200, &next)) << "the last image";
}

TEST(UpPtnTable, ReadsEntriesBasesAndTotal)
{
    std::string out;
    up_table_ptr t = up_table_of(R"({"Up-Ptn-Table":[
        {"Name":"a","BASE":"0x00010000","size":"0x10"},
        {"name":"b","base":"0X10000","size":"10"},
        {"name":"c","base":"10000","size":"0x1"},
        {"name":"d","base":"0xFFFF0000","size":"0x100"}]})",
                                 &out);
    ASSERT_TRUE(t) << out;
    // The dump shows every field; d's negative base does not count in the total.
    out = capture_stdout([&] { vireo_firmware_up_ptn_table_dump(t.get()); });
    EXPECT_EQ("== DUMP START ==\n"
              "up ptns : 4.\n"
              "ptns_total_size : 33.\n"
              "\n"
              "name 'a' base 0x00010000 size 0x00000010\n"
              "name 'b' base 0x00010000 size 0x00000010\n"
              "name 'c' base 0x00010000 size 0x00000001\n"
              "name 'd' base 0xffff0000 size 0x00000100\n"
              "== DUMP END ==\n",
              out);
    EXPECT_EQ("up_ptn_table is null.\n",
              capture_stdout([] { vireo_firmware_up_ptn_table_dump(nullptr); }));
}

TEST(UpPtnTable, RefusesBadDocuments)
{
    const std::string n31(31, 'n'), n32(32, 'n');
    const auto one = [](const std::string &name) {
        return "{\"up-ptn-table\":[{\"name\":\"" + name + "\",\"base\":\"0\",\"size\":\"1\"}]}";
    };
    std::string out;
    for (const std::string &json : {std::string("{\"up-ptn-table\":[]}"), one(n31), entries(64)})
        EXPECT_TRUE(up_table_of(json, &out)) << json;
    const struct {
        std::string json;
        std::string message;
    } cases[] = {
        {"{}", "json 'up-ptn-table' not found."},
        {one(n32), "ptn json 'name' string len too long, '" + n32 + "', 32/32"},
        {R"({"up-ptn-table":[{"name":"a","base":65536,"size":"1"}]})",
         "ptn json 'base' must be String type."},
        {R"({"up-ptn-table":[{"name":"a","base":"0"}]})", "ptn json 'size' not found."},
        {R"({"up-ptn-table":[{"base":"0","size":"1"}]})", "ptn json 'name' not found."},
        {R"({"up-ptn-table":[{"name":1,"base":"0","size":"1"}]})",
         "ptn json 'name' must be String type."},
        {R"({"up-ptn-table":"a"})", "json 'up-ptn-table' must be Array type."},
        {entries(65), "too much up partitions, 65/64."},
    };
    for (const auto &c : cases) {
        EXPECT_FALSE(up_table_of(c.json, &out)) << c.json;
        EXPECT_TRUE(has_trace(out, c.message)) << c.message << "\n" << out;
        EXPECT_TRUE(has_trace(out, "Failed to parse json -> up ptn table struct."));
    }
}

TEST(UpPtnTable, BuiltFromImageRegionOnlyWhenItIsSound)
{
    const int32_t size = FIRMWARE_HEADER_SIZE + UP_PTN_TABLE_SIZE;
    const std::string doc = entries(2);
    std::vector<uint8_t> image(size, 0), no_nul = image, garbage = image;
    std::copy(doc.begin(), doc.end(), image.begin() + FIRMWARE_HEADER_SIZE);
    std::fill(no_nul.begin() + FIRMWARE_HEADER_SIZE, no_nul.end(), '{');
    garbage[FIRMWARE_HEADER_SIZE] = 'x';
    const struct {
        const std::vector<uint8_t> &buf;
        uint32_t header_len, total_len;
        std::string trace; // the one message of a refusal, or empty when the table is built
    } cases[] = {
        {image, FIRMWARE_HEADER_SIZE, size, ""},
        // A region reaching past the buffer or the image is refused before it is read.
        {image, FIRMWARE_HEADER_SIZE + 1, size + 1,
         "up_ptn_table region [4161, +65536) lies outside the image of 69696 bytes."},
        {image, FIRMWARE_HEADER_SIZE, size - 1,
         "up_ptn_table region [4160, +65536) lies outside the image of 69696 bytes."},
        // A region without a NUL byte is no text; text that is not JSON is no table.
        {no_nul, FIRMWARE_HEADER_SIZE, size, "up_ptn_table region holds no NUL-terminated text."},
        {garbage, FIRMWARE_HEADER_SIZE, size, "Failed to parse up_ptn_table json."},
    };
    for (const auto &c : cases) {
        firmware_header header{};
        header.header_len = c.header_len;
        header.total_len = c.total_len;
        up_table_ptr t(nullptr, vireo_firmware_up_ptn_table_destroy);
        const std::string out = capture_stdout([&] {
            t.reset(vireo_firmware_up_ptn_table_build_by_fimware(c.buf.data(), size, &header));
        });
        EXPECT_EQ(c.trace.empty(), t && t->ptn_cnt == 2) << c.trace;
        if (!c.trace.empty()) {
            EXPECT_EQ(std::vector<std::string>{c.trace}, trace_messages(out));
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
        std::string out;
        const uint8_t *at = quietly(
            [&] { return vireo_firmware_ptn_content(file.data(), 1000, 100, &entry); }, &out);
        EXPECT_EQ(c.inside ? file.data() + 100 + c.base : nullptr, at) << c.base << " " << c.size;
        EXPECT_EQ(!c.inside, has_trace(out, vireo_strf("PTN[x] base %d size %u lies outside the "
                                                       "firmware file (1000 bytes).",
                                                       c.base, c.size)));
    }
}

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
    ptn_table_ptr a = table_of(two);
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
    ptn_table_ptr old_table = table_of(old_ptns);
    ptn_table_ptr new_table = table_of({{"g", 0x0000, 0x1000, ""}, {"s", 0x2000, 0x0800, ""}});
    std::string out;
    const auto update = [&](const ptn_table_ptr &from, const ptn_table_ptr &to) {
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
        ptn_table_ptr t(quietly([] { return vireo_fireware_build_ptn_table_by_flash(); }, &out),
                        vireo_ptn_destroy);
        EXPECT_EQ(length + 16 <= 0x10000, t != nullptr) << length << out.substr(0, 2000);
    }
}
