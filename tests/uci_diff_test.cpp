// Our uci reader against the real libuci: the same files, read by the probe built with each,
// must give the same packages.
#include "test_util.h"

#include <gtest/gtest.h>

#include <random>

// The files of the reader's table in uci_test.cpp, with their items.
extern const std::vector<std::pair<std::string, std::string>> kUciRows;

namespace
{

// Two files of the table that load, joined, then a few characters of the format's syntax put
// in or pieces repeated at random places: quotes, escapes, comments and line ends meet each
// other where no table row puts them.
std::string random_file(std::mt19937 &rng, const std::vector<std::string> &loading)
{
    std::string text = loading[rng() % loading.size()];
    text += (rng() % 2 ? "\n" : "") + loading[rng() % loading.size()];
    const std::string syntax = " \t\r\n\n'\"\\#;";
    for (unsigned edits = rng() % 3; edits-- > 0;) {
        const size_t at = rng() % (text.size() + 1);
        if (rng() % 2)
            text.insert(at, 1, syntax[rng() % syntax.size()]);
        else
            text.insert(at, text.substr(at, rng() % 12));
    }
    return text;
}

} // namespace

TEST(UciDiff, OurReaderReadsEveryFileAsLibuciDoes)
{
    std::vector<std::string> files, loading; // the table's files meet each rule of the format
    for (const auto &[text, items] : kUciRows) {
        files.push_back(text);
        if (items != "fail")
            loading.push_back(text);
    }
    std::mt19937 rng(1);
    while (files.size() < 600)
        files.push_back(random_file(rng, loading));
    temp_dir dir;
    size_t loaded = 0, listing = 0, differing = 0;
    for (const std::string &text : files) {
        const std::string path = dir.write("profile", text);
        const run_result want = run_program(VIREO_UCI_PROBE_LIBUCI, {path});
        const run_result got = run_program(VIREO_UCI_PROBE_READER, {path});
        loaded += want.out.rfind("load ok", 0) == 0;
        listing += want.out.find("  list [special_id]") != std::string::npos;
        if (want.out != got.out && ++differing <= 5)
            ADD_FAILURE() << text << "\n--- libuci:\n"
                          << want.out << "--- our reader:\n"
                          << got.out;
    }
    EXPECT_EQ(0u, differing) << "of " << files.size() << " files";
    // The files must meet both outcomes and read lists, or the comparison proves little.
    EXPECT_GT(loaded, files.size() / 3);
    EXPECT_LT(loaded, files.size() * 9 / 10);
    EXPECT_GT(listing, files.size() / 4);
}
