// Our uci reader against the real libuci: the same files, read by the probe built with each,
// must give the same packages and the same answer for every special id asked.
#include "test_util.h"

#include <gtest/gtest.h>

#include <random>
#include <sstream>

namespace
{

const std::vector<std::string> kIds = {"55530000", "4A500000", "4a500000", "45550000",  "5553 0000",
                                       "x'y",      "q\"q",     "",         "a#b",       "a;b",
                                       "ab;",      "5553",     "0000",     "55530000 ", "a\\b"};

// Random uci files: sections, options, lists, every way of quoting, comments, odd spacing,
// joined and broken lines, and now and then a line that libuci refuses.
struct uci_file_maker {
    std::mt19937 rng;

    explicit uci_file_maker(uint32_t seed) : rng(seed) {}

    size_t pick(size_t n)
    {
        return rng() % n;
    }
    bool chance(unsigned percent)
    {
        return rng() % 100 < percent;
    }
    const char *one(std::initializer_list<const char *> choices)
    {
        return choices.begin()[pick(choices.size())];
    }

    std::string space()
    {
        return one({" ", " ", "\t", "  ", " \t ", "\t\t"});
    }

    // A double-quoted form of text, some plain characters escaped too.
    std::string double_quoted(const std::string &text)
    {
        std::string out = "\"";
        for (char c : text) {
            if (c == '"' || c == '\\' || chance(5))
                out += '\\';
            out += c;
        }
        return out + "\"";
    }

    // One argument that reads back as text.
    std::string token(const std::string &text)
    {
        const bool plain = !text.empty() && text.find_first_of(" \t'\"#;\\") == std::string::npos;
        if (plain && text.size() > 1 && chance(10)) {
            const size_t cut = 1 + pick(text.size() - 1);
            const char *glue = one({"'%s'\"%s\"", "%s'%s'", "\"%s\"%s", "%s\\\n%s"});
            char buf[256];
            snprintf(buf, sizeof(buf), glue, text.substr(0, cut).c_str(), text.substr(cut).c_str());
            return buf;
        }
        switch (pick(plain ? 3 : 2)) {
        case 0:
            if (text.find('\'') == std::string::npos)
                return "'" + text + "'";
            return double_quoted(text);
        case 1:
            return double_quoted(text);
        default:
            return text;
        }
    }

    std::string value()
    {
        if (chance(5))
            return one({"multi\nline", "a\tb", "#not a comment"});
        return kIds[pick(kIds.size())];
    }

    std::string config(const char *type, const char *name)
    {
        std::string line = std::string(one({"config", "config", "c"})) + space() + token(type);
        return *name || chance(50) ? line + space() + token(name) : line;
    }

    std::string option(const char *name)
    {
        return std::string(one({"list", "list", "list", "option", "l", "o"})) + space() +
               token(name) + space() + token(value());
    }

    std::string command()
    {
        if (pick(5) == 0)
            return config(
                one({"special_id_support_list", "special_id_support_list", "other", "a.b", "x-y"}),
                one({"ids", "main", "cfg1", "", "", ""}));
        return option(one({"special_id", "special_id", "special_id", "other", "Special_ID"}));
    }

    // A line that libuci refuses.
    std::string broken()
    {
        switch (pick(6)) {
        case 0:
            return config(one({"bad type", "", "t\x01"}), "");
        case 1:
            return config("special_id_support_list", one({"bad-name", "x.y"}));
        case 2:
            return option(one({"bad-name", "", "a b"}));
        case 3:
            return command() + space() + token(value()); // one argument too many
        case 4:
            return option("special_id") + " '" + value(); // quote open to the end of the file
        default:
            return one({"package bad.name", "package", "bogus line", "configx t",
                        "lists special_id x", "option", "config"});
        }
    }

    std::string line()
    {
        if (chance(4))
            return broken();
        switch (pick(12)) {
        case 0:
            return one({"", "   ", "\t", "# comment", "  #config other", "#", "package profile"});
        case 1:
            return command() + one({";", "; ", " ;"}) + command();
        default: {
            std::string text = std::string(one({"", "", "\t", "  ", " \t"})) + command();
            if (chance(20))
                text += std::string(one({" # note", "#x", " #", "\t# 'quoted'"}));
            if (chance(15))
                text += one({" ", "\t", "\r", " \r"});
            return text;
        }
        }
    }

    std::string file()
    {
        std::string text;
        if (chance(80))
            text =
                "config special_id_support_list" + std::string(chance(50) ? " 'ids'" : "") + "\n";
        const size_t lines = 1 + pick(9);
        for (size_t i = 0; i < lines; i++)
            text += line() + "\n";
        if (chance(10))
            text.pop_back(); // no line end after the last line
        if (chance(10)) {
            // Every line end, inside quotes and after a joining backslash too, as CR LF.
            std::string crlf;
            for (char c : text)
                crlf += c == '\n' ? "\r\n" : std::string(1, c);
            return crlf;
        }
        return text;
    }
};

// Files that meet each rule of the format at least once, whatever the random ones do.
const char *const kFixedFiles[] = {
    "config special_id_support_list\n\tlist special_id '55530000'; list special_id 0000\n",
    "config special_id_support_list\n\tlist special_id 55530000; list special_id 0000\n",
    "c special_id_support_list\n l special_id 55530000\n o other x\n",
    "config special_id_support_list ids\nlist special_id 5553\n"
    "config other\nconfig special_id_support_list ids\nlist special_id 0000\n",
    "config other ids\nconfig special_id_support_list ids\n",
    "config special_id_support_list\nlist special_id 'a\nb'\nlist special_id \"55530000\n",
    "config special_id_support_list\nlist special_id 5553\\\n0000\nlist special_id "
    "\"4A50\\\n0000\"\n",
    "config special_id_support_list\nlist special_id 5553\\\n 0000\n",
    "list special_id 55530000\nconfig special_id_support_list\n",
    "config special_id_support_list\noption special_id ''\nlist special_id ''\nlist special_id\n",
    "config special_id_support_list\noption special_id x\nlist special_id 0000\noption other y\n",
    "config special_id_support_list\nlist special_id 0000\noption special_id 5553\n",
    "config special_id_support_list\r\nlist special_id 5553\\\r\n0000\r\n",
    "config special_id_support_list\nlist special_id 55530000",
    "config special_id_support_list\nlist special_id 5553#0000\nlist special_id '#'#x\n",
    "config a.b\nlist special_id 0000\n",
    "config 'bad type'\n",
    "package profile\nconfig special_id_support_list\nlist special_id 0000\n",
    "package bad.name\n",
    "config special_id_support_list\nlist special_id \"q\\\"q\" 'x'\n",
    "config special_id_support_list\nlist\tspecial_id\t0000\nlist\vspecial_id 5553\n",
    "config special_id_support_list\nlist special_id 'x'\"'\"'y'\nlist special_id a\\\\b\n",
    "config special_id_support_list\nlist special_id ;\n",
    "config special_id_support_list 'ids';list special_id 0000\n",
    "config\n",
    "config special_id_support_list",
    "",
};

// The blocks of a probe's output by root, trace lines reduced to their messages.
std::vector<std::string> blocks(const std::string &out)
{
    std::vector<std::string> result;
    std::istringstream in(out);
    std::string line;
    while (std::getline(in, line)) {
        if (line.rfind("== ", 0) == 0) {
            result.emplace_back();
            continue;
        }
        const size_t bar = line.find("() | ");
        if (line.find(": [TRACE]") != std::string::npos && bar != std::string::npos)
            line = "trace | " + line.substr(bar + 5);
        if (!result.empty())
            result.back() += line + "\n";
    }
    return result;
}

} // namespace

TEST(UciDiff, OurReaderReadsEveryFileAsLibuciDoes)
{
    temp_dir dir;
    std::string ids;
    for (const std::string &id : kIds)
        ids += id + "\n";
    const std::string ids_path = dir.write("ids", ids);

    std::vector<std::string> files(std::begin(kFixedFiles), std::end(kFixedFiles));
    for (uint32_t seed = 1; seed <= 600; seed++)
        files.push_back(uci_file_maker(seed).file());
    std::vector<std::string> args = {ids_path};
    for (size_t i = 0; i < files.size(); i++) {
        const std::string root = "r" + std::to_string(i);
        dir.write(root + "/etc/profile.d/profile", files[i]);
        args.push_back(dir.join(root));
    }

    const run_result libuci = run_program(VIREO_UCI_PROBE_LIBUCI, args);
    const run_result ours = run_program(VIREO_UCI_PROBE_READER, args);
    ASSERT_EQ(0, libuci.status) << libuci.err;
    ASSERT_EQ(0, ours.status) << ours.err;
    const std::vector<std::string> want = blocks(libuci.out);
    const std::vector<std::string> got = blocks(ours.out);
    ASSERT_EQ(files.size(), want.size());
    ASSERT_EQ(files.size(), got.size());

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
