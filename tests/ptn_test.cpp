#include "ptn/vireo_ptn.h"

#include "common/vireo_common.h"
#include "test_util.h"

#include <gtest/gtest.h>
#include <memory>

namespace
{

using table_ptr = std::unique_ptr<ptn_table, decltype(&vireo_ptn_destroy)>;

struct parse_result {
    table_ptr table{nullptr, vireo_ptn_destroy};
    std::string out;
};

parse_result build(const std::string &json)
{
    parse_result r;
    r.out = capture_stdout([&] {
        r.table.reset(vireo_ptn_build_by_json_data(json.data(), static_cast<int32_t>(json.size())));
    });
    return r;
}

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
    char base[16];
    for (int i = 0; i < n; i++) {
        snprintf(base, sizeof(base), "0x%x", i * 0x100);
        ptns.push_back(ptn("p" + std::to_string(i), base, "0x100"));
    }
    return doc(ptns);
}

} // namespace

TEST(PtnTable, AcceptsSixtyFourPartitionsRejectsSixtyFive)
{
    parse_result ok = build(doc_of(64));
    ASSERT_TRUE(ok.table);
    EXPECT_EQ(64u, ok.table->ptn_cnt);
    EXPECT_EQ(0x3F00u, ok.table->ptns[63].base);

    parse_result bad = build(doc_of(65));
    EXPECT_FALSE(bad.table);
    EXPECT_TRUE(has_trace(bad.out, "too much partitiions, 65/64.")) << bad.out;
    EXPECT_TRUE(has_trace(bad.out, "Failed to parse json -> ptn table struct."));
}

TEST(PtnTable, NameOf31CharsAcceptedAnd32Rejected)
{
    const std::string n31(31, 'a');
    parse_result ok = build(doc({ptn(n31, "0", "1")}));
    ASSERT_TRUE(ok.table);
    EXPECT_STREQ(n31.c_str(), ok.table->ptns[0].name);

    const std::string n32(32, 'b');
    parse_result bad = build(doc({ptn(n32, "0", "1")}));
    EXPECT_FALSE(bad.table);
    EXPECT_TRUE(has_trace(bad.out, "ptn json 'name' string len too long, '" + n32 + "', 32/32"));
}

TEST(PtnTable, RejectsNameWithForbiddenCharacter)
{
    parse_result bad = build(doc({ptn("a b", "0", "1")}));
    EXPECT_FALSE(bad.table);
    EXPECT_TRUE(has_trace(bad.out, "ptn json 'name' (a b) validate failed."));
}

TEST(PtnTable, ReadsHexadecimalFormsAsStrtolDoes)
{
    parse_result r = build(doc({ptn("a", "10000", "0x10"), ptn("b", "0x20000", "0X10"),
                                ptn("c", "0X30000", " 10zz"), ptn("d", "0x40000", "1", "zz")}));
    ASSERT_TRUE(r.table) << r.out;
    EXPECT_EQ(0x10000u, r.table->ptns[0].base);
    EXPECT_EQ(0x20000u, r.table->ptns[1].base);
    EXPECT_EQ(0x30000u, r.table->ptns[2].base);
    EXPECT_EQ(0x10u, r.table->ptns[2].size);
    EXPECT_EQ(0u, r.table->ptns[3].attr);
    EXPECT_TRUE(
        has_trace(r.out, "PTN  1 : name 'b' base 0x00020000 size 0x00000010 attr 0x00000000"));
}

TEST(PtnTable, RejectsNumbersWhereStringsAreRequired)
{
    const struct {
        std::string json;
        std::string message;
    } cases[] = {
        {R"({"disk-size":"0x100","partition-table":[{"name":"a","base":65536,"size":"1","attr":"0"}]})",
         "ptn json 'base' must be String type."},
        {R"({"disk-size":"0x100","partition-table":[{"name":"a","base":"0","size":1,"attr":"0"}]})",
         "ptn json 'size' must be String type."},
        {R"({"disk-size":"0x100","partition-table":[{"name":"a","base":"0","size":"1","attr":0}]})",
         "ptn json 'attr' must be String type."},
        {R"({"disk-size":"0x100","partition-table":[{"name":7,"base":"0","size":"1","attr":"0"}]})",
         "ptn json 'name' must be String type."},
        {R"({"disk-size":"0x100","partition-table":[{"base":"0","size":"1","attr":"0"}]})",
         "ptn json 'name' not found."},
        {R"({"disk-size":"0x100","partition-table":[{"name":"a","size":"1","attr":"0"}]})",
         "ptn json 'base' not found."},
        {R"({"disk-size":"0x100","partition-table":[{"name":"a","base":"1","attr":"0"}]})",
         "ptn json 'size' not found."},
        {R"({"disk-size":"0x100","partition-table":[{"name":"a","base":"1","size":"1"}]})",
         "ptn json 'attr' not found."},
        {R"({"partition-table":[]})", "'disk-size' not found."},
        {R"({"disk-size":"0x100"})", "'partition-table' not found."},
        {R"({"disk-size":256,"partition-table":[]})", "'disk-size' must be String type."},
        {R"({"disk-size":"0x100","partition-table":{"name":"a"}})",
         "'partition-table' must be Array type."},
        {R"({"disk-size":"0x100","partition-table":"a"})", "'partition-table' must be Array type."},
    };
    for (const auto &c : cases) {
        parse_result r = build(c.json);
        EXPECT_FALSE(r.table) << c.json;
        EXPECT_TRUE(has_trace(r.out, c.message)) << c.json << "\n" << r.out;
    }
}

TEST(PtnTable, MemberNamesIgnoreLetterCase)
{
    parse_result r = build(
        R"({"DISK-SIZE":"0x100","Partition-Table":[{"Name":"x","BASE":"0x10","Size":"0x10","aTTr":"0x3"}]})");
    ASSERT_TRUE(r.table) << r.out;
    EXPECT_EQ(0x100u, r.table->disk_size);
    EXPECT_STREQ("x", r.table->ptns[0].name);
    EXPECT_EQ(0x10u, r.table->ptns[0].base);
    EXPECT_EQ(3u, r.table->ptns[0].attr);
}

TEST(PtnTable, ValidationNamesTheOffendingPair)
{
    const struct {
        std::vector<std::string> ptns;
        std::string message;
    } cases[] = {
        {{ptn("a", "0", "0x10"), ptn("b", "0x10", "0")}, "PTN[b] size is 0."},
        {{ptn("a", "0", "0x10"), ptn("b", "0x20", "0x10"), ptn("a", "0x40", "0x10")},
         "PTN[0] and PTN[2] Name conflict : 'a'."},
        {{ptn("a", "0x100", "0x10"), ptn("b", "0x20", "0x10")},
         "PTN[b](1) base(0x00000020) <= PTN[a](0) base(0x00000100)."},
        {{ptn("a", "0x100", "0x10"), ptn("b", "0x100", "0x10")},
         "PTN[b](1) base(0x00000100) <= PTN[a](0) base(0x00000100)."},
        {{ptn("a", "0x0", "0x10"), ptn("b", "0x20", "0x10"), ptn("c", "0x28", "0x10")},
         "PTN[c](2) base(0x00000028) < PTN[b](1) base+size(0x00000030)."},
        {{ptn("a", "0xFFFFF0", "0x11")},
         "PTN[a,0x00fffff0,0x00000011] cause disk[0x01000000] overflow."},
    };
    for (const auto &c : cases) {
        parse_result r = build(doc(c.ptns));
        EXPECT_FALSE(r.table);
        EXPECT_TRUE(has_trace(r.out, c.message)) << c.message << "\n" << r.out;
        EXPECT_TRUE(has_trace(r.out, "ptn table validate failed."));
    }
}

TEST(PtnTable, PartitionMayEndExactlyAtDiskEnd)
{
    parse_result ok = build(doc({ptn("a", "0xFFFFF0", "0x10")}));
    EXPECT_TRUE(ok.table) << ok.out;
    parse_result gap = build(doc({ptn("a", "0x0", "0x10"), ptn("b", "0x100", "0x10")}));
    EXPECT_TRUE(gap.table) << "gaps are allowed";
    parse_result empty = build(doc({}));
    ASSERT_TRUE(empty.table);
    EXPECT_EQ(0u, empty.table->ptn_cnt);
}

TEST(PtnTable, SumPastFourGigabytesOverflowsTheDisk)
{
    // 0xFFFFFF00 + 0x200 wraps to 0x100 in 32 bits; it must still count as past the disk.
    parse_result r = build(doc({ptn("a", "0xFFFFFF00", "0x200")}, "0xFFFFFFFF"));
    EXPECT_FALSE(r.table);
    EXPECT_TRUE(has_trace(r.out, "PTN[a,0xffffff00,0x00000200] cause disk[0xffffffff] overflow."));
}

TEST(PtnTable, JsonRoundTripWritesEightUpperCaseDigits)
{
    parse_result r = build(doc({ptn("boot", "0", "abc", "0X7"), ptn("rootfs", "10000", "0x20")}));
    ASSERT_TRUE(r.table);
    cjson_ptr json(vireo_ptn_build_json(r.table.get()), cJSON_Delete);
    ASSERT_TRUE(json);
    char *text = cJSON_PrintUnformatted(json.get());
    EXPECT_STREQ("{\"disk-size\":\"0x01000000\",\"partition-table\":["
                 "{\"name\":\"boot\",\"base\":\"0x00000000\",\"size\":\"0x00000ABC\",\"attr\":"
                 "\"0x00000007\"},"
                 "{\"name\":\"rootfs\",\"base\":\"0x00010000\",\"size\":\"0x00000020\",\"attr\":"
                 "\"0x00000000\"}]}",
                 text);
    cJSON_free(text);
}

TEST(PtnTable, LookupByNameIsExactAndCaseSensitive)
{
    parse_result r = build(doc({ptn("boot", "0", "0x10"), ptn("Boot", "0x10", "0x10")}));
    ASSERT_TRUE(r.table);
    EXPECT_EQ(0, vireo_ptn_get_index_by_name(r.table.get(), "boot"));
    EXPECT_EQ(1, vireo_ptn_get_index_by_name(r.table.get(), "Boot"));
    EXPECT_EQ(-1, vireo_ptn_get_index_by_name(r.table.get(), "boo"));
}
