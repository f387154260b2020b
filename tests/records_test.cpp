// The record documents: device-info, support-list, firmware-info and extra-para.
#include "ptn/vireo_extra_para.h"
#include "ptn/vireo_ptn_device_info.h"
#include "ptn/vireo_ptn_firmware_info.h"
#include "ptn/vireo_ptn_support_list.h"

#include "raw_device.h"

#include <gtest/gtest.h>
#include <memory>

namespace
{

// Builds a record from text; the trace messages land in *out.
template <typename T, typename D>
std::unique_ptr<T, D *> build(T *(*fn)(const char *, int32_t), D *destroy, const std::string &json,
                              std::string *out = nullptr)
{
    T *record = nullptr;
    const std::string text =
        capture_stdout([&] { record = fn(json.data(), static_cast<int32_t>(json.size())); });
    if (out)
        *out = text;
    return std::unique_ptr<T, D *>(record, destroy);
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

TEST(DeviceInfo, FieldsLimitsAndOrder)
{
    const std::string good = devinfo_json("VR100", "1.0", "55530000");
    auto info = devinfo_of(good);
    ASSERT_TRUE(info);
    EXPECT_STREQ("00000000", info->flash_version);
    EXPECT_STREQ("Vireo Networks", info->manufacturer_full_name);
    EXPECT_TRUE(devinfo_of(replaced(good, "\"model_name\"", "\"Model_NAME\"")));
    EXPECT_TRUE(devinfo_of(replaced(good, "\"1.0\"", "\"" + std::string(15, 'v') + "\"")));
    std::string out;
    EXPECT_FALSE(devinfo_of(replaced(good, "\"1.0\"", "\"" + std::string(16, 'v') + "\""), &out));
    EXPECT_TRUE(has_trace(out, "json 'model_version' string len too long, '" +
                                   std::string(16, 'v') + "', 16/16"));
    EXPECT_FALSE(devinfo_of(replaced(good, "\"EU\"", "7")));
    // Members are read in the document's order: the URL before the model name.
    std::string both = replaced(good, "\"manufacturer_url\"", "\"x\"");
    EXPECT_FALSE(devinfo_of(replaced(both, "\"model_name\"", "\"y\""), &out));
    EXPECT_TRUE(has_trace(out, "json 'manufacturer_url' not found."));
    EXPECT_FALSE(has_trace(out, "json 'model_name' not found."));

    const std::string dump = capture_stdout([&] { vireo_ptn_device_info_dump(info.get()); });
    EXPECT_EQ(std::string(43, '-') + "\n" + "manufacturer_name                = 'Vireo'\n" +
                  "manufacturer_full_name           = 'Vireo Networks'\n",
              dump.substr(0, 44 + 43 + 52));
    EXPECT_EQ(16u, static_cast<size_t>(std::count(dump.begin(), dump.end(), '\n')));
}

TEST(SupportList, EntriesLimitsAndDefaults)
{
    auto empty = support_of(R"({"support-list": []})");
    ASSERT_TRUE(empty);
    EXPECT_EQ(0, empty->entry_cnt);
    std::string entries;
    for (int i = 0; i < 65; i++)
        entries += std::string(i ? "," : "") + entry_json("M" + std::to_string(i), "1", "0");
    const std::string list65 = "{\"support-list\":[" + entries + "]}";
    std::string out;
    EXPECT_FALSE(support_of(list65, &out));
    EXPECT_TRUE(has_trace(out, "too much entry, 65/64."));
    auto list64 = support_of(list65.substr(0, list65.rfind(",{")) + "]}");
    ASSERT_TRUE(list64);
    EXPECT_EQ(64, list64->entry_cnt);
    EXPECT_STREQ("M63", list64->entries[63].model_name);
    EXPECT_STREQ("00000000", list64->entries[0].flash_version);

    EXPECT_FALSE(support_of(R"({"support-list":[{"model_name":"a","model_version":"b",
        "special_id":"c","flash_version":1}]})"));
    EXPECT_FALSE(
        support_of("{\"support-list\":[" + entry_json("a", std::string(16, 'v'), "c") + "]}"));
    EXPECT_FALSE(support_of(R"({"supports": []})", &out));
    EXPECT_TRUE(has_trace(out, "'support-list' not found."));
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
        if (c.result == 0) {
            EXPECT_EQ(0, memcmp(c.numbers, out, sizeof(out))) << c.text;
        }
    }
}

TEST(FirmwareInfo, MembersAndLimits)
{
    auto doc = [](const std::string &version, const std::string &id) {
        return "{\"software-version\":" + version + ",\"firmware-id\":" + id + "}";
    };
    const auto build_fw = [](const std::string &json, std::string *out = nullptr) {
        return build(vireo_ptn_firmware_info_build_by_json_data, vireo_ptn_firmware_info_destroy,
                     json, out);
    };
    auto info =
        build_fw(doc("\"1.0.3 Build 20230512 Rel.01234\"", "\"" + std::string(63, 'i') + "\""));
    ASSERT_TRUE(info);
    EXPECT_EQ(3u, info->software_version[2]);
    EXPECT_EQ(1234u, info->build_timestamp[1]);
    EXPECT_FALSE(build_fw(doc("\"1.0.3 Build 1 Rel.1\"", "\"" + std::string(64, 'i') + "\"")));
    EXPECT_FALSE(build_fw(doc("103", "\"id\"")));
    std::string out;
    EXPECT_FALSE(build_fw(doc("\"1.0.3\"", "\"id\""), &out));
    EXPECT_TRUE(has_trace(out, "get software_version fail."));
    EXPECT_FALSE(build_fw(doc("\"" + std::string(128, '1') + "\"", "\"id\""), &out));
    EXPECT_TRUE(has_trace(out, "json 'software-version' string len too long, '" +
                                   std::string(128, '1') + "', 128/128"));
}

TEST(ExtraPara, DocumentsRoundTrip)
{
    char text[128];
    for (int32_t score : {7, 0, -1}) {
        vireo_extra_para_format_flag_on(score, text, sizeof(text));
        auto on = extra_of(text);
        ASSERT_TRUE(on);
        EXPECT_STREQ("1", on->dboot_flag);
        EXPECT_STREQ("GOOD", on->fw_flag);
        EXPECT_EQ(score, on->score);
        vireo_extra_para_format_flag_off(score, text, sizeof(text));
        auto off = extra_of(text);
        ASSERT_TRUE(off);
        EXPECT_STREQ("0", off->integer_flag);
        EXPECT_STREQ("BAD", off->fw_flag);
        EXPECT_EQ(score, off->score);
    }
    EXPECT_EQ(
        R"({"dbootFlag":"0","integerFlag":"0","fwFlag":"BAD","score":1})",
        std::string(text, static_cast<size_t>(vireo_extra_para_format_flag_off(1, text, 128))));
    // The result is the full length even when the buffer is too small.
    EXPECT_EQ(62, vireo_extra_para_format_flag_on(10, text, 8));
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
        {R"({"dbootFlag":"1","integerFlag":"1","score":"7"})",
         "ptn json 'score' must be Number type."},
        {R"({"dbootFlag":"0123456789abcdef","integerFlag":"1"})", nullptr},
        {R"({"dbootFlag":"1","integerFlag":"1","fwFlag":"0123456789abcdef"})", nullptr},
    };
    for (const auto &f : failures) {
        EXPECT_FALSE(extra_of(f.json, &out)) << f.json;
        auto traces = trace_messages(out);
        // Besides the builder's own closing lines, only the member's message, if any.
        traces.erase(std::remove_if(traces.begin(), traces.end(),
                                    [](const std::string &t) {
                                        return t.rfind("Failed to parse json", 0) == 0 ||
                                               t.rfind("json_data:", 0) == 0;
                                    }),
                     traces.end());
        EXPECT_EQ(f.trace ? std::vector<std::string>{f.trace} : std::vector<std::string>{}, traces)
            << f.json;
    }
}
