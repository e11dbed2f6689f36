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

// A String mid 3 and a PulseCounter mid 4 on line 1 (TCP), a String mid 3 on
// line 2 (serial).
std::string configuration(uint16_t i_port, const std::string& i_serial)
{
    return "<energy><line id=\"1\" adr=\"127.0.0.1:" + std::to_string(i_port) +
           "\"><v type=\"2\" mid=\"3\" iid=\"1\" fid=\"0\"/><v type=\"5\" mid=\"4\" iid=\"2\" fid=\"0\"/></line>"
           "<line id=\"2\" adr=\"" +
           i_serial + "\"><v type=\"2\" mid=\"3\" iid=\"3\" fid=\"0\"/></line></energy>";
}

struct Sim {
    kes_test::TempDir dir;
    uint16_t port = kes_test::FreePort();
    std::string serial = dir.File("dev/ttyUSB0");
    kes_test::ChildProcess process;

    bool Start(std::vector<std::string> i_options)
    {
        mkdir(dir.File("dev").c_str(), 0755);
        kes_test::WriteFile(dir.File("conf.xml"), configuration(port, serial));
        std::vector<std::string> argv = {kes_test::BinPath("kes_bus_sim"), "-conf", dir.File("conf.xml"), "-hour",
                                         "12"};
        argv.insert(argv.end(), i_options.begin(), i_options.end());
        return process.Start(argv) && process.WaitForOutput("ready", 5000);
    }
};

TEST(BusSimCommandLine, RefusesWhatItCanNotServe)
{
    const std::vector<std::string> cases[] = {
        {"-fault", "bogus:1"}, {"-fault", "late:1:3:50:20000"},
        {"-fault", "silent"},  {"-fault", "crc:1:x"},
        {"-drop", "1:2:3"},    {"-drop", "1:2"},
        {"-speed", "0"},       {"-conf"},
        {"-nonsense", "1"},
    };
    for (const auto& options : cases) {
        std::vector<std::string> argv = {kes_test::BinPath("kes_bus_sim")};
        argv.insert(argv.end(), options.begin(), options.end());
        kes_test::ChildProcess sim;
        ASSERT_TRUE(sim.Start(argv));
        EXPECT_EQ(sim.Wait(3000), 2) << options[0] << " " << (options.size() > 1 ? options[1] : "");
        EXPECT_NE(sim.Output().find("Bus Simulator Help"), std::string::npos);
    }
    kes_test::ChildProcess missing;
    ASSERT_TRUE(missing.Start({kes_test::BinPath("kes_bus_sim"), "-conf", "/nonexistent/conf.xml"}));
    EXPECT_EQ(missing.Wait(3000), 2);
    kes_test::ChildProcess help;
    ASSERT_TRUE(help.Start({kes_test::BinPath("kes_bus_sim"), "-h"}));
    EXPECT_EQ(help.Wait(3000), 0);
    EXPECT_NE(help.Output().find("-fault KIND:LINE"), std::string::npos);
}

struct FaultCase {
    const char* fault;
    size_t length; // of the reply to the spoiled device, 0 for none
    bool validCrc;
    uint8_t unit; // of that reply, when the CRC is valid
    uint8_t function;
};

TEST(BusSimFaults, SpoilOnlyTheirDevice)
{
    const FaultCase cases[] = {
        {"silent:1:3", 0, false, 0, 0},
        {"crc:1:3", 9, false, 0, 0},
        {"unit:1:3", 9, true, 3, 3},
        {"exception:1:3", 5, true, 2, 0x83},
        {"garbage:1:3:100:17", 17, false, 0, 0},
        {"late:1:3:100:300", 9, true, 2, 3},
    };
    for (const FaultCase& c : cases) {
        SCOPED_TRACE(c.fault);
        Sim sim;
        ASSERT_TRUE(sim.Start({"-fault", c.fault})) << sim.process.Output();
        int fd = connect_to(sim.port);
        ASSERT_GE(fd, 0);
        auto sent = std::chrono::steady_clock::now();
        ASSERT_TRUE(kes_test::WriteAll(fd, read_request(2, 300, 2)));
        Bytes reply = kes_test::ReadFor(fd, c.length ? c.length : 1, c.length ? 2000 : 300);
        ASSERT_EQ(reply.size(), c.length) << kes_test::ToHex(reply);
        if (c.length) {
            EXPECT_EQ(crc_ok(reply), c.validCrc) << kes_test::ToHex(reply);
            if (c.validCrc) {
                EXPECT_EQ(reply[0], c.unit);
                EXPECT_EQ(reply[1], c.function);
            }
        }
        if (std::string(c.fault).rfind("late", 0) == 0) {
            EXPECT_GE(std::chrono::steady_clock::now() - sent, std::chrono::milliseconds(290));
        }
        // the other device of the line is not touched
        ASSERT_TRUE(kes_test::WriteAll(fd, read_request(5, 400, 3)));
        reply = kes_test::ReadFor(fd, 11, 2000);
        EXPECT_EQ(reply.size(), 11u);
        EXPECT_TRUE(crc_ok(reply));
        close(fd);
        sim.process.Signal(SIGTERM);
        EXPECT_EQ(sim.process.Wait(5000), 0);
    }
}

TEST(BusSim, SerialLineEchoesAndAnswersAndLeavesNoLink)
{
    Sim sim;
    ASSERT_TRUE(sim.Start({}));
    int fd = open(sim.serial.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_GE(fd, 0) << sim.serial;
    termios settings;
    ASSERT_EQ(tcgetattr(fd, &settings), 0);
    cfmakeraw(&settings);
    tcsetattr(fd, TCSANOW, &settings);
    Bytes request = read_request(2, 300, 2);
    ASSERT_TRUE(kes_test::WriteAll(fd, request));
    Bytes got = kes_test::ReadFor(fd, 8 + 9, 2000);
    ASSERT_EQ(got.size(), 17u) << kes_test::ToHex(got);
    EXPECT_EQ(Bytes(got.begin(), got.begin() + 8), request);
    Bytes reply(got.begin() + 8, got.end());
    EXPECT_TRUE(crc_ok(reply));
    EXPECT_EQ(reply[0], 2);
    // noon: a string of some 600 V carrying current
    EXPECT_GT(reg(reply, 0), 5000);
    EXPECT_GT(reg(reply, 1), 100);
    close(fd);
    sim.process.Signal(SIGTERM);
    EXPECT_EQ(sim.process.Wait(5000), 0);
    struct stat link;
    EXPECT_NE(lstat(sim.serial.c_str(), &link), 0);
}

TEST(BusSim, PulseCountRisesAtTheRateOfItsPeriod)
{
    Sim sim;
    // an hour of simulated time per second
    ASSERT_TRUE(sim.Start({"-speed", "3600"}));
    int fd = connect_to(sim.port);
    ASSERT_GE(fd, 0);
    auto count = [&](uint16_t* o_period) {
        kes_test::WriteAll(fd, read_request(5, 400, 3));
        Bytes reply = kes_test::ReadFor(fd, 11, 2000);
        if (reply.size() != 11)
            return 0.0;
        *o_period = reg(reply, 2);
        return static_cast<double>((static_cast<uint32_t>(reg(reply, 0)) << 16) | reg(reply, 1));
    };
    uint16_t period = 0;
    double first = count(&period);
    auto start = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    double second = count(&period);
    double hours = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    ASSERT_GT(period, 0);
    double expected = hours * 3600000.0 / period;
    EXPECT_NEAR(second - first, expected, expected * 0.2) << "period " << period << " ms";
    close(fd);
}

} // namespace
