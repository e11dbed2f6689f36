#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "kes_energy_history_item.h"
#include "kes_energy_history_text.h"

using kes::kesArray;
using kes::kesString;
using namespace kes::Energy;

namespace {

kesArray<kesString> List(std::initializer_list<const char*> items)
{
    kesArray<kesString> list;
    list.assign(items.begin(), items.end());
    return list;
}

const kesEnergyHistoryRules MONTH_RULES = {kesEnergyHistoryEnergyLastTotal, 1, kesEnergyHistoryPulseLastPiece};
const kesEnergyHistoryRules YEAR_RULES = {kesEnergyHistoryEnergySum, 3, kesEnergyHistoryPulseWholeRest};
const kesEnergyHistoryRules BEGIN_RULES = {kesEnergyHistoryEnergySum, 2, kesEnergyHistoryPulseWholeRest};

kesString Rows(const kesString& source, const kesEnergyHistoryRules& rules, const kesArray<kesString>& energy,
               const kesArray<kesString>& value, const kesArray<kesString>& pulse)
{
    // Pulse storages: UID 301 has a total of 1205300, the others have none.
    auto total = [](unsigned int uid, double* o_total) { return uid == 301 && (*o_total = 1205300) > 0; };
    kesString text;
    kesEnergyHistoryAppendRows(&text, kesEnergyHistoryRowIndex(source), rules, energy, value, pulse, total);
    return text;
}

} // namespace

TEST(HistoryNumber, MatchesStrtodBitForBit)
{
    // clang-format off
    std::vector<std::string> cases = {"0", "-0", "0.3", "-0.3", "12.5", "1204.6", "-3.25", "1e5", "0x1A", "  7", "+4", ".5",
        "-.5", "5.", "abc", "", "f", "123456789012345.6", "0.1234567890123456789", "1.5|2", "7\n8", "inf", "nan",
        "9007199254740993", "3000.125", "1.7976931348623157e308", "0x1p3"};
    // clang-format on
    // Every count of decimals the short way takes.
    for (size_t decimals = 0; decimals < 15; ++decimals)
        cases.push_back("9" + std::string(".12345678901234").substr(0, decimals + 1));
    for (const std::string& text : cases) {
        const double expected = std::strtod(text.c_str(), nullptr);
        const double got = kesEnergyHistoryAsDouble(text.data(), text.data() + text.size());
        EXPECT_EQ(0, std::memcmp(&expected, &got, sizeof(double))) << "'" << text << "'";
    }
    // strtod skips white space and line feeds: a blank piece must not reach the next line.
    const char* text = " \n11|12.5e3";
    // clang-format off
    const struct { int begin, end; double expected; } pieces[] = {{0, 1, 0}, {2, 2, 0}, {2, 3, 1}, {5, 9, 12.5}, {5, 11, 12500}};
    // clang-format on
    for (const auto& p : pieces)
        EXPECT_EQ(p.expected, kesEnergyHistoryAsDouble(text + p.begin, text + p.end)) << p.begin << " " << p.end;
}

TEST(HistoryDayMerge, ExtendsOrAppendsTheHoursBlock)
{
    // clang-format off
    const struct { const char* name; const char* text; const char* header;
                   std::initializer_list<const char*> rows; const char* expected; } cases[] = {
        {"hour 1 is not hour 11", "H|11\n101|1\n", "H|1\n", {"101|2"}, "H|11\n101|1\nH|1\n101|2\n"},
        {"block with fewer lines than rows keeps the next header", "H|9\n101|1\nH|10\n101|2\n", "H|9\n",
         {"101|3", "201|4", "301|5"}, "H|9\n101|1|3\n201|4\n301|5\nH|10\n101|2\n"},
        {"short last block", "H|9\n101|1\n", "H|9\n", {"101|3", "201|4"}, "H|9\n101|1|3\n201|4\n"},
        {"empty block before a header", "H|9\nH|10\n101|2\n", "H|9\n", {"101|3"}, "H|9\n101|3\nH|10\n101|2\n"},
        {"an empty line ends the block", "H|9\n\n101|1\n", "H|9\n", {"101|3"}, "H|9\n101|3\n\n101|1\n"},
        {"cut last line", "H|9\n101|1\n201|2", "H|9\n", {"101|3", "201|4"}, "H|9\n101|1|3\n201|2|4\n"},
        {"cut file gets the header on a line of its own", "H|9\n101|1", "H|10\n", {"101|3"}, "H|9\n101|1\nH|10\n101|3\n"},
        {"no rows", "H|9\n101|1\n", "H|9\n", {}, "H|9\n101|1\n"},
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
        {"groups without sample count as 0", "D|1\n5|F|F|F|10|8|12\n", &MONTH_RULES, {}, {"5"}, {}, "5|5|0|12\n"},
        {"a missing sample is 0 even below a negative minimum", "D|1\n5|-5|-6|-4|f|f|f\n", &MONTH_RULES, {}, {"5"}, {},
         "5|-2.5|-6|0\n"},
        {"a missing day adds nothing to the year", "D|1\n1|f\nD|2\n1|5\n", &YEAR_RULES, {"1"}, {}, {}, "1|5\n"},
        {"empty pieces are passed over", "D|1\n5|10||8|12\n", &MONTH_RULES, {}, {"5"}, {}, "5|10|8|12\n"},
        {"cut groups are skipped", "D|1\n5|10|8|12|20|19\n6|10\n7|10|8\n", &MONTH_RULES, {}, {"5", "6", "7"}, {},
         "5|10|8|12\n"},
        {"value without rows has none, energy and pulse have 0", "D|1\n", &MONTH_RULES, {"1"}, {"2"}, {"3"},
         "1|0\n3|0\n"},
        {"latest total, a missing one keeps it", "D|1\n1|5|5|5|10|f|f|f|F\n", &MONTH_RULES, {"1"}, {}, {}, "1|10\n"},
        {"a blank last piece reads as 0, not as the next line", "D|1\n2|10|9|\n11\n1|1|1| \n7\n", &MONTH_RULES,
         {"1"}, {"2"}, {}, "1|0\n2|10|9|0\n"},
        {"a blank row reads as 0 in the year", "D|1\n1| \n5\n", &YEAR_RULES, {"1"}, {}, {}, "1|0\n"},
        {"a last row without its line feed reads empty", "D|1\n1|5", &YEAR_RULES, {"1"}, {}, {}, "1|0\n"},
        {"energy total on a cut row is not read", "D|1\n1|5|5|5\n", &MONTH_RULES, {"1"}, {}, {}, "1|0\n"},
        {"missing pulse takes the storage", "D|1\n301|f\n302|7|f\n", &MONTH_RULES, {}, {}, {"301", "302"},
         "301|1205300\n302|0\n"},
        {"a UID is not a prefix of another", "H|1\n10|1|1|1|1\n101|2|2|2|2\n", &MONTH_RULES, {"10", "101"}, {}, {},
         "10|1\n101|2\n"},
        {"the first line is never a row", "1|9\nD|1\n1|3\n", &YEAR_RULES, {"1"}, {}, {}, "1|3\n"},
        {"year sums at precision 3", "D|1\n1|1000.4\nD|2\n1|2000.3\n", &YEAR_RULES, {"1"}, {}, {}, "1|3000.7\n"},
        {"begin sums at precision 2", "M|1\n1|1000.125\nM|2\n1|2000.125\n", &BEGIN_RULES, {"1"}, {}, {}, "1|3000.25\n"},
        {"year pulse takes the latest whole row", "D|1\n301|4\nD|2\n301|f\n302|5\nD|3\n302|6\n", &YEAR_RULES, {}, {},
         {"301", "302"}, "301|1205300\n302|6\n"},
        {"the row right behind a row of the same UID is passed over", "D|1\n1|1\n1|2\n1|4\n", &YEAR_RULES, {"1"}, {},
         {}, "1|5\n"},
    };
    // clang-format on
    for (const auto& c : cases)
        EXPECT_EQ(kesString(c.expected), Rows(c.source, *c.rules, List(c.energy), List(c.value), List(c.pulse)))
            << c.name;
}

TEST(HistoryDouble, ClosesTheIntervalWithTheTimeWeightedAverage)
{
    // clang-format off
    const struct { const char* name; std::vector<std::pair<double, double>> samples; double tick;
                   unsigned int intervalMs; const char* average; double minimum, maximum; } cases[] = {
        {"late first sample", {{60, 100}}, 300, 300000, "80", 100, 100},
        {"held value, not interpolated", {{0, 0}, {299, 300}}, 300, 300000, "1", 0, 300},
        // A step of the clock back makes the span near 2^32 ms: the middle of the range is taken.
        {"clock stepped back", {{100, 10}, {50, 30}}, 60, 300000, "20", 10, 30},
    };
    // clang-format on
    // Times in ms from an origin that is not 0, which would mean "no sample".
    const unsigned int ORIGIN = 5000000;
    for (const auto& c : cases) {
        kesEnegyHistoryDouble parameter(2, kes::kesEnergyDeviceString);
        for (const auto& sample : c.samples)
            parameter.Add(sample.second, ORIGIN + static_cast<unsigned int>(sample.first * 1000));
        const kesEnegyHistoryFigures figures =
            parameter.Close(ORIGIN + static_cast<unsigned int>(c.tick * 1000), c.intervalMs);
        EXPECT_FALSE(figures.noData) << c.name;
        EXPECT_EQ(kesString(c.average), kesString::FromDouble(figures.average, 1)) << c.name;
        EXPECT_EQ(c.minimum, figures.minimum) << c.name;
        EXPECT_EQ(c.maximum, figures.maximum) << c.name;
        EXPECT_EQ(c.samples.back().second, figures.last) << c.name;
    }
}

TEST(HistoryPulse, CountsOnFromTheBaseAfterAMeterReset)
{
    // clang-format off
    const struct { const char* name; double base, total; std::vector<double> counts, totals; double finalBase; } cases[] = {
        {"restart, meter went on counting", 1000, 0, {1010}, {1010}, 1000},
        {"restart, count just below the base, within the tolerance", 1000, 0, {999.995}, {999.995}, 1000},
        {"restart, meter was reset", 1000, 0, {5, 7}, {1005, 1007}, 1000},
        {"reset in a running system", 0, 600, {3, 4}, {600, 604}, 600},
        {"count passes the base again", 0, 600, {3, 700, 5}, {600, 700, 700}, 700},
    };
    // clang-format on
    for (const auto& c : cases) {
        PulseCounterStorage storage;
        storage.m_dBase = c.base;
        storage.m_dTotal = c.total;
        for (size_t i = 0; i < c.counts.size(); ++i) {
            storage.SetPower(c.counts[i]);
            EXPECT_DOUBLE_EQ(c.totals[i], storage.m_dTotal) << c.name << " step " << i;
        }
        EXPECT_DOUBLE_EQ(c.finalBase, storage.m_dBase) << c.name;
    }
}
