// kes_bus_sim as a process: its command line, its replies and faults on a
// TCP line, and counts that match their period. Its serial line serves the
// daemon's tests.
#include <gtest/gtest.h>

#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <iterator>
#include <sstream>

#include "loopback.h"
#include "test_gateway.h"
#include "test_process.h"

using kes_test::Bytes;

namespace {

Bytes read_request(uint8_t i_unit, uint16_t i_first, uint16_t i_count)
{
    return kes_test::WithCrc({i_unit, 3, static_cast<uint8_t>(i_first >> 8), static_cast<uint8_t>(i_first),
                              static_cast<uint8_t>(i_count >> 8), static_cast<uint8_t>(i_count)});
}

bool crc_ok(const Bytes& i_frame)
{
    return i_frame.size() >= 4 && kes_test::WithCrc(Bytes(i_frame.begin(), i_frame.end() - 2)) == i_frame;
}

uint16_t reg(const Bytes& i_reply, size_t i_index)
{
    return static_cast<uint16_t>((i_reply[3 + 2 * i_index] << 8) | i_reply[4 + 2 * i_index]);
}

// Every refusal of an option comes with the help.
TEST(BusSimCommandLine, RefusesWhatItCanNotServe)
{
    // clang-format off
    const std::pair<const char*, const char*> rows[] = {
        {"-fault bogus:1", "kes_bus_sim: bad fault \"bogus:1\": KIND:LINE[:MID[:PERCENT[:VALUE]]]\n"},
        {"-fault late:1:3:50:20000", "kes_bus_sim: a late reply waits at most 10000 ms\n"},
        {"-fault silent", "kes_bus_sim: bad fault \"silent\""},
        {"-fault crc:1:x", "kes_bus_sim: bad number \"x\" in fault \"crc:1:x\"\n"},
        {"-drop 1:2:3", "kes_bus_sim: bad drop \"1:2:3\": LINE:EVERY:FOR[:TIMES] with EVERY > FOR > 0\n"},
        {"-drop 1:2", "kes_bus_sim: bad drop \"1:2\""},
        {"-speed 0", "kes_bus_sim: Option -speed takes a number in its range: \"0\"\n"},
        {"-conf", "kes_bus_sim: Option -conf needs a value\n"},
        {"-nonsense 1", "kes_bus_sim: Unknown option -nonsense\n"},
        {"-conf /nonexistent/conf.xml", "kes_bus_sim: Failed to open file in file: /nonexistent/conf.xml"},
        {"-h", "-fault KIND:LINE"},
    };
    // clang-format on
    for (const auto& row : rows) {
        std::istringstream words(row.first);
        std::vector<std::string> argv = {kes_test::BinPath("kes_bus_sim")};
        argv.insert(argv.end(), std::istream_iterator<std::string>(words), {});
        kes_test::ChildProcess sim;
        SCOPED_TRACE(row.first);
        EXPECT_EQ(sim.Start(argv) ? sim.Wait(3000) : -1, argv[1] == "-h" ? 0 : 2);
        EXPECT_NE(sim.Output().find(row.second), std::string::npos) << sim.Output();
        EXPECT_EQ(sim.Output().find("Bus Simulator Help") != std::string::npos, argv.size() != 3 || argv[1] != "-conf");
    }
}

// One simulator: line 1 (TCP) has a String module for each fault and a clean
// PulseCounter mid 4.
TEST(BusSim, ServesItsLinesWithTheirFaults)
{
    // length: of the reply, 0 for none; head: its unit and function when its CRC is valid
    // clang-format off
    const struct Row { unsigned int mid; const char* fault; size_t length; const char* head; } rows[] = {{3, "silent:1:3", 0, ""}, {5, "crc:1:5", 9, ""}, {6, "unit:1:6", 9, "03 03"}, {7, "exception:1:7", 5, "02 83"},
                        {8, "garbage:1:8:100:17", 17, ""}, {9, "late:1:9:100:200", 9, "02 03"}};
    // clang-format on
    kes_test::TempDir dir;
    const uint16_t port = kes_test::FreePort();
    std::string conf = "<energy><line id=\"1\" adr=\"127.0.0.1:" + std::to_string(port) +
                       "\"><v type=\"5\" mid=\"4\" iid=\"2\" fid=\"0\"/>";
    std::vector<std::string> argv = {
        kes_test::BinPath("kes_bus_sim"), "-conf", dir.File("conf.xml"), "-hour", "12", "-speed", "7200"};
    for (const Row& row : rows) {
        conf += "<v type=\"2\" mid=\"" + std::to_string(row.mid) + "\" iid=\"1\" fid=\"0\"/>";
        argv.insert(argv.end(), {"-fault", row.fault});
    }
    kes_test::WriteFile(dir.File("conf.xml"), conf + "</line></energy>");
    kes_test::ChildProcess sim;
    ASSERT_TRUE(sim.Start(argv) && sim.WaitForOutput("ready", 5000)) << sim.Output();

    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in address = {AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
    ASSERT_EQ(connect(fd, (const sockaddr*)&address, sizeof(address)), 0);
    for (const Row& row : rows) {
        const auto sent = std::chrono::steady_clock::now();
        ASSERT_TRUE(kes_test::WriteAll(fd, read_request(2, static_cast<uint16_t>(row.mid * 100), 2)));
        const Bytes reply = kes_test::ReadFor(fd, row.length ? row.length : 1, row.length ? 2000 : 150);
        EXPECT_EQ(reply.size(), row.length) << row.fault;
        EXPECT_EQ(crc_ok(reply) ? kes_test::ToHex(Bytes(reply.begin(), reply.begin() + 2)) : "", row.head) << row.fault;
        EXPECT_TRUE(row.mid != 9 || std::chrono::steady_clock::now() - sent >= std::chrono::milliseconds(190));
    }
    // The clean device of the line: its count rises at the rate of its period,
    // two simulated hours a second.
    Bytes counts[2];
    std::chrono::steady_clock::time_point at[2];
    for (int i = 0; i < 2; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(150 * i));
        at[i] = std::chrono::steady_clock::now();
        ASSERT_TRUE(kes_test::WriteAll(fd, read_request(5, 400, 3)));
        counts[i] = kes_test::ReadFor(fd, 11, 2000);
        ASSERT_TRUE(counts[i].size() == 11 && crc_ok(counts[i])) << kes_test::ToHex(counts[i]);
    }
    const double rise = (reg(counts[1], 0) << 16 | reg(counts[1], 1)) - (reg(counts[0], 0) << 16 | reg(counts[0], 1));
    const double expected = std::chrono::duration<double>(at[1] - at[0]).count() * 2 * 3600000.0 / reg(counts[1], 2);
    EXPECT_NEAR(rise, expected, expected * 0.1) << "period " << reg(counts[1], 2) << " ms";
    close(fd);
    // Its devices answer the bus's own frames under serials made of line, type and module.
    kes_test::ChildProcess bus;
    ASSERT_TRUE(bus.Start({kes_test::BinPath("kes_bus"), "-adr", "127.0.0.1:" + std::to_string(port), "-timeout", "50",
                           "-attempts", "1", "find", "10105004"}));
    EXPECT_EQ(bus.Wait(5000), 0);
    EXPECT_EQ(bus.Output(), "found [PulseCounter] serial 10105004 module 4\n[PulseCounter] serial 10105004 module 4\n");
    sim.Signal(SIGTERM);
    EXPECT_EQ(sim.Wait(5000), 0);
}

} // namespace
