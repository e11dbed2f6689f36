// The daemon's history files from a real run. The clock of the daemon process
// is faked and sped up (faketime), so ticks a minute apart come seconds apart.
#include <gtest/gtest.h>

#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "kes_osutility.h"
#include "test_gateway.h"
#include "test_process.h"

namespace {

// Preloaded through env, which execs: the daemon keeps the pid that SIGTERM goes to.
const char* const FAKETIME = "/usr/lib/x86_64-linux-gnu/faketime/libfaketimeMT.so.1";

// The energy totals of one UID in the day file, oldest first (every fourth field).
std::vector<double> day_totals(const std::string& day, const std::string& uid)
{
    std::vector<double> totals;
    const std::string text = "\n" + day, key = "\n" + uid + "|";
    for (size_t at = text.find(key); at != std::string::npos; at = text.find(key, at + 1)) {
        const std::string row = text.substr(at + 1, text.find('\n', at + 1) - at - 1);
        size_t bars = 0;
        for (size_t p = row.find('|'); p != std::string::npos; p = row.find('|', p + 1))
            if (++bars % 4 == 0)
                totals.push_back(atof(row.c_str() + p + 1));
    }
    return totals;
}

class DaemonHistory : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(kes::kesOsUtility::FileExist(FAKETIME)) << "faketime is not installed";
        ASSERT_TRUE(m_gateway.Start());
        // String mid 3: 230.5 V and 1.5 A, 345.75 W; pulse counter mid 5: 123456 pulses.
        m_gateway.SetRegisters(2, 300, {2305, 150});
        m_gateway.SetRegisters(5, 500, {0x0001, 0xE240, 7});
        kes_test::WriteFile(m_dir.File("conf.xml"),
                            "<energy><line id=\"1\" adr=\"" + m_gateway.GetAddress() +
                                "\"><v type=\"2\" mid=\"3\" iid=\"1203\" fid=\"2\"/>"
                                "<v type=\"5\" mid=\"5\" iid=\"1402\" fid=\"1\"/></line></energy>");
        ASSERT_EQ(0, mkdir(m_dir.File("data").c_str(), 0777));
    }

    // Runs the daemon from the fake time given, forty times faster than real
    // time, until the day file holds `groups` totals of the energy parameter.
    void run_until(const std::string& start, size_t groups)
    {
        kes_test::ChildProcess daemon;
        ASSERT_TRUE(
            daemon.Start({"/usr/bin/env", std::string("LD_PRELOAD=") + FAKETIME, "FAKETIME=@" + start + " x40",
                          "ASAN_OPTIONS=verify_asan_link_order=0:detect_leaks=1", kes_test::BinPath("kes_energy"),
                          "-conf", m_dir.File("conf.xml"), "-dir", m_dir.File("data"), "-history", "1"}));
        auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        // The offsets are written last in a tick.
        while ((day_totals(Data("d"), "1203").size() < groups || Data("offset_pulse").empty()) &&
               std::chrono::steady_clock::now() < end)
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        daemon.Signal(SIGTERM);
        EXPECT_EQ(daemon.Wait(5000), 0) << daemon.Output();
    }

    std::string Data(const std::string& name) { return kes_test::ReadFile(m_dir.File("data/" + name)); }

    kes_test::TestGateway m_gateway;
    kes_test::TempDir m_dir;
};

TEST_F(DaemonHistory, TotalsGrowEachTickAndContinueAfterARestart)
{
    // Each tick adds the average power times N / 60: 345.75 W for one minute, a
    // little less since the time before an interval's first sample counts as 0.
    auto minute = [](double before, double after) { return after - before > 5.4 && after - before < 5.85; };
    run_until("2026-06-15 10:00:40", 2);
    const std::vector<double> totals = day_totals(Data("d"), "1203");
    ASSERT_GE(totals.size(), 2u) << Data("d");
    for (size_t i = 0; i < totals.size(); ++i)
        EXPECT_TRUE(minute(i ? totals[i - 1] : 0.0, totals[i])) << i << "\n" << Data("d");
    // clang-format off
    const char* const begins[][2] = {{"d", "H|10\n"}, {"m", "D|15\n"}, {"y", "M|6\n"}, {"b", "Y|2026\n"},
        {"2026_06_15", "H|10\n"}, {"2026_06", "D|15\n"}, {"2026", "M|6\n"}, {"offset_energy_day", "15\n1203|"},
        {"offset_pulse", "1402|123456.00\n"}};
    // clang-format on
    for (const auto& f : begins)
        EXPECT_EQ(0u, Data(f[0]).find(f[1])) << f[0] << "\n" << Data(f[0]);
    EXPECT_NE(Data("d").find("\n1402|123.5"), std::string::npos) << Data("d");

    // Later the same day: the total goes on from where it stood.
    run_until("2026-06-15 10:20:40", totals.size() + 1);
    const std::vector<double> after = day_totals(Data("d"), "1203");
    ASSERT_GT(after.size(), totals.size()) << Data("d");
    EXPECT_TRUE(minute(totals.back(), after[totals.size()])) << Data("d");
}

} // namespace
