#include <gtest/gtest.h>

#include <signal.h>

#include <chrono>
#include <thread>

#include "kes_energy.h"
#include "test_process.h"

using kes_test::BinPath;
using kes_test::ChildProcess;
using kes_test::TempDir;

namespace {

const char* const HELP = "\nKes. Energy Command Help\n"
                         "-conf configuration file ------ [e.g - \"/data/conf.xml\" or \"./conf.xml\"]\n"
                         "-dir data directory ----------- [e.g - \"/data\" or \"./data\"]\n"
                         "-history History time --------- [e.g - save data every minute, possible values are "
                         "1-2-3-4-5-6-10-12-15-20-30-60]\n"
                         "-version appliation version --- [e.g - 1.0.0]\n"
                         "-fversion fremwork version ---- [e.g - 1.0.0]\n"
                         "-log log file name ------------ [file application log]\n\n";

struct RunCase {
    std::vector<std::string> args;
    int status;
    std::vector<std::string> texts; // in this order in the output
};

std::ostream& operator<<(std::ostream& out, const RunCase& c)
{
    for (const std::string& a : c.args)
        out << a << ' ';
    return out;
}

class DaemonCommandLine : public ::testing::TestWithParam<RunCase> {};

TEST_P(DaemonCommandLine, PrintsAndEndsWithItsStatus)
{
    TempDir dir;
    kes_test::WriteFile(dir.File("conf.xml"), "<energy></energy>");
    std::vector<std::string> argv = {BinPath("kes_energy")};
    for (const std::string& a : GetParam().args)
        argv.push_back(a == "CONF" ? dir.File("conf.xml") : (a == "DIR" ? dir.Path() : a));
    ChildProcess child;
    ASSERT_TRUE(child.Start(argv, dir.Path()));
    EXPECT_EQ(child.Wait(5000), GetParam().status);
    const std::string& out = child.Output();
    size_t at = 0;
    for (const std::string& text : GetParam().texts) {
        size_t found = out.find(text, at);
        EXPECT_NE(found, std::string::npos) << "missing in order: " << text << "\n" << out;
        if (found != std::string::npos)
            at = found + text.size();
    }
}

INSTANTIATE_TEST_SUITE_P(
    Cases, DaemonCommandLine,
    ::testing::Values(
        RunCase{{"-version"}, 0, {"0.2.2.0\n"}}, RunCase{{"-fversion"}, 0, {"0.5.0\n"}},
        RunCase{{"-conf", "x", "-H", "-version"}, 0, {HELP}},
        RunCase{{}, 2, {"Configuration file not found", "Energy Init"}},
        RunCase{{"-dir", "DIR", "-conf"}, 2, {"Configuration file is invalid", "Energy Init"}},
        RunCase{{"-conf", "/nonexistent/conf.xml"}, 2, {"Configuration file does not exist"}},
        RunCase{{"-conf", "CONF"}, 2, {"Data directory not found"}},
        RunCase{{"-conf", "CONF", "-dir", ""}, 2, {"Data directory is invalid"}},
        RunCase{{"-conf", "CONF", "-dir", "/nonexistent/dir"}, 2, {"Data directory does not exist"}},
        RunCase{{"-HISTORY", "7"}, 2, {"History Time changed to 10 minutes", "Configuration file not found"}},
        RunCase{{"-history", "60"}, 2, {"History Time changed to 60 minutes"}},
        RunCase{{"-history", "0"}, 2, {"History Time 0 is not valid", "History Time changed to 60 minutes"}}));

TEST(DaemonHelp, IsExactlyTheHelpText)
{
    ChildProcess child;
    ASSERT_TRUE(child.Start({BinPath("kes_energy"), "-h", "-conf"}));
    EXPECT_EQ(child.Wait(5000), 0);
    EXPECT_EQ(child.Output(), HELP);
}

TEST(DaemonHistoryTime, RoundsUpToADivisorOfSixty)
{
    const unsigned long cases[][2] = {{1, 1},    {5, 5},   {7, 10},   {9, 10},  {11, 12}, {13, 15},
                                      {16, 20},  {21, 30}, {31, 60},  {59, 60}, {60, 60}, {61, 60},
                                      {200, 60}, {257, 1}, {300, 60}, {0, 60},  {256, 60}};
    for (const auto& c : cases)
        EXPECT_EQ(kes::Energy::kesHistoryTimeFromValue(c[0]), c[1]) << c[0];
}

TEST(DaemonLog, RecordsGoToTheLogFileToo)
{
    TempDir dir;
    ChildProcess child;
    ASSERT_TRUE(child.Start({BinPath("kes_energy"), "-log", dir.File("kes.log")}));
    EXPECT_EQ(child.Wait(5000), 2);
    std::string log = kes_test::ReadFile(dir.File("kes.log"));
    EXPECT_NE(log.find("Custom Message - : Configuration file not found\n"), std::string::npos) << log;
    EXPECT_NE(log.find("Custom Message - : Energy Init\n"), std::string::npos) << log;
    EXPECT_EQ(log.find("\x1b["), std::string::npos);
}

TEST(DaemonSigterm, StopsTheWaitingDaemonWithinASecond)
{
    TempDir dir;
    kes_test::WriteFile(dir.File("conf.xml"), "<energy></energy>");
    for (int delayMs : {0, 300}) {
        ChildProcess child;
        ASSERT_TRUE(child.Start({BinPath("kes_energy"), "-conf", dir.File("conf.xml"), "-dir", dir.Path()}));
        // The first case sends as soon as the handler exists, while the daemon is still starting.
        if (delayMs)
            std::this_thread::sleep_for(std::chrono::milliseconds(delayMs));
        else
            ASSERT_TRUE(kes_test::CatchesSigterm(child.Pid(), 2000));
        auto sent = std::chrono::steady_clock::now();
        child.Signal(SIGTERM);
        EXPECT_EQ(child.Wait(3000), 0) << child.Output();
        auto took = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - sent);
        EXPECT_LT(took.count(), 1000);
        EXPECT_NE(child.Output().find("Info : [EXIT SUCCESS][FILE:energy/main.cpp][FUNCTION:main]"), std::string::npos)
            << child.Output();
    }
}

} // namespace
