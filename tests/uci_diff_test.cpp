// Our uci reader against the real libuci: the same files, read by the probe built with each,
// must give the same packages and the same answer for every special id asked.
#include "test_util.h"

#include <gtest/gtest.h>

#include <random>
#include <sstream>

// The files of the reader's table in uci_test.cpp, with their items.
extern const std::vector<std::pair<std::string, std::string>> kUciRows;

namespace
{

const std::vector<std::string> kIds = {"55530000", "4A500000", "4a500000", "45550000",  "5553 0000",
                                       "x'y",      "q\"q",     "",         "a#b",       "a;b",
                                       "ab;",      "5553",     "0000",     "55530000 ", "a\\b"};

// Random uci files: sections, options, lists, every way of quoting, comments, odd spacing,
// joined and broken lines, and now and then a line that libuci refuses.
struct file_maker {
    std::mt19937 rng;

    bool chance(unsigned percent)
    {
        return rng() % 100 < percent;
    }
    std::string one(std::initializer_list<const char *> choices)
    {
        return choices.begin()[rng() % choices.size()];
    }
    std::string space()
    {
        return one({" ", " ", "\t", "  ", " \t ", "\t\t"});
    }

    // One argument for text: plain (wrong where text holds a space, quote, '#', ';' or
    // backslash), quoted either way, or in two pieces glued or joined across a line end.
    std::string token(const std::string &text)
    {
        if (text.size() > 1 && chance(10)) {
            const size_t cut = 1 + rng() % (text.size() - 1);
            return token(text.substr(0, cut)) + one({"", "", "\\\n"}) + token(text.substr(cut));
        }
        const bool plain = !text.empty() && text.find_first_of(" \t'\"#;\\") == std::string::npos;
        if ((plain || chance(3)) && chance(33))
            return text;
        if (text.find('\'') == std::string::npos && chance(50))
            return "'" + text + "'";
        std::string out = "\""; // some plain characters escaped too
        for (char c : text)
            out += (c == '"' || c == '\\' || chance(5) ? "\\" : "") + std::string(1, c);
        return out + "\"";
    }

    std::string command()
    {
        if (chance(20))
            return one({"config", "config", "c"}) + space() +
                   token(one({"special_id_support_list", "special_id_support_list", "other", "a.b",
                              "x-y"})) +
                   (chance(50) ? space() + token(one({"ids", "main", "cfg1"})) : "");
        const std::string value =
            chance(5) ? one({"multi\nline", "a\tb", "#not a comment"}) : kIds[rng() % kIds.size()];
        return one({"list", "list", "list", "option", "l", "o"}) + space() +
               token(one({"special_id", "special_id", "special_id", "other", "Special_ID"})) +
               space() + token(value);
    }

    std::string line()
    {
        switch (rng() % 60) {
        case 0:
            return one({"package bad.name", "package", "bogus line", "configx t", "option",
                        "lists special_id x", "config", "list bad-name x", "list '' x",
                        "config 'bad type'", "config t\x01", "config t x.y", "config t bad-name"});
        case 1:
            return command() + space() + token(kIds[rng() % kIds.size()]); // one argument more
        case 2: // a quote open to the end of the file
            return chance(25) ? command() + " '" + kIds[0] : command();
        case 3:
        case 4:
        case 5:
            return one({"", "   ", "\t", "# comment", "  #config other", "#", "package profile"});
        case 6:
        case 7:
            return command() + one({";", "; ", " ;"}) + command();
        default:
            return one({"", "", "\t", "  ", " \t"}) + command() +
                   (chance(20) ? one({" # note", "#x", " #", "\t# 'quoted'"}) : "") +
                   (chance(15) ? one({" ", "\t", "\r", " \r"}) : "");
        }
    }

    std::string file()
    {
        std::string text = chance(80) ? one({"config special_id_support_list\n",
                                             "config special_id_support_list 'ids'\n"})
                                      : "";
        for (size_t lines = 1 + rng() % 9; lines-- > 0;)
            text += line() + "\n";
        if (chance(10))
            text.pop_back(); // no line end after the last line
        if (chance(10))      // every line end as CR LF, inside quotes and after a backslash too
            for (size_t at = 0; (at = text.find('\n', at)) != std::string::npos; at += 2)
                text.insert(at, 1, '\r');
        return text;
    }
};

} // namespace

TEST(UciDiff, OurReaderReadsEveryFileAsLibuciDoes)
{
    temp_dir dir;
    std::string ids;
    for (const std::string &id : kIds)
        ids += id + "\n";
    std::vector<std::string> files; // the table's files meet each rule of the format
    for (const auto &row : kUciRows)
        files.push_back(row.first);
    for (uint32_t seed = 1; seed <= 600; seed++)
        files.push_back(file_maker{std::mt19937(seed)}.file());
    std::vector<std::string> args = {dir.write("ids", ids)};
    for (size_t i = 0; i < files.size(); i++) {
        dir.write(std::to_string(i) + "/etc/profile.d/profile", files[i]);
        args.push_back(dir.join(std::to_string(i)));
    }

    // Each probe's output by file.
    std::vector<std::string> want, got;
    for (auto [probe, out] :
         {std::pair(VIREO_UCI_PROBE_LIBUCI, &want), std::pair(VIREO_UCI_PROBE_READER, &got)}) {
        const run_result r = run_program(probe, args);
        ASSERT_EQ(0, r.status) << r.err;
        std::istringstream in(r.out);
        for (std::string line; std::getline(in, line);) {
            if (line.rfind("== ", 0) == 0)
                out->emplace_back();
            else if (!out->empty())
                out->back() += line + "\n";
        }
        ASSERT_EQ(files.size(), out->size());
    }

    size_t loaded = 0, refused = 0, accepting = 0, differing = 0;
    for (size_t i = 0; i < files.size(); i++) {
        loaded += want[i].rfind("load ok", 0) == 0;
        refused += want[i].rfind("load fail", 0) == 0;
        accepting += want[i].find("\" 1\n") != std::string::npos;
        if (want[i] != got[i] && ++differing <= 5)
            ADD_FAILURE() << "file " << i << ":\n"
                          << files[i] << "\n--- libuci:\n"
                          << want[i] << "--- our reader:\n"
                          << got[i];
    }
    EXPECT_EQ(0u, differing) << "of " << files.size() << " files";
    // The files must exercise both outcomes, or the comparison proves little.
    EXPECT_GT(loaded, files.size() / 2);
    EXPECT_GT(refused, files.size() / 10);
    EXPECT_GT(accepting, files.size() / 4);
}
