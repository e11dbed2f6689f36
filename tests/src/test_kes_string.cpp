#include <gtest/gtest.h>

#include "kes_commandlineparser.h"
#include "kes_string.h"

using kes::kesArray;
using kes::kesString;

struct DoubleCase {
    double value;
    int precision;
    const char* text;
};

std::ostream& operator<<(std::ostream& out, const DoubleCase& c)
{
    return out << c.text;
}

class FromDoubleTest : public ::testing::TestWithParam<DoubleCase> {};

TEST_P(FromDoubleTest, GivesTheFileForm)
{
    EXPECT_EQ(kesString::FromDouble(GetParam().value, GetParam().precision), GetParam().text);
}

INSTANTIATE_TEST_SUITE_P(Values, FromDoubleTest,
                         ::testing::Values(DoubleCase{12.0, 1, "12"}, DoubleCase{12.50, 1, "12.5"},
                                           DoubleCase{12.04, 1, "12"}, DoubleCase{-0.04, 1, "-0"},
                                           DoubleCase{1.25, 1, "1.2"}, DoubleCase{0.0, 1, "0"},
                                           DoubleCase{-0.0, 1, "0"}, DoubleCase{100.0, 1, "100"},
                                           DoubleCase{345.75, 1, "345.8"}, DoubleCase{16.666, 1, "16.7"},
                                           DoubleCase{1.2345, 3, "1.234"}, DoubleCase{3e9, 1, "3000000000"},
                                           DoubleCase{5e9 + 0.5, 2, "5000000000.5"}, DoubleCase{1500.0, 0, "1500"},
                                           DoubleCase{2.5e9, 0, "2500000000"}));

TEST(FromDouble, NanAndInfinityAreLibcText)
{
    EXPECT_EQ(kesString::FromDouble(1.0 / 0.0, 1), "inf");
    EXPECT_EQ(kesString::FromDouble(-1.0 / 0.0, 1), "-inf");
    EXPECT_EQ(kesString::FromFloat(0.1f, 3), "0.1");
}

struct SplitCase {
    const char* text;
    const char* separator;
    std::vector<std::string> pieces;
};

std::ostream& operator<<(std::ostream& out, const SplitCase& c)
{
    return out << '"' << c.text << '"';
}

class SplitTest : public ::testing::TestWithParam<SplitCase> {};

TEST_P(SplitTest, AppendsThePieces)
{
    kesArray<kesString> parts;
    parts.AddBack("kept");
    kesString(GetParam().text).GetSplit(&parts, GetParam().separator);
    std::vector<std::string> got(parts.begin() + 1, parts.end());
    EXPECT_EQ(parts[0], "kept");
    EXPECT_EQ(got, GetParam().pieces);
}

INSTANTIATE_TEST_SUITE_P(Pieces, SplitTest,
                         ::testing::Values(SplitCase{"a,b", ",", {"a", "b"}}, SplitCase{"a,,b", ",", {"a", "b"}},
                                           SplitCase{",a", ",", {"a"}}, SplitCase{"a,", ",", {"a", ""}},
                                           SplitCase{"", ",", {""}}, SplitCase{",,", ",", {""}},
                                           SplitCase{"abc", ",", {"abc"}}, SplitCase{"1||2|3", "||", {"1", "2|3"}}));

struct ShrinkCase {
    const char* text;
    bool fromStart;
    const char* result;
};

std::ostream& operator<<(std::ostream& out, const ShrinkCase& c)
{
    return out << '"' << c.text << (c.fromStart ? "\" from start" : "\" from end");
}

class ShrinkTest : public ::testing::TestWithParam<ShrinkCase> {};

TEST_P(ShrinkTest, TrimsOneEnd)
{
    kesString text(GetParam().text);
    text.SetShrink(" \t", GetParam().fromStart);
    EXPECT_EQ(text, GetParam().result);
}

INSTANTIATE_TEST_SUITE_P(Ends, ShrinkTest,
                         ::testing::Values(ShrinkCase{"  a b  ", true, "a b  "}, ShrinkCase{"  a b  ", false, "  a b"},
                                           ShrinkCase{"   ", true, "   "}, ShrinkCase{"   ", false, ""},
                                           ShrinkCase{"  ", false, " "}, ShrinkCase{" ", false, ""},
                                           ShrinkCase{"", false, ""}, ShrinkCase{"x", true, "x"}));

TEST(KesString, FindForwardReverseAndNoCase)
{
    kesString text("abcABCabc");
    EXPECT_EQ(text.Find("abc", 0, false, false), 0u);
    EXPECT_EQ(text.Find("abc", 1, false, false), 6u);
    EXPECT_EQ(text.Find("abc", 0, false, true), 6u);
    EXPECT_EQ(text.Find("abc", 4, false, true), 0u);
    EXPECT_EQ(text.Find("ABC", 4, true, true), 3u);
    EXPECT_EQ(text.Find("xyz", 0, true, false), kesString::npos);
}

TEST(KesString, ReplaceAllDoesNotRescanTheReplacement)
{
    kesString text("a,b,,c");
    text.FindAndReplaceAll(",", ",,", false);
    EXPECT_EQ(text, "a,,b,,,,c");
    kesString mixed("One one ONE");
    mixed.FindAndReplaceAll("one", "Two", true);
    EXPECT_EQ(mixed, "Two Two Two");
}

TEST(KesString, FormatNeverWritesPastItsSize)
{
    kesString text("x");
    text.AddFormat(8, "%s", "0123456789");
    EXPECT_EQ(text, "x0123456");
    text.SetFormat(16, "%i-%i", 12, 34);
    EXPECT_EQ(text, "12-34");
}

TEST(KesString, ConversionsAndComparison)
{
    EXPECT_EQ(kesString(static_cast<const char*>(nullptr)).GetLength(), 0u);
    EXPECT_EQ(kesString::AsULong("12abc", 10), 12u);
    EXPECT_EQ(kesString::AsULong("-1", 10), 4294967295u);
    EXPECT_EQ(kesString::AsULong("99999999999", 10), 4294967295u);
    EXPECT_EQ(kesString::AsULong("  257", 10), 257u);
    EXPECT_EQ(kesString::AsULong(" + 3", 10), 0u);
    EXPECT_EQ(kesString::AsULong("- 3", 10), 0u);
    EXPECT_EQ(kesString::AsInt("abc", 10), 0);
    EXPECT_EQ(kesString::AsInt("-99999999999", 10), INT32_MIN);
    EXPECT_TRUE(kesString("ABC").IsEqualNoCase("abc"));
    EXPECT_FALSE(kesString("abc").IsEqualNoCase("abcd"));
    EXPECT_FALSE(kesString("\xC4").IsEqualNoCase("\xE4"));
}

TEST(KesArray, UniqueSortsAndDropsNeighbours)
{
    kesArray<unsigned short> values;
    for (unsigned short v : {5, 3, 5, 1, 3})
        values.AddBack(v);
    values.Unique(nullptr, nullptr);
    EXPECT_EQ(std::vector<unsigned short>(values.begin(), values.end()), (std::vector<unsigned short>{1, 3, 5}));

    kes::kesMap<int, int*> map;
    EXPECT_EQ(map.GetKeyValue(7), nullptr);
    EXPECT_TRUE(map.empty());
}

TEST(CommandLineParser, MatchesWithoutCaseAndTakesTheNextWord)
{
    const char* argv[] = {"prog", "-log", "-conf", "x", "-CONF", "y", "-dir"};
    kes::kesCommandLineParser parser(const_cast<char* const*>(argv), 7);
    kesString value("stale");
    EXPECT_TRUE(parser.GetArgument("-conf", &value));
    EXPECT_EQ(value, "x");
    EXPECT_TRUE(parser.GetArgument("-LOG", &value));
    EXPECT_EQ(value, "-conf");
    EXPECT_TRUE(parser.GetArgument("-dir", &value));
    EXPECT_EQ(value, "");
    value = "stale";
    EXPECT_FALSE(parser.GetArgument("-h", &value));
    EXPECT_EQ(value, "");
    EXPECT_TRUE(parser.GetArgument("-dir", nullptr));
    kes::kesCommandLineParser empty(nullptr, 0);
    EXPECT_FALSE(empty.GetArgument("prog", nullptr));
}
