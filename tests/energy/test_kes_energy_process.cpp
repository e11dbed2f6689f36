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

// CONF, DIR and LOG stand for a file, a folder and a log file of the test.
struct RunCase {
    std::vector<std::string> args;
    int status;
    std::vector<std::string> texts; // in this order in the output, or in the log file if one is asked for
    bool whole = false;             // the only text is the whole output
    bool sigterm = false;           // sent once the daemon waits; it must end within a second
};

class DaemonCommandLine : public ::testing::TestWithParam<RunCase> {};

TEST_P(DaemonCommandLine, PrintsAndEndsWithItsStatus)
{
    const RunCase& c = GetParam();
    TempDir dir;
    kes_test::WriteFile(dir.File("conf.xml"), "<energy></energy>");
    std::vector<std::string> argv = {BinPath("kes_energy")};
    for (const std::string& a : c.args)
        argv.push_back(a == "CONF" ? dir.File("conf.xml") : a == "DIR" ? dir.Path() : a == "LOG" ? dir.File("log") : a);
    ChildProcess child;
    ASSERT_TRUE(child.Start(argv, dir.Path()));
    if (c.sigterm) {
        ASSERT_TRUE(kes_test::CatchesSigterm(child.Pid(), 2000));
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        child.Signal(SIGTERM);
    }
    EXPECT_EQ(child.Wait(c.sigterm ? 1000 : 5000), c.status);
    const bool toLog = !c.args.empty() && c.args[0] == "-log";
    const std::string out = toLog ? kes_test::ReadFile(dir.File("log")) : child.Output();
    EXPECT_TRUE(!c.whole || out == c.texts[0]) << out;
    for (size_t i = 0, at = 0; i < c.texts.size(); ++i) {
        at = out.find(c.texts[i], at);
        ASSERT_NE(at, std::string::npos) << "missing in order: " << c.texts[i] << "\n" << out;
    }
    EXPECT_TRUE(!toLog || out.find("\x1b[") == std::string::npos) << "no colours in the log file";
}

INSTANTIATE_TEST_SUITE_P(
    Cases, DaemonCommandLine,
    ::testing::Values(
        RunCase{{"-version"}, 0, {"0.2.2.0\n"}, true}, RunCase{{"-fversion"}, 0, {"0.5.0\n"}, true},
        RunCase{{"-h", "-conf"}, 0, {HELP}, true}, RunCase{{"-conf", "x", "-H", "-version"}, 0, {HELP}, true},
        RunCase{{}, 2, {"Configuration file not found", "Energy Init"}},
        RunCase{{"-dir", "DIR", "-conf"}, 2, {"Configuration file is invalid", "Energy Init"}},
        RunCase{{"-conf", "/nonexistent/conf.xml"}, 2, {"Configuration file does not exist"}},
        RunCase{{"-conf", "CONF"}, 2, {"Data directory not found"}},
        RunCase{{"-conf", "CONF", "-dir", ""}, 2, {"Data directory is invalid"}},
        RunCase{{"-conf", "CONF", "-dir", "/nonexistent/dir"}, 2, {"Data directory does not exist"}},
        RunCase{{"-HISTORY", "7"}, 2, {"History Time changed to 10 minutes", "Configuration file not found"}},
        RunCase{{"-history", "60"}, 2, {"History Time changed to 60 minutes"}},
        RunCase{{"-history", "0"}, 2, {"History Time 0 is not valid", "History Time changed to 60 minutes"}},
        RunCase{{"-log", "LOG"},
                2,
                {"Custom Message - : Configuration file not found\n", "Custom Message - : Energy Init\n"}},
        RunCase{{"-conf", "CONF", "-dir", "DIR"},
                0,
                {"Info : [EXIT SUCCESS][FILE:energy/main.cpp][FUNCTION:main]"},
                false,
                true}));

TEST(DaemonHistoryTime, RoundsUpToADivisorOfSixty)
{
    const unsigned long cases[][2] = {{1, 1},    {5, 5},   {7, 10},   {9, 10},  {11, 12}, {13, 15},
                                      {16, 20},  {21, 30}, {31, 60},  {59, 60}, {60, 60}, {61, 60},
                                      {200, 60}, {257, 1}, {300, 60}, {0, 60},  {256, 60}};
    for (const auto& c : cases)
        EXPECT_EQ(kes::Energy::kesHistoryTimeFromValue(c[0]), c[1]) << c[0];
}

} // namespace
