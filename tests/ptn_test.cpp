// The partition module: partition tables and the content header in front of records.
#include "ptn/vireo_ptn.h"
#include "ptn/vireo_ptn_header.h"

#include "common/vireo_common.h"
#include "fake_root.h"
#include "unit_fixture.h"

#include <gtest/gtest.h>

namespace
{

std::string ptn(const std::string &name, const std::string &base, const std::string &size,
                const std::string &attr = "0x0")
{
    return "{\"name\":\"" + name + "\",\"base\":\"" + base + "\",\"size\":\"" + size +
           "\",\"attr\":\"" + attr + "\"}";
}

std::string doc(const std::vector<std::string> &ptns, const std::string &disk = "0x1000000")
{
    std::string s = "{\"disk-size\":\"" + disk + "\",\"partition-table\":[";
    for (size_t i = 0; i < ptns.size(); i++)
        s += (i ? "," : "") + ptns[i];
    return s + "]}";
}

// n contiguous partitions of 0x100 bytes each.
std::string doc_of(int n)
{
    std::vector<std::string> ptns;
    for (int i = 0; i < n; i++)
        ptns.push_back(ptn("p" + std::to_string(i), vireo_strf("0x%x", i * 0x100), "0x100"));
    return doc(ptns);
}

// The table as vireo_ptn_build_json writes it.
std::string json_of(const ptn_table *t)
{
    cjson_ptr json(vireo_ptn_build_json(t), cJSON_Delete);
    char *text = cJSON_PrintUnformatted(json.get());
    const std::string s = text ? text : "";
    cJSON_free(text);
    return s;
}

struct header_run {
    int32_t verify, content, offset = -1, length = -1;
    std::string out;
};

// Both readers of the header on the first size bytes of buf.
header_run read_header(const std::string &buf, int32_t size)
{
    header_run r{};
    const uint8_t *p = reinterpret_cast<const uint8_t *>(buf.data());
    r.out = capture_stdout([&] {
        r.verify = vireo_ptn_header_verify(p, size);
        r.content = vireo_ptn_header_get_content_pos(p, size, &r.offset, &r.length);
    });
    return r;
}

} // namespace

TEST(PtnTable, RefusedDocumentsNameTheirFault)
{
    const std::string n32(32, 'b');
    const std::string head = R"({"disk-size":"0x100","partition-table":[{"name":"a",)";
    const struct {
        std::string json;
        std::string message;
        bool validation = false; // found by the validation of a parsed table
    } cases[] = {
        {doc_of(65), "too much partitiions, 65/64."},
        {doc({ptn(n32, "0", "1")}), "ptn json 'name' string len too long, '" + n32 + "', 32/32"},
        {doc({ptn("a b", "0", "1")}), "ptn json 'name' (a b) validate failed."},
        {head + R"("base":65536,"size":"1","attr":"0"}]})", "ptn json 'base' must be String type."},
        {head + R"("base":"0","size":1,"attr":"0"}]})", "ptn json 'size' must be String type."},
        {head + R"("base":"0","size":"1","attr":0}]})", "ptn json 'attr' must be String type."},
        {head + R"("size":"1","attr":"0"}]})", "ptn json 'base' not found."},
        {head + R"("base":"1","attr":"0"}]})", "ptn json 'size' not found."},
        {head + R"("base":"1","size":"1"}]})", "ptn json 'attr' not found."},
        {R"({"disk-size":"0x100","partition-table":[{"name":7,"base":"0","size":"1","attr":"0"}]})",
         "ptn json 'name' must be String type."},
        {R"({"disk-size":"0x100","partition-table":[{"base":"0","size":"1","attr":"0"}]})",
         "ptn json 'name' not found."},
        {R"({"partition-table":[]})", "'disk-size' not found."},
        {R"({"disk-size":"0x100"})", "'partition-table' not found."},
        {R"({"disk-size":256,"partition-table":[]})", "'disk-size' must be String type."},
        {R"({"disk-size":"0x100","partition-table":{"name":"a"}})",
         "'partition-table' must be Array type."},
        {doc({ptn("a", "0", "0x10"), ptn("b", "0x10", "0")}), "PTN[b] size is 0.", true},
        {doc({ptn("a", "0", "0x10"), ptn("b", "0x20", "0x10"), ptn("a", "0x40", "0x10")}),
         "PTN[0] and PTN[2] Name conflict : 'a'.", true},
        {doc({ptn("a", "0x100", "0x10"), ptn("b", "0x20", "0x10")}),
         "PTN[b](1) base(0x00000020) <= PTN[a](0) base(0x00000100).", true},
        {doc({ptn("a", "0x100", "0x10"), ptn("b", "0x100", "0x10")}),
         "PTN[b](1) base(0x00000100) <= PTN[a](0) base(0x00000100).", true},
        {doc({ptn("a", "0x0", "0x10"), ptn("b", "0x20", "0x10"), ptn("c", "0x28", "0x10")}),
         "PTN[c](2) base(0x00000028) < PTN[b](1) base+size(0x00000030).", true},
        {doc({ptn("a", "0xFFFFF0", "0x11")}),
         "PTN[a,0x00fffff0,0x00000011] cause disk[0x01000000] overflow.", true},
        // 0xFFFFFF00 + 0x200 wraps to 0x100 in 32 bits; it must still count as past the disk.
        {doc({ptn("a", "0xFFFFFF00", "0x200")}, "0xFFFFFFFF"),
         "PTN[a,0xffffff00,0x00000200] cause disk[0xffffffff] overflow.", true},
    };
    for (const auto &c : cases) {
        std::string out;
        EXPECT_FALSE(ptn_table_of(c.json, &out)) << c.json;
        EXPECT_TRUE(has_trace(out, c.message)) << c.message << "\n" << out;
        EXPECT_EQ(c.validation, has_trace(out, "ptn table validate failed.")) << c.message;
        EXPECT_TRUE(has_trace(out, "Failed to parse json -> ptn table struct.")) << c.message;
    }
}

TEST(PtnTable, AcceptedDocumentsAndWhatTheyHold)
{
    ptn_table_ptr t = ptn_table_of(doc_of(64));
    ASSERT_TRUE(t);
    EXPECT_EQ(0x3F00u, t->ptns[63].base);
    // Ending exactly at the disk's end, gaps between partitions, a name of 31 characters
    // and no partitions at all.
    for (const std::string &json :
         {doc({ptn("a", "0xFFFFF0", "0x10")}), doc({ptn("a", "0", "0x10"), ptn("b", "0x100", "1")}),
          doc({ptn(std::string(31, 'a'), "0", "1")}), doc({})})
        EXPECT_TRUE(ptn_table_of(json)) << json;
    // Hexadecimal forms as strtol reads them, written back in eight upper-case digits.
    t = ptn_table_of(doc({ptn("a", "10000", "0x10"), ptn("b", "0x20000", "0X10"),
                          ptn("c", "0X30000", " abczz", "0X7"), ptn("d", "0x40000", "1", "zz")}));
    ASSERT_TRUE(t);
    EXPECT_EQ(doc({ptn("a", "0x00010000", "0x00000010", "0x00000000"),
                   ptn("b", "0x00020000", "0x00000010", "0x00000000"),
                   ptn("c", "0x00030000", "0x00000ABC", "0x00000007"),
                   ptn("d", "0x00040000", "0x00000001", "0x00000000")},
                  "0x01000000"),
              json_of(t.get()));
    // Lookups by name are whole and letter case counts.
    EXPECT_EQ(2, vireo_ptn_get_index_by_name(t.get(), "c"));
    for (const char *other : {"C", "cc", ""})
        EXPECT_EQ(-1, vireo_ptn_get_index_by_name(t.get(), other)) << other;
    // Member names in any letter case.
    t = ptn_table_of(
        R"({"DISK-SIZE":"0x100","Partition-Table":[{"Name":"x","BASE":"0x10","Size":"0x10","aTTr":"0x3"}]})");
    ASSERT_TRUE(t);
    EXPECT_EQ(doc({ptn("x", "0x00000010", "0x00000010", "0x00000003")}, "0x00000100"),
              json_of(t.get()));
}

TEST(PtnHeader, ContentOfFiveBytesNeedsTwentyOneByteBuffer)
{
    const std::string buf = content_header(5) + "xxxxx";
    header_run r = read_header(buf, 21);
    EXPECT_EQ((std::vector<int32_t>{1, 1, 16, 5}),
              (std::vector<int32_t>{r.verify, r.content, r.offset, r.length}));
    EXPECT_NE(std::string::npos, r.out.find("magic_0     0xaa55d98f\n"
                                            "magic_1     0x04e955aa\n"
                                            "length      0x00000005 (5)\n"
                                            "checksum    0x00000000\n"));
    r = read_header(buf, 20);
    EXPECT_EQ(0, r.verify + r.content);
    EXPECT_EQ(std::vector<std::string>(2, "content[5]+header[16] > bufsize[20]"),
              trace_messages(r.out));
}

TEST(PtnHeader, RefusedHeaders)
{
    // A length near 4 GiB must not wrap: 0xFFFFFFF0 + 16 is 0 in 32 bits.
    header_run r = read_header(content_header(0xFFFFFFF0u) + std::string(48, '\0'), 64);
    EXPECT_EQ(0, r.verify + r.content);
    EXPECT_TRUE(has_trace(r.out, "content[4294967280]+header[16] > bufsize[64]"));
    // The magic in little-endian order.
    std::string little = content_header(0);
    for (size_t w = 0; w < 8; w += 4)
        std::reverse(little.begin() + w, little.begin() + w + 4);
    r = read_header(little, 16);
    EXPECT_EQ(0, r.verify + r.content);
    EXPECT_TRUE(has_trace(r.out, "Magic unmatch.magic_0[0x8fd955aa],magic_1[0xaa55e904]"));
    EXPECT_TRUE(has_trace(r.out, "Magic unmatch."));
    // A buffer too short for a header, before any dump; no place for the length.
    r = read_header(content_header(0), 15);
    const std::string valid = content_header(0);
    int32_t length;
    r.out += capture_stdout([&] {
        EXPECT_EQ(0, vireo_ptn_header_get_content_pos(
                         reinterpret_cast<const uint8_t *>(valid.data()), 16, nullptr, &length));
    });
    EXPECT_EQ(0, r.verify + r.content);
    EXPECT_EQ(std::string::npos, r.out.find("magic_0")) << r.out;
    EXPECT_EQ(3u, trace_messages(r.out).size());
    // A non-zero checksum is reported but accepted.
    r = read_header(content_header(0, 1), 16);
    EXPECT_EQ(2, r.verify + r.content);
    EXPECT_TRUE(has_trace(r.out, "Invalid checksum(0x00000001), skip it for NOW."));
}

TEST(PtnHeader, AddWritesBigEndianHeader)
{
    std::vector<uint8_t> buf(32, 0xEE);
    EXPECT_EQ(16, vireo_ptn_header_add(buf.data(), 16, buf.data() + 16, 0));
    EXPECT_EQ(content_header(0), std::string(buf.begin(), buf.begin() + 16));
    EXPECT_EQ(16, vireo_ptn_header_add(buf.data(), 32, buf.data() + 16, 0x01020304));
    EXPECT_EQ(content_header(0x01020304), std::string(buf.begin(), buf.begin() + 16));
    std::vector<uint8_t> untouched(32, 0xEE);
    std::string out = capture_stdout([&] {
        EXPECT_EQ(-1, vireo_ptn_header_add(untouched.data(), 32, untouched.data(), -1));
        EXPECT_EQ(-1, vireo_ptn_header_add(untouched.data(), 15, untouched.data(), 1));
    });
    EXPECT_EQ(std::vector<uint8_t>(32, 0xEE), untouched);
    EXPECT_TRUE(has_trace(out, "Invlaid contenct_size(-1)"));
}
