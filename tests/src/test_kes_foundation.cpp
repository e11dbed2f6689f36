// The ground floor: events, threads, mutexes and timers; the error log and
// its file; files, times, strings and the command line.
#include "kes_commandlineparser.h"
#include "kes_error.h"
#include "kes_osevent.h"
#include "kes_osfile.h"
#include "kes_osthread.h"
#include "kes_osutility.h"
#include "kes_time.h"
#include "kes_timer.h"

#include "test_process.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <regex>
#include <sstream>
#include <thread>
#include <vector>

using namespace kes;

namespace {

typedef std::chrono::steady_clock Clock;

// Several outcomes as one text, blank-separated; braces take the calls in order.
struct Seen {
    template <typename... T>
    Seen(const T&... i_values)
    {
        std::ostringstream out;
        ((out << i_values << ' '), ...);
        text = out.str();
        text.pop_back();
    }
    std::string text;
};
#define SEEN(...) (Seen{__VA_ARGS__}.text)

long long ms_since(Clock::time_point i_start)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - i_start).count();
}

void pause_ms(int i_ms)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(i_ms));
}

// Counts its ticks and hooks; its clock may jitter, so that a check lands just before the expiry.
class RecordingTimer : public kesTimer {
public:
    ~RecordingTimer() override { Stop(); }
    void OnTimer() override { ++ticks; }
    void OnTimerStart() override { ++starts; }
    void OnTimerStop() override { ++stops; }
    void RunFor(unsigned int i_period, int i_ms)
    {
        SetExpiredTime(i_period);
        SetResolutionTime(i_period);
        ASSERT_EQ(kesErrorOk, Start(0));
        pause_ms(i_ms);
        Stop();
    }
    std::atomic<int> ticks{0}, starts{0}, stops{0};
    std::atomic<unsigned int> calls{0};
    unsigned int jitter = 0;

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

} // namespace

TEST(KesOsThreads, EventThreadAndMutex)
{
    // a manual-reset event: a timed wait runs out, a signal stays until the reset
    kesOsEvent event;
    Clock::time_point start = Clock::now();
    EXPECT_FALSE(event.WaitSignal(20));
    EXPECT_GE(ms_since(start), 19);
    EXPECT_EQ("1 1 1 1 1 1 0", SEEN(event.Reset(), event.Signal(), event.WaitSignal(0xFFFFFFFF), event.WaitSignal(0),
                                    event.IsSignaled(), event.Reset(), event.IsSignaled()));
    std::thread waker([&] {
        pause_ms(10);
        event.Signal();
    });
    EXPECT_TRUE(event.WaitSignal(0));
    waker.join();

    // Start returns once the thread began, Stop joins it at once
    kesOsThread quick([](kesOsThread*, void*) {}, nullptr, false);
    EXPECT_EQ("1 1", SEEN(quick.Start(0), quick.IsStarted()));
    quick.Stop();
    EXPECT_FALSE(quick.IsProcedureRunning());
    std::atomic<int> passes{0};
    kesOsThread loop(
        [](kesOsThread* thread, void* argument) {
            while (thread->WaitContinue(5))
                ++*static_cast<std::atomic<int>*>(argument);
        },
        &passes, false);
    EXPECT_TRUE(loop.Start(262144));
    pause_ms(20);
    start = Clock::now();
    loop.Stop();
    EXPECT_LT(ms_since(start), 100);
    EXPECT_GT(passes.load(), 0);
    kesOsThread(nullptr, nullptr, false).Stop();

    // recursive by default
    kesOsMutex mutex;
    EXPECT_EQ(SEEN(kesErrorOk, kesErrorOk, 0, 0), SEEN(mutex.Lock(), mutex.Lock(), mutex.UnLock(), mutex.UnLock()));
    {
        kesSOsMutex hold(&mutex);
    }
    std::thread other([&] { EXPECT_EQ(SEEN(kesErrorOk, 0), SEEN(mutex.Lock(), mutex.UnLock())); });
    other.join();
}

TEST(KesTimer, CountEndsAfterExactlyThatManyTicksAndRestartRunsTheHooks)
{
    RecordingTimer timer;
    timer.SetExpiredTime(5);
    timer.SetCount(3);
    timer.SetResolutionTime(0);
    EXPECT_EQ(1u, timer.GetResolutionTime());
    ASSERT_EQ(kesErrorOk, timer.Start(0));
    for (int i = 0; i < 200 && timer.stops == 0; ++i)
        pause_ms(5);
    EXPECT_EQ("3 3 1", SEEN(timer.ticks.load(), timer.GetCounter(), timer.stops.load()));
    RecordingTimer idle;
    idle.SetExpiredTime(1000);
    EXPECT_EQ(SEEN(kesErrorOk, kesErrorOk), SEEN(idle.Start(0), idle.Start(0)));
    idle.Stop();
    EXPECT_EQ("2 2 0", SEEN(idle.starts.load(), idle.stops.load(), idle.ticks.load()));
}

TEST(KesTimer, PauseAsLongAsThePeriodLosesNoTick)
{
    // The history store waits a whole period between checks; a check landing a
    // millisecond early must not push the tick a whole period later.
    RecordingTimer timer;
    timer.jitter = 2;
    timer.RunFor(25, 260);
    EXPECT_GE(timer.ticks.load(), 8);
    EXPECT_LE(timer.ticks.load(), 11);
    // a pause figured in signed milliseconds turned negative and the loop spun at 1 ms
    RecordingTimer half;
    half.RunFor(0x80000000u, 50);
    EXPECT_EQ(0, half.ticks.load());
    EXPECT_LT(half.calls.load(), 20u);
}

TEST(KesOsFile, WholeFileReadsAndFailures)
{
    kes_test::TempDir dir;
    kesString text("filled");
    EXPECT_EQ(SEEN(1, "", 1), SEEN(kesOsFile::GetFileTextSource(dir.File("missing").c_str(), &text) != kesErrorOk, text,
                                   kesOsFile::GetFileTextSource("x", nullptr) != kesErrorOk));
    kesOsFile file;
    EXPECT_EQ(kesErrorOk, file.Close());
    EXPECT_GT(file.WriteText("%s", "nothing"), 0);
    ASSERT_EQ(kesErrorOk, file.Open(dir.File("f").c_str(), "w"));
    EXPECT_EQ(3, file.WriteText("%s%c%s", "a", 0, "b"));
    EXPECT_EQ(SEEN(kesErrorOk, kesErrorOk, kesErrorOk),
              SEEN(file.Open(dir.File("empty").c_str(), "w"), file.Close(), file.Close()));
    EXPECT_EQ(kesErrorOk, kesOsFile::GetFileTextSource(dir.File("f").c_str(), &text));
    EXPECT_EQ(std::string("a\0b", 3), text);
    EXPECT_EQ(SEEN(kesErrorOk, ""), SEEN(kesOsFile::GetFileTextSource(dir.File("empty").c_str(), &text), text));
    // a file is a folder as well, as far as stat goes
    EXPECT_EQ("1 0 1 1 0",
              SEEN(kesOsUtility::FileExist(dir.File("f").c_str()), kesOsUtility::FileExist(dir.File("missing").c_str()),
                   kesOsUtility::FolderExist(dir.File("f").c_str()), kesOsUtility::FolderExist(dir.Path().c_str()),
                   kesOsUtility::FolderExist(dir.File("missing").c_str())));
}

TEST_F(LogToFile, RecordForms)
{
    EXPECT_EQ(kesErrorNetwork,
              kesErrorLog(kesBuildErrorLocation(kesErrorNetwork, "connect failed", "src/x.cpp", "Open", 42)));
    kesErrorLog(kesBuildErrorLocation(kesErrorOk, "History Time changed to 10 minutes", "energy/e.cpp", "Init", 7));
    kesErrorLog(kesBuildErrorLocation(kesErrorWarning, "careful", "a.cpp", "f", 1));
    // a failure has one field a line, a notice and a warning one line; each starts with the asctime date
    const std::regex date("\\[\\w{3} \\w{3} [ \\d]\\d \\d\\d:\\d\\d:\\d\\d \\d{4}\\]\n");
    const std::string log = std::regex_replace(Log(), date, "[DATE]\n");
    EXPECT_EQ("[DATE]\nkesError Number : 10\nNetwork communication error.\n"
              "File ----------- : src/x.cpp\nFunction ------- : Open\nLine Number ---- : 42\n"
              "Custom Message - : connect failed\n"
              "[DATE]\nInfo : History Time changed to 10 minutes[FILE:energy/e.cpp][FUNCTION:Init][LINE:7]\n"
              "[DATE]\nWarning : careful[FILE:a.cpp][FUNCTION:f][LINE:1]\n",
              log);
    // a position too long for a notice is cut
    EXPECT_LT(kesBuildErrorLocation(kesErrorOk, "m", std::string(400, 'p').c_str(), "f", 1).GetDescription().size(),
              300u);
}

TEST_F(LogToFile, TrimKeepsTheNewestHalf)
{
    std::string old, x(40000, 'x');
    for (int i = 0; old.size() < 600000; ++i)
        old += "line " + std::to_string(i) + "\n";
    // the limit, the file and the count before the record; what is kept, the count after (-1: no trim)
    const std::tuple<unsigned int, std::string, unsigned int, std::string, int> cases[] = {
        // what an earlier run left does not count: the counter starts at 0
        {512000, old, 512000 - 10, old.substr(old.size() - 256000), 256000},
        {512000, "short", 600000, "short", 5}, // a file cut short by someone else
        {0, x, 4000000, x, -1},                // no limit
        {32000, x, 4000000, x, -1},            // half of it at most 16000
    };
    for (const auto& [limit, before, counted, kept, counter] : cases) {
        kesError::LogFileSize = limit;
        kes_test::WriteFile(m_dir.File("kes.log"), before);
        kesError::_current_log_filesize = counted;
        kesError record(kesErrorFailed, "trigger");
        kesErrorLog(record);
        EXPECT_TRUE(Log() == kept + record.GetDescription()) << limit << " " << counted;
        EXPECT_EQ(counter < 0 ? counted + record.GetDescription().size() : (unsigned int)counter,
                  kesError::_current_log_filesize);
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
    EXPECT_EQ(SEEN(400, log.size()), SEEN(records, kesError::_current_log_filesize));
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
    errno = 0;
    EXPECT_EQ("0 No error 0 No error 2 No such file or directory",
              SEEN(kesErrorStdToString(0), kesErrorStdToString(-1), kesErrorStdToString(2)));
    // with every output off the code still comes back
    unsigned int level = kesError::Level;
    kesError::Level = 0;
    EXPECT_EQ(kesErrorInvalidArgument, kesErrorLog(kesError(kesErrorInvalidArgument, "quiet")));
    kesError::Level = level;
}

TEST(KesTime, DateTextAndRecordForms)
{
    kesString text = kesTime::GetDateTime();
    EXPECT_EQ(SEEN(24, 1), SEEN(text.size(), text.back() != '\n'));
    kesTime::kesDateTime date;
    int month = -1, yearDay = -1, weekDay = -1;
    kesTime::GetDateTime(&date);
    kesTime::GetDateTime(nullptr, &yearDay, &month, nullptr, &weekDay, nullptr, nullptr, nullptr);
    EXPECT_EQ(SEEN(month + 1, yearDay + 1, weekDay + 1), SEEN(date.month, date.day_of_year, date.day_of_week));
    EXPECT_GE(date.year, 2020);
    kesTime::GetDateTime(static_cast<kesTime::kesDateTime*>(nullptr));
}

TEST(KesString, NumbersToText)
{
    const std::tuple<double, int, const char*> cases[] = {
        {12.0, 1, "12"},          {12.50, 1, "12.5"},
        {12.04, 1, "12"},         {-0.04, 1, "-0"},
        {1.25, 1, "1.2"},         {0.0, 1, "0"},
        {-0.0, 1, "0"},           {100.0, 1, "100"},
        {345.75, 1, "345.8"},     {16.666, 1, "16.7"},
        {1.2345, 3, "1.234"},     {3e9, 1, "3000000000"},
        {1500.0, 0, "1500"},      {5e9 + 0.5, 2, "5000000000.5"},
        {2.5e9, 0, "2500000000"}, {1.0 / 0.0, 1, "inf"},
        {-1.0 / 0.0, 1, "-inf"},
    };
    for (const auto& [value, precision, text] : cases)
        EXPECT_EQ(text, kesString::FromDouble(value, precision)) << value;
    EXPECT_EQ("0.1", kesString::FromFloat(0.1f, 3));
    const std::pair<const char*, unsigned int> numbers[] = {
        {"12abc", 12u}, {"-1", 4294967295u}, {"99999999999", 4294967295u}, {"  257", 257u}, {" + 3", 0u}, {"- 3", 0u}};
    for (const auto& [text, value] : numbers)
        EXPECT_EQ(value, kesString::AsULong(text, 10)) << text;
    EXPECT_EQ(SEEN(0, INT32_MIN), SEEN(kesString::AsInt("abc", 10), kesString::AsInt("-99999999999", 10)));
}

TEST(KesString, SplitAndShrink)
{
    const std::tuple<const char*, const char*, std::vector<std::string>> splits[] = {
        {"a,b", ",", {"a", "b"}}, {"a,,b", ",", {"a", "b"}}, {",a", ",", {"a"}},    {"a,", ",", {"a", ""}},
        {"", ",", {""}},          {",,", ",", {""}},         {"abc", ",", {"abc"}}, {"1||2|3", "||", {"1", "2|3"}},
    };
    for (const auto& [text, separator, pieces] : splits) {
        kesArray<kesString> parts;
        parts.AddBack("kept");
        kesString(text).GetSplit(&parts, separator);
        EXPECT_EQ("kept", parts[0]) << text;
        EXPECT_EQ(pieces, std::vector<std::string>(parts.begin() + 1, parts.end())) << text;
    }
    const std::tuple<const char*, bool, const char*> shrinks[] = {
        {"  a b  ", true, "a b  "},
        {"  a b  ", false, "  a b"},
        {"   ", true, "   "},
        {"   ", false, ""},
        {"  ", false, " "},
        {" ", false, ""},
        {"", false, ""},
        {"x", true, "x"},
    };
    for (const auto& [text, fromStart, result] : shrinks)
        EXPECT_EQ(result, kesString(text).SetShrink(" \t", fromStart)) << '"' << text << '"' << fromStart;
}

TEST(KesString, FindReplaceFormatAndCompare)
{
    kesString text("abcABCabc");
    EXPECT_EQ(SEEN(0, 6, 6, 0, 3, kesString::npos),
              SEEN(text.Find("abc", 0, false, false), text.Find("abc", 1, false, false),
                   text.Find("abc", 0, false, true), text.Find("abc", 4, false, true), text.Find("ABC", 4, true, true),
                   text.Find("xyz", 0, true, false)));
    // the replacement is not scanned again
    kesString commas("a,b,,c"), mixed("One one ONE");
    commas.FindAndReplaceAll(",", ",,", false);
    mixed.FindAndReplaceAll("one", "Two", true);
    EXPECT_EQ("a,,b,,,,c Two Two Two", SEEN(commas, mixed));
    // a format never writes past its size
    EXPECT_EQ("x0123456 12-34",
              SEEN(kesString("x").AddFormat(8, "%s", "0123456789"), kesString("x").SetFormat(16, "%i-%i", 12, 34)));
    EXPECT_EQ("0 1 0 0",
              SEEN(kesString(static_cast<const char*>(nullptr)).GetLength(), kesString("ABC").IsEqualNoCase("abc"),
                   kesString("abc").IsEqualNoCase("abcd"), kesString("\xC4").IsEqualNoCase("\xE4")));
    kesArray<unsigned short> values;
    for (unsigned short v : {5, 3, 5, 1, 3})
        values.AddBack(v);
    values.Unique(nullptr, nullptr);
    EXPECT_EQ((std::vector<unsigned short>{1, 3, 5}), std::vector<unsigned short>(values.begin(), values.end()));
    EXPECT_EQ(nullptr, (kesMap<int, int*>().GetKeyValue(7)));
}

TEST(CommandLineParser, MatchesWithoutCaseAndTakesTheNextWord)
{
    const char* argv[] = {"prog", "-log", "-conf", "x", "-CONF", "y", "-dir"};
    kesCommandLineParser parser(const_cast<char* const*>(argv), 7);
    kesString conf("stale"), log, dir, help("stale");
    EXPECT_EQ("1 1 1 0 1 0",
              SEEN(parser.GetArgument("-conf", &conf), parser.GetArgument("-LOG", &log),
                   parser.GetArgument("-dir", &dir), parser.GetArgument("-h", &help),
                   parser.GetArgument("-dir", nullptr), kesCommandLineParser(nullptr, 0).GetArgument("prog", nullptr)));
    EXPECT_EQ("x|-conf||", conf + "|" + log + "|" + dir + "|" + help);
}
