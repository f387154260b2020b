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

auto devinfo_of(const std::string &json, std::string *out = nullptr)
{
    return build(vireo_ptn_device_info_build_by_json_data, vireo_ptn_device_info_destroy, json,
                 out);
}
auto support_of(const std::string &json, std::string *out = nullptr)
{
    return build(vireo_ptn_support_list_build_by_json_data, vireo_ptn_support_list_destroy, json,
                 out);
}
auto fwinfo_of(const std::string &json, std::string *out = nullptr)
{
    return build(vireo_ptn_firmware_info_build_by_json_data, vireo_ptn_firmware_info_destroy, json,
                 out);
}
auto extra_of(const std::string &json, std::string *out = nullptr)
{
    return build(vireo_extra_para_table_build_by_json_data, vireo_extra_para_table_destroy, json,
                 out);
}

// A support-list document of n entries named M0, M1...
std::string list_of(int n)
{
    std::string s = "{\"support-list\":[";
    for (int i = 0; i < n; i++)
        s += std::string(i ? "," : "") + entry_json("M" + std::to_string(i), "1", "0");
    return s + "]}";
}

std::string replaced(std::string s, const std::string &from, const std::string &to)
{
    return s.replace(s.find(from), from.size(), to);
}

} // namespace

TEST(Records, DocumentsThatFailAndTheirMessages)
{
    const std::string v15(15, 'v'), v16(16, 'v'), v128(128, '1'), i64(64, 'i');
    const std::string url_and_name = replaced(kDevice, "\"manufacturer_url\"", "\"x\"");
    auto list = [](const std::string &entry) { return "{\"support-list\":[" + entry + "]}"; };
    const struct {
        char kind; // d: device-info, s: support-list, f: firmware-info
        std::string json;
        std::string trace; // or empty
        bool ok = false;
    } cases[] = {
        {'d', replaced(kDevice, "\"model_name\"", "\"Model_NAME\""), "", true},
        {'d', replaced(kDevice, "\"1.0\"", "\"" + v15 + "\""), "", true},
        {'d', replaced(kDevice, "\"1.0\"", "\"" + v16 + "\""),
         "json 'model_version' string len too long, '" + v16 + "', 16/16"},
        {'d', replaced(kDevice, "\"EU\"", "7"), "json 'region' must be String type."},
        // Members are read in the document's order: the URL before the model name.
        {'d', replaced(url_and_name, "\"model_name\"", "\"y\""),
         "json 'manufacturer_url' not found."},
        {'s', R"({"support-list": []})", "", true},
        {'s', list_of(65), "too much entry, 65/64."},
        {'s', list(R"({"model_name":"a","model_version":"b","special_id":"c","flash_version":1})"),
         "json 'flash_version' must be String type."},
        {'s', list(entry_json("a", v16, "c")),
         "json 'model_version' string len too long, '" + v16 + "', 16/16"},
        {'s', R"({"supports": []})", "'support-list' not found."},
        {'f', R"({"software-version":"1.0.3 Build 1 Rel.1","firmware-id":")" + i64 + "\"}",
         "json 'firmware-id' string len too long, '" + i64 + "', 64/64"},
        {'f', R"({"software-version":103,"firmware-id":"id"})",
         "json 'software-version' must be String type."},
        {'f', fwinfo_json("1.0.3"), "get software_version fail."},
        {'f', fwinfo_json(v128),
         "json 'software-version' string len too long, '" + v128 + "', 128/128"},
    };
    for (const auto &c : cases) {
        std::string out;
        const bool built = c.kind == 'd'   ? static_cast<bool>(devinfo_of(c.json, &out))
                           : c.kind == 's' ? static_cast<bool>(support_of(c.json, &out))
                                           : static_cast<bool>(fwinfo_of(c.json, &out));
        EXPECT_EQ(c.ok, built) << c.json << out;
        EXPECT_TRUE(c.trace.empty() || has_trace(out, c.trace)) << c.trace << "\n" << out;
    }
    std::string out;
    devinfo_of(replaced(url_and_name, "\"model_name\"", "\"y\""), &out);
    EXPECT_FALSE(has_trace(out, "json 'model_name' not found.")) << "the first missing ends it";
}

TEST(Records, FieldsDefaultsAndDump)
{
    auto info = devinfo_of(kDevice);
    ASSERT_TRUE(info);
    EXPECT_STREQ("00000000", info->flash_version);
    // The record's order and widths: the full name before the URL, unlike the document.
    const std::string dump = capture_stdout([&] { vireo_ptn_device_info_dump(info.get()); });
    EXPECT_EQ(std::string(43, '-') + "\n" + "manufacturer_name                = 'Vireo'\n" +
                  "manufacturer_full_name           = 'Vireo Networks'\n" +
                  "manufacturer_url                 = 'http://vireo.example'\n",
              dump.substr(0, dump.find("model_name")));
    EXPECT_EQ(16u, static_cast<size_t>(std::count(dump.begin(), dump.end(), '\n')));

    auto list = support_of(list_of(64));
    ASSERT_TRUE(list);
    EXPECT_EQ(64, list->entry_cnt);
    EXPECT_STREQ("M63", list->entries[63].model_name);
    EXPECT_STREQ("00000000", list->entries[0].flash_version);

    auto fw = fwinfo_of(R"({"software-version":"1.0.3 Build 20230512 Rel.01234","firmware-id":")" +
                        std::string(63, 'i') + "\"}");
    ASSERT_TRUE(fw) << "the version's numbers the UBI version test compares";
    EXPECT_EQ(std::string(63, 'i'), fw->firmware_id);
}

TEST(FirmwareInfo, VersionTextIsReadByPosition)
{
    struct {
        const char *text;
        int32_t result;
        uint32_t numbers[5];
    } cases[] = {
        {"1.0.3 Build 20230512 Rel.01234", 0, {1, 0, 3, 20230512, 1234}},
        {"2.1.0 Build 7 Rel.00009", 0, {2, 1, 0, 7, 9}},
        {"1.10.0 Xxxxx 7 Yyy:12", 0, {1, 10, 0, 7, 12}}, // the skipped words are not compared
        {"1.0.3 Build 7 Rel.", 0, {1, 0, 3, 7, 0}},
        {"1.0.3", -1, {}},
        {"1.0", -1, {}},
        {"1.0.3 ", -1, {}},           // ends inside "Build "
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

TEST(ExtraPara, FlagDocumentsReadBack)
{
    EXPECT_EQ(R"({"dbootFlag":"0","integerFlag":"0","fwFlag":"BAD","score":1})",
              flag_doc(false, 1));
    EXPECT_EQ(R"({"dbootFlag":"1","integerFlag":"1","fwFlag":"GOOD","score":-1})",
              flag_doc(true, -1));
    auto on = extra_of(flag_doc(true, -1));
    ASSERT_TRUE(on);
    EXPECT_EQ("11GOOD-1", std::string(on->dboot_flag) + on->integer_flag + on->fw_flag +
                              std::to_string(on->score));
    // The result is the full length even when the buffer is too small.
    char text[8];
    EXPECT_EQ(62, vireo_extra_para_format_flag_on(10, text, sizeof(text)));
    EXPECT_STREQ("{\"dboot", text);
}

TEST(ExtraPara, MembersAndTheirFailures)
{
    std::string out;
    auto minimal = extra_of(R"({"dbootflag":"1","INTEGERFLAG":"1"})", &out);
    ASSERT_TRUE(minimal);
    EXPECT_STREQ("", minimal->fw_flag);
    EXPECT_EQ(0, minimal->score);
    EXPECT_NE(std::string::npos, out.find("\n:1\n:1\n:\n:0\n")) << "dump with empty labels";
    auto truncated = extra_of(R"({"dbootFlag":"1","integerFlag":"1","score":7.9})");
    ASSERT_TRUE(truncated);
    EXPECT_EQ(7, truncated->score);
    struct {
        const char *json;
        const char *trace; // or none: fails silently
    } failures[] = {
        {R"({"integerFlag":"1"})", "ptn json 'dboot' not found."},
        {R"({"dbootFlag":1,"integerFlag":"1"})", "ptn json 'dboot' must be String type."},
        {R"({"dbootFlag":"1"})", "ptn json 'intger' not found."},
        {R"({"dbootFlag":"1","integerFlag":true})", "ptn json 'intger' must be String type."},
        {R"({"dbootFlag":"1","integerFlag":"1","fwFlag":7})",
         "ptn json 'fwFlag' must be String type."},
        {R"({"dbootFlag":"1","integerFlag":"1","score":"7"})",
         "ptn json 'score' must be Number type."},
        {R"({"dbootFlag":"0123456789abcdef","integerFlag":"1"})", nullptr},
        {R"({"dbootFlag":"1","integerFlag":"1","fwFlag":"0123456789abcdef"})", nullptr},
    };
    for (const auto &f : failures) {
        EXPECT_FALSE(extra_of(f.json, &out)) << f.json;
        size_t member_messages = 0;
        for (const std::string &t : trace_messages(out))
            member_messages += t.rfind("ptn json", 0) == 0;
        EXPECT_EQ(f.trace ? 1u : 0u, member_messages) << f.json;
        EXPECT_TRUE(!f.trace || has_trace(out, f.trace)) << f.json;
    }
}
