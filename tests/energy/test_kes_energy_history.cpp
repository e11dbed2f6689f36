#include <gtest/gtest.h>

#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <memory>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "error_capture.h"
#include "kes_error.h"
#include "kes_history_fake.h"
#include "test_process.h"

using kes_test::FakeClockHistory;
using kes_test::LocalMs;
using namespace kes;

namespace {

// Parameters of the examples: an energy, a value and a pulse parameter.
const unsigned int ENERGY = 101, VALUE = 201, PULSE = 301;
// Central European rules, written out so that no zone database is needed.
const char* const ROME = "CET-1CEST,M3.5.0,M10.5.0/3";

// A local time YYYYMMDDhhmm, read in the zone of its case; plus moves it on in
// real minutes (the second 02:30 of a repeated hour is 01:30 plus 120).
struct When {
    long long t;
    int plus, second;
    When(long long i_t, int i_plus = 0, int i_second = 0) : t(i_t), plus(i_plus), second(i_second) {}
    unsigned long long Ms() const
    {
        return LocalMs(int(t / 100000000), int(t / 1000000 % 100), int(t / 10000 % 100), int(t / 100 % 100),
                       int(t % 100), second) +
               plus * 60000ull;
    }
};

// Sets TZ for a case, if it has one, and puts the old one back.
struct Zone {
    const char* tz;
    const char* old = getenv("TZ");
    const std::string kept = old ? old : "";
    explicit Zone(const char* i_tz) : tz(i_tz) { Set(tz); }
    ~Zone() { Set(tz ? (old ? kept.c_str() : "") : nullptr); }
    static void Set(const char* value)
    {
        if (value)
            *value ? setenv("TZ", value, 1) : unsetenv("TZ");
        tzset();
    }
};

// clang-format off
struct Param { unsigned int uid; int type, fid; };
// clang-format on
const std::vector<Param> EXAMPLE = {
    {ENERGY, kesEnergyDeviceString, 2}, {VALUE, kesEnergyDevicePanel, 0}, {PULSE, kesEnergyDevicePulseCounter, 1}};

// Every fid of every device type and one past its fields, as UID type*100+fid,
// and a number that is no type.
std::vector<Param> EveryFid()
{
    std::vector<Param> params;
    const int fids[][2] = {{1, 3}, {2, 4}, {3, 5}, {4, 1}, {5, 3}, {6, 6}, {7, 10}, {8, 5}, {9, 11}, {10, 4}, {11, 8}};
    for (const auto& type : fids)
        for (int fid = 0; fid < type[1]; ++fid)
            params.push_back({static_cast<unsigned int>(type[0] * 100 + fid), type[0], fid});
    params.push_back({1200, 12, 0});
    return params;
}

// START: a new store, whose samples come before Start and are dropped; TICK:
// samples, then the tick; STOPSTART: Stop and Start again at the same time;
// LOST: a tick while the folder is missing.
// clang-format off
enum Act { START, TICK, STOPSTART, LOST };
// A sample msBefore the tick, or at the start of the interval for 0.
struct Sample { unsigned int uid; double value; unsigned int msBefore = 0; };
// One or more file names, apart by blanks, that hold the same text; nullptr: no such file.
struct File { const char* names; const char* text; };
struct Step { Act act; When at; std::vector<Sample> samples; std::vector<File> expect; };
struct Scenario {
    const char* name; const char* tz; unsigned int minutes; std::vector<Param> params; std::vector<File> before;
    std::vector<Step> steps; const char* logged = nullptr; const char* unlogged = nullptr;
};
// clang-format on

// Every parameter of EveryFid held at UID * 100 through the interval.
std::vector<Sample> Held()
{
    std::vector<Sample> samples;
    for (const Param& p : EveryFid())
        samples.push_back({p.uid, p.uid * 100.0});
    return samples;
}

class HistorySystem : public ::testing::Test {
protected:
    std::string Read(const std::string& name) const { return kes_test::ReadFile(m_dir->File(name)); }
    bool Exists(const std::string& name) const { return access(m_dir->File(name).c_str(), F_OK) == 0; }

    // Each case on a folder of its own, unless the test prepared the folder.
    void Run(const Scenario& c, bool fresh = true)
    {
        Zone zone(c.tz);
        m_log.Clear();
        if (fresh)
            m_dir.reset(new kes_test::MemoryDir());
        for (const File& f : c.before)
            kes_test::WriteFile(m_dir->File(f.names), f.text);
        std::unique_ptr<FakeClockHistory> history;
        for (size_t i = 0; i < c.steps.size(); ++i) {
            const Step& step = c.steps[i];
            const unsigned long long at = step.at.Ms();
            if (step.act == START) {
                history.reset();
                history.reset(new FakeClockHistory());
                for (const Param& p : c.params)
                    history->RegisterParameterDouble(p.uid, kesEEnergyDeviceType(p.type), (unsigned char)p.fid);
                history->SetClock(at);
                history->Init(c.minutes);
            } else if (step.act == STOPSTART) {
                EXPECT_TRUE(history->Stop() == kesErrorOk && history->Stop() == kesErrorOk);
            }
            history->SetHistoryFolder(step.act == LOST ? m_dir->File("missing") : m_dir->Path());
            for (const Sample& s : step.samples) {
                if (s.msBefore)
                    history->SetClock(at - s.msBefore);
                history->SetValueAsDouble(s.uid, s.value);
            }
            if (step.act == START || step.act == STOPSTART) {
                EXPECT_EQ(kesErrorOk, history->Start()) << c.name;
            } else {
                history->SetClock(at);
                history->Tick();
            }
            for (const File& f : step.expect) {
                std::istringstream names(f.names);
                for (std::string name; names >> name;)
                    EXPECT_EQ(f.text ? f.text : "(none)", Exists(name) ? Read(name) : "(none)")
                        << c.name << ", step " << i << ", file " << name;
            }
        }
        EXPECT_TRUE(!c.logged || m_log.Contains(c.logged)) << c.name;
        EXPECT_TRUE(!c.unlogged || !m_log.Contains(c.unlogged)) << c.name;
    }

    kes_test::ErrorCapture m_log;
    std::unique_ptr<kes_test::MemoryDir> m_dir{new kes_test::MemoryDir()};
};

} // namespace

TEST_F(HistorySystem, ComputeTimeGivesTheTimeToTheNextBoundary)
{
    // clang-format off
    const struct { const char* tz; unsigned int minutes; When at; unsigned int expected; } cases[] = {
        {nullptr, 5, {201503141203, 0, 20}, 100000}, {nullptr, 5, {201503141205, 0, 0}, 300000},
        {nullptr, 5, {201503141204, 0, 59}, 1000},   {nullptr, 60, {201503142359, 0, 30}, 30000},
        {nullptr, 1, {201503141203, 0, 20}, 40000},  {nullptr, 30, {201503140930, 0, 0}, 1800000},
        {nullptr, 12, {201503142350, 0, 0}, 600000},
        // The hour that is skipped and both passes of the hour that repeats.
        {ROME, 60, {201503290130, 0, 0}, 1800000},  {ROME, 15, {201503290150, 0, 10}, 590000},
        {ROME, 60, {201510250130, 60, 0}, 1800000}, {ROME, 60, {201510250130, 120, 0}, 1800000},
        {ROME, 20, {201510250130, 125, 0}, 300000},
    };
    // clang-format on
    FakeClockHistory history;
    for (const auto& c : cases) {
        Zone zone(c.tz);
        history.Init(c.minutes);
        history.SetClock(c.at.Ms());
        EXPECT_EQ(c.expected, history.ComputeTime()) << c.minutes << " " << c.at.t << "+" << c.at.plus;
    }
}

TEST_F(HistorySystem, InitRoundsUpToADivisorOfTheHour)
{
    const unsigned int cases[][3] = {{1, 1, 0},   {5, 5, 0},   {12, 12, 0}, {60, 60, 0}, {7, 10, 1},
                                     {25, 30, 1}, {61, 60, 1}, {0, 60, 1},  {45, 60, 1}};
    FakeClockHistory history;
    for (const auto& c : cases) {
        m_log.Clear();
        EXPECT_EQ(kesErrorOk, history.Init(c[0]));
        EXPECT_EQ(c[1] * 60000, history.GetExpiredTime()) << c[0];
        EXPECT_EQ(c[2] == 1, m_log.Contains("History Time set to " + std::to_string(c[1]) + " minutes")) << c[0];
    }
}

TEST_F(HistorySystem, AlarmStatusLinesAreAppended)
{
    // The folder gets one separator however many it came with.
    // clang-format off
    const struct { const char* suffix; When at; unsigned int uid, status; const char* expected; } cases[] = {
        {"", {201503070905, 0, 59}, 17, 3, "201503070905|17|3\n"},
        {"//", 201512312300, 4000000000u, 255, "201503070905|17|3\n201512312300|4000000000|255\n"},
    };
    // clang-format on
    for (const auto& c : cases) {
        FakeClockHistory history;
        history.SetClock(c.at.Ms());
        history.SetHistoryFolder(m_dir->Path() + c.suffix);
        EXPECT_EQ(kesErrorOk, history.UpdateAlarmStatusFile(c.uid, static_cast<unsigned char>(c.status)));
        EXPECT_EQ(c.expected, Read("a"));
    }
    FakeClockHistory history;
    history.SetHistoryFolder(m_dir->File("missing"));
    EXPECT_EQ(kesErrorFailed, history.UpdateAlarmStatusFile(17, 3));
    EXPECT_TRUE(m_log.Contains("Can not append file " + m_dir->File("missing") + "/a"));
}

TEST_F(HistorySystem, RegistrationRules)
{
    FakeClockHistory history;
    EXPECT_EQ(kesErrorOk, history.RegisterParameterDouble(5, kesEnergyDeviceString, 2));
    EXPECT_EQ(kesErrorFailed, history.RegisterParameterDouble(5, kesEnergyDevicePanel, 0));
    EXPECT_TRUE(m_log.Contains("UID already exist 5"));
    // The two tables are apart: the same UID may be an integer too.
    EXPECT_EQ(kesErrorOk, history.RegisterParameterInteger(5, kesEnergyDeviceAlarm, 3));
    EXPECT_EQ(kesErrorFailed, history.RegisterParameterInteger(5, kesEnergyDeviceAlarm, 3));
    history.SetHistoryFolder(m_dir->Path());
    ASSERT_EQ(kesErrorOk, history.Start());
    EXPECT_EQ(kesErrorFailed, history.RegisterParameterDouble(9, kesEnergyDevicePanel, 0));
    EXPECT_EQ(kesErrorFailed, history.RegisterParameterInteger(9, kesEnergyDevicePanel, 0));
    EXPECT_TRUE(m_log.Contains("You must stop the system before to register a parameter"));
}

TEST_F(HistorySystem, TicksWriteTheFilesOfEveryLevel)
{
    const char* const laterDay = "H|10\n101|1200|1200|1200|100|1200|1200|1200|100\n201|f|f|f|f|f|f\n301|0|0\n"
                                 "H|11\n101|1200|1200|1200|200\n201|f|f|f\n301|0\n";
    const char* const formatDay = "H|10\n101|512|480|540.5|256|f|f|f|256\n201|31.5|30.2|32|31.7|31|32.4\n"
                                  "301|1204.6|1204.9\nH|11\n101|600|590|611.2|556\n201|32|31.9|32.1\n301|1205.3\n";
    const char* const formatRows = "101|556\n201|31.7|30.2|32.4\n301|1205.3\n";
    const std::string formatMonth = std::string("D|14\n") + formatRows, formatYear = std::string("M|3\n") + formatRows,
                      formatBegin = std::string("Y|2015\n") + formatRows;
    const std::string yearEnd = "D|1\n101|100\n201|35|30|40\n301|3\n",
                      firstMonth = "M|1\n101|100\n201|35|30|40\n301|3\n";
    const char* const noOffsets = "14\n101|0.00\n";
    // clang-format off
    const Scenario cases[] = {
        {"the format example", nullptr, 30, EXAMPLE, {}, {{START, 201503140930, {}, {}},
            {TICK, 201503141000, {{ENERGY, 512}, {VALUE, 31.5}, {PULSE, 1204600}, {ENERGY, 480, 1000},
                                  {VALUE, 30.2, 1000}, {ENERGY, 540.5, 500}, {VALUE, 32, 500}}, {}},
            {TICK, 201503141030, {{VALUE, 31.7}, {PULSE, 1204900}, {VALUE, 31, 1000}, {VALUE, 32.4, 500}}, {}},
            {TICK, 201503141100, {{ENERGY, 600}, {VALUE, 32}, {PULSE, 1205300}, {ENERGY, 590, 1000},
                                  {VALUE, 31.9, 1000}, {ENERGY, 611.2, 500}, {VALUE, 32.1, 500}},
             {{"d 2015_03_14", formatDay}, {"m 2015_03", formatMonth.c_str()}, {"y 2015", formatYear.c_str()},
              {"b", formatBegin.c_str()}, {"offset_energy_day", "14\n101|556.00\n"},
              {"offset_pulse", "301|1205300.00\n"}, {"d.tmp", nullptr}}}}},
        // The first interval is shorter, but its energy counts for N minutes.
        {"samples before the start and of other UIDs are dropped", nullptr, 5, EXAMPLE, {}, {
            {START, 201503141203, {{ENERGY, 9999}}, {}}, {TICK, 201503141205, {{ENERGY, 1200}, {999, 5}}, {}},
            {TICK, 201503141210, {{ENERGY, 1200}},
             {{"d", "H|12\n101|1200|1200|1200|100|1200|1200|1200|200\n201|f|f|f|f|f|f\n301|0|0\n"}}}}},
        {"midnight rolls the day over", nullptr, 5, EXAMPLE, {}, {{START, 201503142350, {}, {}},
            {TICK, 201503142355, {{ENERGY, 600}, {VALUE, 20}, {PULSE, 1000}}, {}},
            // The interval that ended at midnight counts in no day.
            {TICK, 201503150000, {{ENERGY, 600}, {VALUE, 20}, {PULSE, 2000}},
             {{"d", "H|0\n101|600|600|600|0\n201|20|20|20\n301|2\n"},
              {"2015_03_14", "H|23\n101|600|600|600|50\n201|20|20|20\n301|1\n"}, {"2015_03_15", nullptr},
              {"m 2015_03", "D|14\n101|50\n201|20|20|20\n301|1\nD|15\n101|0\n201|20|20|20\n301|2\n"},
              {"y", "M|3\n101|50\n201|20|20|20\n301|2\n"}, {"offset_energy_day", "15\n101|0.00\n"}}},
            {TICK, 201503150005, {{ENERGY, 600}},
             {{"d 2015_03_15", "H|0\n101|600|600|600|0|600|600|600|50\n201|20|20|20|f|f|f\n301|2|2\n"},
              {"m", "D|14\n101|50\n201|20|20|20\n301|1\nD|15\n101|50\n201|10|0|20\n301|2\n"},
              {"y", "M|3\n101|100\n201|15|0|20\n301|2\n"}}}}},
        // Without a day file midnight is an ordinary tick: the totals stay and
        // yesterday's copy is not overwritten.
        {"missing day file at midnight", nullptr, 5, EXAMPLE, {{"2015_03_14", "yesterday\n"}}, {
            {START, 201503142355, {}, {}}, {TICK, 201503150000, {{ENERGY, 600}},
             {{"d", "H|0\n101|600|600|600|50\n201|f|f|f\n301|0\n"}, {"2015_03_14", "yesterday\n"}}}}},
        {"year end rolls day, month and year", nullptr, 5, EXAMPLE, {}, {{START, 201512312350, {}, {}},
            {TICK, 201512312355, {{ENERGY, 600}, {VALUE, 20}, {PULSE, 1000}}, {}},
            {TICK, 201601010000, {{ENERGY, 600}, {VALUE, 30}, {PULSE, 2000}}, {}},
            {TICK, 201601010005, {{ENERGY, 1200}, {VALUE, 40}, {PULSE, 3000}},
             {{"2015_12_31", "H|23\n101|600|600|600|50\n201|20|20|20\n301|1\n"},
              {"2015_12", "D|31\n101|50\n201|20|20|20\n301|1\n"}, {"2015", "M|12\n101|50\n201|20|20|20\n301|1\n"},
              {"d 2016_01_01", "H|0\n101|600|600|600|0|1200|1200|1200|100\n201|30|30|30|40|40|40\n301|2|3\n"},
              {"m 2016_01", yearEnd.c_str()}, {"y 2016", firstMonth.c_str()},
              {"b", "Y|2015\n101|50\n201|20|20|20\n301|1\nY|2016\n101|100\n201|35|30|40\n301|3\n"}}}}},
        // The empty piece behind the last line feed reads back as UID 0.
        {"restart on the same day continues the totals", nullptr, 5, EXAMPLE, {}, {{START, 201503141000, {}, {}},
            {TICK, 201503141005, {{ENERGY, 1200}, {PULSE, 5000}}, {}}, {START, 201503141007, {}, {}},
            {TICK, 201503141010, {{ENERGY, 1200}, {PULSE, 6000}},
             {{"d", "H|10\n101|1200|1200|1200|100|1200|1200|1200|200\n201|f|f|f|f|f|f\n301|5|6\n"},
              {"offset_energy_day", "14\n0|0.00\n101|200.00\n"}}}}},
        // The next midnight files the whole text under the date of the restart.
        {"restart on a later day starts from zero in the old day file", nullptr, 5, EXAMPLE, {}, {
            {START, 201503141000, {}, {}}, {TICK, 201503141005, {{ENERGY, 1200}}, {}}, {START, 201503151007, {}, {}},
            {TICK, 201503151010, {{ENERGY, 1200}}, {}},
            {TICK, 201503151100, {{ENERGY, 1200}}, {{"d 2015_03_15", laterDay},
                {"m", "D|14\n101|100\n201|0|0|0\n301|0\nD|15\n101|200\n201|0|0|0\n301|0\n"}}},
            {TICK, 201503160000, {}, {{"2015_03_15", laterDay}, {"d", "H|0\n101|f|f|f|0\n201|f|f|f\n301|0\n"}}}}},
        // Back within the day file, the blocks of the earlier hours are extended again.
        {"clock stepped back to an earlier day cuts the month", nullptr, 60, EXAMPLE, {}, {
            {START, 201503050900, {}, {}}, {TICK, 201503051000, {{ENERGY, 60}}, {}},
            {TICK, 201503061000, {{ENERGY, 60}}, {}}, {TICK, 201503201000, {{ENERGY, 60}}, {}},
            {TICK, 201503051100, {{ENERGY, 60}},
             {{"m", "D|5\n101|240\n201|0|0|0\n301|0\n"},
              {"d", "H|10\n101|60|60|60|60|60|60|60|120|60|60|60|180\n201|f|f|f|f|f|f|f|f|f\n301|0|0|0\n"
                    "H|11\n101|60|60|60|240\n201|f|f|f\n301|0\n"}}}}},
        // A meter reset while stopped: the count goes on from the saved total.
        {"pulse meter reset running and across a restart", nullptr, 5, EXAMPLE, {}, {{START, 201503141000, {}, {}},
            {TICK, 201503141005, {{PULSE, 600000}}, {}}, {TICK, 201503141010, {{PULSE, 3000}}, {}},
            {TICK, 201503141015, {{PULSE, 4000}}, {{"offset_pulse", "301|604000.00\n"}}}, {START, 201503151000, {}, {}},
            {TICK, 201503151005, {}, {}}, {TICK, 201503151010, {{PULSE, 5000}},
             {{"d", "H|10\n101|f|f|f|0|f|f|f|0|f|f|f|0|f|f|f|0|f|f|f|0\n201|f|f|f|f|f|f|f|f|f|f|f|f|f|f|f\n"
                    "301|600|600|604|0|609\n"}}}}},
        // Today's totals and every pulse base are read; a line of one field is a
        // total of 0, other lines and unknown UIDs are passed over.
        {"offsets of today", nullptr, 5, EXAMPLE, {{"offset_energy_day", "14\n101|12.50\n7\n8|1|2\nabc|5"},
            {"offset_pulse", "301|1000000.00\n999|5\n302\n"}}, {{START, 201503141000, {}, {}},
            {TICK, 201503141005, {{PULSE, 5000}}, {{"d", "H|10\n101|f|f|f|12.5\n201|f|f|f\n301|1005\n"},
                {"offset_energy_day", "14\n0|5.00\n7|0.00\n101|12.50\n"}, {"offset_pulse", "301|1005000.00\n"}}}},
         nullptr, "Can not read offset file"},
        {"offsets of another day", nullptr, 5, EXAMPLE, {{"offset_energy_day", "13\n101|12.50\n"},
            {"offset_pulse", "301|7000\n"}}, {{START, 201503141000, {}, {}}, {TICK, 201503141005, {{PULSE, 5000}},
            {{"d", "H|10\n101|f|f|f|0\n201|f|f|f\n301|12\n"}, {"offset_energy_day", noOffsets}}}}},
        // Without the energy offsets the pulse offsets are not read at all.
        {"no energy offsets", nullptr, 5, EXAMPLE, {{"offset_pulse", "301|1000000.00\n"}}, {
            {START, 201503141000, {}, {}}, {TICK, 201503141005, {{PULSE, 5000}},
             {{"d", "H|10\n101|f|f|f|0\n201|f|f|f\n301|5\n"}, {"offset_energy_day", noOffsets}}}},
         "Can not read offset file"},
        // The tick ends at the day file; the total has grown all the same.
        {"a failed day update ends the tick", nullptr, 5, EXAMPLE, {}, {{START, 201503141000, {}, {}},
            {LOST, 201503141005, {{ENERGY, 1200}}, {{"d", nullptr}}}, {TICK, 201503141010, {{ENERGY, 1200}},
             {{"d", "H|10\n101|1200|1200|1200|200\n201|f|f|f\n301|0\n"}}}},
         "Can not update day file ", "Can not update month file"},
        {"stop forgets the parameters", nullptr, 5, EXAMPLE, {}, {{START, 201503141000, {}, {}},
            {STOPSTART, 201503141000, {}, {}}, {TICK, 201503141005, {{ENERGY, 1200}}, {{"d", "H|10\n"}}}}},
        // Which row each fid of each device type gets, and which totals are kept.
        {"every fid of every device type", nullptr, 60, EveryFid(), {}, {{START, 201503140900, {}, {}},
            {TICK, 201503141000, Held(),
             {{"d", "H|10\n202|20200|20200|20200|20200\n302|30200|30200|30200|30200\n602|60200|60200|60200|60200\n"
                    "604|60400|60400|60400|60400\n702|70200|70200|70200|70200\n704|70400|70400|70400|70400\n"
                    "706|70600|70600|70600|70600\n708|70800|70800|70800|70800\n"
                    "1002|100200|100200|100200|100200\n1102|110200|110200|110200|110200\n"
                    "1104|110400|110400|110400|110400\n1106|110600|110600|110600|110600\n"
                    "100|10000|10000|10000\n101|10100|10100|10100\n102|10200|10200|10200\n"
                    "501|50.1\n801|80.1\n803|80.3\n901|90.1\n903|90.3\n905|90.5\n907|90.7\n909|90.9\n"},
              {"offset_energy_day", "14\n200|0.00\n201|0.00\n202|20200.00\n203|0.00\n"
                                    "300|0.00\n301|0.00\n302|30200.00\n303|0.00\n304|0.00\n"
                                    "600|0.00\n601|0.00\n602|60200.00\n603|0.00\n604|60400.00\n605|0.00\n"
                                    "700|0.00\n701|0.00\n702|70200.00\n703|0.00\n704|70400.00\n705|0.00\n"
                                    "706|70600.00\n707|0.00\n708|70800.00\n709|0.00\n"
                                    "1000|0.00\n1001|0.00\n1002|100200.00\n1003|0.00\n"
                                    "1100|0.00\n1101|0.00\n1102|110200.00\n1103|0.00\n1104|110400.00\n1105|0.00\n"
                                    "1106|110600.00\n1107|0.00\n"},
              {"offset_pulse", "500|0.00\n501|50100.00\n502|0.00\n800|0.00\n801|80100.00\n802|0.00\n"
                               "803|80300.00\n804|0.00\n900|0.00\n901|90100.00\n902|0.00\n903|90300.00\n904|0.00\n"
                               "905|90500.00\n906|0.00\n907|90700.00\n908|0.00\n909|90900.00\n910|0.00\n"}}}}},
        // Daylight saving: the hour that repeats extends its block, the hour that is skipped has none.
        {"the hour that repeats", ROME, 60, EXAMPLE, {}, {{START, 201510250130, {}, {}},
            {TICK, {201510250130, 30}, {{ENERGY, 60}}, {}}, {TICK, {201510250130, 90}, {{ENERGY, 60}}, {}},
            {TICK, {201510250130, 150}, {{ENERGY, 60}},
             {{"d", "H|2\n101|60|60|60|60|60|60|60|120\n201|f|f|f|f|f|f\n301|0|0\n"
                    "H|3\n101|60|60|60|180\n201|f|f|f\n301|0\n"}}}}},
        {"the hour that is skipped", ROME, 60, EXAMPLE, {}, {{START, 201503290130, {}, {}},
            {TICK, {201503290130, 30}, {{ENERGY, 60}}, {}}, {TICK, {201503290130, 90}, {{ENERGY, 60}},
             {{"d", "H|3\n101|60|60|60|60\n201|f|f|f\n301|0\nH|4\n101|60|60|60|120\n201|f|f|f\n301|0\n"}}}}},
    };
    // clang-format on
    for (const Scenario& c : cases)
        Run(c);
}

TEST_F(HistorySystem, TheTimerTicksAtTheBoundary)
{
    // One second before a boundary: the timer's own thread writes the files.
    std::unique_ptr<FakeClockHistory> history(new FakeClockHistory());
    history->RegisterParameterDouble(ENERGY, kesEnergyDeviceString, 2);
    history->SetLocal(2015, 3, 14, 12, 4, 59);
    history->Init(5);
    history->SetHistoryFolder(m_dir->Path());
    history->LetTimerTick(true);
    ASSERT_EQ(kesErrorOk, history->Start());
    for (int wait = 0; wait < 100 && !Exists("offset_energy_day"); ++wait)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(kesErrorOk, history->Stop());
    EXPECT_EQ(0u, Read("d").find("H|12\n101|f|f|f|0\n"));
}

// The names in a folder but the hidden ones.
static std::set<std::string> Names(const std::string& folder)
{
    std::set<std::string> found;
    for (const auto& entry : std::filesystem::directory_iterator(folder))
        found.insert(entry.path().filename().string());
    return found;
}

TEST_F(HistorySystem, ReplacementKeepsWhatTheUserSetUp)
{
    // "b" and "m" link to another disk; "d" has its own mode and owner; a
    // killed run left temporary files; "notes.tmp" is the user's own.
    kes_test::TempDir disk;
    kes_test::WriteFile(disk.File("b"), "Y|2014\n101|7\n");
    kes_test::WriteFile(disk.File("m"), "D|30\n101|1\n");
    for (const char* name : {"b", "m"})
        ASSERT_EQ(0, symlink(disk.File(name).c_str(), m_dir->File(name).c_str()));
    kes_test::WriteFile(m_dir->File("d"), "H|23\n");
    ASSERT_EQ(0, chmod(m_dir->File("d").c_str(), 0640));
    const bool root = geteuid() == 0;
    ASSERT_TRUE(!root || chown(m_dir->File("d").c_str(), 1234, 5678) == 0);
    for (const char* name : {"d.tmp", "y.tmp", "2015_03_31.tmp", "2014.tmp", "offset_pulse.tmp", "notes.tmp"})
        kes_test::WriteFile(m_dir->File(name), "x");
    kes_test::WriteFile(disk.File("b.tmp"), "x");

    // A month end: the year file begins a new block, the begin file keeps its
    // year's; the linked month was copied to its dated name at the rollover.
    const std::string rest = "201|0|0|0\n301|0\n", april = "D|1\n101|0\n" + rest,
                      march = "D|30\n101|1\nD|31\n101|50\n" + rest,
                      year = "M|3\n101|51\n" + rest + "M|4\n101|0\n" + rest,
                      begin = "Y|2014\n101|7\nY|2015\n101|51\n" + rest;
    // clang-format off
    Run({"month end", nullptr, 5, EXAMPLE, {}, {{START, 201503312350, {}, {}},
         {TICK, 201503312355, {{ENERGY, 600}}, {}}, {TICK, 201504010000, {{ENERGY, 600}},
          {{"m", april.c_str()}, {"2015_03", march.c_str()}, {"y 2015", year.c_str()}, {"b", begin.c_str()}}}}}, false);
    // clang-format on
    // The links stay and lead to the new text.
    for (const char* name : {"b", "m"}) {
        char target[512] = {};
        ASSERT_LT(0, readlink(m_dir->File(name).c_str(), target, sizeof(target) - 1));
        EXPECT_EQ(disk.File(name), target);
    }
    // The day file keeps its bits and owner, also as the new file after its rollover.
    for (const char* name : {"d", "2015_03_31"}) {
        struct stat info;
        ASSERT_EQ(0, stat(m_dir->File(name).c_str(), &info)) << name;
        EXPECT_EQ(0640u, info.st_mode & 07777) << name;
        EXPECT_TRUE(!root || (info.st_uid == 1234 && info.st_gid == 5678)) << name;
    }
    EXPECT_EQ((std::set<std::string>{"2015", "2015_03", "2015_03_31", "b", "d", "m", "notes.tmp", "offset_energy_day",
                                     "offset_pulse", "y"}),
              Names(m_dir->Path()));
    EXPECT_EQ((std::set<std::string>{"b", "m"}), Names(disk.Path()));
}

TEST(HistoryIntruder, IsNamedInARecordAndLeftAsItWas)
{
    // Anything but a regular file where a file of the store belongs.
    for (const char* name : {"d", "m", "y", "b", "2015_03_14", "offset_energy_day", "offset_pulse", "a"})
        for (const kes_test::Intruder& intruder : kes_test::INTRUDERS) {
            SCOPED_TRACE(std::string(name) + " " + intruder.name);
            // A dated copy is only ever replaced, never read: it may be unreadable.
            if (std::string(name) == "2015_03_14" && std::string(intruder.name) == "unreadable")
                continue;
            kes_test::MemoryDir dir;
            if (std::string(name) != "offset_energy_day") // so that "offset_pulse" is read at the start as well
                kes_test::WriteFile(dir.File("offset_energy_day"), "14\n101|1.00\n");
            FakeClockHistory history;
            history.RegisterParameterDouble(ENERGY, kesEnergyDeviceString, 2);
            history.SetHistoryFolder(dir.Path());
            // False for root, who reads every file.
            kes_test::RefusesIntruder(dir.File(name), intruder, [&history] {
                history.Start();
                history.SetLocal(2015, 3, 14, 10, 5);
                history.Tick();
                history.UpdateAlarmStatusFile(17, 3);
            });
        }
}

namespace {

const unsigned int PER_CLASS = 100;
const unsigned int BASES[] = {10000, 20000, 30000}; // energy, value, pulse

// Ticks every 5 minutes of its clock, as fast as the disk lets it, until killed;
// a byte on 'ticked' after each tick.
[[noreturn]] void RunWriter(const std::string& folder, unsigned long long start, unsigned int seed, int ticked)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    kes::kesError::Level = 0;
    FakeClockHistory history;
    for (unsigned int i = 0; i < PER_CLASS; ++i) {
        history.RegisterParameterDouble(BASES[0] + i, kes::kesEnergyDeviceString, 2);
        history.RegisterParameterDouble(BASES[1] + i, kes::kesEnergyDevicePanel, 0);
        history.RegisterParameterDouble(BASES[2] + i, kes::kesEnergyDevicePulseCounter, 1);
    }
    history.SetClock(start);
    history.Init(5);
    history.SetHistoryFolder(folder);
    history.Start();
    std::mt19937 random(seed);
    // Bounded: the test kills the writer long before.
    for (int tick = 1; tick < 2000; ++tick) {
        for (unsigned int i = 0; i < PER_CLASS; ++i) {
            if (random() % 10 != 0)
                history.SetValueAsDouble(BASES[0] + i, random() % 3000);
            if (random() % 10 != 0)
                history.SetValueAsDouble(BASES[1] + i, (random() % 4000) / 10.0);
            history.SetValueAsDouble(BASES[2] + i, 1000.0 * tick + i);
        }
        history.SetClock(start + tick * 300000ull);
        history.Tick();
        if (write(ticked, "t", 1) != 1)
            break;
    }
    _exit(0);
}

// Empty when the file is whole: it ends with a line feed, and blocks of a
// header (the level's letter) and 3 * PER_CLASS rows fill it exactly; the offset
// files hold a line per total.
std::string Problem(const std::string& name, const std::string& text)
{
    if (text.empty() || text.back() != '\n')
        return "cut at the end";
    if (name.compare(0, 7, "offset_") == 0)
        return std::count(text.begin(), text.end(), '\n') >= long(PER_CLASS) ? "" : "lines missing";
    // Dated copies by the length of their date: 2015_12_31, 2015_12, 2015.
    const size_t n = name.size(), level = n == 10 ? 0 : n == 7 ? 1 : n == 4 ? 2 : std::string("dmyb").find(name);
    if (level > 3)
        return "unexpected file";
    const size_t lines = 1 + 3 * PER_CLASS;
    size_t count = 0;
    for (size_t at = 0; at < text.size(); at = text.find('\n', at) + 1, ++count)
        if ((count % lines == 0) != (text[at] == "HDMY"[level]))
            return "line " + std::to_string(count) + " begins wrong";
    return count % lines == 0 ? "" : "a block is cut";
}

// Checks every file of the folder; the count of files checked.
int CheckFolder(const std::string& folder)
{
    int checked = 0;
    for (const std::string& name : Names(folder))
        if (name.find(".tmp") == std::string::npos && ++checked) {
            EXPECT_EQ("", Problem(name, kes_test::ReadFile(folder + "/" + name))) << name;
        }
    return checked;
}

} // namespace

TEST(HistoryCrash, AWriterKilledAtAnyMomentLeavesWholeFiles)
{
    kes_test::TempDir folder;
    std::mt19937 random(20151231);
    // Each writer starts later on the clock, so the rounds cross a midnight, a
    // month end and a year end.
    const unsigned long long first = LocalMs(2015, 12, 31, 23, 0);
    const int ROUNDS = 16;
    int checked = 0;
    for (int round = 0; round < ROUNDS && !HasFailure(); ++round) {
        int ticked[2];
        ASSERT_EQ(0, pipe(ticked));
        const pid_t child = fork();
        ASSERT_NE(-1, child);
        if (child == 0)
            RunWriter(folder.Path(), first + round * 25 * 60000ull, random(), ticked[1]);
        // The kill lands within the ticks, not in the registration before them.
        pollfd first_tick = {ticked[0], POLLIN, 0};
        EXPECT_EQ(1, poll(&first_tick, 1, 10000));
        std::this_thread::sleep_for(std::chrono::milliseconds(random() % 40));
        kill(child, SIGKILL);
        int status = 0;
        ASSERT_EQ(child, waitpid(child, &status, 0));
        close(ticked[0]);
        close(ticked[1]);
        ASSERT_TRUE(WIFSIGNALED(status)) << "the writer ended by itself";
        checked += CheckFolder(folder.Path());
    }
    // The writers got far enough to leave the files of every level.
    EXPECT_GT(checked, ROUNDS * 4);
    for (const char* name : {"d", "m", "y", "b", "offset_energy_day", "offset_pulse"})
        EXPECT_EQ(0, access((folder.Path() + "/" + name).c_str(), F_OK)) << name;
}
