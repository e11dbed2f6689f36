// The ground floor: events, threads, mutexes and timers; the error log and
// its file; files, times, strings and the command line.
#include "kes_commandlineparser.h"
#include "kes_error.h"
#include "kes_osevent.h"
#include "kes_osfile.h"
#include "kes_osthread.h"
#include "kes_osutility.h"
#include "kes_string.h"
#include "kes_time.h"
#include "kes_timer.h"

#include "test_process.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

using namespace kes;

namespace {

typedef std::chrono::steady_clock Clock;

long long ms_since(Clock::time_point i_start)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - i_start).count();
}

void pause_ms(int i_ms)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(i_ms));
}

// Records when each tick begins; a tick may be made to last. The clock may
// jitter by a few ms, so that a check can land just before the expiry.
class RecordingTimer : public kesTimer {
public:
    ~RecordingTimer() override { Stop(); }
    void OnTimer() override
    {
        ticks.push_back(Clock::now());
        if (tickMs)
            pause_ms(tickMs);
    }
    void OnTimerStart() override { ++starts; }
    void OnTimerStop() override { ++stops; }
    // runs the timer for i_ms with this period
    void RunFor(unsigned int i_period, int i_ms)
    {
        SetExpiredTime(i_period);
        SetResolutionTime(i_period);
        ASSERT_EQ(kesErrorOk, Start(0));
        pause_ms(i_ms);
        Stop();
    }
    std::vector<Clock::time_point> ticks;
    unsigned int tickMs = 0, jitter = 0;
    std::atomic<int> starts{0}, stops{0};
    std::atomic<unsigned int> calls{0};

protected:
    unsigned int get_loop_time() override { return kesTime::GetTime() + ((++calls & 1) ? jitter : 0); }
};

// Routes the log to a file of a temporary folder for the length of a test.
class LogToFile : public ::testing::Test {
protected:
    void SetUp() override
    {
        kesError::Level = kesErrorOutFile;
        kesError::LogFile = m_dir.File("kes.log");
        kesError::_current_log_filesize = 0;
    }
    void TearDown() override
    {
        kesError::Level = m_level;
        kesError::LogFile = m_file;
        kesError::LogFileSize = m_size;
        kesError::_current_log_filesize = 0;
    }
    std::string Log() { return kes_test::ReadFile(m_dir.File("kes.log")); }

    kes_test::TempDir m_dir;
    unsigned int m_level = kesError::Level;
    kesString m_file = kesError::LogFile;
    unsigned int m_size = kesError::LogFileSize;
};

// Replaces each bracketed asctime line by "[DATE]", checking its shape on the way.
std::string dates_masked(const std::string& i_log)
{
    std::string out;
    for (size_t at = 0; at < i_log.size();) {
        size_t end = i_log.find('\n', at);
        std::string line = i_log.substr(at, end == std::string::npos ? std::string::npos : end - at);
        bool date = line.size() == 26 && line[0] == '[' && line[25] == ']' && line[4] == ' ' && line[8] == ' ' &&
                    line[14] == ':' && line[17] == ':' && line[20] == ' ';
        out += date ? "[DATE]" : line;
        if (end == std::string::npos)
            break;
        out += '\n';
        at = end + 1;
    }
    return out;
}

} // namespace

TEST(KesOsEvent, SignalResetAndTimedWait)
{
    kesOsEvent event;
    Clock::time_point start = Clock::now();
    EXPECT_FALSE(event.WaitSignal(20));
    EXPECT_GE(ms_since(start), 19);
    EXPECT_TRUE(event.Reset());
    EXPECT_TRUE(event.Signal());
    EXPECT_TRUE(event.WaitSignal(0xFFFFFFFF));
    EXPECT_TRUE(event.WaitSignal(0));
    EXPECT_TRUE(event.IsSignaled());
    event.Reset();
    EXPECT_FALSE(event.IsSignaled());
    std::thread waker([&] {
        pause_ms(10);
        event.Signal();
    });
    EXPECT_TRUE(event.WaitSignal(0));
    waker.join();
}

TEST(KesOsThread, StartWaitsForTheThreadAndStopJoins)
{
    std::atomic<int> passes{0};
    kesOsThread quick([](kesOsThread*, void*) {}, nullptr, false);
    EXPECT_TRUE(quick.Start(0));
    EXPECT_TRUE(quick.IsStarted());
    quick.Stop();
    EXPECT_FALSE(quick.IsProcedureRunning());
    kesOsThread loop(
        [](kesOsThread* thread, void* argument) {
            while (thread->WaitContinue(5))
                ++*static_cast<std::atomic<int>*>(argument);
        },
        &passes, false);
    EXPECT_TRUE(loop.Start(262144));
    pause_ms(20);
    Clock::time_point start = Clock::now();
    loop.Stop();
    EXPECT_LT(ms_since(start), 100);
    EXPECT_GT(passes.load(), 0);
    kesOsThread never(nullptr, nullptr, false);
    never.Stop();
}

TEST(KesOsMutex, RecursiveLockAndScopedHolder)
{
    kesOsMutex mutex;
    EXPECT_EQ(kesErrorOk, mutex.Lock());
    EXPECT_EQ(kesErrorOk, mutex.Lock());
    EXPECT_EQ(0, mutex.UnLock());
    EXPECT_EQ(0, mutex.UnLock());
    {
        kesSOsMutex hold(&mutex);
    }
    std::thread other([&] {
        EXPECT_EQ(kesErrorOk, mutex.Lock());
        mutex.UnLock();
    });
    other.join();
}

TEST(KesTimer, CountEndsAfterExactlyThatManyTicksAndRestartRunsTheHooks)
{
    RecordingTimer timer;
    timer.SetExpiredTime(5);
    timer.SetCount(3);
    ASSERT_EQ(kesErrorOk, timer.Start(0));
    for (int i = 0; i < 200 && timer.stops == 0; ++i)
        pause_ms(5);
    EXPECT_EQ(3u, timer.ticks.size());
    EXPECT_EQ(3u, timer.GetCounter());
    EXPECT_EQ(1, timer.stops.load());
    timer.SetResolutionTime(0);
    EXPECT_EQ(1u, timer.GetResolutionTime());

    RecordingTimer idle;
    idle.SetExpiredTime(1000);
    ASSERT_EQ(kesErrorOk, idle.Start(0));
    ASSERT_EQ(kesErrorOk, idle.Start(0));
    idle.Stop();
    EXPECT_EQ(2, idle.starts.load());
    EXPECT_EQ(2, idle.stops.load());
    EXPECT_TRUE(idle.ticks.empty());
}

TEST(KesTimer, LongTickDoesNotPileUp)
{
    RecordingTimer timer;
    timer.tickMs = 30;
    timer.RunFor(10, 140);
    ASSERT_GE(timer.ticks.size(), 3u);
    // each tick starts once the one before ended: no burst of catch-up ticks
    for (size_t i = 1; i < timer.ticks.size(); ++i)
        EXPECT_GE(std::chrono::duration_cast<std::chrono::milliseconds>(timer.ticks[i] - timer.ticks[i - 1]).count(),
                  29);
    EXPECT_LE(timer.ticks.size(), 5u);
    EXPECT_EQ(1, timer.stops.load());
}

TEST(KesTimer, PauseAsLongAsThePeriodLosesNoTick)
{
    // The history store waits a whole period between checks; a check landing a
    // millisecond early must not push the tick a whole period later.
    RecordingTimer timer;
    timer.jitter = 2;
    timer.RunFor(25, 260);
    EXPECT_GE(timer.ticks.size(), 8u);
    EXPECT_LE(timer.ticks.size(), 11u);
}

TEST(KesTimer, PeriodOfHalfTheClockOrMoreStillSleeps)
{
    // a pause figured in signed milliseconds turned negative and the loop spun at 1 ms
    RecordingTimer timer;
    timer.RunFor(0x80000000u, 50);
    EXPECT_TRUE(timer.ticks.empty());
    EXPECT_LT(timer.calls.load(), 20u);
}

TEST(KesOsFile, WholeFileReadsAndFailures)
{
    kes_test::TempDir dir;
    kesString text("filled");
    EXPECT_NE(kesErrorOk, kesOsFile::GetFileTextSource(dir.File("missing").c_str(), &text));
    EXPECT_TRUE(text.empty());
    EXPECT_NE(kesErrorOk, kesOsFile::GetFileTextSource("x", nullptr));
    kesOsFile file;
    EXPECT_EQ(kesErrorOk, file.Close());
    EXPECT_GT(file.WriteText("%s", "nothing"), 0);
    ASSERT_EQ(kesErrorOk, file.Open(dir.File("f").c_str(), "w"));
    EXPECT_EQ(3, file.WriteText("%s%c%s", "a", 0, "b"));
    ASSERT_EQ(kesErrorOk, file.Open(dir.File("empty").c_str(), "w"));
    EXPECT_EQ(kesErrorOk, file.Close());
    EXPECT_EQ(kesErrorOk, file.Close());
    EXPECT_EQ(kesErrorOk, kesOsFile::GetFileTextSource(dir.File("f").c_str(), &text));
    EXPECT_EQ(std::string("a\0b", 3), text);
    EXPECT_EQ(kesErrorOk, kesOsFile::GetFileTextSource(dir.File("empty").c_str(), &text));
    EXPECT_TRUE(text.empty());
    EXPECT_TRUE(kesOsUtility::FileExist(dir.File("f").c_str()));
    EXPECT_FALSE(kesOsUtility::FileExist(dir.File("missing").c_str()));
    EXPECT_TRUE(kesOsUtility::FolderExist(dir.File("f").c_str()));
    EXPECT_TRUE(kesOsUtility::FolderExist(dir.Path().c_str()));
    EXPECT_FALSE(kesOsUtility::FolderExist(dir.File("missing").c_str()));
}

TEST_F(LogToFile, RecordForms)
{
    EXPECT_EQ(kesErrorNetwork,
              kesErrorLog(kesBuildErrorLocation(kesErrorNetwork, "connect failed", "src/x.cpp", "Open", 42)));
    kesErrorLog(kesBuildErrorLocation(kesErrorOk, "History Time changed to 10 minutes", "energy/e.cpp", "Init", 7));
    kesErrorLog(kesBuildErrorLocation(kesErrorWarning, "careful", "a.cpp", "f", 1));
    // a failure has one field a line, a notice and a warning one line
    EXPECT_EQ("[DATE]\nkesError Number : 10\nNetwork communication error.\n"
              "File ----------- : src/x.cpp\nFunction ------- : Open\nLine Number ---- : 42\n"
              "Custom Message - : connect failed\n"
              "[DATE]\nInfo : History Time changed to 10 minutes[FILE:energy/e.cpp][FUNCTION:Init][LINE:7]\n"
              "[DATE]\nWarning : careful[FILE:a.cpp][FUNCTION:f][LINE:1]\n",
              dates_masked(Log()));
    // a position too long for a notice is cut
    EXPECT_LT(kesBuildErrorLocation(kesErrorOk, "m", std::string(400, 'p').c_str(), "f", 1).GetDescription().size(),
              300u);
}

TEST_F(LogToFile, TrimKeepsTheNewestHalf)
{
    std::string old;
    for (int i = 0; old.size() < 600000; ++i)
        old += "line " + std::to_string(i) + "\n";
    struct Case {
        const char* name;
        unsigned int limit;
        std::string before;
        unsigned int counted; // before this record
        std::string kept;
        int counter; // afterwards; -1: the count before plus the record
    };
    const Case cases[] = {
        // what an earlier run left does not count: the counter starts at 0
        {"newest half", 512000, old, 512000 - 10, old.substr(old.size() - 256000), 256000},
        {"file cut shorter than half", 512000, "short", 600000, "short", 5},
        {"no limit", 0, std::string(40000, 'x'), 4000000, std::string(40000, 'x'), -1},
        {"half of at most 16000", 32000, std::string(40000, 'x'), 4000000, std::string(40000, 'x'), -1},
    };
    for (const Case& c : cases) {
        kesError::LogFileSize = c.limit;
        kes_test::WriteFile(m_dir.File("kes.log"), c.before);
        kesError::_current_log_filesize = c.counted;
        kesError record(kesErrorFailed, "trigger");
        kesErrorLog(record);
        EXPECT_TRUE(Log() == c.kept + record.GetDescription()) << c.name;
        EXPECT_EQ(c.counter < 0 ? c.counted + record.GetDescription().size() : (unsigned int)c.counter,
                  kesError::_current_log_filesize)
            << c.name;
    }
}

TEST_F(LogToFile, ConcurrentLoggersLoseNoRecord)
{
    kesError::LogFileSize = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([] {
            for (int i = 0; i < 100; ++i)
                kesErrorLog(kesError(kesErrorOk, "r"));
        });
    for (std::thread& t : threads)
        t.join();
    std::string log = Log();
    size_t records = 0;
    for (size_t p = log.find("Info : r\n"); p != std::string::npos; p = log.find("Info : r\n", p + 1))
        ++records;
    EXPECT_EQ(400u, records);
    EXPECT_EQ(log.size(), kesError::_current_log_filesize);
}

// Anything but a regular file as the log file: the console is told once,
// with the path, and logging goes on, also through a trim.
class LogFileIntruder : public LogToFile, public ::testing::WithParamInterface<kes_test::Intruder> {};

TEST_P(LogFileIntruder, IsToldOnceOnTheConsole)
{
    const std::string path = m_dir.File("kes.log");
    if (!kes_test::PlaceIntruder(path, GetParam()))
        GTEST_SKIP() << "root reads every file";
    kesError::LogFileSize = 40000;
    ::testing::internal::CaptureStdout();
    EXPECT_TRUE(kes_test::EndsWithin(5000, path, [] {
        kesErrorLog(kesError(kesErrorOk, "first"));
        kesErrorLog(kesError(kesErrorOk, "second"));
        kesError::_current_log_filesize = 50000;
        kesErrorLog(kesError(kesErrorOk, "trim"));
    }));
    const std::string console = ::testing::internal::GetCapturedStdout();
    const std::string told = "Log file " + path + GetParam().words;
    EXPECT_NE(std::string::npos, console.find(told)) << console;
    EXPECT_EQ(console.find(told), console.rfind(told)) << console;
}

INSTANTIATE_TEST_SUITE_P(Kinds, LogFileIntruder, ::testing::ValuesIn(kes_test::INTRUDERS),
                         [](const ::testing::TestParamInfo<kes_test::Intruder>& info) { return info.param.name; });

TEST(KesError, TextsOfCodesAndLevelZero)
{
    EXPECT_EQ("The operation completed succefully.", kesErrorToString(kesErrorOk));
    EXPECT_EQ("kesError description not found. Update kesErrorToString function.!", kesErrorToString(kesErrorWarning));
    EXPECT_EQ(kesErrorToString(kesErrorWarning), kesErrorToString(static_cast<kesEError>(11)));
    EXPECT_EQ("0 No error", kesErrorStdToString(0));
    errno = 0;
    EXPECT_EQ("0 No error", kesErrorStdToString(-1));
    EXPECT_EQ("2 No such file or directory", kesErrorStdToString(2));
    // with every output off the code still comes back
    unsigned int level = kesError::Level;
    kesError::Level = 0;
    EXPECT_EQ(kesErrorInvalidArgument, kesErrorLog(kesError(kesErrorInvalidArgument, "quiet")));
    kesError::Level = level;
}

TEST(KesTime, DateTextAndRecordForms)
{
    kesString text = kesTime::GetDateTime();
    EXPECT_EQ(24u, text.size());
    EXPECT_NE('\n', text.back());
    kesTime::kesDateTime date;
    int month = -1, yearDay = -1, weekDay = -1;
    kesTime::GetDateTime(&date);
    kesTime::GetDateTime(nullptr, &yearDay, &month, nullptr, &weekDay, nullptr, nullptr, nullptr);
    EXPECT_EQ(month + 1, date.month);
    EXPECT_EQ(yearDay + 1, date.day_of_year);
    EXPECT_EQ(weekDay + 1, date.day_of_week);
    EXPECT_GE(date.year, 2020);
    kesTime::GetDateTime(static_cast<kesTime::kesDateTime*>(nullptr));
}

TEST(KesString, NumbersToText)
{
    struct Case {
        double value;
        int precision;
        const char* text;
    };
    const Case cases[] = {
        {12.0, 1, "12"},
        {12.50, 1, "12.5"},
        {12.04, 1, "12"},
        {-0.04, 1, "-0"},
        {1.25, 1, "1.2"},
        {0.0, 1, "0"},
        {-0.0, 1, "0"},
        {100.0, 1, "100"},
        {345.75, 1, "345.8"},
        {16.666, 1, "16.7"},
        {1.2345, 3, "1.234"},
        {3e9, 1, "3000000000"},
        {5e9 + 0.5, 2, "5000000000.5"},
        {1500.0, 0, "1500"},
        {2.5e9, 0, "2500000000"},
        {1.0 / 0.0, 1, "inf"},
        {-1.0 / 0.0, 1, "-inf"},
    };
    for (const Case& c : cases)
        EXPECT_EQ(c.text, kesString::FromDouble(c.value, c.precision)) << c.value;
    EXPECT_EQ("0.1", kesString::FromFloat(0.1f, 3));
}

TEST(KesString, SplitAppendsThePieces)
{
    struct Case {
        const char* text;
        const char* separator;
        std::vector<std::string> pieces;
    };
    const Case cases[] = {
        {"a,b", ",", {"a", "b"}}, {"a,,b", ",", {"a", "b"}}, {",a", ",", {"a"}},    {"a,", ",", {"a", ""}},
        {"", ",", {""}},          {",,", ",", {""}},         {"abc", ",", {"abc"}}, {"1||2|3", "||", {"1", "2|3"}},
    };
    for (const Case& c : cases) {
        kesArray<kesString> parts;
        parts.AddBack("kept");
        kesString(c.text).GetSplit(&parts, c.separator);
        EXPECT_EQ("kept", parts[0]) << c.text;
        EXPECT_EQ(c.pieces, std::vector<std::string>(parts.begin() + 1, parts.end())) << c.text;
    }
}

TEST(KesString, ShrinkTrimsOneEnd)
{
    struct Case {
        const char* text;
        bool fromStart;
        const char* result;
    };
    const Case cases[] = {
        {"  a b  ", true, "a b  "},
        {"  a b  ", false, "  a b"},
        {"   ", true, "   "},
        {"   ", false, ""},
        {"  ", false, " "},
        {" ", false, ""},
        {"", false, ""},
        {"x", true, "x"},
    };
    for (const Case& c : cases) {
        kesString text(c.text);
        text.SetShrink(" \t", c.fromStart);
        EXPECT_EQ(c.result, text) << '"' << c.text << '"' << c.fromStart;
    }
}

TEST(KesString, FindReplaceAndFormat)
{
    kesString text("abcABCabc");
    EXPECT_EQ(0u, text.Find("abc", 0, false, false));
    EXPECT_EQ(6u, text.Find("abc", 1, false, false));
    EXPECT_EQ(6u, text.Find("abc", 0, false, true));
    EXPECT_EQ(0u, text.Find("abc", 4, false, true));
    EXPECT_EQ(3u, text.Find("ABC", 4, true, true));
    EXPECT_EQ(kesString::npos, text.Find("xyz", 0, true, false));
    // the replacement is not scanned again
    kesString commas("a,b,,c");
    commas.FindAndReplaceAll(",", ",,", false);
    EXPECT_EQ("a,,b,,,,c", commas);
    kesString mixed("One one ONE");
    mixed.FindAndReplaceAll("one", "Two", true);
    EXPECT_EQ("Two Two Two", mixed);
    // a format never writes past its size
    kesString formatted("x");
    formatted.AddFormat(8, "%s", "0123456789");
    EXPECT_EQ("x0123456", formatted);
    formatted.SetFormat(16, "%i-%i", 12, 34);
    EXPECT_EQ("12-34", formatted);
}

TEST(KesString, ConversionsAndComparison)
{
    EXPECT_EQ(0u, kesString(static_cast<const char*>(nullptr)).GetLength());
    struct Case {
        const char* text;
        unsigned int value;
    };
    const Case numbers[] = {{"12abc", 12u},  {"-1", 4294967295u}, {"99999999999", 4294967295u},
                            {"  257", 257u}, {" + 3", 0u},        {"- 3", 0u}};
    for (const Case& c : numbers)
        EXPECT_EQ(c.value, kesString::AsULong(c.text, 10)) << c.text;
    EXPECT_EQ(0, kesString::AsInt("abc", 10));
    EXPECT_EQ(INT32_MIN, kesString::AsInt("-99999999999", 10));
    EXPECT_TRUE(kesString("ABC").IsEqualNoCase("abc"));
    EXPECT_FALSE(kesString("abc").IsEqualNoCase("abcd"));
    EXPECT_FALSE(kesString("\xC4").IsEqualNoCase("\xE4"));
    kesArray<unsigned short> values;
    for (unsigned short v : {5, 3, 5, 1, 3})
        values.AddBack(v);
    values.Unique(nullptr, nullptr);
    EXPECT_EQ((std::vector<unsigned short>{1, 3, 5}), std::vector<unsigned short>(values.begin(), values.end()));
    kesMap<int, int*> map;
    EXPECT_EQ(nullptr, map.GetKeyValue(7));
}

TEST(CommandLineParser, MatchesWithoutCaseAndTakesTheNextWord)
{
    const char* argv[] = {"prog", "-log", "-conf", "x", "-CONF", "y", "-dir"};
    kesCommandLineParser parser(const_cast<char* const*>(argv), 7);
    kesString value("stale");
    EXPECT_TRUE(parser.GetArgument("-conf", &value));
    EXPECT_EQ("x", value);
    EXPECT_TRUE(parser.GetArgument("-LOG", &value));
    EXPECT_EQ("-conf", value);
    EXPECT_TRUE(parser.GetArgument("-dir", &value));
    EXPECT_EQ("", value);
    value = "stale";
    EXPECT_FALSE(parser.GetArgument("-h", &value));
    EXPECT_EQ("", value);
    EXPECT_TRUE(parser.GetArgument("-dir", nullptr));
    EXPECT_FALSE(kesCommandLineParser(nullptr, 0).GetArgument("prog", nullptr));
}
