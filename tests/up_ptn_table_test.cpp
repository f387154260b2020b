#include "firmware/vireo_firmware_up_ptn_table.h"

#include "common/vireo_common.h"
#include "unit_fixture.h"

#include <climits>
#include <gtest/gtest.h>

namespace
{

using table_ptr = std::unique_ptr<up_ptn_table, decltype(&vireo_firmware_up_ptn_table_destroy)>;

table_ptr build(const std::string &json, std::string *out)
{
    cjson_ptr root(cJSON_Parse(json.c_str()), cJSON_Delete);
    return table_ptr(
        quietly([&] { return vireo_firmware_up_ptn_table_build_by_json(root.get()); }, out),
        vireo_firmware_up_ptn_table_destroy);
}

std::string entries(int n)
{
    std::string s = "{\"up-ptn-table\":[";
    for (int i = 0; i < n; i++)
        s += std::string(i ? "," : "") + "{\"name\":\"p" + std::to_string(i) +
             "\",\"base\":\"0\",\"size\":\"1\"}";
    return s + "]}";
}

} // namespace

TEST(UpPtnTable, ReadsEntriesBasesAndTotal)
{
    std::string out;
    table_ptr t = build(R"({"Up-Ptn-Table":[
        {"Name":"a","BASE":"0x00010000","size":"0x10"},
        {"name":"b","base":"0X10000","size":"10"},
        {"name":"c","base":"10000","size":"0x1"},
        {"name":"d","base":"0xFFFF0000","size":"0x100"}]})",
                        &out);
    ASSERT_TRUE(t) << out;
    EXPECT_EQ(4u, t->ptn_cnt);
    for (int i = 0; i < 3; i++)
        EXPECT_EQ(0x10000, t->ptns[i].base);
    EXPECT_EQ(-65536, t->ptns[3].base);
    EXPECT_EQ(0x10u + 0x10u + 1u, t->ptns_total_size) << "a negative base does not count";
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
        EXPECT_TRUE(build(json, &out)) << json;
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
        EXPECT_FALSE(build(c.json, &out)) << c.json;
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
        table_ptr t(nullptr, vireo_firmware_up_ptn_table_destroy);
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
