#include "firmware/vireo_firmware_up_ptn_table.h"

#include "common/vireo_common.h"
#include "pack_fixture.h"

#include <cstring>
#include <gtest/gtest.h>

namespace
{

using table_ptr = std::unique_ptr<up_ptn_table, decltype(&vireo_firmware_up_ptn_table_destroy)>;

table_ptr build(const std::string &json, std::string *out)
{
    table_ptr t(nullptr, vireo_firmware_up_ptn_table_destroy);
    *out = capture_stdout([&] {
        cjson_ptr root(cJSON_Parse(json.c_str()), cJSON_Delete);
        t.reset(vireo_firmware_up_ptn_table_build_by_json(root.get()));
    });
    return t;
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
    temp_dir dir;
    std::vector<uint8_t> file = pack_firmware(dir, two_image_manifest(dir)), full = file,
                         garbage = file;
    const int32_t size = static_cast<int32_t>(file.size());
    const auto from_image = [&](std::vector<uint8_t> &buf, uint32_t header_len, uint32_t total_len,
                                std::string *out) {
        firmware_header header{};
        header.header_len = header_len;
        header.total_len = total_len;
        table_ptr t(nullptr, vireo_firmware_up_ptn_table_destroy);
        *out = capture_stdout([&] {
            t.reset(vireo_firmware_up_ptn_table_build_by_fimware(buf.data(), size, &header));
        });
        return t;
    };
    std::string out;
    table_ptr t = from_image(file, FIRMWARE_HEADER_SIZE, size, &out);
    ASSERT_TRUE(t) << out;
    EXPECT_EQ(5u, t->ptn_cnt);
    EXPECT_STREQ("partition-table", t->ptns[0].name);
    // A region reaching past the buffer or the image is refused before it is read.
    EXPECT_FALSE(from_image(file, size - UP_PTN_TABLE_SIZE + 1, size, &out));
    EXPECT_EQ(1u, trace_messages(out).size()) << out;
    EXPECT_FALSE(
        from_image(file, FIRMWARE_HEADER_SIZE, FIRMWARE_HEADER_SIZE + UP_PTN_TABLE_SIZE - 1, &out));
    EXPECT_EQ(1u, trace_messages(out).size()) << out;
    // A region without a NUL byte is no text; text that is not JSON is no table.
    memset(full.data() + FIRMWARE_HEADER_SIZE, '{', UP_PTN_TABLE_SIZE);
    EXPECT_FALSE(from_image(full, FIRMWARE_HEADER_SIZE, size, &out));
    EXPECT_EQ(1u, trace_messages(out).size()) << out;
    garbage[FIRMWARE_HEADER_SIZE] = 'x';
    EXPECT_FALSE(from_image(garbage, FIRMWARE_HEADER_SIZE, size, &out));
    EXPECT_TRUE(has_trace(out, "Failed to parse up_ptn_table json."));
}

TEST(UpPtnTable, ContentExtentsStayInsideTheFile)
{
    temp_dir dir;
    std::vector<uint8_t> file = pack_firmware(dir, two_image_manifest(dir));
    const uint32_t size = static_cast<uint32_t>(file.size());
    const uint32_t payload = be32(file.data() + 28) + FIRMWARE_HEADER_SIZE + UP_PTN_TABLE_SIZE;
    // The second image's kernel points back at the first image's copy.
    const std::string want = read_file(dir.join("kernel.bin"));
    std::string kernel;
    capture_stdout([&] {
        walk_images(file, 0, [&](int32_t offset, const firmware_header &, up_ptn_table *t) {
            if (offset > 0 && t && std::string("kernel") == t->ptns[1].name && t->ptns[1].base < 0)
                if (const uint8_t *c =
                        vireo_firmware_ptn_content(file.data(), size, payload, &t->ptns[1]))
                    kernel.assign(reinterpret_cast<const char *>(c), want.size());
        });
    });
    EXPECT_EQ(want, kernel);

    // Before the start of the file (a negative base in the first image) or past its end.
    up_ptn_info before{"x", -FIRMWARE_MIN_SIZE - 1, 10};
    up_ptn_info past{"y", static_cast<int32_t>(size - payload), 1};
    std::string out = capture_stdout([&] {
        EXPECT_FALSE(vireo_firmware_ptn_content(file.data(), size, FIRMWARE_MIN_SIZE, &before));
        EXPECT_FALSE(vireo_firmware_ptn_content(file.data(), size, payload, &past));
    });
    EXPECT_TRUE(has_trace(out, "PTN[y] base " + std::to_string(past.base) +
                                   " size 1 lies outside the firmware file (" +
                                   std::to_string(size) + " bytes)."));
    past.size = 0;
    EXPECT_TRUE(vireo_firmware_ptn_content(file.data(), size, payload, &past))
        << "an empty content at the very end is inside";
}
