// SPDX-License-Identifier: Apache-2.0
// The record documents: device-info, support-list, firmware-info and extra-para.
#include "ptn/vireo_extra_para.h"
#include "ptn/vireo_ptn_device_info.h"
#include "ptn/vireo_ptn_firmware_info.h"
#include "ptn/vireo_ptn_record.h"
#include "ptn/vireo_ptn_support_list.h"

#include "raw_device.h"
#include "unit_fixture.h"

#include <gtest/gtest.h>
#include <memory>
#include <regex>
#include <unistd.h>

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

// A record read header first gives what a whole read gives: the same verdict, content and
// traces, whatever the partition holds. Only a valid header that fits spares the rest.
TEST(Records, ReadingTheHeaderFirstJudgesAsReadingWhole)
{
    const std::string doc = R"({"model": "VR100"})";
    const std::string good = with_content_header(doc);
    const uint32_t n = static_cast<uint32_t>(good.size());
    std::string bad_magic = good;
    bad_magic[0] = '\0';
    std::string too_long = good;
    too_long[9] = '\x7f'; // a length of several MiB
    struct {
        const char *what;
        std::string bytes; // the device's content (none: no device)
        int32_t size;      // the partition's size
        uint32_t read;     // bytes the header-first read holds at the end
    } cases[] = {
        {"a small record in a large partition", good + std::string(200000, '\xff'), 200016, n},
        {"a record that fills its partition", good, static_cast<int32_t>(n), n},
        {"bad magic", bad_magic + std::string(5000, 'x'), 5016, 5016},
        {"a length past the partition", too_long + std::string(5000, 'x'), 5016, 5016},
        {"a device shorter than its content", good.substr(0, 20), 4096, 20},
        {"a device shorter than a header", good.substr(0, 9), 4096, 9},
        {"no device", "", 4096, 0},
    };
    const vireo_trace_site site{"records_test", "read_record", 1};
    temp_dir dir;
    // Each header-first kind against the whole read it stands for.
    const std::pair<vireo_read_kind, vireo_read_kind> kinds[] = {
        {VIREO_READ_FROM_START, VIREO_READ_CONTENT},
        {VIREO_READ_BY_OFFSET, VIREO_READ_CONTENT_BY_OFFSET}};
    for (const auto &[whole_kind, content_kind] : kinds)
        for (const auto &c : cases) {
            const std::string path = dir.join("dev");
            unlink(path.c_str());
            if (!c.bytes.empty())
                write_file(path, c.bytes);
            vireo_record_words words;
            words.alloc_failed = "alloc failed.\n";
            words.read_failed = "read failed.\n";
            words.invalid = "invalid.\n";
            words.no_content = "no content.\n";
            words.data_pos = true;
            vireo_record whole, content;
            std::string whole_out, content_out;
            const auto r_whole = quietly(
                [&] {
                    return vireo_record_read(site, path.c_str(), c.size, whole_kind, words, &whole);
                },
                &whole_out);
            const auto r_content = quietly(
                [&] {
                    return vireo_record_read(site, path.c_str(), c.size, content_kind, words,
                                             &content);
                },
                &content_out);
            EXPECT_EQ(r_whole, r_content) << c.what << " (kind " << content_kind << ")";
            // The buffers' addresses differ.
            const std::regex address("0x[0-9a-fx]+");
            EXPECT_EQ(trace_messages(std::regex_replace(whole_out, address, "ADDRESS")),
                      trace_messages(std::regex_replace(content_out, address, "ADDRESS")))
                << c.what << " (kind " << content_kind << ")";
            EXPECT_EQ(c.read, content.count) << c.what << " (kind " << content_kind << ")";
            if (r_whole == VIREO_RECORD_OK) {
                EXPECT_EQ(whole.offset, content.offset)
                    << c.what << " (kind " << content_kind << ")";
                EXPECT_EQ(whole.length, content.length)
                    << c.what << " (kind " << content_kind << ")";
                EXPECT_EQ(std::string(whole.text(), whole.length),
                          std::string(content.text(), content.length))
                    << c.what << " (kind " << content_kind << ")";
                EXPECT_EQ(doc, std::string(content.text(), content.length))
                    << c.what << " (kind " << content_kind << ")";
            }
        }
}
