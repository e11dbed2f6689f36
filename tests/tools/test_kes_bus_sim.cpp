// kes_bus_sim as a process: its command line, its replies and faults on a
// TCP line, the echo of its serial line, and counts that match their period.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "loopback.h"
#include "test_gateway.h"
#include "test_process.h"

using kes_test::Bytes;

namespace {

int connect_to(uint16_t i_port)
{
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(i_port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

Bytes read_request(uint8_t i_unit, uint16_t i_first, uint16_t i_count)
{
    return kes_test::WithCrc({i_unit, 3, static_cast<uint8_t>(i_first >> 8), static_cast<uint8_t>(i_first & 0xFF),
                              static_cast<uint8_t>(i_count >> 8), static_cast<uint8_t>(i_count & 0xFF)});
}

bool crc_ok(const Bytes& i_frame)
{
    return i_frame.size() >= 4 && kes_test::Crc16(i_frame.data(), i_frame.size() - 2) ==
                                      (i_frame[i_frame.size() - 2] | (i_frame[i_frame.size() - 1] << 8));
}

uint16_t reg(const Bytes& i_reply, size_t i_index)
{
    return static_cast<uint16_t>((i_reply[3 + 2 * i_index] << 8) | i_reply[4 + 2 * i_index]);
}

TEST(BusSimCommandLine, RefusesWhatItCanNotServe)
{
    struct Row {
        std::vector<std::string> options;
        int status;
        const char* text; // a part of the output
        bool help;
    };
    const Row rows[] = {
        {{"-fault", "bogus:1"}, 2, "kes_bus_sim: bad fault \"bogus:1\": KIND:LINE[:MID[:PERCENT[:VALUE]]]\n", true},
        {{"-fault", "late:1:3:50:20000"}, 2, "kes_bus_sim: a late reply waits at most 10000 ms\n", true},
        {{"-fault", "silent"}, 2, "kes_bus_sim: bad fault \"silent\"", true},
        {{"-fault", "crc:1:x"}, 2, "kes_bus_sim: bad number \"x\" in fault \"crc:1:x\"\n", true},
        {{"-drop", "1:2:3"}, 2, "kes_bus_sim: bad drop \"1:2:3\": LINE:EVERY:FOR[:TIMES] with EVERY > FOR > 0\n", true},
        {{"-drop", "1:2"}, 2, "kes_bus_sim: bad drop \"1:2\"", true},
        {{"-speed", "0"}, 2, "kes_bus_sim: Option -speed takes a number in its range: \"0\"\n", true},
        {{"-conf"}, 2, "kes_bus_sim: Option -conf needs a value\n", true},
        {{"-nonsense", "1"}, 2, "kes_bus_sim: Unknown option -nonsense\n", true},
        {{"-conf", "/nonexistent/conf.xml"},
         2,
         "kes_bus_sim: Failed to open file in file: /nonexistent/conf.xml",
         false},
        {{"-h"}, 0, "-fault KIND:LINE", true},
    };
    for (const Row& row : rows) {
        std::vector<std::string> argv = {kes_test::BinPath("kes_bus_sim")};
        argv.insert(argv.end(), row.options.begin(), row.options.end());
        kes_test::ChildProcess sim;
        ASSERT_TRUE(sim.Start(argv));
        SCOPED_TRACE(row.options.back());
        EXPECT_EQ(sim.Wait(3000), row.status);
        EXPECT_NE(sim.Output().find(row.text), std::string::npos) << sim.Output();
        EXPECT_EQ(sim.Output().find("Bus Simulator Help") != std::string::npos, row.help);
    }
}

// One simulator: line 1 (TCP) has a String module for each fault and a clean
// PulseCounter mid 4; line 2 (serial) a clean String mid 3.
TEST(BusSim, ServesItsLinesWithTheirFaults)
{
    struct Row {
        unsigned int mid;
        const char* fault;
        size_t length; // of the reply, 0 for none
        bool validCrc;
        uint8_t unit; // of the reply, when its CRC is valid
        uint8_t function;
    };
    const Row rows[] = {
        {3, "silent:1:3", 0, false, 0, 0},
        {5, "crc:1:5", 9, false, 0, 0},
        {6, "unit:1:6", 9, true, 3, 3},
        {7, "exception:1:7", 5, true, 2, 0x83},
        {8, "garbage:1:8:100:17", 17, false, 0, 0},
        {9, "late:1:9:100:200", 9, true, 2, 3},
    };
    kes_test::TempDir dir;
    mkdir(dir.File("dev").c_str(), 0755);
    const uint16_t port = kes_test::FreePort();
    const std::string serial = dir.File("dev/ttyUSB0");
    std::string conf = "<energy><line id=\"1\" adr=\"127.0.0.1:" + std::to_string(port) +
                       "\"><v type=\"5\" mid=\"4\" iid=\"2\" fid=\"0\"/>";
    std::vector<std::string> argv = {
        kes_test::BinPath("kes_bus_sim"), "-conf", dir.File("conf.xml"), "-hour", "12", "-speed", "7200"};
    for (const Row& row : rows) {
        conf += "<v type=\"2\" mid=\"" + std::to_string(row.mid) + "\" iid=\"1\" fid=\"0\"/>";
        argv.insert(argv.end(), {"-fault", row.fault});
    }
    kes_test::WriteFile(dir.File("conf.xml"), conf + "</line><line id=\"2\" adr=\"" + serial +
                                                  "\"><v type=\"2\" mid=\"3\" iid=\"3\" fid=\"0\"/></line></energy>");
    kes_test::ChildProcess sim;
    ASSERT_TRUE(sim.Start(argv) && sim.WaitForOutput("ready", 5000)) << sim.Output();

    // The serial line echoes the request before the reply: at noon a string of
    // some 600 V carrying current.
    int fd = open(serial.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_GE(fd, 0) << serial;
    termios settings;
    ASSERT_EQ(tcgetattr(fd, &settings), 0);
    cfmakeraw(&settings);
    tcsetattr(fd, TCSANOW, &settings);
    const Bytes request = read_request(2, 300, 2);
    ASSERT_TRUE(kes_test::WriteAll(fd, request));
    Bytes got = kes_test::ReadFor(fd, 8 + 9, 2000);
    close(fd);
    ASSERT_EQ(got.size(), 17u) << kes_test::ToHex(got);
    EXPECT_EQ(Bytes(got.begin(), got.begin() + 8), request);
    const Bytes answer(got.begin() + 8, got.end());
    EXPECT_TRUE(crc_ok(answer) && answer[0] == 2 && reg(answer, 0) > 5000 && reg(answer, 1) > 100)
        << kes_test::ToHex(answer);

    fd = connect_to(port);
    ASSERT_GE(fd, 0);
    for (const Row& row : rows) {
        SCOPED_TRACE(row.fault);
        const auto sent = std::chrono::steady_clock::now();
        ASSERT_TRUE(kes_test::WriteAll(fd, read_request(2, static_cast<uint16_t>(row.mid * 100), 2)));
        const Bytes reply = kes_test::ReadFor(fd, row.length ? row.length : 1, row.length ? 2000 : 150);
        ASSERT_EQ(reply.size(), row.length) << kes_test::ToHex(reply);
        if (row.length) {
            EXPECT_EQ(crc_ok(reply), row.validCrc) << kes_test::ToHex(reply);
        }
        if (row.validCrc) {
            EXPECT_EQ(reply[0], row.unit);
            EXPECT_EQ(reply[1], row.function);
        }
        if (std::string(row.fault).rfind("late", 0) == 0) {
            EXPECT_GE(std::chrono::steady_clock::now() - sent, std::chrono::milliseconds(190));
        }
    }
    // The clean device of the line: its count rises at the rate of its period.
    auto count = [&](uint16_t* o_period) {
        kes_test::WriteAll(fd, read_request(5, 400, 3));
        const Bytes reply = kes_test::ReadFor(fd, 11, 2000);
        EXPECT_TRUE(reply.size() == 11 && crc_ok(reply)) << kes_test::ToHex(reply);
        if (reply.size() != 11)
            return 0.0;
        *o_period = reg(reply, 2);
        return static_cast<double>((static_cast<uint32_t>(reg(reply, 0)) << 16) | reg(reply, 1));
    };
    uint16_t period = 0;
    const double first = count(&period);
    const auto start = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    const double second = count(&period);
    const double hours = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count() * 2;
    ASSERT_GT(period, 0);
    const double expected = hours * 3600000.0 / period;
    EXPECT_NEAR(second - first, expected, expected * 0.2) << "period " << period << " ms";
    close(fd);
    sim.Signal(SIGTERM);
    EXPECT_EQ(sim.Wait(5000), 0);
    struct stat link;
    EXPECT_NE(lstat(serial.c_str(), &link), 0);
}

} // namespace
