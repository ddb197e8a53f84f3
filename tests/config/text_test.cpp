// Field splitting, number prefixes and the shared reading loop of every
// text input.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <tuple>
#include <vector>

#include "config/text.h"
#include "support/child.h"
#include "support/errors.h"

namespace {

TEST(FieldSplitting, TableOfLines)
{
    const std::tuple<std::string, int, const char*, size_t> cases[] = {
        {"maxcap 100", 1, "maxcap", 6},
        {"maxcap 100", 2, "100", 3},
        {"maxcap 100 # batch size", 2, "100", 3},
        {"maxcap 100 # batch size", 3, "#", 1},
        {"maxcap\t\t100", 2, "100", 3},
        {"  \t maxcap   100  ", 1, "maxcap", 6},
        {"maxcap 100\r\n", 2, "100\r", 4},        // a carriage return is an ordinary character
        {"maxcap 100\nignored 5", 3, " ", 0},     // the line ends at its line feed
        {"maxcap", 2, " ", 0},                    // a missing field reads as one space
        {"", 1, " ", 0},
        {"\n", 1, " ", 0},
        {"a b c d", 4, "d", 1},
        {"a b c d", 5, " ", 0},
        // Fields are cut at 199 characters; the length before the cut is
        // returned, for readers to refuse.
        {"key " + std::string(400, 'x') + " tail", 2, "", 400},
        {"key " + std::string(400, 'x') + " tail", 3, "tail", 4},
    };
    for (const auto& [line, n, expected, length] : cases) {
        char out[lib::kFieldBytes];
        EXPECT_EQ(lib::substr(out, line.c_str(), n), length) << line << " field " << n;
        EXPECT_EQ(std::string(out), *expected ? expected : std::string(199, 'x')) << line << " field " << n;
    }
    // Leading spaces are stripped, tabs stay.
    for (const auto& [text, expected] : {std::pair{"   key value", "key value"}, {"\t key", "\t key"}, {"    ", ""}}) {
        std::string copy = text;
        lib::strtruc(copy.data());
        EXPECT_STREQ(copy.c_str(), expected);
    }
}

TEST(NumberPrefixes, IntegersWrapAt32BitsAndDoublesReadTheirPrefix)
{
    const std::tuple<const char*, int32_t, double> cases[] = {
        {"100", 100, 100},   {"-7", -7, -7},    {"+7", 7, 7},        {"  42", 42, 42},    {"2.7", 2, 2.7},
        {"1e1", 1, 10},      {"abc", 0, 0},     {" ", 0, 0},         {"12abc", 12, 12},   {"-2.5xyz", -2, -2.5},
        {"4294967396", 100, 4294967396.0},      {"3000000000", -1294967296, 3e9},         {"100\r", 100, 100},
        {"3.14\r", 3, 3.14},
    };
    for (const auto& [text, integer, real] : cases) {
        EXPECT_EQ(lib::int_prefix(text), integer) << text;
        EXPECT_DOUBLE_EQ(lib::double_prefix(text), real) << text;
    }
}

// Each line handed over, prefixed with its number in the file.
std::vector<std::string> lines_of(const std::string& text, bool stop_at_empty_read)
{
    testing_support::TempDir dir;
    testing_support::write_text(dir / "f", text);
    FILE* f = std::fopen((dir / "f").c_str(), "r");
    std::vector<std::string> seen;
    testing_support::must(lib::for_each_line(
        f, "f", stop_at_empty_read, [&](char* line, long number) { seen.push_back(std::to_string(number) + ":" + line); }));
    std::fclose(f);
    return seen;
}

TEST(ReadingLoop, LastLineTwiceUnlessStoppingAtAnEmptyReadAndAFailedReadStops)
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

    // A failed read is reported instead of ending the file.
    testing_support::TempDir dir;
    testing_support::write_text(dir / "f", "a\n");
    FILE* f = std::fopen((dir / "f").c_str(), "a");  // reading a stream open for writing fails
    EXPECT_EQ(testing_support::reported(lib::for_each_line(f, "the file", true, [](char*) {})),
              "err: the file could not be read: Bad file descriptor\n");
    std::fclose(f);
}

}  // namespace
