// Field splitting, integer prefixes and the shared reading loop of every
// text input.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <tuple>
#include <vector>

#include "config/text.h"
#include "support/child.h"

namespace {

struct FieldCase {
    const char* line;
    int n;
    const char* expected;
};

TEST(FieldSplitting, TableOfLines)
{
    const FieldCase cases[] = {
        {"maxcap 100", 1, "maxcap"},
        {"maxcap 100", 2, "100"},
        {"maxcap 100 # batch size", 2, "100"},
        {"maxcap 100 # batch size", 3, "#"},
        {"maxcap\t\t100", 2, "100"},
        {"  \t maxcap   100  ", 1, "maxcap"},
        {"maxcap 100\r\n", 2, "100\r"},        // a carriage return is an ordinary character
        {"maxcap 100\nignored 5", 3, " "},     // the line ends at its line feed
        {"maxcap", 2, " "},                    // a missing field reads as one space
        {"", 1, " "},
        {"\n", 1, " "},
        {"a b c d", 4, "d"},
        {"a b c d", 5, " "},
    };
    for (const auto& c : cases) {
        char out[lib::kFieldBytes];
        lib::substr(out, c.line, c.n);
        EXPECT_STREQ(out, c.expected) << "line \"" << c.line << "\" field " << c.n;
    }
}

TEST(FieldSplitting, FieldsAreCutAt199Characters)
{
    const std::string longest(400, 'x');
    const std::string line = "key " + longest + " tail";
    char out[lib::kFieldBytes];
    EXPECT_EQ(lib::substr(out, line.c_str(), 2), 400u);  // the length before the cut, for readers to refuse
    EXPECT_EQ(std::string(out), std::string(199, 'x'));
    EXPECT_EQ(lib::substr(out, line.c_str(), 3), 4u);
    EXPECT_STREQ(out, "tail");
    EXPECT_EQ(lib::substr(out, line.c_str(), 4), 0u);
}

TEST(FieldSplitting, LeadingSpacesAreStrippedButTabsStay)
{
    char a[] = "   key value";
    lib::strtruc(a);
    EXPECT_STREQ(a, "key value");
    char b[] = "\t key";
    lib::strtruc(b);
    EXPECT_STREQ(b, "\t key");
    char c[] = "    ";
    lib::strtruc(c);
    EXPECT_STREQ(c, "");
}

TEST(NumberPrefixes, IntegersReadTheirDecimalPrefixAndWrapAt32Bits)
{
    const std::pair<const char*, int32_t> cases[] = {
        {"100", 100},          {"-7", -7},           {"+7", 7},           {"  42", 42},
        {"2.7", 2},            {"1e1", 1},           {"abc", 0},          {" ", 0},
        {"12abc", 12},         {"4294967396", 100},  {"3000000000", -1294967296},
        {"100\r", 100},
    };
    for (const auto& [text, expected] : cases) EXPECT_EQ(lib::int_prefix(text), expected) << text;
}

TEST(NumberPrefixes, DoublesReadTheirFloatingPointPrefix)
{
    EXPECT_DOUBLE_EQ(lib::double_prefix("1e1"), 10.0);
    EXPECT_DOUBLE_EQ(lib::double_prefix("-2.5xyz"), -2.5);
    EXPECT_DOUBLE_EQ(lib::double_prefix(" "), 0.0);
    EXPECT_DOUBLE_EQ(lib::double_prefix("3.14\r"), 3.14);
}

// Each line handed over, prefixed with its number in the file.
std::vector<std::string> lines_of(const std::string& text, bool stop_at_empty_read)
{
    testing_support::TempDir dir;
    testing_support::write_text(dir / "f", text);
    FILE* f = std::fopen((dir / "f").c_str(), "r");
    std::vector<std::string> seen;
    lib::for_each_line(f, "f", stop_at_empty_read,
                       [&](char* line, long number) { seen.push_back(std::to_string(number) + ":" + line); });
    std::fclose(f);
    return seen;
}

TEST(ReadingLoop, LastLineTwiceUnlessStoppingAtAnEmptyRead)
{
    using Lines = std::vector<std::string>;
    const std::tuple<std::string, bool, Lines> cases[] = {
        {"a\nb\n", false, {"1:a\n", "2:b\n", "3:b\n"}},  // end of file is seen one read late
        {"a\nb", false, {"1:a\n", "2:b"}},
        {"", false, {"1:"}},
        {"a\nb\n", true, {"1:a\n", "2:b\n"}},
        {"a\nb", true, {"1:a\n", "2:b"}},
        {"a\n\n", true, {"1:a\n", "2:\n"}},
        {"", true, {}},
        {std::string(1500, 'k') + "\nz", true, {"1:" + std::string(998, 'k'), "1:" + std::string(502, 'k') + "\n", "2:z"}},
    };
    for (const auto& [text, stop, expected] : cases) EXPECT_EQ(lines_of(text, stop), expected) << text.size();
}

TEST(ReadingLoop, AFailedReadStopsTheRunInsteadOfEndingTheFile)
{
    testing_support::TempDir dir;
    testing_support::write_text(dir / "f", "a\n");
    const auto o = testing_support::run_in_child([&] {
        FILE* f = std::fopen((dir / "f").c_str(), "a");  // reading a stream open for writing fails
        lib::for_each_line(f, "the file", true, [](char*) {});
    });
    EXPECT_TRUE(o.exited);
    EXPECT_EQ(o.status, 0);
    EXPECT_EQ(o.err, "the file could not be read: Bad file descriptor\n");
}

}  // namespace
