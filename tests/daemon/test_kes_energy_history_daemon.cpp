// The daemon's history files from a real run. The clock of the daemon process
// is faked and sped up (faketime), so ticks a minute apart come seconds apart.
#include <gtest/gtest.h>

#include <signal.h>
#include <stdlib.h>

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

std::vector<std::string> split(const std::string& text, char separator)
{
    std::vector<std::string> pieces;
    size_t at = 0;
    for (size_t next; (next = text.find(separator, at)) != std::string::npos; at = next + 1)
        pieces.push_back(text.substr(at, next - at));
    pieces.push_back(text.substr(at));
    return pieces;
}

// The energy totals of one UID in the day file, oldest first (every fourth field).
std::vector<double> day_totals(const std::string& day, const std::string& uid)
{
    std::vector<double> totals;
    for (const std::string& line : split(day, '\n')) {
        std::vector<std::string> fields = split(line, '|');
        if (fields.empty() || fields[0] != uid)
            continue;
        for (size_t i = 4; i < fields.size(); i += 4)
            totals.push_back(atof(fields[i].c_str()));
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
        mkdir_data();
    }

    void mkdir_data() { ASSERT_EQ(system(("mkdir -p " + m_dir.File("data")).c_str()), 0); }

    // Runs the daemon from the fake time given, twenty times faster than real
    // time, until the day file holds `groups` totals of the energy parameter.
    void run_until(const std::string& start, size_t groups)
    {
        kes_test::ChildProcess daemon;
        ASSERT_TRUE(
            daemon.Start({"/usr/bin/env", std::string("LD_PRELOAD=") + FAKETIME, "FAKETIME=@" + start + " x20",
                          "ASAN_OPTIONS=verify_asan_link_order=0:detect_leaks=1", kes_test::BinPath("kes_energy"),
                          "-conf", m_dir.File("conf.xml"), "-dir", m_dir.File("data"), "-history", "1"}));
        auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        while (day_totals(Data("d"), "1203").size() < groups && std::chrono::steady_clock::now() < end)
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        // Let the tick that wrote "d" finish the other files.
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        daemon.Signal(SIGTERM);
        EXPECT_EQ(daemon.Wait(5000), 0) << daemon.Output();
    }

    static double Increment(const std::vector<double>& totals, size_t i)
    {
        return totals[i] - (i ? totals[i - 1] : 0.0);
    }

    std::string Data(const std::string& name) { return kes_test::ReadFile(m_dir.File("data/" + name)); }

    kes_test::TestGateway m_gateway;
    kes_test::TempDir m_dir;
};

TEST_F(DaemonHistory, TotalsGrowEachTickAndContinueAfterARestart)
{
    run_until("2026-06-15 10:00:40", 3);
    std::vector<double> totals = day_totals(Data("d"), "1203");
    ASSERT_GE(totals.size(), 3u) << Data("d");
    // Each tick adds the average power times N / 60: 345.75 W for one minute, a
    // little less since the time before an interval's first sample counts as 0.
    for (size_t i = 0; i < totals.size(); ++i)
        EXPECT_TRUE(Increment(totals, i) > 5.4 && Increment(totals, i) < 5.85) << i << "\n" << Data("d");

    for (const char* name : {"d", "m", "y", "b", "2026_06_15", "2026_06", "2026", "offset_energy_day", "offset_pulse"})
        EXPECT_FALSE(Data(name).empty()) << name;
    EXPECT_EQ(Data("d").substr(0, 5), "H|10\n");
    EXPECT_EQ(Data("2026_06_15"), Data("d"));
    EXPECT_EQ(Data("m").substr(0, 5), "D|15\n");
    EXPECT_EQ(Data("y").substr(0, 4), "M|6\n");
    EXPECT_EQ(Data("b").substr(0, 7), "Y|2026\n");
    EXPECT_NE(Data("d").find("\n1402|123.5"), std::string::npos) << Data("d");
    EXPECT_EQ(Data("offset_pulse"), "1402|123456.00\n");
    std::vector<std::string> offset = split(Data("offset_energy_day"), '\n');
    ASSERT_GE(offset.size(), 2u);
    EXPECT_EQ(offset[0], "15");

    // Later the same day: the total goes on from where it stood.
    double last = totals.back();
    run_until("2026-06-15 10:20:40", totals.size() + 1);
    std::vector<double> after = day_totals(Data("d"), "1203");
    ASSERT_GT(after.size(), totals.size()) << Data("d");
    EXPECT_TRUE(after[totals.size()] - last > 5.4 && after[totals.size()] - last < 5.85) << Data("d");
    EXPECT_NE(Data("d").find("H|10\n"), std::string::npos);
}

} // namespace
