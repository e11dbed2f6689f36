#include <gtest/gtest.h>

#include <vector>

#include "kes_energy_history_item.h"
#include "kes_string.h"

using kes::kesString;
using namespace kes::Energy;

namespace {

// Times in ms from an arbitrary origin that is not 0, which would mean "no sample".
unsigned int At(double seconds)
{
    return 5000000 + static_cast<unsigned int>(static_cast<long long>(seconds * 1000));
}

} // namespace

TEST(HistoryDouble, ClosesTheIntervalWithTheTimeWeightedAverage)
{
    // clang-format off
    const struct { const char* name; std::vector<std::pair<double, double>> samples; double tick;
                   unsigned int intervalMs; const char* average; double minimum, maximum; } cases[] = {
        {"two samples", {{0, 10}, {100, 20}}, 300, 300000, "16.7", 10, 20},
        {"late first sample", {{60, 100}}, 300, 300000, "80", 100, 100},
        {"short first interval", {{0, 1200}}, 120, 120000, "1200", 1200, 1200},
        {"held value, not interpolated", {{0, 0}, {299, 300}}, 300, 300000, "1", 0, 300},
        // A step of the clock back makes the span near 2^32 ms: the middle of the range is taken.
        {"clock stepped back", {{100, 10}, {50, 30}}, 60, 300000, "20", 10, 30},
    };
    // clang-format on
    for (const auto& c : cases) {
        kesEnegyHistoryDouble parameter(2, kes::kesEnergyDeviceString);
        for (const auto& sample : c.samples)
            parameter.Add(sample.second, At(sample.first));
        const kesEnegyHistoryFigures figures = parameter.Close(At(c.tick), c.intervalMs);
        EXPECT_FALSE(figures.noData) << c.name;
        EXPECT_EQ(kesString(c.average), kesString::FromDouble(figures.average, 1)) << c.name;
        EXPECT_EQ(c.minimum, figures.minimum) << c.name;
        EXPECT_EQ(c.maximum, figures.maximum) << c.name;
        EXPECT_EQ(c.samples.back().second, figures.last) << c.name;
    }
    // No sample in the next interval: no data, and the last value is not carried over.
    kesEnegyHistoryDouble parameter(0, kes::kesEnergyDevicePanel);
    parameter.Add(10, At(0));
    parameter.Add(20, At(100));
    EXPECT_EQ(1000.0, parameter.m_dSum);
    parameter.Close(At(300), 300000);
    const kesEnegyHistoryFigures figures = parameter.Close(At(600), 300000);
    EXPECT_TRUE(figures.noData);
    EXPECT_EQ(20.0, figures.last);
    EXPECT_EQ(0u, parameter.m_uiTime);
    EXPECT_EQ(0.0, parameter.m_dSum);
}

TEST(HistoryPulse, CountsOnFromTheBaseAfterAMeterReset)
{
    // clang-format off
    const struct { const char* name; double base, total; std::vector<double> counts, totals; double finalBase; } cases[] = {
        {"fresh storage", 0, 0, {1000, 1010}, {1000, 1010}, 0},
        {"restart, meter went on counting", 1000, 0, {1010}, {1010}, 1000},
        {"restart, count at the base within the tolerance", 1000, 0, {1000.005}, {1000.005}, 1000},
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
            EXPECT_EQ(c.counts[i], storage.m_dPower) << c.name;
        }
        EXPECT_DOUBLE_EQ(c.finalBase, storage.m_dBase) << c.name;
    }
}
