// SPDX-License-Identifier: Apache-2.0
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

} // namespace

TEST(PtnTable, RefusedDocumentsNameTheirFault)
{
    const std::string n32(32, 'b');
    const std::string head = R"({"disk-size":"0x100","partition-table":[{)";
    const struct {
        std::string json;
        std::string message;
    } cases[] = {
        {doc_of(65), "too much partitiions, 65/64."},
        {doc({ptn(n32, "0", "1")}), "ptn json 'name' string len too long, '" + n32 + "', 32/32"},
        {doc({ptn("a b", "0", "1")}), "ptn json 'name' (a b) validate failed."},
        {head + R"("name":"a","base":65536,"size":"1","attr":"0"}]})",
         "ptn json 'base' must be String type."},
        {head + R"("name":"a","base":"1","size":"1"}]})", "ptn json 'attr' not found."},
        {head + R"("name":7,"base":"0","size":"1","attr":"0"}]})",
         "ptn json 'name' must be String type."},
        {head + R"("base":"0","size":"1","attr":"0"}]})", "ptn json 'name' not found."},
        {R"({"disk-size":"0x100"})", "'partition-table' not found."},
        {R"({"disk-size":256,"partition-table":[]})", "'disk-size' must be String type."},
        {R"({"disk-size":"0x100","partition-table":{}})", "'partition-table' must be Array type."},
        {doc({ptn("a", "0", "0x10"), ptn("b", "0x10", "0")}), "PTN[b] size is 0."},
        {doc({ptn("a", "0", "1"), ptn("a", "2", "1")}), "PTN[0] and PTN[1] Name conflict : 'a'."},
        {doc({ptn("a", "0x100", "0x10"), ptn("b", "0x100", "0x10")}),
         "PTN[b](1) base(0x00000100) <= PTN[a](0) base(0x00000100)."},
        // One byte of overlap.
        {doc({ptn("a", "0x0", "0x10"), ptn("b", "0x20", "0x10"), ptn("c", "0x2F", "0x10")}),
         "PTN[c](2) base(0x0000002f) < PTN[b](1) base+size(0x00000030)."},
        {doc({ptn("a", "0xFFFFF0", "0x11")}),
         "PTN[a,0x00fffff0,0x00000011] cause disk[0x01000000] overflow."},
        // 0xFFFFFF00 + 0x200 wraps to 0x100 in 32 bits; it must still count as past the disk.
        {doc({ptn("a", "0xFFFFFF00", "0x200")}, "0xFFFFFFFF"),
         "PTN[a,0xffffff00,0x00000200] cause disk[0xffffffff] overflow."},
    };
    for (const auto &c : cases) {
        std::string out;
        EXPECT_FALSE(ptn_table_of(c.json, &out)) << c.json;
        EXPECT_TRUE(has_trace(out, c.message)) << c.message << "\n" << out;
        EXPECT_TRUE(has_trace(out, "Failed to parse json -> ptn table struct.")) << c.message;
    }
}

TEST(PtnTable, AcceptedDocumentsAndWhatTheyHold)
{
    // 64 partitions, ending exactly at the disk's end, gaps between partitions, a name of
    // 31 characters and no partitions at all.
    for (const std::string &json : {doc_of(64), doc({ptn("a", "0xFFFFF0", "0x10")}),
                                    doc({ptn("a", "0", "0x10"), ptn("b", "0x100", "1")}),
                                    doc({ptn(std::string(31, 'a'), "0", "1")}), doc({})})
        EXPECT_TRUE(ptn_table_of(json)) << json;
    // Hexadecimal forms as strtol reads them, written back in eight upper-case digits;
    // member names in any letter case.
    ptn_table_ptr t = ptn_table_of(
        R"({"DISK-SIZE":"0x100000","Partition-Table":[{"Name":"a","BASE":"10000","Size":"0x10",)"
        R"("aTTr":"0x0"},)" +
        ptn("b", "0x20000", "0X10") + "," + ptn("c", "0X30000", " abczz", "0X7") + "," +
        ptn("d", "0x40000", "1", "zz") + "]}");
    ASSERT_TRUE(t);
    EXPECT_EQ(doc({ptn("a", "0x00010000", "0x00000010", "0x00000000"),
                   ptn("b", "0x00020000", "0x00000010", "0x00000000"),
                   ptn("c", "0x00030000", "0x00000ABC", "0x00000007"),
                   ptn("d", "0x00040000", "0x00000001", "0x00000000")},
                  "0x00100000"),
              json_of(t.get()));
    // Lookups by name are whole and letter case counts.
    EXPECT_EQ(2, vireo_ptn_get_index_by_name(t.get(), "c"));
    for (const char *other : {"C", "cc", ""})
        EXPECT_EQ(-1, vireo_ptn_get_index_by_name(t.get(), other)) << other;
}

TEST(PtnHeader, BothReadersAcceptAndRefuseTheSameBuffers)
{
    std::string one_magic = content_header(0), other_magic = content_header(0);
    one_magic[0] = '\x8f';
    other_magic[7] = '\xab';
    const struct {
        std::string buf;
        int32_t size;
        const char *trace; // a part of a message of each reader
        size_t messages;
    } cases[] = {
        {content_header(5) + "xxxxx", 21, "", 0},
        {content_header(5) + "xxxxx", 20, "content[5]+header[16] > bufsize[20]", 2},
        // A length near 4 GiB must not wrap: 0xFFFFFFF0 + 16 is 0 in 32 bits.
        {content_header(0xFFFFFFF0u) + std::string(48, '\0'), 64,
         "content[4294967280]+header[16] > bufsize[64]", 2},
        // Each magic word counts; the first reader shows both, the second only that they differ.
        {one_magic, 16, "Magic unmatch.magic_0[0x8f55d98f],magic_1[0x04e955aa]", 2},
        {other_magic, 16, "Magic unmatch.magic_0[0xaa55d98f],magic_1[0x04e955ab]", 2},
        // Too short for a header: refused before its bytes are read.
        {content_header(0), 15, " or bufsize(15)\n", 2},
        // A non-zero checksum is reported but accepted.
        {content_header(0, 1), 16, "Invalid checksum(0x00000001), skip it for NOW.", 1},
    };
    for (const auto &c : cases) {
        const uint8_t *p = reinterpret_cast<const uint8_t *>(c.buf.data());
        int32_t verified = -1, located = -1, offset = -1, length = -1;
        const std::string out = capture_stdout([&] {
            verified = vireo_ptn_header_verify(p, c.size);
            located = vireo_ptn_header_get_content_pos(p, c.size, &offset, &length);
        });
        const bool ok = c.messages < 2;
        EXPECT_EQ((std::vector<int32_t>{ok, ok}), (std::vector<int32_t>{verified, located}));
        EXPECT_TRUE(!ok || (offset == 16 && length == int32_t(c.buf.size()) - 16)) << c.size;
        EXPECT_NE(std::string::npos, out.find(c.trace)) << c.trace << "\n" << out;
        EXPECT_EQ(c.messages, trace_messages(out).size()) << out;
        EXPECT_EQ(c.size < 16, out.find("magic_0") == std::string::npos) << out;
    }
}
