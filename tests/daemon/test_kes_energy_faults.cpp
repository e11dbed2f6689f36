// The daemon process against a misbehaving installation: gateways that go
// away and come back, a serial adapter pulled and plugged in again, garbage,
// late and missing replies; and SIGTERM in every phase of its life.
#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "kes_net_test_support.h"
#include "test_gateway.h"
#include "test_process.h"

namespace {

#if defined(__SANITIZE_ADDRESS__)
const bool SANITIZED = true; // the daemon of this build keeps freed memory aside
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
const bool SANITIZED = true;
#else
const bool SANITIZED = false;
#endif
#else
const bool SANITIZED = false;
#endif

typedef std::chrono::steady_clock Clock;

double since(Clock::time_point i_start)
{
    return std::chrono::duration<double>(Clock::now() - i_start).count();
}

int open_descriptors(pid_t i_pid)
{
    DIR* dir = opendir(("/proc/" + std::to_string(i_pid) + "/fd").c_str());
    if (!dir)
        return -1;
    int count = 0;
    while (dirent* entry = readdir(dir))
        if (entry->d_name[0] != '.')
            ++count;
    closedir(dir);
    return count;
}

// The peers of a test live in the test process; a child that inherited a
// listener would keep a "stopped" gateway accepting connections.
void keep_descriptors_from_children()
{
    DIR* dir = opendir("/proc/self/fd");
    if (!dir)
        return;
    while (dirent* entry = readdir(dir)) {
        int fd = atoi(entry->d_name);
        if (fd > 2 && fd != dirfd(dir))
            fcntl(fd, F_SETFD, fcntl(fd, F_GETFD) | FD_CLOEXEC);
    }
    closedir(dir);
}

// at: seconds since the start of the test
using Datagram = kes_test::PublishedDatagram;

// Takes every datagram waiting on the port, for at most i_ms.
void collect(kes_test::DatagramReceiver& io_receiver, Clock::time_point i_start, int i_ms,
             std::vector<Datagram>* io_got)
{
    std::string datagram;
    auto end = Clock::now() + std::chrono::milliseconds(i_ms);
    while (Clock::now() < end && io_receiver.Receive(&datagram, 10)) {
        Datagram d;
        if (!kes_test::ParseDatagram(datagram, &d))
            continue;
        d.at = since(i_start);
        io_got->push_back(d);
    }
}

std::string value(unsigned int i_type, unsigned int i_mid, unsigned int i_iid, unsigned int i_fid)
{
    char text[96];
    snprintf(text, sizeof(text), "<v type=\"%u\" mid=\"%u\" iid=\"%u\" fid=\"%u\"/>", i_type, i_mid, i_iid, i_fid);
    return text;
}

// Line 1 (TCP): a clean panel first in the cycle, then devices with faults
// and one that never answers. Line 2 (serial): a clean string module first.
std::string soak_configuration(uint16_t i_port, const std::string& i_serial, uint16_t i_davis)
{
    return "<energy v=\"1\"><line id=\"1\" adr=\"127.0.0.1:" + std::to_string(i_port) + "\">" + value(1, 1, 1101, 0) +
           value(1, 1, 1102, 1) + value(2, 2, 1201, 0) + value(2, 2, 1203, 2) + value(2, 4, 1401, 0) +
           value(6, 5, 1501, 0) + value(6, 5, 1504, 4) + value(5, 6, 1601, 0) + value(5, 6, 1602, 1) +
           value(2, 9, 1901, 0) + "</line><line id=\"2\" adr=\"" + i_serial + "\">" + value(7, 1, 2101, 0) +
           value(7, 1, 2108, 8) + value(5, 2, 2201, 1) + value(8, 3, 2301, 1) +
           "</line><davis adr=\"127.0.0.1:" + std::to_string(i_davis) + "\"/></energy>";
}

bool is_line(unsigned int i_iid, unsigned int i_line)
{
    return i_iid / 1000 == i_line;
}

// Seconds to the next whole minute of the wall clock.
double to_next_minute()
{
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return 60 - (now.tv_sec % 60) - now.tv_nsec / 1e9;
}

// One long run: line 1's gateway drops every 4 s for 1.5 s, line 2's adapter
// is pulled every 5 s for 1.5 s, faults on most devices. It ends with SIGTERM
// right on the minute, when the history store writes its files.
TEST(DaemonFaults, RidesThroughDropsAndFaultsAndStopsInTheTick)
{
    kes_test::DatagramReceiver receiver(16549);
    ASSERT_EQ(receiver.Port(), 16549) << "the datagram port is taken";
    kes_test::TempDir dir;
    ASSERT_EQ(mkdir(dir.File("dev").c_str(), 0755), 0);
    ASSERT_EQ(mkdir(dir.File("data").c_str(), 0755), 0);
    uint16_t port = kes_test::FreePort();
    uint16_t davis = kes_test::FreePort();
    ASSERT_TRUE(port && davis && port != davis);
    std::string serial = dir.File("dev/ttyUSB0");
    kes_test::WriteFile(dir.File("conf.xml"), soak_configuration(port, serial, davis));

    // The soak lasts until a minute boundary at least 15 s away.
    double soak = to_next_minute();
    if (soak < 15)
        soak += 60;
    keep_descriptors_from_children();
    kes_test::ChildProcess sim;
    ASSERT_TRUE(sim.Start({kes_test::BinPath("kes_bus_sim"),
                           "-conf",
                           dir.File("conf.xml"),
                           "-hour",
                           "12",
                           "-weather",
                           "1000",
                           "-drop",
                           "1:4:1.5:20",
                           "-drop",
                           "2:5:1.5:16",
                           "-fault",
                           "garbage:1:4:30",
                           "-fault",
                           "late:1:5:20:700",
                           "-fault",
                           "unit:1:6:30",
                           "-fault",
                           "silent:1:9",
                           "-fault",
                           "crc:2:2:30",
                           "-fault",
                           "exception:2:3:30"}));
    ASSERT_TRUE(sim.WaitForOutput("ready", 5000)) << sim.Output();

    Clock::time_point start = Clock::now();
    keep_descriptors_from_children();
    kes_test::ChildProcess daemon;
    ASSERT_TRUE(daemon.Start(
        {kes_test::BinPath("kes_energy"), "-conf", dir.File("conf.xml"), "-dir", dir.File("data/"), "-history", "1"}));

    std::vector<Datagram> got;
    std::map<std::string, double> back; // "line L back (n)" -> seconds
    std::vector<int> descriptors;
    std::vector<long> resident;
    double nextSample = 1;
    // Stop a little short of the minute, then aim the signal at it.
    while (since(start) < soak - 0.5) {
        collect(receiver, start, 50, &got);
        daemon.Output(); // keep its pipe from filling up
        const std::string& events = sim.Output();
        for (unsigned int line = 1; line <= 2; ++line)
            for (unsigned int n = 1; n <= 20; ++n) {
                std::string text = "line " + std::to_string(line) + " back (" + std::to_string(n) + ")";
                if (!back.count(text) && events.find(text) != std::string::npos)
                    back[text] = since(start);
            }
        if (since(start) >= nextSample) {
            ASSERT_EQ(daemon.Wait(0), -1) << "the daemon ended\n" << daemon.Output();
            descriptors.push_back(open_descriptors(daemon.Pid()));
            resident.push_back(kes_test::StatusKb(daemon.Pid(), "VmRSS"));
            nextSample += 1;
        }
    }
    double left = to_next_minute();
    if (left < 5)
        std::this_thread::sleep_for(std::chrono::duration<double>(left + 0.003));
    daemon.Signal(SIGTERM);
    EXPECT_EQ(daemon.Wait(5000), 0) << daemon.Output();
    sim.Signal(SIGTERM);
    EXPECT_EQ(sim.Wait(12000), 0) << sim.Output();

    // Publishing came back within about two seconds of every return.
    ASSERT_GE(back.size(), 3u) << sim.Output();
    double slowest = 0;
    for (const auto& event : back) {
        unsigned int line = event.first[5] - '0';
        double resumed = -1;
        for (const Datagram& d : got)
            if (d.at > event.second && is_line(d.iid, line) && d.text != "f") {
                resumed = d.at - event.second;
                break;
            }
        if (event.second < soak - 3) {
            slowest = std::max(slowest, resumed);
            EXPECT_TRUE(resumed >= 0 && resumed < 2.5) << event.first << " at " << event.second << " s: " << resumed;
        }
    }
    printf("%zu returns of a gateway or adapter in %.0f s, slowest resume %.2f s\n", back.size(), soak, slowest);
    // The silent device never publishes more than its failures.
    for (const Datagram& d : got) {
        if (d.iid == 1901) {
            EXPECT_EQ(d.text, "f");
        }
    }
    EXPECT_TRUE(std::any_of(got.begin(), got.end(), [](const Datagram& d) { return d.iid == 1901; }));

    // Descriptors and memory stay flat once the first drops are behind.
    ASSERT_GE(descriptors.size(), 12u);
    int early = *std::max_element(descriptors.begin(), descriptors.begin() + 6);
    int late = *std::max_element(descriptors.end() - 6, descriptors.end());
    EXPECT_LE(late, early + 2) << "descriptors grow";
    printf("descriptors %d then %d, resident %ld kB then %ld kB\n", early, late, resident[5], resident.back());
    if (!SANITIZED) {
        long settled = resident[5];
        EXPECT_LE(resident.back(), settled + 512)
            << "resident memory grows: " << settled << " kB to " << resident.back() << " kB";
    }
    // The weather stream got through as well.
    EXPECT_NE(kes_test::ReadFile(dir.File("data/meteo")), "");
    // No link is left behind by the simulator.
    struct stat link;
    EXPECT_NE(lstat(serial.c_str(), &link), 0);
}

// SIGTERM while the configuration is read and the lines start: a large file,
// and the signal as soon as the daemon has its handler.
TEST(DaemonFaults, SigtermDuringConfigurationEndsInOrder)
{
    kes_test::TempDir dir;
    std::string conf = "<energy>";
    for (unsigned int line = 1; line <= 4; ++line) {
        // a port that refuses, so that the start does not wait for a gateway
        conf +=
            "<line id=\"" + std::to_string(line) + "\" adr=\"127.0.0.1:" + std::to_string(kes_test::FreePort()) + "\">";
        for (unsigned int mid = 1; mid <= 50; ++mid)
            for (unsigned int fid = 0; fid < 3; ++fid)
                conf += value(2, mid, line * 100000 + mid * 10 + fid, fid);
        conf += "</line>";
    }
    conf += "</energy>";
    kes_test::WriteFile(dir.File("conf.xml"), conf);

    const unsigned int delaysUs[] = {0, 500, 3000};
    for (unsigned int delay : delaysUs) {
        kes_test::ChildProcess daemon;
        ASSERT_TRUE(
            daemon.Start({kes_test::BinPath("kes_energy"), "-conf", dir.File("conf.xml"), "-dir", dir.Path() + "/"}));
        ASSERT_TRUE(kes_test::CatchesSigterm(daemon.Pid(), 3000)) << daemon.Output();
        std::this_thread::sleep_for(std::chrono::microseconds(delay));
        daemon.Signal(SIGTERM);
        EXPECT_EQ(daemon.Wait(5000), 0) << "delay " << delay << " us\n" << daemon.Output();
    }
}

// A port whose connection attempts go unanswered, as behind a gateway with
// its power cut: a listener that accepts nothing and a full backlog.
struct Blackhole {
    int listener = -1;
    std::vector<int> queued;
    explicit Blackhole(uint16_t i_port)
    {
        listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        int on = 1;
        setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(i_port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 || listen(listener, 0) != 0)
            return;
        for (int i = 0; i < 3; ++i) {
            int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
            connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address));
            queued.push_back(fd);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    ~Blackhole()
    {
        for (int fd : queued)
            close(fd);
        close(listener);
    }
};

// SIGTERM while a line waits for its gateway, or its serial adapter, to come
// back; and while gateways drop the connection attempts, at start-up and
// when a line reconnects: the daemon ends in order within 2 s.
TEST(DaemonFaults, SigtermDuringReconnectionEndsInOrder)
{
    kes_test::DatagramReceiver receiver(16549);
    ASSERT_EQ(receiver.Port(), 16549) << "the datagram port is taken";
    enum Phase { Refused, SerialAway, Unanswered, StartUnanswered };
    const Phase phases[] = {Refused, SerialAway, Unanswered, StartUnanswered};
    for (Phase phase : phases) {
        SCOPED_TRACE("phase " + std::to_string(phase));
        kes_test::TempDir dir;
        ASSERT_EQ(mkdir(dir.File("dev").c_str(), 0755), 0);
        uint16_t port = kes_test::FreePort();
        std::string address = phase == SerialAway ? dir.File("dev/ttyUSB0") : "127.0.0.1:" + std::to_string(port);
        std::string lines = "<line id=\"1\" adr=\"" + address + "\">" + value(2, 3, 1301, 0) + "</line>";
        if (phase == StartUnanswered)
            lines += "<line id=\"2\" adr=\"" + address + "\">" + value(2, 3, 2301, 0) + "</line>";
        kes_test::WriteFile(dir.File("conf.xml"), "<energy>" + lines + "</energy>");
        keep_descriptors_from_children();
        std::unique_ptr<Blackhole> blackhole;
        kes_test::ChildProcess sim;
        kes_test::ChildProcess daemon;
        if (phase == StartUnanswered) {
            blackhole.reset(new Blackhole(port));
            ASSERT_TRUE(daemon.Start(
                {kes_test::BinPath("kes_energy"), "-conf", dir.File("conf.xml"), "-dir", dir.Path() + "/"}));
            kes_test::CatchesSigterm(daemon.Pid(), 3000);
            // into the first connection attempt
            std::this_thread::sleep_for(std::chrono::milliseconds(500));
        } else {
            ASSERT_TRUE(sim.Start({kes_test::BinPath("kes_bus_sim"), "-conf", dir.File("conf.xml")}));
            ASSERT_TRUE(sim.WaitForOutput("ready", 5000)) << sim.Output();
            ASSERT_TRUE(daemon.Start(
                {kes_test::BinPath("kes_energy"), "-conf", dir.File("conf.xml"), "-dir", dir.Path() + "/"}));
            std::string datagram;
            ASSERT_TRUE(receiver.Receive(&datagram, 3000)) << daemon.Output();
            sim.Signal(SIGTERM);
            EXPECT_EQ(sim.Wait(5000), 0) << sim.Output();
            if (phase == Unanswered) {
                blackhole.reset(new Blackhole(port));
                // the pause before a reconnection, then into the connection attempt
                std::this_thread::sleep_for(std::chrono::milliseconds(1500));
            } else {
                EXPECT_TRUE(daemon.WaitForOutput("Can not start line 1", 4000)) << daemon.Output();
            }
        }
        auto signalled = Clock::now();
        daemon.Signal(SIGTERM);
        EXPECT_EQ(daemon.Wait(4000), 0) << daemon.Output();
        EXPECT_LT(since(signalled), 2.0) << daemon.Output();
        std::string datagram;
        while (receiver.Receive(&datagram, 0)) {
        }
    }
}

} // namespace
