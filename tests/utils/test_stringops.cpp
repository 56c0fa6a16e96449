// String and list helpers: pure functions.
#include "utils/stringops.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using Lines = std::vector<std::string>;

TEST(StringPrefixSuffix, ByteExactAndEmptyAlwaysMatches)
{
    EXPECT_TRUE(string_startsWith("TOV_BIN_NAME=tov_test", "TOV_BIN_NAME=tov_test"));
    EXPECT_TRUE(string_startsWith("TOV_BIN_NAME=tov_test_old", "TOV_BIN_NAME=tov_test"));
    EXPECT_FALSE(string_startsWith("tov_bin_name=tov_test", "TOV_BIN_NAME="));
    EXPECT_FALSE(string_startsWith(" TOV_BIN_NAME=", "TOV_BIN_NAME="));
    EXPECT_FALSE(string_startsWith("TOV", "TOV_BIN"));
    EXPECT_TRUE(string_startsWith("anything", ""));
    EXPECT_TRUE(string_startsWith("", ""));

    EXPECT_TRUE(string_endsWith("file.msr", ".msr"));
    EXPECT_FALSE(string_endsWith("file.MSR", ".msr"));
    EXPECT_FALSE(string_endsWith("ab", "xab"));
    EXPECT_FALSE(string_endsWith("ab", "abc"));
    EXPECT_TRUE(string_endsWith("ab", ""));
    EXPECT_TRUE(string_endsWith("", ""));

    EXPECT_FALSE(string_startsWith(nullptr, "a"));
    EXPECT_FALSE(string_endsWith("a", nullptr));
}

TEST(StringReplace, ReplacesStringsAndNeverRescansInsertedText)
{
    std::string text = "aaa";
    string_replaceChar(text, "a", "aa");
    EXPECT_EQ(text, "aaaaaa");

    std::string release = "2.6.35.3\n\nx\n";
    string_replaceChar(release, "\n", "");
    EXPECT_EQ(release, "2.6.35.3x");

    std::string path = "~/TOV/tests_tov/~/x";
    string_replaceChar(path, "~/", "");
    EXPECT_EQ(path, "TOV/tests_tov/x");

    std::string shrink = "abcabc";
    string_replaceChar(shrink, "bc", "");
    EXPECT_EQ(shrink, "aa");

    std::string unchanged = "abc";
    string_replaceChar(unchanged, "", "x");
    EXPECT_EQ(unchanged, "abc");
}

TEST(StringFind, SubstringOrEmpty)
{
    EXPECT_TRUE(string_findSubStr("dmesg: dm9000a at", "dm9000a"));
    EXPECT_FALSE(string_findSubStr("DM9000A", "dm9000a"));
    EXPECT_TRUE(string_findSubStr("abc", ""));
    EXPECT_TRUE(string_findSubStr("", ""));
    EXPECT_FALSE(string_findSubStr("", "a"));
}

TEST(ListFilters, EraseAndKeepPreserveOrder)
{
    Lines names{"a.msr", "b.log", "c.msr", "d"};
    Lines erased = names;
    eraseVectorContainsStr(erased, ".msr");
    EXPECT_EQ(erased, (Lines{"b.log", "d"}));

    Lines kept = names;
    filterVectorContainsStr(kept, ".msr");
    EXPECT_EQ(kept, (Lines{"a.msr", "c.msr"}));

    Lines all = names;
    eraseVectorContainsStr(all, "");
    EXPECT_TRUE(all.empty());

    Lines none = names;
    filterVectorContainsStr(none, "");
    EXPECT_EQ(none, names);

    Lines empty;
    filterVectorContainsStr(empty, "x");
    eraseVectorContainsStr(empty, "x");
    EXPECT_TRUE(empty.empty());
}

TEST(SplitStringDelim, DropsEmptyFields)
{
    EXPECT_EQ(string_split_stringDelim(";;a;;b;", ";"), (Lines{"a", "b"}));
    EXPECT_EQ(string_split_stringDelim("a::b:c", "::"), (Lines{"a", "b:c"}));
    EXPECT_EQ(string_split_stringDelim("no delimiter", ";"), Lines{"no delimiter"});
    EXPECT_EQ(string_split_stringDelim("*", "*"), Lines{});
    EXPECT_TRUE(string_split_stringDelim("", ";").empty());
    EXPECT_EQ(string_split_stringDelim("whole", ""), Lines{"whole"});
    EXPECT_TRUE(string_split_stringDelim("", "").empty());
}

TEST(SplitMultiCharDelim, KeepsDelimitersAndEmptyFields)
{
    EXPECT_EQ(string_split_multiCharDelim("a,b;c", ",;"), (Lines{"a,", "b;", "c"}));
    EXPECT_EQ(string_split_multiCharDelim("1;2;", ";"), (Lines{"1;", "2;", ""}));
    EXPECT_EQ(string_split_multiCharDelim(";;x", ";"), (Lines{";", ";", "x"}));
    EXPECT_EQ(string_split_multiCharDelim("", ";"), Lines{""});
    EXPECT_EQ(string_split_multiCharDelim("a;b", ""), Lines{"a;b"});
}

TEST(SplitDoubles, OnePerPieceWithTrailingZero)
{
    EXPECT_EQ(double_split_multiCharDelim("1.5;2;", ";"), (std::vector<double>{1.5, 2.0, 0.0}));
    EXPECT_EQ(double_split_multiCharDelim("-3.25,x;7e1", ",;"), (std::vector<double>{-3.25, 0.0, 70.0}));
    EXPECT_EQ(double_split_multiCharDelim("", ";"), (std::vector<double>{0.0}));
}
