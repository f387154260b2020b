// SPDX-License-Identifier: Apache-2.0
// The record documents: device-info, support-list, firmware-info and extra-para.
#include "ptn/vireo_extra_para.h"
#include "ptn/vireo_ptn_device_info.h"
#include "ptn/vireo_ptn_firmware_info.h"
#include "ptn/vireo_ptn_support_list.h"

#include "raw_device.h"
#include "unit_fixture.h"

#include <gtest/gtest.h>
#include <memory>

namespace
{

// Builds a record from text; the trace messages land in *out.
template <typename T, typename D>
std::unique_ptr<T, D *> build(T *(*fn)(const char *, int32_t), D *destroy, const std::string &json,
                              std::string *out = nullptr)
{
    return {quietly([&] { return fn(json.data(), static_cast<int32_t>(json.size())); }, out),
            destroy};
}

auto extra_of(const std::string &json, std::string *out = nullptr)
{
    return build(vireo_extra_para_table_build_by_json_data, vireo_extra_para_table_destroy, json,
                 out);
}

std::string replaced(std::string s, const std::string &from, const std::string &to)
{
    return s.replace(s.find(from), from.size(), to);
}

} // namespace

TEST(Records, DocumentsAndTheirFailures)
{
    const std::string v15(15, 'v'), v16(16, 'v'), v128(128, '1'), i64(64, 'i');
    std::string list64 = "{\"support-list\":[" + entry_json("M0", "1", "0");
    for (int i = 1; i < 64; i++)
        list64 += "," + entry_json("M" + std::to_string(i), "1", "0");
    // Without the full name and the URL: the document's order names the URL first.
    const std::string no_url = replaced(replaced(kDevice, "\"manufacturer_full_name\"", "\"x\""),
                                        "\"manufacturer_url\"", "\"y\"");
    const struct {
        char kind; // d: device-info, s: support-list, f: firmware-info
        std::string json;
        std::string trace; // or empty
        bool ok = false;
    } cases[] = {
        {'d', replaced(kDevice, "\"1.0\"", "\"" + v15 + "\""), "", true},
        {'d', replaced(kDevice, "\"1.0\"", "\"" + v16 + "\""),
         "json 'model_version' string len too long, '" + v16 + "', 16/16"},
        {'d', replaced(kDevice, "\"EU\"", "7"), "json 'region' must be String type."},
        {'d', no_url, "json 'manufacturer_url' not found."},
        {'s', R"({"support-list": []})", "", true},
        {'s', list64 + "]}", "", true},
        {'s', list64 + "," + entry_json("M64", "1", "0") + "]}", "too much entry, 65/64."},
        {'s', R"({"supports": []})", "'support-list' not found."},
        {'s', R"({"support-list": {}})", "'support-list' must be Array type."},
        {'f', R"({"software-version":"1.0.3 Build 1 Rel.1","firmware-id":")" + i64 + "\"}",
         "json 'firmware-id' string len too long, '" + i64 + "', 64/64"},
        {'f', fwinfo_json("1.0.3"), "get software_version fail."},
        {'f', fwinfo_json(v128),
         "json 'software-version' string len too long, '" + v128 + "', 128/128"},
    };
    for (const auto &c : cases) {
        std::string out;
        const bool built = c.kind == 'd'   ? !!build(vireo_ptn_device_info_build_by_json_data,
                                                     vireo_ptn_device_info_destroy, c.json, &out)
                           : c.kind == 's' ? !!build(vireo_ptn_support_list_build_by_json_data,
                                                     vireo_ptn_support_list_destroy, c.json, &out)
                                           : !!build(vireo_ptn_firmware_info_build_by_json_data,
                                                     vireo_ptn_firmware_info_destroy, c.json, &out);
        EXPECT_EQ(c.ok, built) << c.json << out;
        EXPECT_TRUE(c.trace.empty() || has_trace(out, c.trace)) << c.trace << "\n" << out;
    }
}

TEST(FirmwareInfo, VersionTextIsReadByPosition)
{
    struct {
        const char *text;
        int32_t result;
        uint32_t numbers[5];
    } cases[] = {
        {"1.0.3 Build 20230512 Rel.01234", 0, {1, 0, 3, 20230512, 1234}},
        {"1.10.0 Xxxxx 7 Yyy:12", 0, {1, 10, 0, 7, 12}}, // the skipped words are not compared
        {"1.0.3 Build 7 Rel.", 0, {1, 0, 3, 7, 0}},
        {"1.0.3", -1, {}},
        {"1.0", -1, {}},
        {"1.0.3 Build", -1, {}},      // ends inside "Build "
        {"1.0.3 Build 7", -1, {}},    // no space after the build number
        {"1.0.3 Build 7 Re", -1, {}}, // ends inside "Rel."
    };
    for (const auto &c : cases) {
        uint32_t out[5] = {};
        EXPECT_EQ(c.result, vireo_ptn_get_firmware_info_software_version(c.text, out)) << c.text;
        EXPECT_TRUE(c.result != 0 || memcmp(c.numbers, out, sizeof(out)) == 0) << c.text;
    }
}

TEST(ExtraPara, FlagDocumentsAndTheirMembers)
{
    EXPECT_EQ(R"({"dbootFlag":"0","integerFlag":"0","fwFlag":"BAD","score":1})",
              flag_doc(false, 1));
    EXPECT_EQ(R"({"dbootFlag":"1","integerFlag":"1","fwFlag":"GOOD","score":-1})",
              flag_doc(true, -1));
    // The result is the full length even when the buffer is too small.
    char text[8];
    EXPECT_EQ(62, vireo_extra_para_format_flag_on(10, text, sizeof(text)));
    EXPECT_STREQ("{\"dboot", text);
    auto minimal = extra_of(R"({"dbootflag":"1","INTEGERFLAG":"1"})");
    ASSERT_TRUE(minimal);
    EXPECT_EQ("0", std::string(minimal->fw_flag) + std::to_string(minimal->score));
    struct {
        const char *json;
        const char *trace; // or none: fails silently
    } failures[] = {
        {R"({"integerFlag":"1"})", "ptn json 'dboot' not found."},
        {R"({"dbootFlag":"1","integerFlag":true})", "ptn json 'intger' must be String type."},
        {R"({"dbootFlag":"1","integerFlag":"1","fwFlag":7})",
         "ptn json 'fwFlag' must be String type."},
        {R"({"dbootFlag":"1","integerFlag":"1","score":"7"})",
         "ptn json 'score' must be Number type."},
        {R"({"dbootFlag":"0123456789abcdef","integerFlag":"1"})", nullptr},
        {R"({"dbootFlag":"1","integerFlag":"1","fwFlag":"0123456789abcdef"})", nullptr},
    };
    for (const auto &f : failures) {
        std::string out;
        EXPECT_FALSE(extra_of(f.json, &out)) << f.json;
        EXPECT_EQ(!f.trace, out.find("ptn json") == std::string::npos) << f.json;
        EXPECT_TRUE(!f.trace || has_trace(out, f.trace)) << f.json;
    }
}
