// SPDX-License-Identifier: Apache-2.0
// The special ids of the settings, as the UBI check reads them, and the uci reader behind
// them (ours, or libuci in a build with VIREO_HAVE_LIBUCI).
#include "common/vireo_uci.h"
#include "ubi/vireo_ubi.h"

#include "fake_root.h"
#include "test_util.h"

#include <gtest/gtest.h>

#include <cstring>

namespace
{

int32_t accepts(const char *id, std::string *out = nullptr)
{
    return quietly([&] { return vireo_firmware_check_upgradable_special_id(id); }, out);
}

// The items of list special_id in the first section of type special_id_support_list, each
// followed by '|'; "fail" when the file does not load, "none" without such a list.
std::string special_id_items(const std::string &text)
{
    temp_dir dir;
    const std::string path = dir.write("profile", text);
    uci_context *ctx = uci_alloc_context();
    uci_package *pkg = nullptr;
    std::string items = uci_load(ctx, path.c_str(), &pkg) == UCI_OK ? "none" : "fail";
    if (items == "none") {
        uci_element *e;
        uci_foreach_element(&pkg->sections, e)
        {
            if (strcmp(uci_to_section(e)->type, "special_id_support_list") != 0)
                continue;
            uci_option *o = uci_lookup_option(ctx, uci_to_section(e), "special_id");
            if (o && o->type == UCI_TYPE_LIST) {
                items.clear();
                uci_foreach_element(&o->v.list, e) items += std::string(e->name) + "|";
            }
            break;
        }
        uci_unload(ctx, pkg);
    }
    uci_free_context(ctx);
    return items;
}

} // namespace

// Settings files and their special-id items, as libuci reads them (the same rows pass in a
// build with libuci).
const std::vector<std::pair<std::string, std::string>> kUciRows = {
    {"c special_id_support_list\n l special_id a\n o other x\n", "a|"},
    {"config special_id_support_list\nlist special_id a; list special_id b\n", "a|"},
    {"config special_id_support_list\nlist special_id 'a'; list special_id b\n", "a|b|"},
    {"config special_id_support_list 'ids';list special_id 0000\n", "0000|"},
    {"config special_id_support_list\nlist special_id ;\n", "|"},
    {"config special_id_support_list s\nlist special_id a\nconfig other\n"
     "config special_id_support_list s\nlist special_id b\n",
     "a|b|"},
    {"config other s\nconfig special_id_support_list s\n", "fail"},
    {"config special_id_support_list\nlist special_id 55\\\n53\n", "5553|"},
    {"config special_id_support_list\nlist special_id 5553\\\n 0000\n", "fail"},
    {"config special_id_support_list\r\nlist special_id 5553\\\r\n0000\r\n", "55530000|"},
    {"config special_id_support_list\nlist special_id 'a\nb'\n", "a\nb|"},
    {"config special_id_support_list\nlist special_id 'x y'\n", "x y|"},
    {"config special_id_support_list\nlist special_id 'a'\"b\"c\n", "abc|"},
    {"config special_id_support_list\nlist special_id 'a\\b'\n", "a\\b|"},
    {"config special_id_support_list\nlist special_id 'x'\"'\"'y'\nlist special_id a\\\\b\n",
     "x'y|a\\b|"},
    {"config special_id_support_list\nlist special_id \"a\\\"\\b\"\n", "a\"b|"},
    {"config special_id_support_list\nlist special_id\nlist special_id ''\n", "||"},
    {"config special_id_support_list\noption special_id ''\n", "none"},
    {"config special_id_support_list\nlist special_id a\noption special_id ''\n", "a|"},
    // A new value keeps the option's place: before "o" here.
    {"config special_id_support_list\noption special_id w\noption o v\noption special_id x\n"
     "list special_id y\n",
     "x|y|"},
    {"config special_id_support_list\nlist special_id 0000\noption special_id 5553\n", "none"},
    {"config special_id_support_list\nlist special_id a#b\n#\nlist special_id '#'#x\n", "a|#|"},
    {"config special_id_support_list\nlist\tspecial_id\t0000\n", "0000|"},
    {"config special_id_support_list\nlist special_id a", "a|"},
    {"config special_id_support_list", "none"},
    {"package profile\nconfig special_id_support_list\nlist special_id 0000\n", "0000|"},
    {"list special_id 55530000\nconfig special_id_support_list\n", "fail"},
    {"config special_id_support_list\nlist special_id a b\n", "fail"},
    {"config special_id_support_list\nlist special_id \"q\\\"q\" 'x'\n", "fail"},
    {"config special_id_support_list\nlist special_id 'a\n", "fail"},
    {"config special_id_support_list\nlist special_id \"a\n", "fail"},
    {"config special_id_support_list\nlist\vspecial_id a\n", "fail"},
    {"config special_id_support_list\nlist special-id a\n", "fail"},
    {"bogus line\n", "fail"},
    {"config 'a.b'\nconfig special_id_support_list\n", "none"},
    {"config special_id_support_list x.y\n", "fail"},
    {"config 'bad type'\n", "fail"},
    {"package bad.name\n", "fail"},
    {"config\n", "fail"},
    {"", "none"},
};

// Only a list in the first section of its type counts, compared whole.
TEST(Settings, SpecialIdsComeFromTheListOfTheFirstSection)
{
    fake_root root;
    std::string out;
    EXPECT_EQ(0, accepts("55530000", &out));
    EXPECT_TRUE(has_trace(out, "uci_load profile fail."));
    root.write("etc/profile.d/profile", "config other\n\tlist special_id 'aaaa'\n");
    EXPECT_EQ(0, accepts("aaaa", &out));
    EXPECT_TRUE(has_trace(out, "uci_lookup_section special_id_support_list fail."));
    root.write("etc/profile.d/profile", "config other 'x'\n"
                                        "\tlist special_id 'aaaa'\n"
                                        "config special_id_support_list 'ids'\n"
                                        "\tlist special_id '55530000'\n"
                                        "\tlist special_id \"4A500000\"  # Japan\n"
                                        "config special_id_support_list\n"
                                        "\tlist special_id '99990000'\n");
    for (const char *id : {"55530000", "4A500000"})
        EXPECT_EQ(1, accepts(id)) << id;
    for (const char *id : {"4a500000", "5553000", "99990000", "aaaa"})
        EXPECT_EQ(0, accepts(id)) << id;
}

TEST(Settings, ReaderFindsTheItemsLibuciFinds)
{
    for (const auto &[text, items] : kUciRows)
        EXPECT_EQ(items, special_id_items(text)) << text;
}
