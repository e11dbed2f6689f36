#include "kes_enerysystem.h"

#include <gtest/gtest.h>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "error_capture.h"
#include "loopback.h"
#include "test_gateway.h"
#include "test_process.h"

using namespace kes;
using kes_test::Bytes;
using kes_test::ErrorCapture;
using kes_test::Hex;
using kes_test::TestGateway;
using kes_test::WithCrc;

namespace {

const char* const STEP8_TEXT = "pData && size && oFrameResponse.GetUnitID() && oFrameResponse.GetFunctionCodeID()";

unsigned int elapsed_ms(std::chrono::steady_clock::time_point i_since)
{
    return static_cast<unsigned int>(
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - i_since).count());
}

class EnergySystemTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        m_savedCount = kesEnergySystem::EXECUTION_COUNT;
        kesEnergySystem::EXECUTION_COUNT = 1;
        ASSERT_TRUE(m_gateway.Start());
    }
    void TearDown() override { kesEnergySystem::EXECUTION_COUNT = m_savedCount; }

    void Open(unsigned int i_receive = 50, unsigned int i_answer = 5, unsigned int i_failure = 30)
    {
        ASSERT_EQ(kesErrorOk,
                  m_system.OpenCommunication(m_gateway.GetAddress().c_str(), 0, i_receive, i_answer, i_failure));
    }

    TestGateway m_gateway;
    kesEnergySystem m_system;
    ErrorCapture m_log;
    unsigned char m_savedCount = 1;
};

// ---------------------------------------------------------------- names

TEST(EnergySystemNames, DeviceTypesAlarmStatusesAndCycleStates)
{
    const char* const types[] = {
        "Unknown type 0", "Panel",       "String",         "Alarm",           "Ambient",
        "PulseCounter",   "StringTwo",   "StringFour",     "PulseCounterTwo", "PulseCounterFive",
        "StringOne",      "StringThree", "Unknown type 12"};
    for (unsigned int i = 0; i < sizeof(types) / sizeof(types[0]); ++i)
        EXPECT_EQ(types[i], kesEnergySystem::DeviceTypeToTypeName(static_cast<kesEEnergyDeviceType>(i))) << i;

    const char* const statuses[] = {"Success",
                                    "Unexecutable, string in tension",
                                    "Unexecutable, power not null",
                                    "Boost power not reached, possible hardware damage",
                                    "Returned power less than minimun, possible manumission",
                                    "Returned power greater than maximun, possible manumission",
                                    "Unknown type 6"};
    for (unsigned int i = 0; i < sizeof(statuses) / sizeof(statuses[0]); ++i)
        EXPECT_EQ(statuses[i], kesEnergySystem::AlarmStatusTypeToTypeName(static_cast<kesEEnergyAlarmStatus>(i))) << i;

    const char* const cycles[] = {"Terminated", "In Progress", "Unknown type 2"};
    for (unsigned int i = 0; i < 3; ++i)
        EXPECT_EQ(cycles[i],
                  kesEnergySystem::AlarmCycleStatusTypeToTypeName(static_cast<kesEEnergyAlarmCycleStatus>(i)));
}

// ---------------------------------------------------------------- opening

TEST_F(EnergySystemTest, TimingIsRaisedToItsFloors)
{
    struct Row {
        unsigned int in[3];
        unsigned int stored[3];
    };
    const Row rows[] = {
        {{10, 1, 1}, {50, 5, 30}},          {{49, 4, 29}, {50, 5, 30}}, {{50, 5, 30}, {50, 5, 30}},
        {{500, 100, 100}, {500, 100, 100}}, {{0, 0, 0}, {50, 5, 30}},
    };
    EXPECT_FALSE(m_system.IsConnected());
    for (const Row& row : rows) {
        Open(row.in[0], row.in[1], row.in[2]);
        EXPECT_TRUE(m_system.IsConnected());
        EXPECT_EQ(row.stored[0], m_system.GetReceiveTimeOut());
        EXPECT_EQ(row.stored[1], m_system.GetAnswerPause());
        EXPECT_EQ(row.stored[2], m_system.GetFailurePause());
    }
}

TEST_F(EnergySystemTest, FailedOpenKeepsTheTimingItHad)
{
    Open(500, 100, 100);
    std::string address = m_gateway.GetAddress();
    m_gateway.Stop();
    EXPECT_NE(kesErrorOk, m_system.OpenCommunication(address.c_str(), 0, 10, 1, 1));
    EXPECT_TRUE(m_log.Contains("Can not open the communication"));
    EXPECT_FALSE(m_system.IsConnected());
    EXPECT_EQ(500u, m_system.GetReceiveTimeOut());
    EXPECT_EQ(100u, m_system.GetAnswerPause());
    EXPECT_EQ(100u, m_system.GetFailurePause());
}

// ---------------------------------------------------------------- decoding

typedef std::function<kesEError(kesEnergySystem&, unsigned short, std::vector<double>&)> Reader;

struct DecodeRow {
    const char* name;
    unsigned char unit;
    unsigned short address;
    std::vector<uint16_t> registers;
    Reader read;
    std::vector<double> expected;
};

Reader panel_reader()
{
    return [](kesEnergySystem& s, unsigned short a, std::vector<double>& o) {
        float v = -1, t = -1;
        kesEError e = s.ReadPanelVoltTemp(a, &v, &t);
        o = {v, t};
        return e;
    };
}

Reader string_reader(kesEError (kesEnergySystem::*i_read)(unsigned short, float*, float*))
{
    return [i_read](kesEnergySystem& s, unsigned short a, std::vector<double>& o) {
        float v = -1, c = -1;
        kesEError e = (s.*i_read)(a, &v, &c);
        o = {v, c};
        return e;
    };
}

Reader string_n_reader(int i_channels)
{
    return [i_channels](kesEnergySystem& s, unsigned short a, std::vector<double>& o) {
        float f[5] = {-1, -1, -1, -1, -1};
        kesEError e = i_channels == 2   ? s.ReadStringTwoVoltAmpere(a, &f[0], &f[1], &f[2])
                      : i_channels == 3 ? s.ReadStringThreeVoltAmpere(a, &f[0], &f[1], &f[2], &f[3])
                                        : s.ReadStringFourVoltAmpere(a, &f[0], &f[1], &f[2], &f[3], &f[4]);
        o.assign(f, f + 1 + i_channels);
        return e;
    };
}

Reader pulse_reader(int i_channels)
{
    return [i_channels](kesEnergySystem& s, unsigned short a, std::vector<double>& o) {
        unsigned int c[10];
        unsigned short p[5];
        kesEError e = i_channels == 1 ? s.ReadPulseCounterData(a, &c[0], &p[0])
                                      : s.ReadPulseCounterTwoData(a, &c[0], &p[0], &c[1], &p[1]);
        o.clear();
        for (int i = 0; i < i_channels; ++i) {
            o.push_back(c[i]);
            o.push_back(p[i]);
        }
        return e;
    };
}

Reader pulse_five_reader()
{
    return [](kesEnergySystem& s, unsigned short a, std::vector<double>& o) {
        unsigned int c[5], d[5];
        unsigned short p[5];
        kesEError e = s.ReadPulseCounterFiveData(a, &c[0], &p[0], &d[0], &c[1], &p[1], &d[1], &c[2], &p[2], &d[2],
                                                 &c[3], &p[3], &d[3], &c[4], &p[4], &d[4]);
        o.clear();
        for (int i = 0; i < 5; ++i) {
            o.push_back(c[i]);
            o.push_back(p[i]);
            o.push_back(d[i]);
        }
        return e;
    };
}

// Five channels: count (c+1) * 65536 + 10 + c, period 100 + c, second count
// 1000 * (c+1) + 7, each count high register first.
std::vector<uint16_t> five_channel_registers()
{
    std::vector<uint16_t> r;
    for (uint16_t c = 0; c < 5; ++c) {
        r.push_back(static_cast<uint16_t>(c + 1));
        r.push_back(static_cast<uint16_t>(10 + c));
        r.push_back(static_cast<uint16_t>(100 + c));
        r.push_back(0);
        r.push_back(static_cast<uint16_t>(1000 * (c + 1) + 7));
    }
    return r;
}

std::vector<double> five_channel_values()
{
    std::vector<double> v;
    for (unsigned int c = 0; c < 5; ++c) {
        v.push_back((c + 1) * 65536.0 + 10 + c);
        v.push_back(100 + c);
        v.push_back(1000.0 * (c + 1) + 7);
    }
    return v;
}

std::vector<DecodeRow> decode_rows()
{
    return {
        {"panel", 1, 300, {0x5DC0, 0x00FA}, panel_reader(), {240.00f, 25.0f}},
        {"panel registers unsigned", 1, 100, {0xFFFF, 0xFFFF}, panel_reader(), {655.35f, 6553.5f}},
        {"string", 2, 300, {2405, 1234}, string_reader(&kesEnergySystem::ReadStringVoltAmpere), {240.5f, 12.34f}},
        {"string at its maximum",
         2,
         900,
         {0xFFFF, 0xFFFF},
         string_reader(&kesEnergySystem::ReadStringVoltAmpere),
         {6553.5f, 655.35f}},
        {"string one", 10, 400, {3000, 99}, string_reader(&kesEnergySystem::ReadStringOneVoltAmpere), {300.0f, 0.99f}},
        {"string two", 6, 500, {3001, 100, 200}, string_n_reader(2), {300.1f, 1.0f, 2.0f}},
        {"string three", 11, 600, {3002, 101, 202, 0xFFFF}, string_n_reader(3), {300.2f, 1.01f, 2.02f, 655.35f}},
        {"string four", 7, 700, {3003, 1, 2, 3, 4}, string_n_reader(4), {300.3f, 0.01f, 0.02f, 0.03f, 0.04f}},
        {"alarm", 3, 800, {2300, 150}, string_reader(&kesEnergySystem::ReadAlarmVoltAmpere), {230.0f, 1.5f}},
        {"pulse counter", 5, 300, {0x0001, 0x0002, 0x000A}, pulse_reader(1), {65538, 10}},
        {"pulse counter, top values", 5, 100, {0xFFFF, 0xFFFF, 0xFFFF}, pulse_reader(1), {4294967295.0, 65535}},
        {"pulse counter two", 8, 1100, {0, 7, 70, 0x0100, 0, 5}, pulse_reader(2), {7, 70, 16777216, 5}},
        {"pulse counter five", 9, 200, five_channel_registers(), pulse_five_reader(), five_channel_values()},
    };
}

void expect_decoded(const DecodeRow& i_row, const std::vector<double>& i_values)
{
    ASSERT_EQ(i_row.expected.size(), i_values.size());
    // counts and periods are exact; scaled values are floats
    bool counts = i_row.unit == 5 || i_row.unit == 8 || i_row.unit == 9;
    for (size_t i = 0; i < i_values.size(); ++i) {
        if (counts)
            EXPECT_EQ(i_row.expected[i], i_values[i]) << "output " << i;
        else
            EXPECT_FLOAT_EQ(static_cast<float>(i_row.expected[i]), static_cast<float>(i_values[i])) << "output " << i;
    }
}

TEST_F(EnergySystemTest, EveryReadDecodesItsRegisters)
{
    Open();
    for (const DecodeRow& row : decode_rows()) {
        SCOPED_TRACE(row.name);
        m_gateway.ClearRegisters();
        m_gateway.ClearRequests();
        m_gateway.SetRegisters(row.unit, row.address, row.registers);
        std::vector<double> values;
        ASSERT_EQ(kesErrorOk, row.read(m_system, row.address, values)) << m_log.Dump();
        expect_decoded(row, values);

        // one request: the unit is the device type, the block starts at the bus address
        std::vector<Bytes> requests = m_gateway.GetRequests();
        ASSERT_EQ(1u, requests.size());
        Bytes expected =
            WithCrc({row.unit, 3, static_cast<uint8_t>(row.address >> 8), static_cast<uint8_t>(row.address & 0xFF), 0,
                     static_cast<uint8_t>(row.registers.size())});
        EXPECT_EQ(kes_test::ToHex(expected), kes_test::ToHex(requests[0]));
    }
    EXPECT_EQ(0u, m_log.Count()) << m_log.Dump();
}

// The same table against pymodbus as an RTU-over-TCP gateway: an independent
// reading of the frames, the CRC and the register order.
TEST(EnergySystemPymodbus, EveryReadDecodesWhatThePeerHolds)
{
    std::vector<DecodeRow> rows = decode_rows();
    std::map<int, std::string> units;
    for (const DecodeRow& row : rows) {
        std::string& text = units[row.unit];
        text += (text.empty() ? "" : ", ") + ("\"" + std::to_string(row.address) + "\": [");
        for (size_t i = 0; i < row.registers.size(); ++i)
            text += (i ? ", " : "") + std::to_string(row.registers[i]);
        text += "]";
    }
    std::string json = "{";
    for (const auto& unit : units)
        json += (json.size() > 1 ? ", \"" : "\"") + std::to_string(unit.first) + "\": {" + unit.second + "}";
    json += "}";

    kes_test::ChildProcess peer;
    ASSERT_TRUE(
        peer.Start({"/usr/bin/python3", std::string(KES_SOURCE_DIR) + "/tests/support/pymodbus_gateway.py", json}));
    ASSERT_TRUE(peer.WaitForOutput("PORT ", 20000))
        << "the pymodbus gateway did not start (is python3-pymodbus installed?):\n"
        << peer.Output();
    std::string output = peer.Output();
    unsigned int port = static_cast<unsigned int>(std::stoul(output.substr(output.find("PORT ") + 5)));

    unsigned char savedCount = kesEnergySystem::EXECUTION_COUNT;
    kesEnergySystem::EXECUTION_COUNT = 1;
    {
        ErrorCapture log;
        kesEnergySystem system;
        kesString address;
        address.SetFormat(64, "127.0.0.1:%u", port);
        ASSERT_EQ(kesErrorOk, system.OpenCommunication(address, 0, 2000, 5, 30));
        for (const DecodeRow& row : rows) {
            SCOPED_TRACE(row.name);
            std::vector<double> values;
            ASSERT_EQ(kesErrorOk, row.read(system, row.address, values)) << log.Dump();
            expect_decoded(row, values);
        }
    }
    kesEnergySystem::EXECUTION_COUNT = savedCount;
}

TEST_F(EnergySystemTest, PanelRequestAndReplyOnTheWire)
{
    Open();
    m_gateway.SetRegisters(1, 300, {0x5DC0, 0x00FA});
    EXPECT_EQ(kes_test::ToHex(WithCrc(Hex("01 03 04 5D C0 00 FA"))),
              kes_test::ToHex(m_gateway.Answer(WithCrc(Hex("01 03 01 2C 00 02")))));
    float voltage = 0, temperature = 0;
    ASSERT_EQ(kesErrorOk, m_system.ReadPanelVoltTemp(300, &voltage, &temperature));
    ASSERT_EQ(1u, m_gateway.GetRequestCount());
    EXPECT_EQ(kes_test::ToHex(WithCrc(Hex("01 03 01 2C 00 02"))), kes_test::ToHex(m_gateway.GetRequests()[0]));
    EXPECT_FLOAT_EQ(240.00f, voltage);
    EXPECT_FLOAT_EQ(25.0f, temperature);
}

TEST_F(EnergySystemTest, NullOutputsAreDecodedAndDropped)
{
    Open();
    m_gateway.SetRegisters(7, 300, {3003, 1, 2, 3, 4});
    float ampere1 = -1, ampere4 = -1;
    ASSERT_EQ(kesErrorOk, m_system.ReadStringFourVoltAmpere(300, nullptr, &ampere1, nullptr, nullptr, &ampere4));
    EXPECT_FLOAT_EQ(0.01f, ampere1);
    EXPECT_FLOAT_EQ(0.04f, ampere4);
    m_gateway.SetRegisters(9, 200, five_channel_registers());
    unsigned int count5 = 0;
    ASSERT_EQ(kesErrorOk, m_system.ReadPulseCounterFiveData(200, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                                            nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                                            &count5, nullptr, nullptr));
    EXPECT_EQ(5u * 65536u + 14u, count5);
    EXPECT_EQ(2u, m_gateway.GetRequestCount());
}

// ---------------------------------------------------------------- reply shapes

enum EPause { PauseAnswer, PauseFailure };

struct ShapeRow {
    const char* name;
    TestGateway::Fault fault;
    const char* text; // record of the exchange, empty when the read succeeds
    EPause pause;
    bool openAfter;
};

TEST_F(EnergySystemTest, EveryReplyShapeEndsAtItsCheckWithItsPause)
{
    typedef TestGateway G;
    const unsigned int answerPause = 300;
    const ShapeRow rows[] = {
        {"good reply", G::MakeFault(G::FaultNone), "", PauseAnswer, true},
        {"no reply", G::MakeFault(G::FaultSilent), "Response timeout received 0 bytes but requested 9 at address:300",
         PauseFailure, true},
        {"reply short by two bytes", G::MakeFault(G::FaultShort, 2),
         "Response timeout received 7 bytes but requested 9 at address:300", PauseFailure, true},
        {"standard exception reply", G::MakeFault(G::FaultException, 2),
         "Response timeout received 5 bytes but requested 9 at address:300", PauseFailure, true},
        {"reply after the time-out", G::MakeFault(G::FaultLate, 200),
         "Response timeout received 0 bytes but requested 9 at address:300", PauseFailure, true},
        {"bad CRC", G::MakeFault(G::FaultBadCrc), "Invalid Crc\n[0x01][0x03][0x04][0x5D][0xC0][0x00][0xFA][0x",
         PauseFailure, true},
        {"unit of another type", G::MakeFault(G::FaultWrongUnit, 2), STEP8_TEXT, PauseAnswer, true},
        {"another function code", G::MakeFault(G::FaultWrongFunction, 4), STEP8_TEXT, PauseAnswer, true},
        {"data size not that of the read", G::MakeFault(G::FaultRaw, 1, Hex("01 03 02 00 01 00 00")), STEP8_TEXT,
         PauseAnswer, true},
        {"exception of full length", G::MakeFault(G::FaultRaw, 1, Hex("01 83 02 00 00 00 00")),
         "E:0x2 Illegal Data Address:\nDependant on the request check frame", PauseAnswer, true},
        {"connection closed", G::MakeFault(G::FaultClose), "Received 0 bytes but requested 9 at address:300",
         PauseFailure, false},
    };
    m_gateway.SetRegisters(1, 300, {0x5DC0, 0x00FA});
    for (const ShapeRow& row : rows) {
        SCOPED_TRACE(row.name);
        Open(50, answerPause, 30);
        m_log.Clear();
        m_gateway.ClearFaults();
        m_gateway.PushFault(row.fault);
        float voltage = -1, temperature = -1;
        auto start = std::chrono::steady_clock::now();
        kesEError result = m_system.ReadPanelVoltTemp(300, &voltage, &temperature);
        unsigned int elapsed = elapsed_ms(start);

        if (row.pause == PauseAnswer)
            EXPECT_GE(elapsed, answerPause);
        else
            EXPECT_LT(elapsed, answerPause);
        EXPECT_EQ(row.openAfter, m_system.IsConnected());
        if (!*row.text) {
            EXPECT_EQ(kesErrorOk, result);
            EXPECT_FLOAT_EQ(240.0f, voltage);
            EXPECT_EQ(0u, m_log.Count()) << m_log.Dump();
            continue;
        }
        EXPECT_EQ(kesErrorFailed, result);
        // outputs are written only by a reply that passed every check
        EXPECT_EQ(-1.0f, voltage);
        EXPECT_EQ(-1.0f, temperature);
        std::vector<std::string> records = m_log.Records();
        ASSERT_EQ(2u, records.size()) << m_log.Dump();
        EXPECT_NE(std::string::npos, records[0].find(row.text)) << records[0];
        EXPECT_NE(std::string::npos, records[1].find("Can not get Voltage and temperature at address:300"))
            << records[1];
    }
}

// On a serial line the adapter echoes every frame, a short reply is a count
// rather than a time-out, and a missing echo ends the exchange at the send.
TEST(EnergySystemSerial, ReplyShapesOnAnEchoingLine)
{
    struct Row {
        const char* name;
        bool echo;
        const char* reply;
        const char* text; // empty: success
    };
    const Row rows[] = {
        {"echo and reply", true, "01 03 04 5D C0 00 FA", ""},
        {"no echo", false, "", "Can not send data to the bus at address:300"},
        {"echo, then 5 of 9 bytes", true, "01 03 04 5D C0", "Received 5 bytes but requested 9 at address:300"},
        {"echo, then nothing", true, "", "Received 0 bytes but requested 9 at address:300"},
    };
    kes_test::PtyPair pty;
    ASSERT_TRUE(pty.IsValid());
    unsigned char savedCount = kesEnergySystem::EXECUTION_COUNT;
    kesEnergySystem::EXECUTION_COUNT = 1;
    ErrorCapture log;
    kesEnergySystem system;
    ASSERT_EQ(kesErrorOk, system.OpenCommunication(pty.LinkPath().c_str(), 0, 300, 5, 30)) << log.Dump();
    const Bytes request = WithCrc(Hex("01 03 01 2C 00 02"));
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        log.Clear();
        Bytes seen;
        kes_test::PeerThread peer([&] {
            seen = kes_test::ReadFor(pty.Master(), request.size(), 3000);
            if (row.echo)
                kes_test::WriteAll(pty.Master(), seen);
            Bytes reply = Hex(row.reply);
            if (reply.size() == 7)
                reply = WithCrc(reply);
            if (!reply.empty())
                kes_test::WriteAll(pty.Master(), reply);
        });
        float voltage = -1;
        kesEError result = system.ReadPanelVoltTemp(300, &voltage, nullptr);
        peer.Join();
        EXPECT_EQ(kes_test::ToHex(request), kes_test::ToHex(seen));
        if (!*row.text) {
            EXPECT_EQ(kesErrorOk, result) << log.Dump();
            EXPECT_FLOAT_EQ(240.0f, voltage);
        } else {
            EXPECT_EQ(kesErrorFailed, result);
            EXPECT_TRUE(log.Contains(row.text)) << log.Dump();
            EXPECT_FALSE(log.Contains("Response timeout")) << log.Dump();
        }
        EXPECT_TRUE(system.IsConnected());
    }
    kesEnergySystem::EXECUTION_COUNT = savedCount;
}

// ---------------------------------------------------------------- attempts

TEST_F(EnergySystemTest, SecondAttemptSucceedsAndLeavesTheFirstInTheLog)
{
    Open();
    kesEnergySystem::EXECUTION_COUNT = 2;
    m_gateway.SetRegisters(1, 300, {0x5DC0, 0x00FA});
    m_gateway.PushFault(TestGateway::MakeFault(TestGateway::FaultBadCrc));
    float voltage = 0;
    EXPECT_EQ(kesErrorOk, m_system.ReadPanelVoltTemp(300, &voltage, nullptr));
    EXPECT_FLOAT_EQ(240.0f, voltage);
    EXPECT_EQ(2u, m_gateway.GetRequestCount());
    ASSERT_EQ(1u, m_log.Count()) << m_log.Dump();
    EXPECT_TRUE(m_log.Contains("Invalid Crc\n"));
}

TEST_F(EnergySystemTest, EveryAttemptFailsThenTheWrapperReports)
{
    Open();
    kesEnergySystem::EXECUTION_COUNT = 2;
    unsigned int count = 7;
    EXPECT_EQ(kesErrorFailed, m_system.ReadPulseCounterData(500, &count, nullptr));
    EXPECT_EQ(7u, count);
    EXPECT_EQ(2u, m_gateway.GetRequestCount());
    EXPECT_EQ(2u, m_log.CountContaining("Response timeout received 0 bytes but requested 11 at address:500"));
    EXPECT_EQ(1u, m_log.CountContaining("Can not get data at address:500"));

    m_log.Clear();
    float ampere = 0;
    EXPECT_EQ(kesErrorFailed, m_system.ReadStringThreeVoltAmpere(600, nullptr, &ampere, nullptr, nullptr));
    EXPECT_EQ(2u, m_log.CountContaining("Response timeout received 0 bytes but requested 13 at address:600"));
    EXPECT_EQ(1u, m_log.CountContaining("Can not voltage and ampere at address:600"));
}

TEST_F(EnergySystemTest, ClosedChannelSendsNothing)
{
    float voltage = -1;
    EXPECT_EQ(kesErrorFailed, m_system.ReadPanelVoltTemp(300, &voltage, nullptr));
    Open();
    ASSERT_EQ(kesErrorOk, m_system.CloseCommunication());
    EXPECT_FALSE(m_system.IsConnected());
    EXPECT_EQ(kesErrorFailed, m_system.ReadStringVoltAmpere(300, &voltage, nullptr));
    EXPECT_EQ(-1.0f, voltage);
    EXPECT_EQ(2u, m_log.CountContaining("Communication is closed! Call OpenCommunication(...)"));
    EXPECT_EQ(2u, m_log.Count()) << m_log.Dump();
    EXPECT_EQ(0u, m_gateway.GetRequestCount());
}

TEST_F(EnergySystemTest, NoAttemptAtAllSucceedsWithoutTouchingTheBus)
{
    Open();
    kesEnergySystem::EXECUTION_COUNT = 0;
    float voltage = -1;
    EXPECT_EQ(kesErrorOk, m_system.ReadPanelVoltTemp(300, &voltage, nullptr));
    EXPECT_EQ(-1.0f, voltage);
    EXPECT_EQ(0u, m_gateway.GetRequestCount());
}

} // namespace

// ---------------------------------------------------------------- late replies

namespace {

// A bus whose replies come late (just past the time-out to seconds), twice, or
// not at all, in a given share of the requests; the others come at once. On a
// serial line every request is echoed first.
class FaultyBus {
public:
    FaultyBus(int i_fd, bool i_echo, int i_share, const TestGateway& i_registers)
        : m_fd(i_fd), m_echo(i_echo), m_share(i_share), m_registers(i_registers), m_thread([this] { run(); })
    {
    }
    ~FaultyBus()
    {
        m_stop = true;
        m_thread.join();
    }

private:
    typedef std::chrono::steady_clock Clock;
    void run()
    {
        std::mt19937 random(static_cast<unsigned int>(m_share) * 7919u + (m_echo ? 1u : 0u));
        std::multimap<Clock::time_point, Bytes> due;
        Bytes input;
        while (!m_stop) {
            pollfd entry = {m_fd, POLLIN, 0};
            unsigned char got[64];
            ssize_t count = poll(&entry, 1, 1) == 1 ? ::read(m_fd, got, sizeof(got)) : 0;
            if (count > 0)
                input.insert(input.end(), got, got + count);
            while (input.size() >= 8) {
                Bytes request(input.begin(), input.begin() + 8);
                input.erase(input.begin(), input.begin() + 8);
                if (m_echo)
                    kes_test::WriteAll(m_fd, request);
                Bytes reply = m_registers.Answer(request);
                Clock::time_point now = Clock::now();
                auto later = [&] { return now + std::chrono::milliseconds(55 + random() % 2500); };
                if (static_cast<int>(random() % 100) >= m_share) {
                    due.emplace(now, reply);
                    continue;
                }
                switch (random() % 3) {
                case 0: // lost
                    break;
                case 1:
                    due.emplace(later(), reply);
                    break;
                default: // twice
                    due.emplace(now, reply);
                    due.emplace(later(), reply);
                    break;
                }
            }
            while (!due.empty() && due.begin()->first <= Clock::now()) {
                kes_test::WriteAll(m_fd, due.begin()->second);
                due.erase(due.begin());
            }
        }
    }

    int m_fd;
    bool m_echo;
    int m_share;
    const TestGateway& m_registers;
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

struct LateRow {
    bool serial;
    int share; // percent of the requests answered late, twice or never
};

class LateReplies : public ::testing::TestWithParam<LateRow> {};

// Four string modules, one unit id, distinct voltages: every value read is the
// voltage of the module asked, whatever the bus does.
TEST_P(LateReplies, NeverLendAValueToAnotherDevice)
{
    const LateRow row = GetParam();
    TestGateway registers;
    for (unsigned short mid = 1; mid <= 4; ++mid)
        registers.SetRegisters(kesEnergyDeviceString, static_cast<uint16_t>(100 * mid), {uint16_t(1000 * mid), 7});
    kes_test::PtyPair pty;
    kes_test::LoopbackServer server;
    std::atomic<int> peerFd{-1};
    kes_test::Gate done;
    std::string address;
    if (row.serial) {
        ASSERT_TRUE(pty.IsValid());
        peerFd = pty.Master();
        address = pty.LinkPath();
    } else {
        server.Serve([&](int i_fd, int) {
            int on = 1;
            setsockopt(i_fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
            peerFd = i_fd;
            done.Wait(20000);
        });
        address = server.Address();
    }
    ErrorCapture log;
    unsigned char savedCount = kesEnergySystem::EXECUTION_COUNT;
    kesEnergySystem::EXECUTION_COUNT = 1;
    kesEnergySystem system;
    // an answer pause well above the bus's own delay, as on a real line
    ASSERT_EQ(kesErrorOk, system.OpenCommunication(address.c_str(), 0, 50, 20, 30));
    for (int i = 0; i < 500 && peerFd < 0; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    ASSERT_GE(peerFd, 0);
    int read = 0, wrong = 0;
    {
        FaultyBus bus(peerFd, row.serial, row.share, registers);
        auto start = std::chrono::steady_clock::now();
        for (unsigned short mid = 1; elapsed_ms(start) < 1500 && system.IsConnected(); mid = mid % 4 + 1) {
            float voltage = -1;
            kesEError r = system.ReadStringVoltAmpere(static_cast<unsigned short>(100 * mid), &voltage, nullptr);
            if (r != kesErrorOk)
                continue;
            ++read;
            wrong += voltage != 100.0f * mid;
        }
    }
    done.Open();
    server.Join();
    kesEnergySystem::EXECUTION_COUNT = savedCount;
    EXPECT_EQ(0, wrong) << read << " values read";
    if (row.share < 100) {
        EXPECT_GT(read, 0);
    }
}

INSTANTIATE_TEST_SUITE_P(BothLines, LateReplies,
                         ::testing::Values(LateRow{false, 100}, LateRow{false, 30}, LateRow{true, 100},
                                           LateRow{true, 30}),
                         [](const ::testing::TestParamInfo<LateRow>& i_info) {
                             return std::string(i_info.param.serial ? "Serial" : "Tcp") +
                                    std::to_string(i_info.param.share);
                         });

} // namespace
