// The daemon process end to end: its configuration in, datagrams and history
// files out; lines that misbehave, and SIGTERM in every phase of its life.
// The daemon's clock is faked (faketime) so that a minute tick comes seconds
// after the start.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <map>
#include <regex>
#include <set>

#include "datagram_receiver.h"
#include "loopback.h"
#include "test_gateway.h"
#include "test_process.h"

namespace {

using Clock = std::chrono::steady_clock;
using Datagram = kes_test::PublishedDatagram;

double since(Clock::time_point i_start)
{
    return std::chrono::duration<double>(Clock::now() - i_start).count();
}

std::string value(unsigned int i_type, unsigned int i_mid, unsigned int i_iid, unsigned int i_fid)
{
    return "<v type=\"" + std::to_string(i_type) + "\" mid=\"" + std::to_string(i_mid) + "\" iid=\"" +
           std::to_string(i_iid) + "\" fid=\"" + std::to_string(i_fid) + "\"/>";
}

std::string line(unsigned int i_id, const std::string& i_address, const std::string& i_values)
{
    return "<line id=\"" + std::to_string(i_id) + "\" adr=\"" + i_address + "\">" + i_values + "</line>";
}

std::string local(uint16_t i_port)
{
    return "127.0.0.1:" + std::to_string(i_port);
}

// A phase of the daemon's life for SIGTERM to come in.
enum Phase { Reading, Refused, StartUnanswered, BadConfiguration };

// A folder with dev/ and data/, the datagram port, the simulator on sim.xml
// and the daemon on conf.xml.
class Daemon : public ::testing::TestWithParam<Phase> {
protected:
    void SetUp() override
    {
        ASSERT_EQ(m_receiver.Port(), 16549) << "the datagram port is taken";
        ASSERT_TRUE(mkdir(m_dir.File("dev").c_str(), 0755) == 0 && mkdir(m_dir.File("data").c_str(), 0755) == 0);
    }

    // On a clock faked five seconds before a minute tick.
    void Start(const std::string& i_conf)
    {
        kes_test::WriteFile(m_dir.File("conf.xml"), i_conf);
        ASSERT_TRUE(m_daemon.Start({"/usr/bin/env", "LD_PRELOAD=/usr/lib/x86_64-linux-gnu/faketime/libfaketimeMT.so.1",
                                    "FAKETIME=@2026-06-15 10:00:55", "ASAN_OPTIONS=verify_asan_link_order=0",
                                    kes_test::BinPath("kes_energy"), "-conf", m_dir.File("conf.xml"), "-dir",
                                    m_dir.File("data/"), "-history", "1"}));
    }

    // Takes datagrams until the time is up, or until the first one if so asked.
    void Receive(double i_seconds, bool i_first = false)
    {
        std::string raw;
        for (const Clock::time_point start = Clock::now(); since(start) < i_seconds && !(i_first && !m_got.empty());) {
            m_daemon.Output(); // keeps its pipe from filling up
            Datagram d;
            if (m_receiver.Receive(&raw, 10) && kes_test::ParseDatagram(raw, &d)) {
                d.at = since(m_start);
                m_got.push_back(d);
            }
        }
    }

    void Stop()
    {
        const Clock::time_point signalled = Clock::now();
        m_daemon.Signal(SIGTERM);
        EXPECT_EQ(m_daemon.Wait(5000), 0) << m_daemon.Output();
        EXPECT_LT(since(signalled), 2) << m_daemon.Output();
    }

    std::string Sim(const std::string& i_lines, std::vector<std::string> i_options = {})
    {
        kes_test::WriteFile(m_dir.File("sim.xml"), "<energy>" + i_lines + "</energy>");
        i_options.insert(i_options.begin(), {kes_test::BinPath("kes_bus_sim"), "-conf", m_dir.File("sim.xml")});
        EXPECT_TRUE(m_sim.Start(i_options) && m_sim.WaitForOutput("ready", 5000)) << m_sim.Output();
        return i_lines;
    }

    kes_test::DatagramReceiver m_receiver{16549};
    kes_test::TempDir m_dir;
    kes_test::ChildProcess m_sim, m_daemon;
    Clock::time_point m_start = Clock::now();
    std::vector<Datagram> m_got;
};

// One daemon through its first minute tick. Line 1 (TCP): a clean panel first
// in the cycle, then devices with faults and one that never answers; its
// gateway drops every 1.2 s. Line 2 (serial): a clean string module first; its
// adapter is pulled every 1.5 s. Line 3: every value of every type, and a
// weather station. Line 4: a gateway of known registers, one device silent.
// It ends with SIGTERM while the tick writes its files.
TEST_F(Daemon, ConfigurationInDatagramsAndFilesOutThroughDropsAndFaults)
{
    kes_test::TestGateway gateway;
    ASSERT_TRUE(gateway.Start());
    gateway.SetRegisters(2, 300, {2305, 150});         // String mid 3: 230.5 V, 1.5 A
    gateway.SetRegisters(5, 500, {0x0001, 0xE240, 7}); // pulse counter mid 5: 123456 pulses, period 7
    gateway.SetRegisters(5, 600, {0x0000, 0x0010, 0}); // mid 6: period 0
    const std::map<unsigned int, std::string> first = {{4201, "230.5"}, {4202, "1.5"},   {4203, "345.8"}, {4301, "f"},
                                                       {4302, "f"},     {4401, "514.3"}, {4402, "123.5"}, {4501, "0"}};
    std::string known;
    for (const auto& item : first)
        known += value(item.first < 4400 ? 2 : 5, item.first / 100 - 39, item.first, item.first % 100 - 1);
    const unsigned int counts[12] = {0, 2, 3, 4, 0, 2, 5, 9, 4, 10, 3, 7}; // values by type
    std::string every;
    std::set<unsigned int> silent;
    for (unsigned int type = 1; type <= 11; ++type)
        for (unsigned int fid = 0; fid < counts[type]; ++fid) {
            every += value(type, type, 30000 + type * 100 + fid, fid);
            silent.insert(30000 + type * 100 + fid);
        }
    const std::string serial = m_dir.File("dev/ttyUSB0");
    const std::string lines =
        line(1, local(kes_test::FreePort()),
             value(1, 1, 1101, 0) + value(1, 1, 1102, 1) + value(2, 2, 1201, 0) + value(2, 2, 1203, 2) +
                 value(2, 4, 1401, 0) + value(6, 5, 1501, 0) + value(6, 5, 1504, 4) + value(5, 6, 1601, 0) +
                 value(5, 6, 1602, 1) + value(2, 9, 1901, 0)) +
        line(2, serial, value(7, 1, 2101, 0) + value(7, 1, 2108, 8) + value(5, 2, 2201, 1) + value(8, 3, 2301, 1)) +
        line(3, local(kes_test::FreePort()), every) + "<davis adr=\"" + local(kes_test::FreePort()) + "\"/>";
    // clang-format off
    Sim(lines, {"-hour", "12", "-weather", "100", "-drop", "1:1.2:0.4", "-drop", "2:1.5:0.4", "-fault", "garbage:1:4:30", "-fault",
                "late:1:5:20:200", "-fault", "unit:1:6:30", "-fault", "silent:1:9", "-fault", "crc:2:2:30", "-fault", "exception:2:3:30"});
    // clang-format on
    m_start = Clock::now();
    Start("<energy>" + lines + line(4, gateway.GetAddress(), known) + "</energy>");
    std::vector<double> back[2]; // when each line came back, in seconds
    std::vector<long> descriptors;
    const std::string fds = "/proc/" + std::to_string(m_daemon.Pid()) + "/fd";
    std::error_code error;
    while (since(m_start) < 4.8) {
        Receive(0.25);
        descriptors.push_back(std::distance(std::filesystem::directory_iterator(fds, error), {}));
        const std::string events = m_sim.Output();
        for (unsigned int l = 0; l < 2; ++l) {
            const std::regex event("line " + std::to_string(l + 1) + " back \\(");
            back[l].resize(std::distance(std::sregex_iterator(events.begin(), events.end(), event), {}),
                           since(m_start));
        }
    }
    const std::string before = kes_test::ReadFile(m_dir.File("data/d"));
    for (auto end = Clock::now() + std::chrono::seconds(1);
         kes_test::ReadFile(m_dir.File("data/d")) == before && Clock::now() < end;)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    Stop();
    m_sim.Signal(SIGTERM);
    EXPECT_EQ(m_sim.Wait(5000), 0) << m_sim.Output();

    std::map<unsigned int, std::string> texts;
    std::vector<unsigned int> order; // of the known line, in the first cycle
    for (const Datagram& d : m_got) {
        if (d.iid / 100 >= 42 && d.iid < 10000 && texts.emplace(d.iid, d.text).second)
            order.push_back(d.iid);
        silent.erase(d.text != "f" ? d.iid : 0);
    }
    EXPECT_EQ(first, texts);
    EXPECT_EQ(order, (std::vector<unsigned int>{4201, 4202, 4203, 4301, 4302, 4401, 4402, 4501}));
    EXPECT_EQ(silent, std::set<unsigned int>());
    const std::string day = kes_test::ReadFile(m_dir.File("data/d"));
    EXPECT_TRUE(std::regex_search(day, std::regex("^H\\|10\n[^]*\n4203\\|[^]*\n4402\\|123.5\n"))) << day;
    EXPECT_NE(kes_test::ReadFile(m_dir.File("data/meteo")), "");
    // Publishing came back soon after every return.
    EXPECT_GE(back[0].size() + back[1].size(), 3u) << m_sim.Output();
    for (unsigned int l = 0; l < 2; ++l)
        for (double at : back[l]) {
            auto resumed = std::find_if(m_got.begin(), m_got.end(), [&](const Datagram& d) {
                return d.at > at && d.iid / 1000 == l + 1 && d.text != "f";
            });
            EXPECT_TRUE(at > 2.6 || (resumed != m_got.end() && resumed->at - at < 2.2))
                << "line " << l + 1 << " at " << at;
        }
    // Descriptors stay flat once the first drops are behind.
    ASSERT_GE(descriptors.size(), 12u);
    EXPECT_LE(*std::max_element(descriptors.end() - 6, descriptors.end()),
              *std::max_element(descriptors.begin(), descriptors.begin() + 6) + 2);
    struct stat link;
    EXPECT_NE(lstat(serial.c_str(), &link), 0) << "the simulator left its link";
}

// SIGTERM while a large configuration is read, while a line waits to
// reconnect to its gateway, and while connection attempts go unanswered
// (the reconnection takes the same way): the daemon ends in order within 2 s.
// A configuration it can not use ends it with status 2.
TEST_P(Daemon, EndsInOrderOnSigterm)
{
    const Phase phase = GetParam();
    std::string lines = line(1, local(kes_test::FreePort()), value(2, 3, 1301, 0));
    // A gateway with its power cut: a listener that accepts nothing, its backlog full.
    kes_test::LoopbackServer blackhole;
    std::vector<int> queued(phase == StartUnanswered ? 12 : 0);
    for (int& fd : queued) {
        const sockaddr_in address = {AF_INET, htons(blackhole.Port()), {htonl(INADDR_LOOPBACK)}, {}};
        fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        connect(fd, (const sockaddr*)&address, sizeof(address));
    }
    if (phase == BadConfiguration) {
        Start("<ENERGY/>");
        EXPECT_EQ(m_daemon.Wait(3000), 2);
        const std::string& out = m_daemon.Output();
        EXPECT_NE(out.find("Energy Execute", out.find("Configuration failed")), std::string::npos) << out;
        return;
    }
    std::string values; // many, on ports that refuse: the start does not wait
    for (unsigned int i = 0; phase == Reading && i < 600; ++i)
        values += value(2, i / 3 + 1, 200000 + i, i % 3);
    lines += line(2, local(kes_test::FreePort()), values);
    if (phase == StartUnanswered) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100)); // for the queue to fill
        lines = line(1, blackhole.Address(), value(2, 3, 1301, 0)) + line(2, blackhole.Address(), value(2, 3, 2301, 0));
    }
    if (phase == Refused) {
        // a line that can not start is told and the daemon runs on
        Start("<energy>" + Sim(lines) + line(7, "127.0.0.1", value(2, 3, 1, 0)) + "</energy>");
        Receive(3, true);
        ASSERT_FALSE(m_got.empty()) << m_daemon.Output();
        EXPECT_NE(m_daemon.Output().find("Can not start line 7"), std::string::npos) << m_daemon.Output();
        m_sim.Signal(SIGTERM);
        EXPECT_EQ(m_sim.Wait(5000), 0) << m_sim.Output();
    } else {
        Start("<energy>" + lines + "</energy>");
        ASSERT_TRUE(kes_test::CatchesSigterm(m_daemon.Pid(), 3000)) << m_daemon.Output();
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(phase == Reading ? 0 : 300));
    Stop();
    for (int fd : queued)
        close(fd);
}

INSTANTIATE_TEST_SUITE_P(Phases, Daemon, ::testing::Values(Reading, Refused, StartUnanswered, BadConfiguration));

} // namespace
