// Dates cut from file names, and the strict list reader.
#include <gtest/gtest.h>

#include <unistd.h>

#include <string>
#include <tuple>

#include "catalogue/filelist.h"
#include "config/cfg.h"
#include "support/child.h"
#include "support/errors.h"

namespace {

using testing_support::TempDir;
using testing_support::write_text;

TEST(DatesInNames, TableOfNames)
{
    const std::tuple<const char*, int, int> cases[] = {
        {"geo_20170102_20170314.unw", 20170102, 20170314},
        {"20200101_20200113", 20200101, 20200113},
        {"201701025_20170314", 20170102, 20170314},   // nine digits: the first eight form the date
        {"2017010220170314", 20170102, 20170314},      // sixteen digits: two dates
        {"x_20171301_20170102_20170314", 20170102, 20170314},  // month 13 is no date
        {"a_20180229_20180301", 20180229, 20180301},   // day <= 31 passes here
        {"19000101x20991231", 19000101, 20991231},
        {"30010101_30000101", 30000101, 0},            // year beyond 3000 is skipped
        {"18991231_19000101", 19000101, 0},
        {"geo_20170102.unw", 20170102, 0},
        {"20170102", 20170102, 0},
        {"2017010", 0, 0},                              // ends before eight digits
        {"abc", 0, 0},
        {"", 0, 0},
        {" ", 0, 0},
        {"1_20170102_1", 20170102, 0},
        {"x2017a0102", 0, 0},
        {"ifg_20170102-20170100_20170131", 20170102, 20170131},
    };
    for (const auto& [name, first, second] : cases) {
        EXPECT_EQ(com::phsfilename2date(name, 1), first) << name;
        EXPECT_EQ(com::phsfilename2date(name, 2), second) << name;
    }
    // Exactly sized buffers: the sanitizer build catches any read beyond.
    for (const std::string text : {"1", "12345", "2017010", "a9", "20170102_2017"}) {
        std::vector<char> exact(text.begin(), text.end());
        exact.push_back('\0');
        EXPECT_EQ(com::phsfilename2date(exact.data(), 2), 0) << text;
    }
}

// The list read into a record that held other names and dates.
CFG list_of(const std::string& text)
{
    TempDir dir;
    write_text(dir / "list", text);
    CFG cfg;
    cfg.ifg_names = {"old1", "old2", "old3", "old4"};
    cfg.ifg_date1 = cfg.ifg_date2 = {1, 2, 3, 4};
    cfg.maxcap = 17;
    testing_support::must(com::readfilenamelist(&cfg, (dir / "list").c_str()));
    return cfg;
}

// Names and both dates of every line, order kept as found; a line feed at
// the end reads every line once; what the record held is replaced.
TEST(InterferogramList, ReadsNamesAndBothDatesOfEveryLine)
{
    const CFG cfg = list_of("geo_20200101_20200113.unw extra fields\n  \t20200113_20200125.unw\n"
                            "geo_20200125_20200101.unw\n");
    EXPECT_EQ(cfg.ifg_names, (std::vector<std::string>{"geo_20200101_20200113.unw", "20200113_20200125.unw",
                                                         "geo_20200125_20200101.unw"}));
    EXPECT_EQ(cfg.ifg_date1, (std::vector<int>{20200101, 20200113, 20200125}));
    EXPECT_EQ(cfg.ifg_date2, (std::vector<int>{20200113, 20200125, 20200101}));
    EXPECT_EQ(list_of("a_20200101_20200113\nb_20200113_20200125").ifg_names.size(), 2u);
    EXPECT_TRUE(list_of("").ifg_names.empty());
    EXPECT_EQ(cfg.maxcap, 17);
}

TEST(InterferogramList, BadLinesAreReportedWithTheName)
{
    const std::pair<std::string, std::string> cases[] = {
        {"a_20200101_20200113\n\n", "  format error\n"},  // blank last line: the name is " "
        {"a_20200101_20200113\n\nb_20200113_20200125\n", "  format error\n"},  // blank line inside
        {"a_20200101_20200113\nonly_20200113.unw\n", "only_20200113.unw format error\n"},
        {"nodate.unw\n", "nodate.unw format error\n"},
        {"a_20200101_20200113\n" + std::string(200, 'x') + "_20200101_20200113\n", "LIST line 2: a field longer than 199 characters is not supported\n"},
    };
    for (auto [text, message] : cases) {
        TempDir dir;
        if (message.rfind("LIST", 0) == 0) message = dir / "list" + message.substr(4);
        write_text(dir / "list", text);
        CFG cfg;
        cfg.ifg_names = {"kept"};
        EXPECT_EQ(testing_support::reported(com::readfilenamelist(&cfg, (dir / "list").c_str())),
                  "err: " + message);
        EXPECT_EQ(cfg.ifg_names, std::vector<std::string>{"kept"});  // left as it was
    }
}

}  // namespace
