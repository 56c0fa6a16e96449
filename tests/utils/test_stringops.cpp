// String and list helpers: pure functions.
#include "utils/stringops.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using Lines = std::vector<std::string>;

TEST(StringOps, PrefixSuffixAndSubstringAreByteExact)
{
    struct Case { const char* text; const char* part; bool starts, ends, finds; };
    const Case cases[] = {
        {"TOV_BIN_NAME=tov_test_old", "TOV_BIN_NAME=tov_test", true, false, true},
        {"tov_bin_name=tov_test", "TOV_BIN_NAME=", false, false, false},
        {" TOV_BIN_NAME=", "TOV_BIN_NAME=", false, true, true},
        {"file.msr", ".msr", false, true, true},
        {"file.MSR", ".msr", false, false, false},
        {"ab", "xab", false, false, false},
        {"TOV", "TOV_BIN", false, false, false},
        {"anything", "", true, true, true},
        {"", "", true, true, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.text) + " / " + c.part);
        EXPECT_EQ(string_startsWith(c.text, c.part), c.starts);
        EXPECT_EQ(string_endsWith(c.text, c.part), c.ends);
        EXPECT_EQ(string_findSubStr(c.text, c.part), c.finds);
    }
}

TEST(StringOps, ReplaceAllNeverRescansInsertedText)
{
    struct Case { std::string text, from, to, expected; };
    const Case cases[] = {
        {"aaa", "a", "aa", "aaaaaa"},
        {"2.6.35.3\n\nx\n", "\n", "", "2.6.35.3x"},
        {"~/TOV/tests_tov/~/x", "~/", "", "TOV/tests_tov/x"},
        {"abcabc", "bc", "", "aa"},
    };
    for (Case c : cases) {
        string_replaceChar(c.text, c.from, c.to);
        EXPECT_EQ(c.text, c.expected);
    }
}

TEST(StringOps, ListFiltersEraseOrKeepInOrder)
{
    const Lines names{"a.msr", "b.log", "c.msr", "d"};
    struct Case { std::string s; Lines erased, kept; };
    const Case cases[] = {
        {".msr", {"b.log", "d"}, {"a.msr", "c.msr"}},
        {"", {}, names},
    };
    for (const Case& c : cases) {
        Lines erased = names, kept = names;
        eraseVectorContainsStr(erased, c.s);
        filterVectorContainsStr(kept, c.s);
        EXPECT_EQ(erased, c.erased);
        EXPECT_EQ(kept, c.kept);
    }
}

TEST(StringOps, Splits)
{
    struct Case { std::string text, delim; Lines byString, byChars; std::vector<double> numbers; };
    const Case cases[] = {
        {";;a;;b;", ";", {"a", "b"}, {";", ";", "a;", ";", "b;", ""}, {0, 0, 0, 0, 0, 0}},
        {"a::b:c", "::", {"a", "b:c"}, {"a:", ":", "b:", "c"}, {0, 0, 0, 0}},
        {"1.5;2;", ";", {"1.5", "2"}, {"1.5;", "2;", ""}, {1.5, 2.0, 0.0}},
        {"-3.25,x;7e1", ",;", {"-3.25,x;7e1"}, {"-3.25,", "x;", "7e1"}, {-3.25, 0.0, 70.0}},
        {"no delimiter", ";", {"no delimiter"}, {"no delimiter"}, {0}},
        {"", ";", {}, {""}, {0}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text + " on " + c.delim);
        EXPECT_EQ(string_split_stringDelim(c.text, c.delim), c.byString);
        EXPECT_EQ(string_split_multiCharDelim(c.text, c.delim), c.byChars);
        EXPECT_EQ(double_split_multiCharDelim(c.text, c.delim), c.numbers);
    }
}
