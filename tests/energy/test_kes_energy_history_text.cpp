#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <random>

#include "kes_energy_history_text.h"

using kes::kesArray;
using kes::kesString;
using namespace kes::Energy;

namespace {

kesArray<kesString> List(std::initializer_list<const char*> items)
{
    kesArray<kesString> list;
    for (const char* item : items)
        list.AddBack(item);
    return list;
}

const kesEnergyHistoryRules MONTH_RULES = {kesEnergyHistoryEnergyLastTotal, 1, kesEnergyHistoryPulseLastPiece};
const kesEnergyHistoryRules YEAR_RULES = {kesEnergyHistoryEnergySum, 3, kesEnergyHistoryPulseWholeRest};
const kesEnergyHistoryRules BEGIN_RULES = {kesEnergyHistoryEnergySum, 2, kesEnergyHistoryPulseWholeRest};

// Pulse storages: UID 301 has a total of 1205300, the others have none.
bool PulseTotal(unsigned int uid, double* total)
{
    if (uid != 301)
        return false;
    *total = 1205300;
    return true;
}

kesString Rows(const kesString& source, const kesEnergyHistoryRules& rules, const kesArray<kesString>& energy,
               const kesArray<kesString>& value, const kesArray<kesString>& pulse)
{
    kesString text;
    const kesEnergyHistoryRowIndex index(source);
    kesEnergyHistoryAppendRows(&text, index, rules, energy, value, pulse, PulseTotal);
    return text;
}

} // namespace

TEST(HistoryNumber, MatchesStrtodBitForBit)
{
    const char* cases[] = {"0",
                           "-0",
                           "12.5",
                           "1204.6",
                           "-3.25",
                           "1e5",
                           "0x1A",
                           "  7",
                           "+4",
                           ".5",
                           "-.5",
                           "5.",
                           "abc",
                           "",
                           "f",
                           "123456789012345.6",
                           "0.1234567890123456789",
                           "1.5|2",
                           "7\n8",
                           "inf",
                           "nan",
                           "9007199254740993",
                           "3000.125",
                           "1.7976931348623157e308",
                           "0x1p3"};
    for (const char* text : cases) {
        const double expected = std::strtod(text, nullptr);
        const double got = kesEnergyHistoryAsDouble(text, text + std::strlen(text));
        EXPECT_EQ(0, std::memcmp(&expected, &got, sizeof(double))) << "'" << text << "'";
    }
    // The plain decimals of the files, at random.
    std::mt19937 random(7);
    for (int i = 0; i < 20000; ++i) {
        char text[40];
        const int decimals = static_cast<int>(random() % 6);
        std::snprintf(text, sizeof(text), "%s%llu.%0*llu", random() % 4 == 0 ? "-" : "",
                      static_cast<unsigned long long>(random() % 100000000), decimals,
                      static_cast<unsigned long long>(random() % 100000));
        const double expected = std::strtod(text, nullptr);
        const double got = kesEnergyHistoryAsDouble(text, text + std::strlen(text));
        ASSERT_EQ(0, std::memcmp(&expected, &got, sizeof(double))) << text;
    }
    // strtod skips white space and line feeds: a blank piece must not reach the next line.
    const char* text = " \n11|12.5e3";
    const struct {
        int begin, end;
        double expected;
    } pieces[] = {{0, 1, 0}, {2, 2, 0}, {2, 3, 1}, {5, 9, 12.5}, {5, 11, 12500}};
    for (const auto& p : pieces)
        EXPECT_EQ(p.expected, kesEnergyHistoryAsDouble(text + p.begin, text + p.end)) << p.begin << " " << p.end;
}

TEST(HistoryPieces, CutAsGetSplitCuts)
{
    const char* cases[] = {"a|b", "a||b", "|a", "a|", "", "||", "f|f|f|256", "10|8", "x"};
    for (const char* text : cases) {
        kesArray<kesString> expected;
        kesString(text).GetSplit(&expected, "|");
        kesEnergyHistoryPieces pieces(text, text + std::strlen(text));
        kesArray<kesString> got;
        const char* begin;
        const char* end;
        while (pieces.Next(&begin, &end))
            got.AddBack(kesString(begin, static_cast<size_t>(end - begin)));
        EXPECT_EQ(expected, got) << "'" << text << "'";
    }
}

TEST(HistoryDayMerge, ExtendsOrAppendsTheHoursBlock)
{
    // clang-format off
    const struct { const char* name; const char* text; const char* header;
                   std::initializer_list<const char*> rows; const char* expected; } cases[] = {
        {"empty file", "", "H|10\n", {"101|512|480|540.5|256", "201|31.5|30.2|32"},
         "H|10\n101|512|480|540.5|256\n201|31.5|30.2|32\n"},
        {"second group", "H|10\n101|512|480|540.5|256\n201|31.5|30.2|32\n", "H|10\n", {"101|f|f|f|256", "201|31.7|31|32.4"},
         "H|10\n101|512|480|540.5|256|f|f|f|256\n201|31.5|30.2|32|31.7|31|32.4\n"},
        {"new hour", "H|10\n101|1\n", "H|11\n", {"101|2"}, "H|10\n101|1\nH|11\n101|2\n"},
        {"hour 1 is not hour 11", "H|11\n101|1\n", "H|1\n", {"101|2"}, "H|11\n101|1\nH|1\n101|2\n"},
        {"earlier block after a step back", "H|9\n101|1\nH|10\n101|2\n", "H|9\n", {"101|3"}, "H|9\n101|1|3\nH|10\n101|2\n"},
        {"block with fewer lines than rows keeps the next header", "H|9\n101|1\nH|10\n101|2\n", "H|9\n",
         {"101|3", "201|4", "301|5"}, "H|9\n101|1|3\n201|4\n301|5\nH|10\n101|2\n"},
        {"short last block", "H|9\n101|1\n", "H|9\n", {"101|3", "201|4"}, "H|9\n101|1|3\n201|4\n"},
        {"empty block before a header", "H|9\nH|10\n101|2\n", "H|9\n", {"101|3"}, "H|9\n101|3\nH|10\n101|2\n"},
        {"cut last line", "H|9\n101|1\n201|2", "H|9\n", {"101|3", "201|4"}, "H|9\n101|1|3\n201|2|4\n"},
        {"cut file gets the header on a line of its own", "H|9\n101|1", "H|10\n", {"101|3"}, "H|9\n101|1\nH|10\n101|3\n"},
        {"no rows", "H|9\n101|1\n", "H|9\n", {}, "H|9\n101|1\n"},
        {"no rows, new block", "", "H|0\n", {}, "H|0\n"},
    };
    // clang-format on
    for (const auto& c : cases) {
        kesString text(c.text);
        kesEnergyHistoryMergeDay(&text, c.header, List(c.rows));
        EXPECT_EQ(kesString(c.expected), text) << c.name;
    }
}

TEST(HistoryLevelRows, CondenseTheRowsBelow)
{
    // clang-format off
    const struct { const char* name; const char* source; const kesEnergyHistoryRules* rules;
                   std::initializer_list<const char*> energy, value, pulse; const char* expected; } cases[] = {
        {"groups without sample count as 0", "D|1\n5|f|f|f|10|8|12\n", &MONTH_RULES, {}, {"5"}, {}, "5|5|0|12\n"},
        {"only missing samples", "D|1\n5|f|f|f|F|F|F\n", &MONTH_RULES, {}, {"5"}, {}, "5|0|0|0\n"},
        {"a missing sample is 0 even below a negative minimum", "D|1\n5|-5|-6|-4|f|f|f\n", &MONTH_RULES, {}, {"5"}, {},
         "5|-2.5|-6|0\n"},
        {"a missing day adds nothing to the year", "D|1\n1|f\nD|2\n1|5\n", &YEAR_RULES, {"1"}, {}, {}, "1|5\n"},
        {"cut groups are skipped", "D|1\n5|10|8|12|20|19\n6|10\n7|10|8\n", &MONTH_RULES, {}, {"5", "6", "7"}, {},
         "5|10|8|12\n"},
        {"value without rows has none, energy and pulse have 0", "D|1\n", &MONTH_RULES, {"1"}, {"2"}, {"3"},
         "1|0\n3|0\n"},
        {"latest total, a missing one keeps it", "D|1\n1|5|5|5|10|f|f|f|f\n", &MONTH_RULES, {"1"}, {}, {}, "1|10\n"},
        {"a blank last piece reads as 0, not as the next line", "D|1\n2|10|9|\n11\n1|1|1| \n7\n", &MONTH_RULES,
         {"1"}, {"2"}, {}, "1|0\n2|10|9|0\n"},
        {"a blank row reads as 0 in the year", "D|1\n1| \n5\n", &YEAR_RULES, {"1"}, {}, {}, "1|0\n"},
        {"energy total on a cut row is not read", "D|1\n1|5|5|5\n", &MONTH_RULES, {"1"}, {}, {}, "1|0\n"},
        {"missing pulse takes the storage", "D|1\n301|f\n302|7|f\n", &MONTH_RULES, {}, {}, {"301", "302"},
         "301|1205300\n302|0\n"},
        {"a UID is not a prefix of another", "H|1\n10|1|1|1|1\n101|2|2|2|2\n", &MONTH_RULES, {"10", "101"}, {}, {},
         "10|1\n101|2\n"},
        {"the first line is never a row", "1|9\nD|1\n1|3\n", &YEAR_RULES, {"1"}, {}, {}, "1|3\n"},
        {"year sums at precision 3", "D|1\n1|1000.4\nD|2\n1|2000.3\n", &YEAR_RULES, {"1"}, {}, {}, "1|3000.7\n"},
        {"begin sums at precision 2", "M|1\n1|1000.125\nM|2\n1|2000.125\n", &BEGIN_RULES, {"1"}, {}, {}, "1|3000.25\n"},
        {"year value: each day once", "D|1\n5|10|9|11\nD|2\n5|20|18|25\n", &YEAR_RULES, {}, {"5"}, {}, "5|15|9|25\n"},
        {"year pulse takes the latest whole row", "D|1\n301|4\nD|2\n301|f\n302|5\nD|3\n302|6\n", &YEAR_RULES, {}, {},
         {"301", "302"}, "301|1205300\n302|6\n"},
        {"the row right behind a row of the same UID is passed over", "D|1\n1|1\n1|2\n1|4\n", &YEAR_RULES, {"1"}, {},
         {}, "1|5\n"},
    };
    // clang-format on
    for (const auto& c : cases)
        EXPECT_EQ(kesString(c.expected), Rows(c.source, *c.rules, List(c.energy), List(c.value), List(c.pulse)))
            << c.name;

    // Hand-edited texts: a row at the very end without its line feed, empty rests, stray bars.
    const char* sources[] = {"D|1\n1|", "D|1\n1|5", "\n1|\n", "\n1||||\n", "\n1|f|\n", "\n1|||f|f|||\n", "\n|\n", ""};
    for (const char* source : sources) {
        const kesString text = Rows(source, MONTH_RULES, List({"1"}), List({"1"}), List({"1"}));
        EXPECT_EQ('\n', text.back()) << source;
        Rows(source, YEAR_RULES, List({"1"}), List({"1"}), List({"1"}));
    }
}
