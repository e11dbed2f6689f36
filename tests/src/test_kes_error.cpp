#include <gtest/gtest.h>

#include <thread>

#include "kes_error.h"
#include "kes_time.h"
#include "test_process.h"

using namespace kes;

namespace {

// Routes the log to a file of a temporary folder for the length of a test.
class LogToFile : public ::testing::Test {
protected:
    void SetUp() override
    {
        m_level = kesError::Level;
        m_file = kesError::LogFile;
        m_size = kesError::LogFileSize;
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
    unsigned int m_level = 0;
    kesString m_file;
    unsigned int m_size = 0;
};

// Replaces each bracketed asctime line by "[DATE]", checking its shape on the way.
std::string dates_masked(const std::string& log)
{
    std::string out;
    size_t at = 0;
    while (at < log.size()) {
        size_t end = log.find('\n', at);
        std::string line = log.substr(at, end == std::string::npos ? std::string::npos : end - at);
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

TEST_F(LogToFile, FailureRecordHasOneFieldALine)
{
    EXPECT_EQ(kesErrorLog(kesBuildErrorLocation(kesErrorNetwork, "connect failed", "src/x.cpp", "Open", 42)),
              kesErrorNetwork);
    EXPECT_EQ(dates_masked(Log()), "[DATE]\nkesError Number : 10\nNetwork communication error.\n"
                                   "File ----------- : src/x.cpp\nFunction ------- : Open\nLine Number ---- : 42\n"
                                   "Custom Message - : connect failed\n");
}

TEST_F(LogToFile, NoticeAndWarningAreOneLine)
{
    kesErrorLog(kesBuildErrorLocation(kesErrorOk, "History Time changed to 10 minutes", "energy/e.cpp", "Init", 7));
    kesErrorLog(kesBuildErrorLocation(kesErrorWarning, "careful", "a.cpp", "f", 1));
    EXPECT_EQ(dates_masked(Log()),
              "[DATE]\nInfo : History Time changed to 10 minutes[FILE:energy/e.cpp][FUNCTION:Init][LINE:7]\n"
              "[DATE]\nWarning : careful[FILE:a.cpp][FUNCTION:f][LINE:1]\n");
}

TEST_F(LogToFile, TrimKeepsTheNewestHalfAndTheRecord)
{
    kesError::LogFileSize = 512000;
    std::string old;
    for (int i = 0; old.size() < 600000; ++i)
        old += "line " + std::to_string(i) + "\n";
    kes_test::WriteFile(m_dir.File("kes.log"), old);
    // What an earlier run left does not count: the counter starts at 0.
    kesError::_current_log_filesize = 512000 - 10;
    kesError record(kesErrorFailed, "trigger");
    kesErrorLog(record);
    std::string log = Log();
    EXPECT_EQ(log, old.substr(old.size() - 256000) + record.GetDescription());
    EXPECT_EQ(kesError::_current_log_filesize, 256000u);
}

TEST_F(LogToFile, TrimOfAFileCutShorterThanHalfKeepsAllOfIt)
{
    kesError::LogFileSize = 512000;
    kes_test::WriteFile(m_dir.File("kes.log"), "short");
    kesError::_current_log_filesize = 600000;
    kesError record(kesErrorOk, "next");
    kesErrorLog(record);
    EXPECT_EQ(Log(), "short" + record.GetDescription());
}

TEST_F(LogToFile, LimitsThatNeverTrim)
{
    for (unsigned int limit : {0u, 32000u}) {
        kesError::LogFileSize = limit;
        kes_test::WriteFile(m_dir.File("kes.log"), std::string(40000, 'x'));
        kesError::_current_log_filesize = 4000000;
        kesErrorLog(kesError(kesErrorOk, "n"));
        EXPECT_EQ(Log().substr(0, 40000), std::string(40000, 'x')) << limit;
    }
}

TEST_F(LogToFile, ConcurrentLoggersLoseNoRecord)
{
    kesError::LogFileSize = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([] {
            for (int i = 0; i < 200; ++i)
                kesErrorLog(kesError(kesErrorOk, "r"));
        });
    for (std::thread& t : threads)
        t.join();
    std::string log = Log();
    size_t records = 0;
    for (size_t p = log.find("Info : r\n"); p != std::string::npos; p = log.find("Info : r\n", p + 1))
        ++records;
    EXPECT_EQ(records, 800u);
    EXPECT_EQ(kesError::_current_log_filesize, log.size());
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

TEST(KesError, TextsOfCodes)
{
    EXPECT_EQ(kesErrorToString(kesErrorOk), "The operation completed succefully.");
    EXPECT_EQ(kesErrorToString(kesErrorWarning), "kesError description not found. Update kesErrorToString function.!");
    EXPECT_EQ(kesErrorToString(static_cast<kesEError>(11)), kesErrorToString(kesErrorWarning));
    EXPECT_EQ(kesErrorStdToString(0), "0 No error");
    errno = 0;
    EXPECT_EQ(kesErrorStdToString(-1), "0 No error");
    EXPECT_EQ(kesErrorStdToString(2), "2 No such file or directory");
}

TEST(KesError, LevelZeroStillReturnsTheCode)
{
    unsigned int level = kesError::Level;
    kesError::Level = 0;
    EXPECT_EQ(kesErrorLog(kesError(kesErrorInvalidArgument, "quiet")), kesErrorInvalidArgument);
    kesError::Level = level;
}

TEST(KesError, PositionTooLongForTheNoticeIsCut)
{
    std::string path(400, 'p');
    kesError record = kesBuildErrorLocation(kesErrorOk, "m", path.c_str(), "f", 1);
    EXPECT_LT(record.GetDescription().size(), 300u);
}

TEST(KesTime, DateTextAndRecordForms)
{
    kesString text = kesTime::GetDateTime();
    EXPECT_EQ(text.size(), 24u);
    EXPECT_NE(text.back(), '\n');

    kesTime::kesDateTime date;
    int month = -1, yearDay = -1, weekDay = -1;
    kesTime::GetDateTime(&date);
    kesTime::GetDateTime(nullptr, &yearDay, &month, nullptr, &weekDay, nullptr, nullptr, nullptr);
    EXPECT_EQ(date.month, month + 1);
    EXPECT_EQ(date.day_of_year, yearDay + 1);
    EXPECT_EQ(date.day_of_week, weekDay + 1);
    EXPECT_GE(date.year, 2020);
    kesTime::GetDateTime(static_cast<kesTime::kesDateTime*>(nullptr));
    EXPECT_EQ(static_cast<unsigned int>(5u - 0xFFFFFFFEu), 7u);
}
