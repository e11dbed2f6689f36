// The bus engine against the test gateway and its simulated devices.
#include "kes_enerysystem.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <string>
#include <tuple>
#include <vector>

#include "error_capture.h"
#include "test_gateway_bus.h"
#include "test_process.h"

using namespace kes;
using kes_test::Bytes;
using kes_test::Hex;
using kes_test::TestBusGateway;
using kes_test::ToHex;
using kes_test::WithCrc;

namespace {

typedef kes_test::TestGateway G;
typedef kesArray<kesEnergyDevice> Devices;

// With quick on, a search key nobody holds comes back at once as a frame for
// nobody, which the engine takes for silence: a walk of every key then costs
// no time-outs. The time-out of a silent key is pinned with quick off.
class Gateway : public TestBusGateway {
public:
    ~Gateway() { Stop(); }
    std::atomic<bool> quick{false};

protected:
    Bytes Reply(const Bytes& i_request) override
    {
        Bytes reply = TestBusGateway::Reply(i_request);
        bool search = i_request.size() == 6 && i_request[0] == 0xFF && (i_request[1] == 3 || i_request[1] == 4);
        return quick && search && reply.empty() ? WithCrc(Bytes(10, 0)) : reply;
    }
};

class Engine : public kesEnergySystem {
public:
    using kesEnergySystem::find_all_devices_10000;
    using kesEnergySystem::old_find_all_devices;

    int Search(bool i_fine, unsigned short i_key, Devices* o_devices, int i_retries = 0)
    {
        return i_fine ? read_all_device_with_10000(&m_oSocket, i_key, o_devices, i_retries, true)
                      : read_all_device_with_100(&m_oSocket, i_key, o_devices, i_retries, true);
    }
    // Below the floor of OpenCommunication; loopback answers well within it.
    void SetTimeOut(unsigned int i_ms) { m_oSocket.SetReceiveTimeOut(i_ms); }
    void OnDeviceFound(const kesEnergyDevice* i_pDevice) override { found.push_back(*i_pDevice); }
    void OnDeviceAddressChanged(const kesEnergyDevice* i_pDevice) override { changed.push_back(*i_pDevice); }

    std::vector<kesEnergyDevice> found, changed;
    // The pauses taken: a and f slept after an answer or a failure, A and F
    // spent reading on a watched line. Waited out only when real.
    bool real = false;
    mutable std::string pauses;

protected:
    void pause_after_answer() const override { pauses += 'a', real ? kesEnergySystem::pause_after_answer() : void(); }
    void pause_after_failure() const override { pauses += 'f', real ? kesEnergySystem::pause_after_failure() : void(); }
    int drop_arriving(kesEnergySocket* io_pChannel, unsigned int i_uiMilliseconds) const override
    {
        if (i_uiMilliseconds)
            pauses += i_uiMilliseconds == GetAnswerPause() ? 'A' : 'F';
        return kesEnergySystem::drop_arriving(io_pChannel, real ? i_uiMilliseconds : 0);
    }
};

#define KES_CALL(CALL) [&](Engine& e) { return e.CALL; }

kesEnergyDevice make_device(kesEEnergyDeviceType i_type, unsigned char i_address, unsigned int i_serial)
{
    kesEnergyDevice device;
    device.Type = i_type, device.Address = i_address, device.UniqueID = i_serial;
    return device;
}

// "serial:type " for each device, in the order of the list
std::string listed(const Devices& i_devices)
{
    std::string text;
    for (const kesEnergyDevice& device : i_devices)
        text += std::to_string(device.UniqueID) + ":" + std::to_string(device.Type) + " ";
    return text;
}

class EngineTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        kesEnergySystem::EXECUTION_COUNT = 1;
        kesEnergySystem::MODE = 2;
        ASSERT_TRUE(m_gateway.Start());
    }
    void TearDown() override
    {
        kesEnergySystem::EXECUTION_COUNT = m_count;
        kesEnergySystem::MODE = m_mode;
    }
    // A fresh connection each time a frame that got no reply would hold the
    // next one back: the engine's socket leaves Nagle's algorithm on, so that
    // frame waits for the gateway's delayed acknowledgement, up to 40 ms.
    void Open(unsigned int i_timeOut = 25, unsigned int i_failure = 30)
    {
        ASSERT_EQ(kesErrorOk, m_engine.OpenCommunication(m_gateway.GetAddress().c_str(), 0, 50, 5, i_failure));
        m_engine.SetTimeOut(i_timeOut);
    }
    size_t Requests() const { return m_gateway.GetRequestCount(); }
    void Clear()
    {
        m_log.Clear();
        m_gateway.ClearRequests();
        m_engine.pauses.clear();
    }

    Gateway m_gateway;
    Engine m_engine;
    kes_test::ErrorCapture m_log;
    const unsigned char m_count = kesEnergySystem::EXECUTION_COUNT;
    const unsigned char m_mode = kesEnergySystem::MODE;
};

// ---------------------------------------------------------------- opening

TEST_F(EngineTest, TimingIsRaisedToItsFloorsAndKeptByAFailedOpen)
{
    // the last opening fails: the gateway is gone
    const unsigned int rows[][6] = {
        {49, 4, 29, 50, 5, 30}, {50, 5, 30, 50, 5, 30}, {500, 100, 100, 500, 100, 100}, {10, 1, 1, 500, 100, 100}};
    const std::string address = m_gateway.GetAddress();
    for (const auto& row : rows) {
        const bool opens = &row != &rows[3];
        if (!opens)
            m_gateway.Stop();
        EXPECT_EQ(opens, m_engine.OpenCommunication(address.c_str(), 0, row[0], row[1], row[2]) == kesErrorOk);
        EXPECT_EQ(opens, m_engine.IsConnected());
        EXPECT_EQ(std::vector<unsigned int>(row + 3, row + 6),
                  std::vector<unsigned int>(
                      {m_engine.GetReceiveTimeOut(), m_engine.GetAnswerPause(), m_engine.GetFailurePause()}));
    }
    EXPECT_TRUE(m_log.Contains("Can not open the communication"));
}

// ---------------------------------------------------------------- measurement reads

// The outputs of one read by kind, marked first so that one left alone shows.
struct Out {
    float f[5] = {-1, -1, -1, -1, -1};
    unsigned int u[10] = {7, 7, 7, 7, 7, 7, 7, 7, 7, 7};
    unsigned short w[5] = {7, 7, 7, 7, 7};
};

#define KES_READ(CALL) [](kesEnergySystem& s, unsigned short a, Out& o) { return s.CALL; }

TEST_F(EngineTest, EveryReadDecodesItsRegisters)
{
    // clang-format off
    // All 0xFFFF: registers are unsigned, and every scale shows at its top.
    const struct { const char* name; unsigned char unit; unsigned short address; std::vector<uint16_t> registers;
        std::function<kesEError(kesEnergySystem&, unsigned short, Out&)> read; std::vector<float> f;
        std::vector<unsigned int> u; std::vector<unsigned short> w; } rows[] = {
        {"panel", 1, 100, {0xFFFF, 0xFFFF}, KES_READ(ReadPanelVoltTemp(a, o.f, o.f + 1)), {655.35f, 6553.5f}, {}, {}},
        {"string", 2, 300, {2405, 1234}, KES_READ(ReadStringVoltAmpere(a, o.f, o.f + 1)), {240.5f, 12.34f}, {}, {}},
        {"string two", 6, 500, {3001, 100, 200}, KES_READ(ReadStringTwoVoltAmpere(a, o.f, o.f + 1, o.f + 2)),
         {300.1f, 1.0f, 2.0f}, {}, {}},
        {"string three", 11, 600, {3002, 101, 202, 0xFFFF},
         KES_READ(ReadStringThreeVoltAmpere(a, o.f, o.f + 1, o.f + 2, o.f + 3)), {300.2f, 1.01f, 2.02f, 655.35f}, {}, {}},
        {"string four, null outputs left alone", 7, 700, {3003, 1, 2, 3, 4},
         KES_READ(ReadStringFourVoltAmpere(a, nullptr, o.f + 1, nullptr, o.f + 3, o.f + 4)),
         {-1, 0.01f, -1, 0.03f, 0.04f}, {}, {}},
        {"string one", 10, 400, {3000, 99}, KES_READ(ReadStringOneVoltAmpere(a, o.f, o.f + 1)), {300.0f, 0.99f}, {}, {}},
        {"alarm", 3, 800, {2300, 150}, KES_READ(ReadAlarmVoltAmpere(a, o.f, o.f + 1)), {230.0f, 1.5f}, {}, {}},
        {"pulse counter two", 8, 1100, {0, 7, 70, 0x0100, 0, 5},
         KES_READ(ReadPulseCounterTwoData(a, o.u, o.w, o.u + 1, o.w + 1)), {}, {7, 16777216}, {70, 5}},
        {"pulse counter", 5, 100, {0xFFFF, 0xFFFF, 0xFFFF}, KES_READ(ReadPulseCounterData(a, o.u, o.w)),
         {}, {4294967295u}, {65535}},
        // five channels: count high register first, period, second count
        {"pulse counter five", 9, 200, {1, 10, 100, 0, 1007, 2, 11, 101, 0, 2007, 3, 12, 102, 0, 3007, 4, 13, 103, 0,
         4007, 5, 14, 104, 0, 5007}, KES_READ(ReadPulseCounterFiveData(a, o.u, o.w, o.u + 1, o.u + 2, o.w + 1, o.u + 3,
         o.u + 4, o.w + 2, o.u + 5, o.u + 6, o.w + 3, o.u + 7, o.u + 8, o.w + 4, o.u + 9)), {},
         {65546, 1007, 131083, 2007, 196620, 3007, 262157, 4007, 327694, 5007}, {100, 101, 102, 103, 104}},
    };
    // clang-format on
    auto read = [](const auto& row, kesEnergySystem& engine) {
        Out out;
        ASSERT_EQ(kesErrorOk, row.read(engine, row.address, out));
        for (size_t i = 0; i < row.f.size(); ++i)
            EXPECT_FLOAT_EQ(row.f[i], out.f[i]) << "float " << i;
        EXPECT_EQ(row.u, std::vector<unsigned int>(out.u, out.u + row.u.size()));
        EXPECT_EQ(row.w, std::vector<unsigned short>(out.w, out.w + row.w.size()));
    };
    Open();
    m_engine.real = true; // the answer pause read for real, as on the bus
    std::string json;     // every unit's registers, for pymodbus below
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Clear();
        m_gateway.ClearRegisters();
        m_gateway.SetRegisters(row.unit, row.address, row.registers);
        read(row, m_engine);
        EXPECT_EQ("A", m_engine.pauses) << m_log.Dump();
        json += (json.empty() ? "{\"" : ", \"") + std::to_string(row.unit) + "\": {\"" + std::to_string(row.address) +
                "\": [";
        for (size_t i = 0; i < row.registers.size(); ++i)
            json += (i ? ", " : "") + std::to_string(row.registers[i]);
        json += "]}";
        // one request: the unit is the device type, the block starts at the bus address
        ASSERT_EQ(1u, Requests());
        EXPECT_EQ(ToHex(WithCrc({row.unit, 3, uint8_t(row.address >> 8), uint8_t(row.address & 0xFF), 0,
                                 uint8_t(row.registers.size())})),
                  ToHex(m_gateway.GetRequests()[0]));
    }
    EXPECT_EQ(0u, m_log.Count()) << m_log.Dump();
    // The same reads from pymodbus as an RTU-over-TCP gateway: an independent
    // reading of the frames, the CRC and the register order.
    kes_test::ChildProcess peer;
    ASSERT_TRUE(peer.Start({"/usr/bin/python3", KES_SOURCE_DIR "/tests/support/pymodbus_gateway.py", json + "}"}));
    ASSERT_TRUE(peer.WaitForOutput("PORT ", 20000)) << "is python3-pymodbus installed?\n" << peer.Output();
    kesEnergySystem independent;
    ASSERT_EQ(kesErrorOk,
              independent.OpenCommunication(("127.0.0.1:" + peer.Output().substr(5)).c_str(), 0, 2000, 5, 30));
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string("pymodbus ") + row.name);
        read(row, independent);
    }
}

// After a request that got no reply of its own (before), a reply is taken
// only on a quiet line and when it comes about as fast as the line's replies.
TEST_F(EngineTest, EveryReplyShapeEndsAtItsCheckWithItsPause)
{
    const std::string good = ToHex(WithCrc(Hex("01 03 04 5D C0 00 FA")));
    const char* const content = "pData && size && oFrameResponse.GetUnitID() && oFrameResponse.GetFunctionCodeID()";
    const char* const outOfStep = "Reply after an unanswered request on a line out of step at address:300";
    const G::Fault none = G::MakeFault(G::FaultNone), silent = G::MakeFault(G::FaultSilent);
    // clang-format off
    // text: the record of the exchange, empty when the read succeeds
    const struct { const char* name; G::Fault fault; const char* text; const char* pauses; G::Fault before; } rows[] = {
        {"good reply", none, "", "A", none},
        {"no reply", silent, "Response timeout received 0 bytes but requested 9 at address:300", "F", none},
        {"reply short by two bytes", G::MakeFault(G::FaultShort, 2),
         "Response timeout received 7 bytes but requested 9 at address:300", "F", none},
        {"bad CRC", G::MakeFault(G::FaultBadCrc), "Invalid Crc\n[0x01][0x03][0x04][0x5D][0xC0][0x00][0xFA][0x", "F", none},
        {"unit of another type", G::MakeFault(G::FaultWrongUnit, 2), content, "A", none},
        {"another function code", G::MakeFault(G::FaultWrongFunction, 4), content, "A", none},
        {"data size not that of the read", G::MakeFault(G::FaultRaw, 1, Hex("01 03 02 00 01 00 00")), content, "A", none},
        {"exception of full length", G::MakeFault(G::FaultRaw, 1, Hex("01 83 02 00 00 00 00")),
         "E:0x2 Illegal Data Address:\nDependant on the request check frame", "A", none},
        {"the reply twice", G::MakeFault(G::FaultRaw, 0, Hex(good + good)),
         "Reply out of step, 9 more bytes after it at address:300", "A", none},
        {"connection closed", G::MakeFault(G::FaultClose), "Received 0 bytes but requested 9 at address:300", "", none},
        {"late reply read away in the failure pause", none, outOfStep, "A", G::MakeFault(G::FaultLate, 50)},
        {"reply of another unit before", none, outOfStep, "A", G::MakeFault(G::FaultWrongUnit, 2)},
        // a request answered twice did get its own reply
        {"the reply twice before", none, "", "A", G::MakeFault(G::FaultRaw, 0, Hex(good + good))},
        {"spoilt reply with bytes behind", none, outOfStep, "A",
         G::MakeFault(G::FaultRaw, 0, Hex("01 03 04 5D C0 00 FA 00 00 01 02 03"))},
        {"spoilt reply alone", none, "", "A", G::MakeFault(G::FaultBadCrc)},
        {"slow reply on a quiet line", G::MakeFault(G::FaultLate, 120),
         "Reply slower than the line's replies after an unanswered request at address:300", "A", silent},
        {"prompt reply on a quiet line", none, "", "A", silent},
    };
    // clang-format on
    m_gateway.SetRegisters(1, 300, {0x5DC0, 0x00FA});
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const bool late = row.before.kind != G::FaultNone;
        Open(25, 60); // room for the acknowledgement of a frame without reply, and for a late one
        m_engine.real = late;
        if (late) {
            ASSERT_EQ(kesErrorOk, m_engine.ReadPanelVoltTemp(300, nullptr, nullptr)); // sets the pace
            m_gateway.PushFault(row.before);
            EXPECT_NE(kesErrorOk, m_engine.ReadPanelVoltTemp(300, nullptr, nullptr));
            m_engine.SetTimeOut(200);
        }
        Clear();
        m_gateway.PushFault(row.fault);
        float voltage = -1, temperature = -1;
        kesEError result = m_engine.ReadPanelVoltTemp(300, &voltage, &temperature);
        EXPECT_EQ(row.pauses, m_engine.pauses);
        EXPECT_EQ(*row.pauses != 0, m_engine.IsConnected());
        EXPECT_EQ(!*row.text, result == kesErrorOk);
        // outputs are written only by a reply that passed every check
        EXPECT_EQ(*row.text ? -1.0f : 240.0f, voltage);
        EXPECT_EQ(*row.text ? -1.0f : 25.0f, temperature);
        EXPECT_EQ(*row.text ? 2u : 0u, m_log.Count()) << m_log.Dump();
        EXPECT_TRUE(!*row.text ||
                    (m_log.Contains(row.text) && m_log.Contains("Can not get Voltage and temperature at address:300")));
    }
}

TEST_F(EngineTest, EveryOperationReportsItsLastFailureAndNeedsAnOpenChannel)
{
    kesString text;
    // clang-format off
    // The request without its CRC, the length of the reply it waits for, the
    // record after the last attempt.
    const struct { std::function<kesEError(Engine&)> call; const char* frame; int reply; std::string failure; } rows[] = {
        {KES_CALL(ReadPanelVoltTemp(300, nullptr, nullptr)), "01 03 01 2C 00 02", 9,
         "Can not get Voltage and temperature at address:300"},
        {KES_CALL(ReadPulseCounterData(500, nullptr, nullptr)), "05 03 01 F4 00 03", 11, "Can not get data at address:500"},
        {KES_CALL(ReadStringFourSerial(400, &text)), "07 03 01 9A 00 0F", 35, "Can not get Serial at address:400"},
        {KES_CALL(ReadStringTestDate(300, &text)), "02 03 01 42 00 0A", 25, "Can not get Test date at address:300"},
        {KES_CALL(ReadPanelFlash(300, 0, 0, 0, 0, 0, 0, 0, 0)), "01 03 01 4C 00 09", 23,
         "Can not get Flash data at address:300"},
        {KES_CALL(SetupAlarmTuning(300, 0x0102, 0x0304, 0x0506)), "03 10 01 2C 00 04 08 00 01 01 02 03 04 05 06", 8,
         "Can not set up alarm at address:300"},
    };
    // clang-format on
    for (const auto& row : rows) {
        SCOPED_TRACE(row.failure);
        Open();
        kesEnergySystem::EXECUTION_COUNT = 1;
        Clear();
        EXPECT_NE(kesErrorOk, row.call(m_engine));
        ASSERT_EQ(1u, Requests());
        EXPECT_EQ(ToHex(WithCrc(Hex(row.frame))), ToHex(m_gateway.GetRequests()[0]));
        EXPECT_EQ(1u, m_log.CountContaining("Response timeout received 0 bytes but requested " +
                                            std::to_string(row.reply) + row.failure.substr(row.failure.rfind(" at "))));
        EXPECT_EQ(1u, m_log.CountContaining(row.failure));
        EXPECT_EQ(2u, m_log.Count()) << m_log.Dump();
        // no attempt at all is no failure, and nothing goes out
        kesEnergySystem::EXECUTION_COUNT = 0;
        Clear();
        EXPECT_EQ(kesErrorOk, row.call(m_engine));
        EXPECT_EQ(0u, Requests() + m_log.Count());
    }
    // up to the count of attempts, each in the log, then the failure once;
    // a later attempt that succeeds leaves the earlier ones in the log
    kesEnergySystem::EXECUTION_COUNT = 3;
    m_gateway.SetRegisters(1, 300, {0x5DC0, 0x00FA});
    for (unsigned int faults : {3u, 2u}) {
        Clear();
        for (unsigned int i = 0; i < faults; ++i)
            m_gateway.PushFault(G::MakeFault(G::FaultBadCrc));
        EXPECT_EQ(faults == 3, m_engine.ReadPanelVoltTemp(300, nullptr, nullptr) != kesErrorOk);
        EXPECT_EQ(3u, Requests());
        EXPECT_EQ(faults, m_log.CountContaining("Invalid Crc\n"));
        EXPECT_EQ(faults == 3 ? 4u : 2u, m_log.Count()) << m_log.Dump();
    }

    // Refused before anything goes out; lists whose numbers would pass a byte too.
    Devices devices, many;
    kesEnergyDevice device;
    auto list = [&](size_t i_count) { return many.resize(i_count, make_device(kesEnergyDeviceString, 50, 7)), &many; };
    // clang-format off
    const struct { std::function<kesEError(Engine&)> call; const char* text; } refused[] = {
        {KES_CALL(ReadMeasurement(kesEnergyDeviceAmbient, 300, nullptr)), "Unknown type 4"},
        {KES_CALL(ReadAlarmModel(300, nullptr)), "o_data == 0"}, {KES_CALL(FindAllDevices(nullptr)), "o_devices == 0"},
        {KES_CALL(ControlAlarmDevice(400, 100, 1, 2, 3, nullptr, nullptr, nullptr)), "o_pCycle == 0"},
        {KES_CALL(FindDeviceBySerial(1, nullptr) ? kesErrorOk : kesErrorInvalidArgument), "io_pDevice == 0"},
        {KES_CALL(GetDeviceInfo(&device, nullptr)), "o_strData == 0"},
        {KES_CALL(GetDeviceInfo(nullptr, &text)), "i_pDevice == 0"},
        {KES_CALL(SetDevicesAddresses(1, nullptr)), "io_devices == 0"},
        {KES_CALL(SetDeviceAddress(1, 0)), "Can not set address outside range [1 -- 100]"},
        {KES_CALL(SetDeviceAddress(1, 101)), "Can not set address outside range [1 -- 100]"},
        {KES_CALL(SetDevicesAddresses(253, list(4))), "Can not number 4 devices from 253: module numbers end at 255"},
        {KES_CALL(SetDevicesAddresses(0, list(300))), "Can not number 300 devices from 1"},
        {KES_CALL(SetDevicesAddresses(1, list(25500))), "Offset + i_devices->GetCount() > 25500"},
    };
    // clang-format on
    for (const auto& row : refused) {
        Clear();
        EXPECT_EQ(kesErrorInvalidArgument, row.call(m_engine)) << row.text;
        EXPECT_TRUE(m_log.Contains(row.text)) << m_log.Dump();
        EXPECT_EQ(0u, Requests()) << row.text;
    }
    EXPECT_EQ(many.size(), size_t(std::count_if(many.begin(), many.end(),
                                                [](const kesEnergyDevice& d) { return d.Address == 50; })));

    // Closed, nothing goes out and every operation says why, once.
    unsigned char cycle = 0;
    std::vector<std::function<kesEError(Engine&)>> failed = {
        KES_CALL(EnableAllDeviceFind()),         KES_CALL(MuteDeviceBySerial(1)),
        KES_CALL(SetDeviceAddress(1, 1)),        KES_CALL(SetDevicesAddresses(1, &devices)),
        KES_CALL(FindAllDevices(&devices)),      KES_CALL(FindDeviceBySerial(1, &device) ? kesErrorOk : kesErrorFailed),
        KES_CALL(GetDeviceInfo(&device, &text)), KES_CALL(ControlAlarmDevice(100, 0, 1, 2, 3, &cycle, 0, 0))};
    for (const auto& row : rows)
        failed.push_back(row.call);
    ASSERT_EQ(kesErrorOk, m_engine.CloseCommunication());
    Clear();
    for (size_t i = 0; i < failed.size(); ++i)
        EXPECT_NE(kesErrorOk, failed[i](m_engine)) << i;
    EXPECT_EQ(failed.size(), m_log.CountContaining("Communication is closed! Call OpenCommunication(...)"));
    EXPECT_EQ(failed.size(), m_log.Count()) << m_log.Dump();
    EXPECT_EQ(0u, Requests());
    // without discovery by mute there is nothing to do, even when closed
    m_log.Clear();
    kesEnergySystem::MODE = 1;
    EXPECT_EQ(kesErrorOk, m_engine.MuteDeviceBySerial(1));
    EXPECT_EQ(0u, m_log.Count());
}

// ---------------------------------------------------------------- identity and alarm device

TEST_F(EngineTest, IdentityTextsPanelDataSheetAndAlarmStatus)
{
    m_gateway.AddDevice(kesEnergyDeviceAlarm, 77, 3);
    m_gateway.SetIdentity(77, "ALARM1", "SN-77", "2024-05-06");
    m_gateway.AddDevice(kesEnergyDevicePanel, 5, 2);
    m_gateway.SetDeviceRegisters(5, 32, {3700, 850, 2500, 3050, 820, 0xFFFF, 1530, 60, 2});
    Open();
    // the texts keep the full length of their field, zero bytes and all
    kesString model, serial, date;
    EXPECT_EQ(kesErrorOk, m_engine.ReadAlarmModel(300, &model));
    EXPECT_EQ(kesErrorOk, m_engine.ReadAlarmSerial(300, &serial));
    EXPECT_EQ(kesErrorOk, m_engine.ReadAlarmTestDate(300, &date));
    EXPECT_EQ("ALARM1" + std::string(4, '\0') + "SN-77" + std::string(25, '\0') + "2024-05-06" + std::string(10, '\0'),
              model + serial + date);
    EXPECT_EQ(kesErrorOk, m_engine.ReadAlarmSerial(300, nullptr)); // reads and drops the text

    // the data sheet in full is pinned by the device report
    unsigned int panels = 0;
    EXPECT_EQ(kesErrorOk, m_engine.ReadPanelFlash(200, 0, 0, 0, 0, 0, 0, 0, &panels));
    EXPECT_EQ(2u, panels);

    // any cycle byte but zero is a running cycle, which leaves status and power as the caller had them
    m_gateway.SetDeviceRegisters(77, 2, {0xFF05, 7});
    unsigned char cycle = 5, status = 9;
    unsigned short power = 99;
    ASSERT_EQ(kesErrorOk, m_engine.ReadAlarmStatus(300, &cycle, &status, &power));
    EXPECT_EQ(std::make_tuple(1, 9, 99), std::make_tuple(int(cycle), int(status), int(power)));
    // the reply of the tuning write tells how many registers were written
    m_gateway.PushFault(G::MakeFault(G::FaultRaw, 1, Hex("03 10 01 2C 00 03")));
    EXPECT_NE(kesErrorOk, m_engine.SetupAlarmTuning(300, 1, 2, 3));
    EXPECT_TRUE(m_log.Contains("Write request :4 Written :3"));
}

TEST_F(EngineTest, ControlAlarmDeviceWaitsForTheEndOfTheCycle)
{
    // clang-format off
    // reads: of the status before the cycle ends, -1: no cycle and no status
    // registers; requests: 0 for at least 3; text: told that many times.
    const struct { const char* name; int reads; unsigned int timeOut; unsigned short address; kesEError result;
        unsigned char cycle, status; unsigned short power; unsigned int requests; const char* text; unsigned int times;
    } rows[] = {
        {"the tuning, three reads in progress, the outcome", 3, 5000, 400, kesErrorOk, 0, 4, 321, 5, nullptr, 0},
        {"no time to wait", 1000, 0, 400, kesErrorOk, 1, 9, 99, 2, nullptr, 0},
        {"still running at the time-out", 1000, 30, 400, kesErrorOk, 1, 9, 99, 0, nullptr, 0},
        {"status not answered", -1, 100, 400, kesErrorFailed, 5, 9, 99, 2, "Can not read alarm status at address:400",
         2},
        {"no such device", 3, 100, 500, kesErrorFailed, 5, 9, 99, 1, "Can not setup alarm at address:500", 1},
    };
    // clang-format on
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Open();
        m_gateway.RemoveDevices();
        m_gateway.AddDevice(kesEnergyDeviceAlarm, 9, 4);
        if (row.reads >= 0)
            m_gateway.SetAlarmCycle(9, static_cast<unsigned int>(row.reads), kesEnergyAlarmPowerBelowMinimum, 321);
        Clear();
        unsigned char cycle = 5, status = 9;
        unsigned short power = 99;
        EXPECT_EQ(row.result,
                  m_engine.ControlAlarmDevice(row.address, row.timeOut, 10, 20, 30, &cycle, &status, &power));
        EXPECT_EQ(std::make_tuple(row.cycle, row.status, row.power), std::make_tuple(cycle, status, power));
        EXPECT_EQ(row.requests ? row.requests : std::max<size_t>(3, Requests()), Requests());
        EXPECT_EQ(row.times, row.text ? m_log.CountContaining(row.text) : m_log.Count()) << m_log.Dump();
        TestBusGateway::Device device;
        ASSERT_TRUE(m_gateway.GetDevice(9, &device));
        EXPECT_EQ(row.address == 400, device.tuning == std::vector<uint16_t>({1, 10, 20, 30}));
    }
}

// ---------------------------------------------------------------- frames of the bus, mute and addressing

TEST_F(EngineTest, MuteAndSetAddressReplies)
{
    m_gateway.AddDevice(kesEnergyDeviceString, 16909060, 9);
    Open();
    m_engine.real = true; // the pauses slept for real
    // clang-format off
    const struct { const char* name; const char* raw; bool crc; kesEError expected; const char* text;
        const char* pauses; } rows[] = {
        {"acknowledged", "FF 0D 00 00 00 01", true, kesErrorOk, "", "a"},
        {"another function", "FF 0E 00 00 00 01", true, kesErrorFailed, "Mute failed", "a"},
        {"bad check sum", "FF 0D 00 00 00 01 00 00", false, kesErrorFailed, "Check sum invalid", "f"},
        {"short", "FF 0D 00", false, kesErrorFailed, "Timeout", "f"},
    };
    // clang-format on
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Clear();
        m_gateway.PushFault(G::MakeFault(G::FaultRaw, row.crc, Hex(row.raw)));
        EXPECT_EQ(row.expected, m_engine.MuteDeviceBySerial(16909060));
        EXPECT_EQ("FF 0C 01 02 03 04 A5 1A", ToHex(m_gateway.GetRequests().front()));
        EXPECT_EQ(row.pauses, m_engine.pauses);
        EXPECT_TRUE(!*row.text || m_log.Contains(row.text)) << m_log.Dump();
        EXPECT_EQ(*row.text != 0, m_log.Contains("Can not mute device by serial"));
    }

    for (unsigned char address : {1, 100})
        EXPECT_EQ(kesErrorOk, m_engine.SetDeviceAddress(16909060, address)); // the ends of the range
    TestBusGateway::Device device;
    m_gateway.GetDevice(16909060, &device);
    EXPECT_EQ(100, device.module);
    EXPECT_TRUE(m_engine.changed.empty());
    // a refusal is tried again quietly; the last one is told
    kesEnergySystem::EXECUTION_COUNT = 2;
    m_gateway.SetRefusals(16909060, 1);
    Clear();
    EXPECT_EQ(kesErrorOk, m_engine.SetDeviceAddress(16909060, 5));
    EXPECT_EQ("aa", m_engine.pauses);
    EXPECT_EQ("FF 07 01 02 03 04 05 1B 03", ToHex(m_gateway.GetRequests().front()));
    EXPECT_EQ(0u, m_log.Count()) << m_log.Dump();
    m_gateway.SetRefusals(16909060, 2);
    EXPECT_NE(kesErrorOk, m_engine.SetDeviceAddress(16909060, 8));
    EXPECT_EQ(1u, m_log.CountContaining("Can not set address"));
    EXPECT_EQ(1u, m_log.Count()) << m_log.Dump();
}

TEST_F(EngineTest, NumberingAList)
{
    m_gateway.AddDevice(kesEnergyDeviceString, 101, 50);
    m_gateway.AddDevice(kesEnergyDeviceString, 202, 50);
    m_gateway.AddDevice(kesEnergyDeviceStringTwo, 303, 9);
    Open();
    // the third device refusing stops the numbering there
    // clang-format off
    const struct { unsigned char offset; unsigned int refusals; std::vector<unsigned char> numbers; } rows[] = {
        {0, 0, {1, 2, 3}}, {5, 0, {5, 6, 7}}, {253, 0, {253, 254, 255}}, {5, 1, {5, 6, 9}}
    };
    // clang-format on
    for (const auto& row : rows) {
        Devices devices;
        devices.assign({make_device(kesEnergyDeviceString, 50, 101), make_device(kesEnergyDeviceString, 50, 202),
                        make_device(kesEnergyDeviceStringTwo, 9, 303)});
        m_gateway.SetRefusals(303, row.refusals);
        m_engine.changed.clear();
        m_log.Clear();
        EXPECT_EQ(!row.refusals, m_engine.SetDevicesAddresses(row.offset, &devices) == kesErrorOk);
        ASSERT_EQ(row.refusals ? 2u : 3u, m_engine.changed.size());
        for (size_t i = 0; i < 3; ++i) {
            EXPECT_EQ(row.numbers[i], devices[i].Address);
            TestBusGateway::Device device;
            m_gateway.GetDevice(devices[i].UniqueID, &device);
            EXPECT_TRUE(i >= m_engine.changed.size() || row.numbers[i] == m_engine.changed[i].Address);
            EXPECT_TRUE(i >= m_engine.changed.size() || row.numbers[i] == device.module);
        }
        EXPECT_EQ(row.refusals > 0, m_log.Contains("Type 0x06 with Address 0x09 and UniqueID 303")) << m_log.Dump();
    }
    Devices devices;
    EXPECT_EQ(kesErrorOk, m_engine.SetDevicesAddresses(9, &devices));
}

// ---------------------------------------------------------------- discovery

TEST_F(EngineTest, SearchExchangeResults)
{
    // clang-format off
    // raw: pushed as often as the key is asked, twice for a short answer;
    // serial: of the device recorded, 0 for none; requests: with the mute of
    // a device found.
    const struct { const char* name; bool fine; const char* raw; bool crc; int result; unsigned int serial;
        unsigned int type; unsigned char address; const char* text; unsigned int requests; } rows[] = {
        {"current form", false, "FF 05 07 00 00 00 00 03 E9 0C", true, 12, 1001, 7, 0x0C, "", 2},
        {"short form is a panel", false, "FF 05 09 00 00 00 03 EA 0D", true, 11, 1002, 1, 0x0D, "", 3},
        {"fine current form", true, "FF 06 02 00 00 00 00 03 EB 0E", true, 12, 1003, 2, 0x0E, "", 2},
        {"type 0", false, "FF 05 00 00 00 00 00 03 EC 0E", true, 12, 0, 0, 0, "", 1},
        {"type 12", false, "FF 05 0C 00 00 00 00 03 ED 0E", true, 12, 0, 0, 0, "", 1},
        {"other length", false, "FF 05 07 00 00", true, -3, 0, 0, 0, "Can not receive 11 bytes:(7 at module:7)", 2},
        {"not a reply", false, "FF 06 07 00 00 00 00 03 E9 0C", true, -1, 0, 0, 0, "", 1},
        {"coarse collision", false, "FF 05 07 00 00 00 00 03 E9 0C 00 00", false, -2, 0, 0, 0, "", 1},
        {"fine collision", true, "FF 06 07 00 00 00 00 03 E9 0C 00 00", false, -2, 0, 0, 0,
         "COLLISION [FF 06 07 00 00 00 00 03 E9 0C 00 00 ]", 1},
        {"silent key", false, "", false, -1, 0, 0, 0, "", 2},
    };
    // clang-format on
    for (unsigned int serial = 1001; serial <= 1003; ++serial)
        m_gateway.AddDevice(kesEnergyDeviceString, serial, 50); // to acknowledge the mutes
    Open();
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Clear();
        m_engine.found.clear();
        Bytes raw = Hex(row.raw);
        std::string text = row.text;
        if (text.find("COLLISION") == 0) {
            raw.resize(raw.size() + 256, 0xAB);
            for (int i = 0; i < 256; ++i)
                text += "[AB]";
        }
        for (size_t i = raw.empty() ? 2 : raw.size() + (row.crc ? 2 : 0) < 12 ? 0 : 1; i < 2; ++i)
            m_gateway.PushFault(G::MakeFault(G::FaultRaw, row.crc, raw));
        m_engine.SetTimeOut(raw.empty() ? 50 : 25);
        Devices devices;
        EXPECT_EQ(row.result, m_engine.Search(row.fine, row.fine ? 1015 : 7, &devices));
        EXPECT_EQ(row.fine ? "FF 04 03 F7 30 87" : "FF 03 00 07 81 F2", ToHex(m_gateway.GetRequests().front()));
        ASSERT_EQ(row.serial ? 1u : 0u, devices.size());
        EXPECT_EQ(devices.size(), m_engine.found.size());
        for (const kesEnergyDevice& device : devices)
            EXPECT_EQ(std::make_tuple(row.serial, row.type, row.address),
                      std::make_tuple(device.UniqueID, unsigned(device.Type), device.Address));
        EXPECT_EQ(row.requests, Requests());
        EXPECT_EQ(text.empty() ? 0u : 1u, m_log.Count()) << m_log.Dump();
        EXPECT_TRUE(text.empty() || m_log.Contains(text)) << m_log.Dump();
    }
}

TEST_F(EngineTest, FindAllDevices)
{
    // 16909060 and 20000160 share the coarse key 60 and are found by their
    // fine keys 160 and 9060; 111 is never muted, 222 answers with type 12,
    // 333 in the short form of a panel.
    m_gateway.AddDevice(kesEnergyDeviceStringFour, 16909060, 9);
    m_gateway.AddDevice(kesEnergyDevicePanel, 20000160, 9);
    m_gateway.AddDevice(kesEnergyDeviceAlarm, 12345678, 9);
    m_gateway.AddDevice(kesEnergyDeviceString, 111, 1);
    m_gateway.SetUnmutable(111);
    m_gateway.AddDevice(kesEnergyDeviceString, 222, 2);
    m_gateway.SetSearchType(222, 12);
    m_gateway.AddDevice(kesEnergyDeviceString, 333, 3);
    m_gateway.SetShortForm(333);
    m_gateway.quick = true;
    Open(50);
    // one device by its serial number, through the low 16 bits of it
    kesEnergyDevice device;
    ASSERT_TRUE(m_engine.FindDeviceBySerial(16909060, &device));
    EXPECT_EQ(std::make_pair(kesEnergyDeviceStringFour, (unsigned char)9), std::make_pair(device.Type, device.Address));
    EXPECT_FALSE(m_engine.FindDeviceBySerial(0x00054321, &device));
    EXPECT_EQ(ToHex(WithCrc(Hex("FF 04 43 21"))), ToHex(m_gateway.GetRequests().back()));

    m_engine.found.clear();
    m_log.Clear();
    Devices devices;
    devices.AddBack(make_device(kesEnergyDevicePanel, 1, 1)); // emptied first
    ASSERT_EQ(kesErrorOk, m_engine.FindAllDevices(&devices));
    const std::vector<unsigned int> serials = {111, 333, 20000160, 16909060, 12345678};
    EXPECT_EQ("111:2 333:1 20000160:1 16909060:7 12345678:3 ", listed(devices));
    EXPECT_EQ(6u, m_engine.found.size()); // 111 twice
    EXPECT_TRUE(m_log.Contains("Device 111 answers the coarse key 11 again: it was not muted"));
    EXPECT_TRUE(m_log.Contains("An answer to the coarse key 22 named no known device type"));
    EXPECT_EQ(2u, m_log.Count()) << m_log.Dump();

    ASSERT_EQ(kesErrorOk, m_engine.SetDevicesAddresses(5, &devices));
    for (unsigned int i = 0; i < serials.size(); ++i) {
        TestBusGateway::Device simulated;
        m_gateway.GetDevice(serials[i], &simulated);
        EXPECT_EQ(5 + i, simulated.module);
        EXPECT_EQ(serials[i] != 111, simulated.muted);
    }
    // an empty bus: the enable frame, then each coarse key once
    m_gateway.RemoveDevices();
    m_gateway.ClearRequests();
    ASSERT_EQ(kesErrorOk, m_engine.FindAllDevices(&devices));
    EXPECT_TRUE(devices.empty());
    EXPECT_EQ(101u, Requests());
    EXPECT_EQ("FF 0E 4F 4B 25 F4", ToHex(m_gateway.GetRequests().front()));
}

TEST_F(EngineTest, SearchesWithoutMuteAndByFineKeysSortTheirResult)
{
    kesEnergySystem::MODE = 1;
    m_gateway.AddDevice(kesEnergyDeviceString, 5003, 1);
    m_gateway.AddDevice(kesEnergyDeviceString, 1203, 2); // collides with 5003 on 3
    m_gateway.AddDevice(kesEnergyDeviceString, 9, 3);
    m_gateway.quick = true;
    Open(50);
    Devices devices;
    ASSERT_EQ(kesErrorOk, m_engine.old_find_all_devices(&devices, 0, 2));
    EXPECT_EQ("9:2 1203:2 5003:2 ", listed(devices));
    // where devices can not be muted the whole search is this one
    ASSERT_EQ(kesErrorOk, m_engine.FindAllDevices(&devices));
    EXPECT_EQ("9:2 1203:2 5003:2 ", listed(devices));
    TestBusGateway::Device device;
    m_gateway.GetDevice(9, &device);
    EXPECT_EQ(0u, device.mutes);

    m_gateway.RemoveDevices();
    m_gateway.AddDevice(kesEnergyDeviceString, 10012, 1);
    m_gateway.AddDevice(kesEnergyDeviceString, 20004, 2);
    m_gateway.AddDevice(kesEnergyDeviceString, 30040, 3);
    ASSERT_EQ(kesErrorOk, m_engine.find_all_devices_10000(&devices, 20));
    EXPECT_EQ("10012:2 20004:2 ", listed(devices));

    // a gateway that went away ends each of the searches
    kesEnergySystem::MODE = 2;
    const std::function<kesEError(Engine&)> searches[] = {KES_CALL(FindAllDevices(&devices)),
                                                          KES_CALL(old_find_all_devices(&devices, 0, 2)),
                                                          KES_CALL(find_all_devices_10000(&devices, 10000))};
    for (const auto& search : searches) {
        Open(50);
        m_log.Clear();
        m_gateway.PushFault(G::MakeFault(G::FaultClose));
        EXPECT_NE(kesErrorOk, search(m_engine));
        EXPECT_TRUE(m_log.Contains("Communication lost during the search")) << m_log.Dump();
        EXPECT_LT(m_log.Count(), 10u) << m_log.Dump();
    }
}

// ---------------------------------------------------------------- device report

// "Name:value|..." as the report prints it: a tab, the name filled up with
// dashes to 28 columns, the value. A name with dashes of its own stays.
std::string report(const std::string& i_lines)
{
    std::string text;
    for (size_t start = 0; start < i_lines.size();) {
        size_t end = std::min(i_lines.find('|', start), i_lines.size());
        std::string line = i_lines.substr(start, end - start);
        std::string name = line.substr(0, line.find(':'));
        if (name.find('-') == std::string::npos)
            name += " " + std::string(27 - name.size(), '-');
        text += "\t" + name + line.substr(line.find(':')) + "\n";
        start = end + 1;
    }
    return text;
}

// One report after the other into one text; serial numbers are 1000 times
// the module number. A device the bus does not know, last, reports zeros.
TEST_F(EngineTest, DeviceReports)
{
    std::vector<uint16_t> panel = {24000, 250};
    panel.resize(32, 0);
    panel.insert(panel.end(), {3700, 850, 2500, 3050, 820, 0xFFFF, 1530, 60, 1}); // register 5 of the sheet unused
    const std::string texts = "Model:M1|Serial:S1|Test Date:2024-01-02|", none = "Model:|Serial:|Test Date:|";
    // clang-format off
    // registers from offset 0
    const struct { const char* name; kesEEnergyDeviceType type; unsigned char module; std::vector<uint16_t> registers;
        bool identity, present; std::string lines; } rows[] = {
        {"Panel", kesEnergyDevicePanel, 3, panel, true, true,
         texts + "Voltage:240.00 V|Temperature:25.00 °C|Opened Circuit Volt:37.00 V|Opened Circuit Ampere:8.50 A|" "Max Power:250.00 W|Max Volt:30.50 V|Max Ampere:8.20 A|Efficiency:15.30 %|Number of Cells:60|" "Number of Panels:1"},
        {"StringFour", kesEnergyDeviceStringFour, 4, {2300, 100, 250, 0, 1000}, true, true,
         texts + "Voltage:230.00 V|1 Ampere:1.00 A|1 Instantaneous Power:230.00 W|2 Ampere:2.50 A|" "2 Instantaneous Power:575.00 W|3 Ampere:0.00 A|3 Instantaneous Power:0.00 W|4 Ampere:10.00 A|" "4 Instantaneous Power:2300.00 W"},
        {"Alarm", kesEnergyDeviceAlarm, 5, {2300, 150, 0x0003, 500}, true, true,
         texts + "Alarm Status:Boost power not reached, possible hardware damage|Alarm Cycle Check:Terminated|" "Alarm Returned Power:500|Voltage:230.00 V|Current:1.50 A|Instantaneous Power:345.00 W"},
        // its model and serial text lie under the pulse registers and start with a zero byte
        {"PulseCounterFive", kesEnergyDevicePulseCounterFive, 6,
         {0, 1500, 3600, 0, 7, 1, 4464, 0, 0, 0, 0, 0, 1800, 0, 0, 0, 250, 7200, 0, 0, 0, 1000, 360, 0, 42}, false,
          true,
          none + "IA Pulse Count:1500|IA Last Time:3600 ms|IA Instantaneous Power:1.00 kW|IA Production:1.50 kWh|" "IAP Pulse Count:7 ms|IR Pulse Count:70000|IR Last Time:0 ms|IR Instantaneous Power:0.00 kVAR|" "IR Production:70.00 kVARh|IRP Pulse Count:0 ms|15 Pulse Count:0|15 Last Time:1800 ms|" "15 Instantaneous Power:2.00 kVAR|15 Production:0.00 kVARh|15P Pulse Count:0 ms|OA Pulse Count:250|" "OA Last Time:7200 ms|OA Instantaneous Power:0.50 kW|OA Production:0.25 kWh|" "OAP Pulse Count -------------:0 ms|OR Pulse Count:1000|OR Last Time:360 ms|OR Instantaneous Power:10.00 kW|" "OR Production:1.00 kWh|ORP Pulse Count:42 ms"},
        {"PulseCounter", kesEnergyDevicePulseCounter, 7, {0, 10, 0}, true, true,
         texts + "O Pulse Count:10|O Last Time:0 ms|O Instantaneous Power:0.00 kW|O Production:0.01 kWh"},
        // its model starts on its last pulse register
        {"PulseCounterTwo", kesEnergyDevicePulseCounterTwo, 8, {0, 1500, 3600, 0, 2000, 18}, false, true,
         none + "OA Pulse Count:1500|OA Last Time:3600 ms|OA Instantaneous Power:1.00 kW|OA Production:1.50 kWh|" "OR Pulse Count:2000|OR Last Time:18 ms|OR Instantaneous Power:200.00 kVAR|OR Production:2.00 kVARh"},
        {"Ambient", kesEnergyDeviceAmbient, 9, {}, true, true, "Model:M1|Serial:S1|Test Date:2024-01-02"},
        {"StringThree", kesEnergyDeviceStringThree, 11, {2300, 100, 250, 0}, true, true,
         texts + "Voltage:230.00 V|1 Ampere:1.00 A|1 Instantaneous Power:230.00 W|2 Ampere:2.50 A|" "2 Instantaneous Power:575.00 W|3 Ampere:0.00 A|3 Instantaneous Power:0.00 W"},
        {"StringOne", kesEnergyDeviceStringOne, 10, {2300, 200}, true, true,
         texts + "Voltage:230.00 V|Ampere:2.00 A|Instantaneous Power:460.00 W"},
        {"String", kesEnergyDeviceString, 2, {}, false, false,
         none + "Voltage:0.00 V|Ampere:0.00 A|Instantaneous Power:0.00 W"},
    };
    // clang-format on
    for (const auto& row : rows) {
        if (row.present)
            m_gateway.AddDevice(static_cast<uint8_t>(row.type), 1000u * row.module, row.module);
        std::vector<uint16_t> registers = row.registers;
        registers.resize(std::max<size_t>(registers.size(), row.identity ? 0 : 35)); // texts from zero registers
        m_gateway.SetDeviceRegisters(1000u * row.module, 0, registers);
        if (row.identity)
            m_gateway.SetIdentity(1000u * row.module, "M1", "S1", "2024-01-02");
    }
    Open();
    kesString all("before\n");
    std::string expected = all;
    for (const auto& row : rows) {
        kesEnergyDevice device = make_device(row.type, row.module, 1000u * row.module);
        EXPECT_EQ(kesErrorOk, m_engine.GetDeviceInfo(&device, &all)) << row.name;
        expected += "[" + std::string(row.name) + "][" + std::to_string(row.module) + "]\n" +
                    report("Hardware Serial:" + std::to_string(1000 * row.module) +
                           "|Modbus Address:" + std::to_string(100 * row.module) + "|" + row.lines);
        EXPECT_EQ(expected, all) << row.name;
    }
    EXPECT_TRUE(m_log.Contains("Can not get Model at address:200"));
    EXPECT_TRUE(m_log.Contains("Can not voltage and ampere at address:200"));

    // no report for a type outside the known ones, and nothing asked
    kesString nothing;
    m_gateway.ClearRequests();
    for (kesEEnergyDeviceType type : {kesEEnergyDeviceType(0), kesEEnergyDeviceType(12)}) {
        kesEnergyDevice device = make_device(type, 2, 99);
        EXPECT_EQ(kesErrorOk, m_engine.GetDeviceInfo(&device, &nothing));
    }
    EXPECT_EQ("", nothing);
    EXPECT_EQ(0u, Requests());
    // names past the ends of their tables, and the running cycle
    EXPECT_EQ("Unknown type 12|Unknown type 6|In Progress|Unknown type 2",
              kesEnergySystem::DeviceTypeToTypeName(kesEEnergyDeviceType(12)) + "|" +
                  kesEnergySystem::AlarmStatusTypeToTypeName(kesEEnergyAlarmStatus(6)) + "|" +
                  kesEnergySystem::AlarmCycleStatusTypeToTypeName(kesEnergyAlarmCycleInProgress) + "|" +
                  kesEnergySystem::AlarmCycleStatusTypeToTypeName(kesEEnergyAlarmCycleStatus(2)));
}

} // namespace
