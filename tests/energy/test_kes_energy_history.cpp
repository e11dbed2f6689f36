#include <gtest/gtest.h>

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <set>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "error_capture.h"
#include "kes_error.h"
#include "kes_history_fake.h"
#include "test_process.h"

using kes::kesString;
using kes_test::FakeClockHistory;
using kes_test::LocalMs;
using namespace kes;

namespace {

// Parameters of the examples: an energy, a value and a pulse parameter.
const unsigned int ENERGY = 101, VALUE = 201, PULSE = 301;

class HistorySystem : public ::testing::Test {
protected:
    // A store on the test's folder with N minutes, started at the given local time.
    std::unique_ptr<FakeClockHistory> Started(unsigned int minutes, unsigned long long at, bool example = true)
    {
        std::unique_ptr<FakeClockHistory> history(new FakeClockHistory());
        if (example) {
            history->RegisterParameterDouble(ENERGY, kesEnergyDeviceString, 2);
            history->RegisterParameterDouble(VALUE, kesEnergyDevicePanel, 0);
            history->RegisterParameterDouble(PULSE, kesEnergyDevicePulseCounter, 1);
        }
        history->SetClock(at);
        history->Init(minutes);
        history->SetHistoryFolder(m_dir.Path());
        EXPECT_EQ(kesErrorOk, history->Start());
        return history;
    }

    // One interval up to 'end': the value held from the start, the minimum and
    // the maximum in the last second, so the average shows the value.
    static void Interval(FakeClockHistory& history, unsigned long long end,
                         std::initializer_list<std::tuple<unsigned int, double, double, double>> samples)
    {
        for (const auto& s : samples)
            history.SetValueAsDouble(std::get<0>(s), std::get<1>(s));
        history.SetClock(end - 1000);
        for (const auto& s : samples)
            if (std::get<0>(s) != PULSE)
                history.SetValueAsDouble(std::get<0>(s), std::get<2>(s));
        history.SetClock(end - 500);
        for (const auto& s : samples)
            if (std::get<0>(s) != PULSE)
                history.SetValueAsDouble(std::get<0>(s), std::get<3>(s));
        history.SetClock(end);
        history.Tick();
    }

    // A constant sample from now up to the tick at 'end'.
    static void Constant(FakeClockHistory& history, unsigned long long end,
                         std::initializer_list<std::pair<unsigned int, double>> samples)
    {
        for (const auto& s : samples)
            history.SetValueAsDouble(s.first, s.second);
        history.SetClock(end);
        history.Tick();
    }

    std::string Read(const std::string& name) const { return kes_test::ReadFile(m_dir.File(name)); }
    bool Exists(const std::string& name) const { return access(m_dir.File(name).c_str(), F_OK) == 0; }
    bool Logged(const std::string& text) const { return m_log.Contains(text); }

    kes_test::ErrorCapture m_log;
    kes_test::TempDir m_dir;
};

} // namespace

TEST_F(HistorySystem, ComputeTimeGivesTheTimeToTheNextBoundary)
{
    const struct {
        unsigned int minutes;
        int hour, minute, second;
        unsigned int expected;
    } cases[] = {
        {5, 12, 3, 20, 100000}, {5, 12, 5, 0, 300000},   {5, 12, 4, 59, 1000},    {60, 23, 59, 30, 30000},
        {1, 12, 3, 20, 40000},  {30, 9, 30, 0, 1800000}, {12, 23, 50, 0, 600000},
    };
    FakeClockHistory history;
    for (const auto& c : cases) {
        history.Init(c.minutes);
        history.SetLocal(2015, 3, 14, c.hour, c.minute, c.second);
        EXPECT_EQ(c.expected, history.ComputeTime())
            << c.minutes << " " << c.hour << ":" << c.minute << ":" << c.second;
    }
}

TEST_F(HistorySystem, InitRoundsUpToADivisorOfTheHour)
{
    const struct {
        unsigned int requested;
        unsigned int minutes;
        bool notice;
    } cases[] = {{1, 1, false},  {5, 5, false},  {12, 12, false}, {60, 60, false}, {7, 10, true},
                 {25, 30, true}, {61, 60, true}, {0, 60, true},   {45, 60, true}};
    FakeClockHistory history;
    for (const auto& c : cases) {
        m_log.Clear();
        EXPECT_EQ(kesErrorOk, history.Init(c.requested));
        EXPECT_EQ(c.minutes * 60000, history.GetExpiredTime()) << c.requested;
        const std::string notice = "History Time set to " + std::to_string(c.minutes) + " minutes";
        EXPECT_EQ(c.notice, Logged(notice)) << c.requested;
    }
}

TEST_F(HistorySystem, AlarmStatusLinesAreAppended)
{
    // The folder gets one separator however many it came with.
    for (const char* suffix : {"", "/", "//"}) {
        FakeClockHistory history;
        history.SetLocal(2015, 3, 7, 9, 5, 59);
        history.SetHistoryFolder(m_dir.Path() + suffix);
        unlink(m_dir.File("a").c_str());
        EXPECT_EQ(kesErrorOk, history.UpdateAlarmStatusFile(17, 3)) << suffix;
        EXPECT_EQ("201503070905|17|3\n", Read("a")) << suffix;
    }
    FakeClockHistory history;
    history.SetHistoryFolder(m_dir.Path());
    history.SetLocal(2015, 12, 31, 23, 0, 0);
    history.UpdateAlarmStatusFile(4000000000u, 255);
    EXPECT_EQ("201503070905|17|3\n201512312300|4000000000|255\n", Read("a"));

    history.SetHistoryFolder(m_dir.File("missing"));
    EXPECT_EQ(kesErrorFailed, history.UpdateAlarmStatusFile(17, 3));
    EXPECT_TRUE(Logged("Can not append file " + m_dir.File("missing") + "/a"));
}

TEST_F(HistorySystem, RegistrationRules)
{
    FakeClockHistory history;
    EXPECT_EQ(kesErrorOk, history.RegisterParameterDouble(5, kesEnergyDeviceString, 2));
    EXPECT_EQ(kesErrorFailed, history.RegisterParameterDouble(5, kesEnergyDevicePanel, 0));
    EXPECT_TRUE(Logged("UID already exist 5"));
    // The two tables are apart: the same UID may be an integer too.
    EXPECT_EQ(kesErrorOk, history.RegisterParameterInteger(5, kesEnergyDeviceAlarm, 3));
    EXPECT_EQ(kesErrorFailed, history.RegisterParameterInteger(5, kesEnergyDeviceAlarm, 3));
    // Unknown types are kept but stand in no file, and have no total.
    EXPECT_EQ(kesErrorOk, history.RegisterParameterDouble(6, static_cast<kesEEnergyDeviceType>(12), 2));
    EXPECT_EQ(kesErrorOk, history.RegisterParameterDouble(7, kesEnergyDeviceString, 0));
    EXPECT_EQ(kesErrorOk, history.RegisterParameterDouble(8, kesEnergyDeviceAmbient, 0));

    // Stop and Init on a stopped store keep the parameters.
    EXPECT_EQ(kesErrorOk, history.Stop());
    history.SetLocal(2015, 3, 14, 10, 0);
    history.Init(5);
    history.SetHistoryFolder(m_dir.Path());
    ASSERT_EQ(kesErrorOk, history.Start());
    EXPECT_EQ(kesErrorFailed, history.RegisterParameterDouble(9, kesEnergyDevicePanel, 0));
    EXPECT_TRUE(Logged("You must stop the system before to register a parameter"));

    Constant(history, LocalMs(2015, 3, 14, 10, 5), {{5, 120}, {6, 1}, {7, 230}, {8, 20}});
    // Voltage 7 is sampled but not stored; it still has its total, as every
    // parameter of a string device has.
    EXPECT_EQ("H|10\n5|120|120|120|10\n", Read("d"));
    EXPECT_EQ("14\n5|10.00\n7|0.00\n", Read("offset_energy_day"));
    EXPECT_EQ("", Read("offset_pulse"));
}

TEST_F(HistorySystem, TheFormatExampleIsReproducedExactly)
{
    auto history = Started(30, LocalMs(2015, 3, 14, 9, 30));
    Interval(*history, LocalMs(2015, 3, 14, 10, 0),
             {{ENERGY, 512, 480, 540.5}, {VALUE, 31.5, 30.2, 32}, {PULSE, 1204600, 0, 0}});
    Interval(*history, LocalMs(2015, 3, 14, 10, 30), {{VALUE, 31.7, 31, 32.4}, {PULSE, 1204900, 0, 0}});
    Interval(*history, LocalMs(2015, 3, 14, 11, 0),
             {{ENERGY, 600, 590, 611.2}, {VALUE, 32, 31.9, 32.1}, {PULSE, 1205300, 0, 0}});

    const std::string day = "H|10\n"
                            "101|512|480|540.5|256|f|f|f|256\n"
                            "201|31.5|30.2|32|31.7|31|32.4\n"
                            "301|1204.6|1204.9\n"
                            "H|11\n"
                            "101|600|590|611.2|556\n"
                            "201|32|31.9|32.1\n"
                            "301|1205.3\n";
    const std::string rows = "101|556\n201|31.7|30.2|32.4\n301|1205.3\n";
    EXPECT_EQ(day, Read("d"));
    EXPECT_EQ("D|14\n" + rows, Read("m"));
    EXPECT_EQ("M|3\n" + rows, Read("y"));
    EXPECT_EQ("Y|2015\n" + rows, Read("b"));
    EXPECT_EQ(day, Read("2015_03_14"));
    EXPECT_EQ("D|14\n" + rows, Read("2015_03"));
    EXPECT_EQ("M|3\n" + rows, Read("2015"));
    EXPECT_EQ("14\n101|556.00\n", Read("offset_energy_day"));
    EXPECT_EQ("301|1205300.00\n", Read("offset_pulse"));
    EXPECT_FALSE(Exists("d.tmp"));
}

TEST_F(HistorySystem, FirstIntervalIsShorterButCountsAsN)
{
    auto history = Started(5, LocalMs(2015, 3, 14, 12, 3));
    EXPECT_EQ(120000u, kes::Energy::kesEnegyHistoryItem::MS_TIME);
    Constant(*history, LocalMs(2015, 3, 14, 12, 5), {{ENERGY, 1200}});
    EXPECT_EQ(300000u, kes::Energy::kesEnegyHistoryItem::MS_TIME);
    Constant(*history, LocalMs(2015, 3, 14, 12, 10), {{ENERGY, 1200}});
    EXPECT_EQ("H|12\n101|1200|1200|1200|100|1200|1200|1200|200\n201|f|f|f|f|f|f\n301|0|0\n", Read("d"));
}

TEST_F(HistorySystem, SamplesBeforeStartAndOfOtherUidsAreDropped)
{
    FakeClockHistory history;
    history.RegisterParameterDouble(ENERGY, kesEnergyDeviceString, 2);
    history.SetLocal(2015, 3, 14, 12, 0);
    history.Init(5);
    history.SetHistoryFolder(m_dir.Path());
    history.SetValueAsDouble(ENERGY, 1200);
    ASSERT_EQ(kesErrorOk, history.Start());
    history.SetValueAsDouble(999, 5);
    history.SetValueAsInt(ENERGY, 5);
    history.SetClock(LocalMs(2015, 3, 14, 12, 5));
    history.Tick();
    EXPECT_EQ("H|12\n101|f|f|f|0\n", Read("d"));
}

TEST_F(HistorySystem, NoParametersStillKeepsTheFiles)
{
    auto history = Started(5, LocalMs(2015, 3, 14, 12, 0), false);
    history->SetClock(LocalMs(2015, 3, 14, 12, 5));
    history->Tick();
    EXPECT_EQ("H|12\n", Read("d"));
    EXPECT_EQ("D|14\n", Read("m"));
    EXPECT_EQ("M|3\n", Read("y"));
    EXPECT_EQ("Y|2015\n", Read("b"));
    EXPECT_EQ("14\n", Read("offset_energy_day"));
    EXPECT_EQ("", Read("offset_pulse"));
}

TEST_F(HistorySystem, MidnightRollsTheDayOver)
{
    auto history = Started(5, LocalMs(2015, 3, 14, 23, 50));
    Constant(*history, LocalMs(2015, 3, 14, 23, 55), {{ENERGY, 600}, {VALUE, 20}, {PULSE, 1000}});
    Constant(*history, LocalMs(2015, 3, 15, 0, 0), {{ENERGY, 600}, {VALUE, 20}, {PULSE, 2000}});

    // The interval that ended at midnight counts in no day.
    EXPECT_EQ("H|0\n101|600|600|600|0\n201|20|20|20\n301|2\n", Read("d"));
    EXPECT_EQ("H|23\n101|600|600|600|50\n201|20|20|20\n301|1\n", Read("2015_03_14"));
    EXPECT_FALSE(Exists("2015_03_15"));
    const std::string month = "D|14\n101|50\n201|20|20|20\n301|1\nD|15\n101|0\n201|20|20|20\n301|2\n";
    EXPECT_EQ(month, Read("m"));
    EXPECT_EQ(month, Read("2015_03"));
    EXPECT_EQ("M|3\n101|50\n201|20|20|20\n301|2\n", Read("y"));
    EXPECT_EQ("15\n101|0.00\n", Read("offset_energy_day"));

    Constant(*history, LocalMs(2015, 3, 15, 0, 5), {{ENERGY, 600}});
    EXPECT_EQ("H|0\n101|600|600|600|0|600|600|600|50\n201|20|20|20|f|f|f\n301|2|2\n", Read("d"));
    EXPECT_EQ(Read("d"), Read("2015_03_15"));
    EXPECT_EQ("D|14\n101|50\n201|20|20|20\n301|1\nD|15\n101|50\n201|10|0|20\n301|2\n", Read("m"));
    EXPECT_EQ("M|3\n101|100\n201|15|0|20\n301|2\n", Read("y"));
}

TEST_F(HistorySystem, MissingDayFileAtMidnightIsAnOrdinaryTick)
{
    auto history = Started(5, LocalMs(2015, 3, 14, 23, 50));
    Constant(*history, LocalMs(2015, 3, 14, 23, 55), {{ENERGY, 600}});
    const std::string yesterday = Read("2015_03_14");
    ASSERT_EQ(0, unlink(m_dir.File("d").c_str()));
    Constant(*history, LocalMs(2015, 3, 15, 0, 0), {{ENERGY, 600}});
    // The totals were not reset, and yesterday's copy was not overwritten.
    EXPECT_EQ("H|0\n101|600|600|600|100\n201|f|f|f\n301|0\n", Read("d"));
    EXPECT_EQ(yesterday, Read("2015_03_14"));
}

TEST_F(HistorySystem, YearEndRollsDayMonthAndYear)
{
    auto history = Started(5, LocalMs(2015, 12, 31, 23, 50));
    Constant(*history, LocalMs(2015, 12, 31, 23, 55), {{ENERGY, 600}, {VALUE, 20}, {PULSE, 1000}});
    Constant(*history, LocalMs(2016, 1, 1, 0, 0), {{ENERGY, 600}, {VALUE, 30}, {PULSE, 2000}});
    Constant(*history, LocalMs(2016, 1, 1, 0, 5), {{ENERGY, 1200}, {VALUE, 40}, {PULSE, 3000}});

    EXPECT_EQ("H|23\n101|600|600|600|50\n201|20|20|20\n301|1\n", Read("2015_12_31"));
    EXPECT_EQ("D|31\n101|50\n201|20|20|20\n301|1\n", Read("2015_12"));
    EXPECT_EQ("M|12\n101|50\n201|20|20|20\n301|1\n", Read("2015"));
    const std::string day = "H|0\n101|600|600|600|0|1200|1200|1200|100\n201|30|30|30|40|40|40\n301|2|3\n";
    EXPECT_EQ(day, Read("d"));
    EXPECT_EQ(day, Read("2016_01_01"));
    EXPECT_EQ("D|1\n101|100\n201|35|30|40\n301|3\n", Read("m"));
    EXPECT_EQ(Read("m"), Read("2016_01"));
    EXPECT_EQ("M|1\n101|100\n201|35|30|40\n301|3\n", Read("y"));
    EXPECT_EQ(Read("y"), Read("2016"));
    EXPECT_EQ("Y|2015\n101|50\n201|20|20|20\n301|1\nY|2016\n101|100\n201|35|30|40\n301|3\n", Read("b"));
}

TEST_F(HistorySystem, MonthEndBeginsANewYearBlock)
{
    auto history = Started(60, LocalMs(2015, 3, 31, 22, 0));
    Constant(*history, LocalMs(2015, 3, 31, 23, 0), {});
    Constant(*history, LocalMs(2015, 4, 1, 0, 0), {{ENERGY, 600}});
    Constant(*history, LocalMs(2015, 4, 1, 1, 0), {{ENERGY, 600}});
    EXPECT_EQ("H|23\n101|f|f|f|0\n201|f|f|f\n301|0\n", Read("2015_03_31"));
    EXPECT_EQ("D|31\n101|0\n201|0|0|0\n301|0\n", Read("2015_03"));
    EXPECT_EQ("D|1\n101|600\n201|0|0|0\n301|0\n", Read("m"));
    EXPECT_EQ("M|3\n101|0\n201|0|0|0\n301|0\nM|4\n101|600\n201|0|0|0\n301|0\n", Read("y"));
    EXPECT_EQ(Read("y"), Read("2015"));
    EXPECT_EQ("Y|2015\n101|600\n201|0|0|0\n301|0\n", Read("b"));
}

TEST_F(HistorySystem, RestartOnTheSameDayContinuesTheTotals)
{
    auto history = Started(5, LocalMs(2015, 3, 14, 10, 0));
    Constant(*history, LocalMs(2015, 3, 14, 10, 5), {{ENERGY, 1200}, {PULSE, 5000}});
    history.reset();

    history = Started(5, LocalMs(2015, 3, 14, 10, 7));
    Constant(*history, LocalMs(2015, 3, 14, 10, 10), {{ENERGY, 1200}, {PULSE, 6000}});
    EXPECT_EQ("H|10\n101|1200|1200|1200|100|1200|1200|1200|200\n201|f|f|f|f|f|f\n301|5|6\n", Read("d"));
    // The empty piece behind the last line feed reads back as UID 0.
    EXPECT_EQ("14\n0|0.00\n101|200.00\n", Read("offset_energy_day"));
}

TEST_F(HistorySystem, RestartOnALaterDayStartsFromZeroInTheOldDayFile)
{
    auto history = Started(5, LocalMs(2015, 3, 14, 10, 0));
    Constant(*history, LocalMs(2015, 3, 14, 10, 5), {{ENERGY, 1200}});
    history.reset();

    history = Started(5, LocalMs(2015, 3, 15, 10, 7));
    Constant(*history, LocalMs(2015, 3, 15, 10, 10), {{ENERGY, 1200}});
    Constant(*history, LocalMs(2015, 3, 15, 11, 0), {{ENERGY, 1200}});
    const std::string day = "H|10\n101|1200|1200|1200|100|1200|1200|1200|100\n201|f|f|f|f|f|f\n301|0|0\n"
                            "H|11\n101|1200|1200|1200|200\n201|f|f|f\n301|0\n";
    EXPECT_EQ(day, Read("d"));
    EXPECT_EQ(day, Read("2015_03_15"));
    EXPECT_EQ("D|14\n101|100\n201|0|0|0\n301|0\nD|15\n101|200\n201|0|0|0\n301|0\n", Read("m"));

    // The next midnight files the whole text under the date of the restart.
    history->SetClock(LocalMs(2015, 3, 16, 0, 0));
    history->Tick();
    EXPECT_EQ(day, Read("2015_03_15"));
    EXPECT_EQ("H|0\n101|f|f|f|0\n201|f|f|f\n301|0\n", Read("d"));
}

TEST_F(HistorySystem, ClockSteppedBackToAnEarlierDayCutsTheMonth)
{
    auto history = Started(60, LocalMs(2015, 3, 5, 9, 0));
    for (int day : {5, 6, 20})
        Constant(*history, LocalMs(2015, 3, day, 10, 0), {{ENERGY, 60}});
    EXPECT_NE(std::string::npos, Read("m").find("D|20\n"));

    Constant(*history, LocalMs(2015, 3, 5, 11, 0), {{ENERGY, 60}});
    EXPECT_EQ("D|5\n101|240\n201|0|0|0\n301|0\n", Read("m"));
    // Back within the day file: the blocks of the earlier hours are extended again.
    EXPECT_EQ("H|10\n101|60|60|60|60|60|60|60|120|60|60|60|180\n201|f|f|f|f|f|f|f|f|f\n301|0|0|0\n"
              "H|11\n101|60|60|60|240\n201|f|f|f\n301|0\n",
              Read("d"));
}

TEST_F(HistorySystem, PulseMeterResetRunningAndAcrossARestart)
{
    auto history = Started(5, LocalMs(2015, 3, 14, 10, 0));
    Constant(*history, LocalMs(2015, 3, 14, 10, 5), {{PULSE, 600000}});
    Constant(*history, LocalMs(2015, 3, 14, 10, 10), {{PULSE, 3000}});
    Constant(*history, LocalMs(2015, 3, 14, 10, 15), {{PULSE, 4000}});
    EXPECT_EQ("301|604000.00\n", Read("offset_pulse"));
    history.reset();

    // Reset again while stopped: the count goes on from the saved total.
    history = Started(5, LocalMs(2015, 3, 15, 10, 0));
    Constant(*history, LocalMs(2015, 3, 15, 10, 5), {});
    Constant(*history, LocalMs(2015, 3, 15, 10, 10), {{PULSE, 5000}});
    EXPECT_EQ("H|10\n101|f|f|f|0|f|f|f|0|f|f|f|0|f|f|f|0|f|f|f|0\n201|f|f|f|f|f|f|f|f|f|f|f|f|f|f|f\n"
              "301|600|600|604|0|609\n",
              Read("d"));
}

TEST_F(HistorySystem, OffsetFilesAreReadAsWritten)
{
    // the texts of "offset_energy_day" and "offset_pulse"; nullptr for no file
    struct Offsets {
        const char* energy;
        const char* pulse;
    };
    const struct {
        const char* name;
        Offsets before;
        Offsets after;
        bool failureLogged;
    } cases[] = {
        {"same day, the empty last piece brings UID 0",
         {"14\n101|12.50\n", "301|7000.00\n999|5\n"},
         {"14\n0|0.00\n101|12.50\n", "301|0.00\n"},
         false},
        {"another day", {"13\n101|12.50\n", "301|7000\n"}, {"14\n101|0.00\n", "301|0.00\n"}, false},
        {"one field and bad lines", {"14\n101\n7|1|2\nabc|5", ""}, {"14\n0|5.00\n101|0.00\n", "301|0.00\n"}, false},
        {"empty file", {"", ""}, {"14\n101|0.00\n", "301|0.00\n"}, false},
        {"no files", {nullptr, nullptr}, {"14\n101|0.00\n", "301|0.00\n"}, true},
    };
    for (const auto& c : cases) {
        m_log.Clear();
        unlink(m_dir.File("offset_energy_day").c_str());
        unlink(m_dir.File("offset_pulse").c_str());
        if (c.before.energy)
            kes_test::WriteFile(m_dir.File("offset_energy_day"), c.before.energy);
        if (c.before.pulse)
            kes_test::WriteFile(m_dir.File("offset_pulse"), c.before.pulse);
        auto history = Started(5, LocalMs(2015, 3, 14, 10, 0));
        history->SetClock(LocalMs(2015, 3, 14, 10, 5));
        history->Tick();
        EXPECT_EQ(c.after.energy, Read("offset_energy_day")) << c.name;
        EXPECT_EQ(c.after.pulse, Read("offset_pulse")) << c.name;
        EXPECT_EQ(c.failureLogged, Logged("Can not read offset file")) << c.name;
    }
}

TEST_F(HistorySystem, PulseBaseFromTheOffsetFile)
{
    // Without the energy file the pulse file is not read at all.
    kes_test::WriteFile(m_dir.File("offset_pulse"), "301|1000000.00\n");
    auto first = Started(5, LocalMs(2015, 3, 14, 10, 0));
    Constant(*first, LocalMs(2015, 3, 14, 10, 5), {{PULSE, 5000}});
    EXPECT_NE(std::string::npos, Read("d").find("\n301|5\n"));
    first.reset();
    unlink(m_dir.File("d").c_str());

    kes_test::WriteFile(m_dir.File("offset_energy_day"), "14\n");
    kes_test::WriteFile(m_dir.File("offset_pulse"), "301|1000000.00\n");
    auto history = Started(5, LocalMs(2015, 3, 14, 10, 0));
    Constant(*history, LocalMs(2015, 3, 14, 10, 5), {{PULSE, 5000}});
    Constant(*history, LocalMs(2015, 3, 14, 10, 10), {{PULSE, 7000}});
    // The meter was reset while the daemon stood still: it counts on from the base.
    EXPECT_NE(std::string::npos, Read("d").find("\n301|1005|1007\n"));
}

TEST_F(HistorySystem, HandEditedDayFilesNeverLoseAHeader)
{
    const struct {
        const char* before;
        const char* after;
    } cases[] = {
        {"H|10\n101|1|1|1|1\n", "H|10\n101|1|1|1|1|f|f|f|0\n201|f|f|f\n301|0\n"},
        {"H|10\n101|1|1|1|1\nH|11\n101|2|2|2|2\n", "H|10\n101|1|1|1|1|f|f|f|0\n201|f|f|f\n301|0\nH|11\n101|2|2|2|2\n"},
        {"H|10\n101|1|1|1|1\n201|3|3", "H|10\n101|1|1|1|1|f|f|f|0\n201|3|3|f|f|f\n301|0\n"},
        {"garbage", "garbage\nH|10\n101|f|f|f|0\n201|f|f|f\n301|0\n"},
        {"H|10\n\n101|1\n", "H|10\n101|f|f|f|0\n201|f|f|f\n301|0\n\n101|1\n"},
        {"H|10\n", "H|10\n101|f|f|f|0\n201|f|f|f\n301|0\n"},
    };
    for (const auto& c : cases) {
        kes_test::WriteFile(m_dir.File("d"), c.before);
        auto history = Started(5, LocalMs(2015, 3, 14, 10, 0));
        history->SetClock(LocalMs(2015, 3, 14, 10, 5));
        history->Tick();
        EXPECT_EQ(c.after, Read("d")) << c.before;
        EXPECT_EQ(0u, Read("m").find("D|14\n")) << c.before;
    }
}

TEST_F(HistorySystem, AFailedDayUpdateEndsTheTick)
{
    auto history = Started(5, LocalMs(2015, 3, 14, 10, 0));
    const std::string missing = m_dir.File("missing");
    history->SetHistoryFolder(missing);
    Constant(*history, LocalMs(2015, 3, 14, 10, 5), {{ENERGY, 1200}});
    EXPECT_TRUE(Logged("Can not update day file " + missing + "/d"));
    EXPECT_FALSE(Logged("Can not update month file"));

    // The total has grown all the same; the next good tick shows it.
    history->SetHistoryFolder(m_dir.Path());
    Constant(*history, LocalMs(2015, 3, 14, 10, 10), {{ENERGY, 1200}});
    EXPECT_EQ("H|10\n101|1200|1200|1200|200\n201|f|f|f\n301|0\n", Read("d"));
}

TEST_F(HistorySystem, StopForgetsTheParameters)
{
    auto history = Started(5, LocalMs(2015, 3, 14, 10, 0));
    EXPECT_EQ(kesErrorOk, history->Stop());
    EXPECT_EQ(kesErrorOk, history->Stop());
    EXPECT_EQ(kesErrorOk, history->Start());
    history->SetClock(LocalMs(2015, 3, 14, 10, 5));
    history->Tick();
    EXPECT_EQ("H|10\n", Read("d"));
}

TEST_F(HistorySystem, TheTimerTicksAtTheBoundary)
{
    // One second before a boundary: the timer's own thread writes the files.
    std::unique_ptr<FakeClockHistory> history(new FakeClockHistory());
    history->RegisterParameterDouble(ENERGY, kesEnergyDeviceString, 2);
    history->SetLocal(2015, 3, 14, 12, 4, 59);
    history->Init(5);
    history->SetHistoryFolder(m_dir.Path());
    history->LetTimerTick(true);
    ASSERT_EQ(kesErrorOk, history->Start());
    for (int wait = 0; wait < 100 && !Exists("offset_energy_day"); ++wait)
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(kesErrorOk, history->Stop());
    EXPECT_EQ(0u, Read("d").find("H|12\n101|f|f|f|0\n"));
}

TEST_F(HistorySystem, SamplesFromOtherThreadsDuringTicks)
{
    auto history = Started(5, LocalMs(2015, 3, 14, 10, 0));
    std::atomic<bool> stop{false};
    std::vector<std::thread> lines;
    for (unsigned int uid : {ENERGY, VALUE, PULSE})
        lines.emplace_back([&history, &stop, uid] {
            for (int i = 0; i < 100000 && !stop; ++i) {
                history->SetValueAsDouble(uid, 100 + i % 7);
                history->SetValueAsInt(uid, i);
            }
        });
    for (int tick = 1; tick <= 6; ++tick) {
        history->SetClock(LocalMs(2015, 3, 14, 10, 5 * tick));
        history->Tick();
    }
    stop = true;
    for (std::thread& line : lines)
        line.join();
    const std::string day = Read("d");
    EXPECT_EQ(0u, day.find("H|10\n101|"));
    EXPECT_EQ(4u, static_cast<unsigned int>(std::count(day.begin(), day.end(), '\n')));
}

TEST_F(HistorySystem, ReplacementKeepsWhatTheUserSetUp)
{
    // "b" and "m" link to another disk; "d" has its own mode and owner; a
    // killed run left temporary files; "notes.tmp" is the user's own.
    kes_test::TempDir disk;
    kes_test::WriteFile(disk.File("b"), "Y|2014\n101|7\n");
    kes_test::WriteFile(disk.File("m"), "D|30\n101|1\n");
    ASSERT_EQ(0, symlink(disk.File("b").c_str(), m_dir.File("b").c_str()));
    ASSERT_EQ(0, symlink(disk.File("m").c_str(), m_dir.File("m").c_str()));
    kes_test::WriteFile(m_dir.File("d"), "H|23\n");
    ASSERT_EQ(0, chmod(m_dir.File("d").c_str(), 0640));
    const bool root = geteuid() == 0;
    if (root) {
        ASSERT_EQ(0, chown(m_dir.File("d").c_str(), 1234, 5678));
    }
    for (const char* name : {"d.tmp", "y.tmp", "2015_03_31.tmp", "offset_pulse.tmp", "notes.tmp"})
        kes_test::WriteFile(m_dir.File(name), "x");
    kes_test::WriteFile(disk.File("b.tmp"), "x");

    auto history = Started(5, LocalMs(2015, 3, 31, 23, 50));
    Constant(*history, LocalMs(2015, 3, 31, 23, 55), {{ENERGY, 600}});
    Constant(*history, LocalMs(2015, 4, 1, 0, 0), {{ENERGY, 600}});

    // The links stay and lead to the new text; the linked month was copied
    // to its dated name at the rollover.
    char target[512] = {};
    ASSERT_LT(0, readlink(m_dir.File("b").c_str(), target, sizeof(target) - 1));
    EXPECT_EQ(disk.File("b"), target);
    EXPECT_EQ(0u, Read("b").find("Y|2014\n101|7\nY|2015\n"));
    EXPECT_TRUE(Read("m").find("D|1\n") == 0 && Read("2015_03").find("D|30\n101|1\nD|31\n") == 0);
    ASSERT_LT(0, readlink(m_dir.File("m").c_str(), target, sizeof(target) - 1));
    // The day file keeps its bits and owner, also as the new file after its rollover.
    for (const char* name : {"d", "2015_03_31"}) {
        struct stat info;
        ASSERT_EQ(0, stat(m_dir.File(name).c_str(), &info)) << name;
        EXPECT_EQ(0640u, info.st_mode & 07777) << name;
        if (root) {
            EXPECT_TRUE(info.st_uid == 1234 && info.st_gid == 5678) << name;
        }
    }
    // No other name in either folder.
    auto names = [](const std::string& folder) {
        std::set<std::string> found;
        DIR* dir = opendir(folder.c_str());
        while (dirent* entry = dir ? readdir(dir) : nullptr)
            if (entry->d_name[0] != '.')
                found.insert(entry->d_name);
        if (dir)
            closedir(dir);
        return found;
    };
    EXPECT_EQ((std::set<std::string>{"2015", "2015_03", "2015_03_31", "b", "d", "m", "notes.tmp", "offset_energy_day",
                                     "offset_pulse", "y"}),
              names(m_dir.Path()));
    EXPECT_EQ((std::set<std::string>{"b", "m"}), names(disk.Path()));
}

namespace {

// Anything but a regular file where a file of the store belongs.
typedef std::tuple<const char*, kes_test::Intruder> IntruderCase;

std::vector<IntruderCase> intruder_cases()
{
    std::vector<IntruderCase> cases;
    for (const char* name : {"d", "m", "y", "b", "2015_03_14", "offset_energy_day", "offset_pulse", "a"})
        for (const kes_test::Intruder& intruder : kes_test::INTRUDERS)
            // A dated copy is only ever replaced, never read: it may be unreadable.
            if (std::string(name) != "2015_03_14" || std::string(intruder.name) != "unreadable")
                cases.emplace_back(name, intruder);
    return cases;
}

class HistoryIntruder : public ::testing::TestWithParam<IntruderCase> {};

} // namespace

TEST_P(HistoryIntruder, IsNamedInARecordAndLeftAsItWas)
{
    const std::string name = std::get<0>(GetParam());
    kes_test::TempDir dir;
    if (name != "offset_energy_day") // so that "offset_pulse" is read at the start as well
        kes_test::WriteFile(dir.File("offset_energy_day"), "14\n101|1.00\n");
    FakeClockHistory history;
    history.RegisterParameterDouble(ENERGY, kesEnergyDeviceString, 2);
    history.SetLocal(2015, 3, 14, 10, 0);
    history.Init(5);
    history.SetHistoryFolder(dir.Path());
    if (!kes_test::RefusesIntruder(dir.File(name), std::get<1>(GetParam()), [&history] {
            history.Start();
            history.SetLocal(2015, 3, 14, 10, 5);
            history.Tick();
            history.UpdateAlarmStatusFile(17, 3);
        }))
        GTEST_SKIP() << "root reads every file";
}

INSTANTIATE_TEST_SUITE_P(Files, HistoryIntruder, ::testing::ValuesIn(intruder_cases()),
                         [](const ::testing::TestParamInfo<IntruderCase>& info) {
                             return std::string(std::get<0>(info.param)) + "_" + std::get<1>(info.param).name;
                         });
