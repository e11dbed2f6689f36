// Identity, alarm device, addressing, discovery and device report against the
// simulated bus of TestBusGateway.
#include "kes_enerysystem.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "error_capture.h"
#include "test_gateway_bus.h"

using namespace kes;
using kes_test::Bytes;
using kes_test::ErrorCapture;
using kes_test::Hex;
using kes_test::TestBusGateway;
using kes_test::TestGateway;
using kes_test::ToHex;
using kes_test::WithCrc;

namespace {

class BusSystem : public kesEnergySystem {
public:
    using kesEnergySystem::find_all_devices_10000;
    using kesEnergySystem::old_find_all_devices;

    int Coarse(unsigned short i_key, kesArray<kesEnergyDevice>* o_devices, int i_retries = 0)
    {
        return read_all_device_with_100(&m_oSocket, i_key, o_devices, i_retries, true);
    }
    int Fine(unsigned short i_key, kesArray<kesEnergyDevice>* o_devices, int i_retries = 0)
    {
        return read_all_device_with_10000(&m_oSocket, i_key, o_devices, i_retries, true);
    }
    // Below the floor of OpenCommunication, so that a search through a
    // hundred silent keys stays short; loopback answers in well under it.
    void ShortenReceiveTimeOut() { m_oSocket.SetReceiveTimeOut(20); }

    void OnDeviceFound(const kesEnergyDevice* i_pDevice) override { found.push_back(*i_pDevice); }
    void OnDeviceAddressChanged(const kesEnergyDevice* i_pDevice) override { changed.push_back(*i_pDevice); }

    std::vector<kesEnergyDevice> found;
    std::vector<kesEnergyDevice> changed;
};

kesEnergyDevice make_device(kesEEnergyDeviceType i_type, unsigned char i_address, unsigned int i_serial)
{
    kesEnergyDevice device;
    device.Type = i_type;
    device.Address = i_address;
    device.UniqueID = i_serial;
    return device;
}

std::vector<unsigned int> serials_of(const kesArray<kesEnergyDevice>& i_devices)
{
    std::vector<unsigned int> serials;
    for (const kesEnergyDevice& device : i_devices)
        serials.push_back(device.UniqueID);
    return serials;
}

class BusTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        m_savedCount = kesEnergySystem::EXECUTION_COUNT;
        m_savedMode = kesEnergySystem::MODE;
        kesEnergySystem::EXECUTION_COUNT = 1;
        ASSERT_TRUE(m_gateway.Start());
    }
    void TearDown() override
    {
        kesEnergySystem::EXECUTION_COUNT = m_savedCount;
        kesEnergySystem::MODE = m_savedMode;
    }
    void Open() { ASSERT_EQ(kesErrorOk, m_system.OpenCommunication(m_gateway.GetAddress().c_str(), 0, 50, 5, 30)); }
    void OpenForSearch()
    {
        Open();
        m_system.ShortenReceiveTimeOut();
    }
    std::string LastRequest() const
    {
        std::vector<Bytes> requests = m_gateway.GetRequests();
        return requests.empty() ? std::string() : ToHex(requests.back());
    }

    TestBusGateway m_gateway;
    BusSystem m_system;
    ErrorCapture m_log;
    unsigned char m_savedCount = 1;
    unsigned char m_savedMode = 2;
};

// ---------------------------------------------------------------- frames

TEST_F(BusTest, FramesOnTheWire)
{
    struct Row {
        const char* name;
        std::function<void(BusSystem&)> call;
        std::string expected; // without CRC when crc is true
        bool crc;
    };
    // where the calls put what they read: only the requests count here
    kesArray<kesEnergyDevice> devices;
    kesEnergyDevice device;
    kesString text;
    const Row rows[] = {
        {"enable search", [](BusSystem& s) { s.EnableAllDeviceFind(); }, "FF 0E 4F 4B 25 F4", false},
        {"mute", [](BusSystem& s) { s.MuteDeviceBySerial(16909060); }, "FF 0C 01 02 03 04 A5 1A", false},
        {"set address", [](BusSystem& s) { s.SetDeviceAddress(16909060, 5); }, "FF 07 01 02 03 04 05 1B 03", false},
        {"coarse search", [&](BusSystem& s) { s.Coarse(7, &devices); }, "FF 03 00 07 81 F2", false},
        {"fine search", [&](BusSystem& s) { s.Fine(1015, &devices); }, "FF 04 03 F7 30 87", false},
        {"find by serial", [&](BusSystem& s) { s.FindDeviceBySerial(0x00012345, &device); }, "FF 04 23 45", true},
        {"panel model", [&](BusSystem& s) { s.ReadPanelModel(300, &text); }, "01 03 01 2E 00 05", true},
        {"string four serial", [&](BusSystem& s) { s.ReadStringFourSerial(300, &text); }, "07 03 01 36 00 0F", true},
        {"ambient test date at 24", [&](BusSystem& s) { s.ReadAmbientTestDate(300, &text); }, "04 03 01 44 00 0A",
         true},
        {"alarm test date at 25", [&](BusSystem& s) { s.ReadAlarmTestDate(300, &text); }, "03 03 01 45 00 0A", true},
        {"string test date at 22", [&](BusSystem& s) { s.ReadStringTestDate(300, &text); }, "02 03 01 42 00 0A", true},
        {"panel flash", [](BusSystem& s) { s.ReadPanelFlash(300, 0, 0, 0, 0, 0, 0, 0, 0); }, "01 03 01 4C 00 09", true},
        {"alarm status", [](BusSystem& s) { s.ReadAlarmStatus(300, 0, 0, 0); }, "03 03 01 2E 00 02", true},
        {"alarm tuning, 17 bytes", [](BusSystem& s) { s.SetupAlarmTuning(300, 0x0102, 0x0304, 0x0506); },
         "03 10 01 2C 00 04 08 00 01 01 02 03 04 05 06", true},
    };
    m_gateway.AddDevice(kesEnergyDevicePanel, 16909060, 1);
    OpenForSearch();
    for (const Row& row : rows) {
        m_gateway.ClearRequests();
        row.call(m_system);
        std::string expected = row.crc ? ToHex(WithCrc(Hex(row.expected))) : row.expected;
        ASSERT_TRUE(m_gateway.WaitForRequests(1, 1000)) << row.name;
        EXPECT_EQ(expected, ToHex(m_gateway.GetRequests().front())) << row.name;
    }
}

TEST_F(BusTest, ClosedChannelSendsNothing)
{
    kesArray<kesEnergyDevice> devices;
    kesEnergyDevice device;
    kesString text;
    EXPECT_NE(kesErrorOk, m_system.EnableAllDeviceFind());
    EXPECT_NE(kesErrorOk, m_system.MuteDeviceBySerial(1));
    EXPECT_NE(kesErrorOk, m_system.SetDeviceAddress(1, 1));
    EXPECT_NE(kesErrorOk, m_system.SetDevicesAddresses(1, &devices));
    EXPECT_NE(kesErrorOk, m_system.FindAllDevices(&devices));
    EXPECT_FALSE(m_system.FindDeviceBySerial(1, &device));
    EXPECT_NE(kesErrorOk, m_system.GetDeviceInfo(&device, &text));
    EXPECT_NE(kesErrorOk, m_system.ReadAlarmModel(100, &text));
    unsigned char cycle = 0;
    EXPECT_NE(kesErrorOk, m_system.ControlAlarmDevice(100, 0, 1, 2, 3, &cycle, 0, 0));
    EXPECT_EQ(9u, m_log.CountContaining("Communication is closed! Call OpenCommunication(...)"));

    // Without discovery by mute there is nothing to do, even when closed.
    m_log.Clear();
    kesEnergySystem::MODE = 1;
    EXPECT_EQ(kesErrorOk, m_system.MuteDeviceBySerial(1));
    EXPECT_EQ(0u, m_log.Count());
}

// ---------------------------------------------------------------- identity

TEST_F(BusTest, TextsKeepTheirFullLengthWithZeroBytes)
{
    m_gateway.AddDevice(kesEnergyDeviceAlarm, 77, 3);
    m_gateway.SetIdentity(77, "ALARM1", "SN-77", "2024-05-06");
    Open();
    kesString model, serial, date;
    ASSERT_EQ(kesErrorOk, m_system.ReadAlarmModel(300, &model));
    ASSERT_EQ(kesErrorOk, m_system.ReadAlarmSerial(300, &serial));
    ASSERT_EQ(kesErrorOk, m_system.ReadAlarmTestDate(300, &date));
    EXPECT_EQ(std::string("ALARM1\0\0\0\0", 10), model);
    EXPECT_EQ(30u, serial.size());
    EXPECT_EQ(std::string("SN-77"), serial.c_str());
    EXPECT_EQ(20u, date.size());
    EXPECT_EQ(std::string("2024-05-06"), date.c_str());
}

TEST_F(BusTest, NullTextOutputs)
{
    m_gateway.AddDevice(kesEnergyDevicePanel, 5, 3);
    m_gateway.SetIdentity(5, "P", "S", "D");
    Open();
    // The model read refuses a null output before the bus...
    EXPECT_NE(kesErrorOk, m_system.ReadPanelModel(300, nullptr));
    EXPECT_TRUE(m_log.Contains("o_data == 0"));
    EXPECT_TRUE(m_log.Contains("Can not get Model at address:300"));
    EXPECT_EQ(0u, m_gateway.GetRequestCount());
    // ...while the others read and drop the text.
    EXPECT_EQ(kesErrorOk, m_system.ReadPanelSerial(300, nullptr));
    EXPECT_EQ(1u, m_gateway.GetRequestCount());
}

TEST_F(BusTest, SerialReplyWithAnotherDataSizeIsRefused)
{
    Open();
    // 35 bytes, but the size byte says 28
    Bytes raw = {2, 3, 28};
    raw.resize(33, 0x41);
    m_gateway.PushFault(TestGateway::MakeFault(TestGateway::FaultRaw, 1, raw));
    kesString serial("old");
    EXPECT_NE(kesErrorOk, m_system.ReadStringSerial(300, &serial));
    EXPECT_EQ("old", serial);
    EXPECT_TRUE(m_log.Contains("pData && size && oFrameResponse.GetUnitID() && oFrameResponse.GetFunctionCodeID()"));
    EXPECT_TRUE(m_log.Contains("Can not get Serial at address:300"));
}

TEST_F(BusTest, PanelDataSheet)
{
    m_gateway.AddDevice(kesEnergyDevicePanel, 5, 2);
    m_gateway.SetDeviceRegisters(5, 32, {3700, 850, 2500, 3050, 820, 0xFFFF, 1530, 60, 2});
    Open();
    float v = 0, a = 0, p = 0, mv = 0, ma = 0, e = 0;
    unsigned int cells = 0, panels = 0;
    ASSERT_EQ(kesErrorOk, m_system.ReadPanelFlash(200, &v, &a, &p, &mv, &ma, &e, &cells, &panels));
    EXPECT_FLOAT_EQ(37.0f, v);
    EXPECT_FLOAT_EQ(8.5f, a);
    EXPECT_FLOAT_EQ(250.0f, p);
    EXPECT_FLOAT_EQ(30.5f, mv);
    EXPECT_FLOAT_EQ(8.2f, ma);
    EXPECT_FLOAT_EQ(15.3f, e);
    EXPECT_EQ(60u, cells);
    EXPECT_EQ(2u, panels);
    EXPECT_EQ(kesErrorOk, m_system.ReadPanelFlash(200, 0, 0, 0, 0, 0, 0, 0, &panels));
}

// ---------------------------------------------------------------- alarm device

TEST_F(BusTest, AlarmStatusRegisters)
{
    struct Row {
        std::vector<uint16_t> registers;
        unsigned char cycle, status;
        unsigned short power;
    };
    // A running cycle leaves status and power as the caller had them.
    const Row rows[] = {{{0x0100, 0x0000}, 1, 9, 99}, {{0x0003, 0x01F4}, 0, 3, 500}, {{0xFF05, 7}, 1, 9, 99}};
    m_gateway.AddDevice(kesEnergyDeviceAlarm, 9, 1);
    Open();
    for (const Row& row : rows) {
        m_gateway.SetDeviceRegisters(9, 2, row.registers);
        unsigned char cycle = 5, status = 9;
        unsigned short power = 99;
        ASSERT_EQ(kesErrorOk, m_system.ReadAlarmStatus(100, &cycle, &status, &power));
        EXPECT_EQ(row.cycle, cycle);
        EXPECT_EQ(row.status, status);
        EXPECT_EQ(row.power, power);
    }
}

TEST_F(BusTest, TuningReplyWithAnotherCount)
{
    Open();
    m_gateway.PushFault(TestGateway::MakeFault(TestGateway::FaultRaw, 1, Hex("03 10 01 2C 00 03")));
    EXPECT_NE(kesErrorOk, m_system.SetupAlarmTuning(300, 1, 2, 3));
    EXPECT_TRUE(m_log.Contains("Write request :4 Written :3"));
    EXPECT_TRUE(m_log.Contains("Can not set up alarm at address:300"));
}

TEST_F(BusTest, ControlAlarmDeviceWaitsForTheEndOfTheCycle)
{
    m_gateway.AddDevice(kesEnergyDeviceAlarm, 9, 4);
    m_gateway.SetDeviceRegisters(9, 0, {2300, 150, 0, 0});
    m_gateway.SetAlarmCycle(9, 3, kesEnergyAlarmPowerBelowMinimum, 321);
    Open();
    unsigned char cycle = 9, status = 9;
    unsigned short power = 0;
    ASSERT_EQ(kesErrorOk, m_system.ControlAlarmDevice(400, 5000, 10, 20, 30, &cycle, &status, &power));
    EXPECT_EQ(0, cycle);
    EXPECT_EQ(kesEnergyAlarmPowerBelowMinimum, status);
    EXPECT_EQ(321, power);
    TestBusGateway::Device device;
    ASSERT_TRUE(m_gateway.GetDevice(9, &device));
    EXPECT_EQ((std::vector<uint16_t>{1, 10, 20, 30}), device.tuning);
    // tuning, three reads in progress, the read of the outcome
    EXPECT_EQ(5u, m_gateway.GetRequestCount());
}

TEST_F(BusTest, ControlAlarmDeviceTimeOutIsNoFailure)
{
    m_gateway.AddDevice(kesEnergyDeviceAlarm, 9, 4);
    m_gateway.SetDeviceRegisters(9, 0, {2300, 150, 0, 0});
    m_gateway.SetAlarmCycle(9, 1000, 0, 0);
    Open();
    unsigned char cycle = 0;
    EXPECT_EQ(kesErrorOk, m_system.ControlAlarmDevice(400, 0, 1, 2, 3, &cycle, nullptr, nullptr));
    EXPECT_EQ(1, cycle);
    EXPECT_EQ(2u, m_gateway.GetRequestCount());
    EXPECT_EQ(0u, m_log.Count());

    m_gateway.ClearRequests();
    EXPECT_EQ(kesErrorOk, m_system.ControlAlarmDevice(400, 100, 1, 2, 3, &cycle, nullptr, nullptr));
    EXPECT_EQ(1, cycle);
    EXPECT_GE(m_gateway.GetRequestCount(), 3u);

    EXPECT_NE(kesErrorOk, m_system.ControlAlarmDevice(400, 100, 1, 2, 3, nullptr, nullptr, nullptr));
}

TEST_F(BusTest, ControlAlarmDeviceStatusFailureIsReportedTwice)
{
    m_gateway.AddDevice(kesEnergyDeviceAlarm, 9, 4);
    Open();
    unsigned char cycle = 0;
    // The write is answered, the status registers are missing.
    EXPECT_NE(kesErrorOk, m_system.ControlAlarmDevice(400, 100, 1, 2, 3, &cycle, nullptr, nullptr));
    EXPECT_EQ(2u, m_log.CountContaining("Can not read alarm status at address:400"));

    m_log.Clear();
    EXPECT_NE(kesErrorOk, m_system.ControlAlarmDevice(500, 100, 1, 2, 3, &cycle, nullptr, nullptr));
    EXPECT_TRUE(m_log.Contains("Can not setup alarm at address:500"));
}

// ---------------------------------------------------------------- addressing and mute

TEST_F(BusTest, MuteReplies)
{
    Open();
    struct Row {
        const char* name;
        Bytes raw;
        bool crc;
        kesEError expected;
        const char* text;
    };
    const Row rows[] = {
        {"acknowledged", Hex("FF 0D 00 00 00 01"), true, kesErrorOk, nullptr},
        {"another function", Hex("FF 0E 00 00 00 01"), true, kesErrorFailed, "Mute failed"},
        {"bad check sum", Hex("FF 0D 00 00 00 01 00 00"), false, kesErrorFailed, "Check sum invalid"},
        {"short", Hex("FF 0D 00"), false, kesErrorFailed, "Timeout"},
    };
    for (const Row& row : rows) {
        m_log.Clear();
        m_gateway.PushFault(TestGateway::MakeFault(TestGateway::FaultRaw, row.crc ? 1 : 0, row.raw));
        EXPECT_EQ(row.expected, m_system.MuteDeviceBySerial(1)) << row.name;
        if (row.text) {
            EXPECT_TRUE(m_log.Contains(row.text)) << row.name << m_log.Dump();
            EXPECT_TRUE(m_log.Contains("Can not mute device by serial")) << row.name;
        }
    }
}

TEST_F(BusTest, SetDeviceAddressRange)
{
    m_gateway.AddDevice(kesEnergyDeviceString, 42, 9);
    Open();
    const struct {
        unsigned char address;
        bool sent;
    } rows[] = {{0, false}, {101, false}, {1, true}, {100, true}, {255, false}};
    for (const auto& row : rows) {
        m_gateway.ClearRequests();
        m_log.Clear();
        kesEError result = m_system.SetDeviceAddress(42, row.address);
        EXPECT_EQ(row.sent ? kesErrorOk : kesErrorInvalidArgument, result) << int(row.address);
        EXPECT_EQ(row.sent ? 1u : 0u, m_gateway.GetRequestCount()) << int(row.address);
        EXPECT_EQ(!row.sent, m_log.Contains("Can not set address outside range [1 -- 100]"));
    }
    TestBusGateway::Device device;
    m_gateway.GetDevice(42, &device);
    EXPECT_EQ(100, device.module);
    EXPECT_TRUE(m_system.changed.empty());
}

TEST_F(BusTest, RefusedAddressIsRetriedQuietly)
{
    kesEnergySystem::EXECUTION_COUNT = 2;
    m_gateway.AddDevice(kesEnergyDeviceString, 42, 9);
    m_gateway.SetRefusals(42, 1);
    Open();
    EXPECT_EQ(kesErrorOk, m_system.SetDeviceAddress(42, 7));
    EXPECT_EQ(0u, m_log.Count()) << m_log.Dump();
    m_gateway.SetRefusals(42, 2);
    EXPECT_NE(kesErrorOk, m_system.SetDeviceAddress(42, 8));
    EXPECT_EQ(1u, m_log.Count()) << m_log.Dump();
    EXPECT_TRUE(m_log.Contains("Can not set address"));
}

TEST_F(BusTest, NumberingAList)
{
    struct Row {
        unsigned char offset;
        std::vector<unsigned char> numbers;
    };
    const Row rows[] = {{0, {1, 2, 3}}, {5, {5, 6, 7}}, {253, {253, 254, 255}}};
    const unsigned int serials[] = {101, 202, 303};
    for (unsigned int serial : serials)
        m_gateway.AddDevice(kesEnergyDeviceString, serial, 50);
    Open();
    for (const Row& row : rows) {
        kesArray<kesEnergyDevice> devices;
        for (unsigned int serial : serials)
            devices.AddBack(make_device(kesEnergyDeviceString, 50, serial));
        m_system.changed.clear();
        ASSERT_EQ(kesErrorOk, m_system.SetDevicesAddresses(row.offset, &devices));
        ASSERT_EQ(3u, m_system.changed.size());
        for (size_t i = 0; i < 3; ++i) {
            EXPECT_EQ(row.numbers[i], devices[i].Address);
            EXPECT_EQ(row.numbers[i], m_system.changed[i].Address);
            TestBusGateway::Device device;
            m_gateway.GetDevice(serials[i], &device);
            EXPECT_EQ(row.numbers[i], device.module);
        }
    }
    kesArray<kesEnergyDevice> empty;
    EXPECT_EQ(kesErrorOk, m_system.SetDevicesAddresses(9, &empty));
}

TEST_F(BusTest, NumberingStopsAtTheFirstDeviceThatFails)
{
    m_gateway.AddDevice(kesEnergyDeviceString, 101, 50);
    m_gateway.AddDevice(kesEnergyDeviceString, 202, 50);
    m_gateway.AddDevice(kesEnergyDeviceStringTwo, 303, 9);
    m_gateway.SetRefusals(303, 1);
    Open();
    kesArray<kesEnergyDevice> devices;
    devices.AddBack(make_device(kesEnergyDeviceString, 50, 101));
    devices.AddBack(make_device(kesEnergyDeviceString, 50, 202));
    devices.AddBack(make_device(kesEnergyDeviceStringTwo, 9, 303));
    EXPECT_NE(kesErrorOk, m_system.SetDevicesAddresses(5, &devices));
    EXPECT_EQ(5, devices[0].Address);
    EXPECT_EQ(6, devices[1].Address);
    EXPECT_EQ(9, devices[2].Address);
    EXPECT_EQ(2u, m_system.changed.size());
    EXPECT_TRUE(m_log.Contains("Type 0x06 with Address 0x09 and UniqueID 303")) << m_log.Dump();
}

TEST_F(BusTest, NumberingThatWouldPassTheWidthOfAModuleNumberIsRefused)
{
    Open();
    kesArray<kesEnergyDevice> devices;
    for (unsigned int i = 0; i < 4; ++i)
        devices.AddBack(make_device(kesEnergyDeviceString, 50, 100 + i));
    EXPECT_EQ(kesErrorInvalidArgument, m_system.SetDevicesAddresses(253, &devices));
    EXPECT_TRUE(m_log.Contains("Can not number 4 devices from 253"));
    devices.resize(300, make_device(kesEnergyDeviceString, 50, 7));
    EXPECT_EQ(kesErrorInvalidArgument, m_system.SetDevicesAddresses(0, &devices));
    EXPECT_EQ(0u, m_gateway.GetRequestCount());
    for (const kesEnergyDevice& device : devices)
        ASSERT_EQ(50, device.Address);
    EXPECT_EQ(kesErrorInvalidArgument, m_system.SetDevicesAddresses(1, nullptr));
    EXPECT_TRUE(m_log.Contains("io_devices == 0"));
}

// ---------------------------------------------------------------- one search exchange

TEST_F(BusTest, SearchExchangeResults)
{
    struct Row {
        const char* name;
        bool fine;
        Bytes raw;
        bool crc;
        int result;
        std::vector<unsigned int> recorded;
        const char* text;
    };
    const Row rows[] = {
        {"current form", false, Hex("FF 05 07 00 00 00 00 03 E9 0C"), true, 12, {1001}, nullptr},
        {"short form is a panel", false, Hex("FF 05 09 00 00 00 03 EA 0D"), true, 11, {1002}, nullptr},
        {"fine current form", true, Hex("FF 06 02 00 00 00 00 03 EB 0E"), true, 12, {1003}, nullptr},
        {"type 0", false, Hex("FF 05 00 00 00 00 00 03 EC 0E"), true, 12, {}, nullptr},
        {"type 12", false, Hex("FF 05 0C 00 00 00 00 03 ED 0E"), true, 12, {}, nullptr},
        {"other length", false, Hex("FF 05 07 00 00"), true, -3, {}, "Can not receive 11 bytes:(7 at module:7)"},
        {"not a reply", false, Hex("FF 06 07 00 00 00 00 03 E9 0C"), true, -1, {}, nullptr},
        {"coarse collision", false, Hex("FF 05 07 00 00 00 00 03 E9 0C 00 00"), false, -2, {}, nullptr},
        {"fine collision",
         true,
         Hex("FF 06 07 00 00 00 00 03 E9 0C 00 00"),
         false,
         -2,
         {},
         "COLLISION [FF 06 07 00 00 00 00 03 E9 0C 00 00 ]"},
    };
    for (unsigned int serial = 1001; serial <= 1005; ++serial)
        m_gateway.AddDevice(kesEnergyDeviceString, serial, 50); // acknowledge the mutes
    OpenForSearch();
    for (const Row& row : rows) {
        m_log.Clear();
        m_system.found.clear();
        // A short answer times out on a gateway and is asked for once more.
        for (int i = 0; i < (row.raw.size() + (row.crc ? 2 : 0) < 12 ? 2 : 1); ++i)
            m_gateway.PushFault(TestGateway::MakeFault(TestGateway::FaultRaw, row.crc ? 1 : 0, row.raw));
        kesArray<kesEnergyDevice> devices;
        int result = row.fine ? m_system.Fine(7, &devices) : m_system.Coarse(7, &devices);
        EXPECT_EQ(row.result, result) << row.name;
        EXPECT_EQ(row.recorded, serials_of(devices)) << row.name;
        EXPECT_EQ(row.recorded.size(), m_system.found.size()) << row.name;
        if (row.text)
            EXPECT_TRUE(m_log.Contains(row.text)) << row.name << m_log.Dump();
        else
            EXPECT_EQ(0u, m_log.Count()) << row.name << m_log.Dump();
    }
    kesArray<kesEnergyDevice> devices;
    for (int i = 0; i < 2; ++i)
        m_gateway.PushFault(TestGateway::MakeFault(TestGateway::FaultRaw, 1, Hex("FF 05 09 00 00 00 03 EA 0D")));
    ASSERT_EQ(11, m_system.Coarse(7, &devices));
    EXPECT_EQ(kesEnergyDevicePanel, devices[0].Type);
    EXPECT_EQ(0x0D, devices[0].Address);
}

TEST_F(BusTest, SilentKeyIsAskedAgainThroughAGateway)
{
    OpenForSearch();
    const int retries[] = {0, 2};
    for (int r : retries) {
        m_gateway.ClearRequests();
        kesArray<kesEnergyDevice> devices;
        EXPECT_EQ(-1, m_system.Coarse(3, &devices, r));
        EXPECT_EQ(static_cast<size_t>(r + 2), m_gateway.GetRequestCount());
    }
}

TEST_F(BusTest, FindDeviceBySerial)
{
    m_gateway.AddDevice(kesEnergyDevicePulseCounterTwo, 0x00012345, 12);
    Open();
    kesEnergyDevice device;
    ASSERT_TRUE(m_system.FindDeviceBySerial(0x00012345, &device));
    EXPECT_EQ(kesEnergyDevicePulseCounterTwo, device.Type);
    EXPECT_EQ(12, device.Address);
    EXPECT_EQ(0x00012345u, device.UniqueID);
    EXPECT_FALSE(m_system.FindDeviceBySerial(0x00012345, nullptr));
    EXPECT_TRUE(m_log.Contains("io_pDevice == 0"));
}

// ---------------------------------------------------------------- whole searches

TEST_F(BusTest, EmptyBusGivesAnEmptyList)
{
    OpenForSearch();
    kesArray<kesEnergyDevice> devices;
    devices.AddBack(make_device(kesEnergyDevicePanel, 1, 1));
    EXPECT_EQ(kesErrorOk, m_system.FindAllDevices(&devices));
    EXPECT_TRUE(devices.empty());
    // enable, then two frames for each silent coarse key through a gateway
    EXPECT_EQ(201u, m_gateway.GetRequestCount());
    EXPECT_EQ(kesErrorInvalidArgument, m_system.FindAllDevices(nullptr));
}

TEST_F(BusTest, CollidingDevicesAreEachFoundOnceThenNumbered)
{
    // 16909060 and 20000160 share the coarse key 60. In the order of finding:
    // key 60 by its fine keys 160 and 9060, then 78.
    const std::vector<unsigned int> serials = {20000160, 16909060, 12345678};
    m_gateway.AddDevice(kesEnergyDeviceStringFour, 16909060, 9);
    m_gateway.AddDevice(kesEnergyDevicePanel, 20000160, 9);
    m_gateway.AddDevice(kesEnergyDeviceAlarm, 12345678, 9);
    OpenForSearch();
    kesArray<kesEnergyDevice> devices;
    ASSERT_EQ(kesErrorOk, m_system.FindAllDevices(&devices));
    EXPECT_EQ(serials, serials_of(devices));
    EXPECT_EQ(kesEnergyDevicePanel, devices[0].Type);
    EXPECT_EQ(kesEnergyDeviceStringFour, devices[1].Type);
    EXPECT_EQ(kesEnergyDeviceAlarm, devices[2].Type);
    EXPECT_EQ(3u, m_system.found.size());
    EXPECT_EQ(0u, m_log.Count()) << m_log.Dump();

    ASSERT_EQ(kesErrorOk, m_system.SetDevicesAddresses(5, &devices));
    for (unsigned int i = 0; i < 3; ++i) {
        TestBusGateway::Device device;
        m_gateway.GetDevice(serials[i], &device);
        EXPECT_EQ(5 + i, device.module);
        EXPECT_TRUE(device.muted);
    }
}

TEST_F(BusTest, DevicesThatKeepAnsweringCannotHoldTheSearch)
{
    m_gateway.AddDevice(kesEnergyDeviceString, 111, 1); // never falls silent
    m_gateway.SetUnmutable(111);
    m_gateway.AddDevice(kesEnergyDeviceString, 222, 2); // answers with type 12
    m_gateway.SetSearchType(222, 12);
    m_gateway.AddDevice(kesEnergyDeviceString, 333, 3); // old short answers
    m_gateway.SetShortForm(333);
    OpenForSearch();
    kesArray<kesEnergyDevice> devices;
    ASSERT_EQ(kesErrorOk, m_system.FindAllDevices(&devices));
    EXPECT_EQ((std::vector<unsigned int>{111, 333}), serials_of(devices));
    EXPECT_EQ(kesEnergyDevicePanel, devices[1].Type);
    EXPECT_TRUE(m_log.Contains("Device 111 answers the coarse key 11 again: it was not muted")) << m_log.Dump();
    EXPECT_TRUE(m_log.Contains("An answer to the coarse key 22 named no known device type")) << m_log.Dump();
}

TEST_F(BusTest, SearchWithoutMuteSortsAndMerges)
{
    kesEnergySystem::MODE = 1;
    m_gateway.AddDevice(kesEnergyDeviceString, 5003, 1);
    m_gateway.AddDevice(kesEnergyDeviceString, 1203, 2); // collides with 5003 on 3
    m_gateway.AddDevice(kesEnergyDeviceString, 9, 3);
    OpenForSearch();
    kesArray<kesEnergyDevice> devices;
    ASSERT_EQ(kesErrorOk, m_system.old_find_all_devices(&devices, 0, 2));
    EXPECT_EQ((std::vector<unsigned int>{9, 1203, 5003}), serials_of(devices));
    TestBusGateway::Device device;
    m_gateway.GetDevice(9, &device);
    EXPECT_EQ(0u, device.mutes);
}

TEST_F(BusTest, FineKeySearch)
{
    m_gateway.AddDevice(kesEnergyDeviceString, 10012, 1);
    m_gateway.AddDevice(kesEnergyDeviceString, 20004, 2);
    m_gateway.AddDevice(kesEnergyDeviceString, 30040, 3);
    OpenForSearch();
    kesArray<kesEnergyDevice> devices;
    ASSERT_EQ(kesErrorOk, m_system.find_all_devices_10000(&devices, 20));
    EXPECT_EQ((std::vector<unsigned int>{10012, 20004}), serials_of(devices));
}

TEST_F(BusTest, LostGatewayEndsTheSearch)
{
    const std::function<kesEError(BusSystem&, kesArray<kesEnergyDevice>*)> searches[] = {
        [](BusSystem& s, kesArray<kesEnergyDevice>* d) { return s.FindAllDevices(d); },
        [](BusSystem& s, kesArray<kesEnergyDevice>* d) { return s.old_find_all_devices(d, 0, 2); },
        [](BusSystem& s, kesArray<kesEnergyDevice>* d) { return s.find_all_devices_10000(d, 10000); },
    };
    for (const auto& search : searches) {
        OpenForSearch();
        m_log.Clear();
        m_gateway.PushFault(TestGateway::MakeFault(TestGateway::FaultClose));
        kesArray<kesEnergyDevice> devices;
        EXPECT_NE(kesErrorOk, search(m_system, &devices));
        EXPECT_TRUE(m_log.Contains("Communication lost during the search")) << m_log.Dump();
        EXPECT_LT(m_log.Count(), 10u) << m_log.Dump();
    }
}

// ---------------------------------------------------------------- device report

struct ReportRow {
    const char* name;
    kesEEnergyDeviceType type;
    unsigned int serial;
    unsigned char module;
    std::vector<uint16_t> registers; // from offset 0
    bool identity;
    std::string expected;
};

const char* const HEAD_PANEL = "\tModel ----------------------:M1\n"
                               "\tSerial ---------------------:S1\n"
                               "\tTest Date ------------------:2024-01-02\n";

TEST_F(BusTest, DeviceReports)
{
    std::vector<uint16_t> panel = {24000, 250};
    panel.resize(32, 0);
    std::vector<uint16_t> flash = {3700, 850, 2500, 3050, 820, 0, 1530, 60, 1};
    panel.insert(panel.end(), flash.begin(), flash.end());

    const ReportRow rows[] = {
        {"panel", kesEnergyDevicePanel, 1001, 3, panel, true,
         std::string("[Panel][3]\n"
                     "\tHardware Serial ------------:1001\n"
                     "\tModbus Address -------------:300\n") +
             HEAD_PANEL +
             "\tVoltage --------------------:240.00 V\n"
             "\tTemperature ----------------:25.00 °C\n"
             "\tOpened Circuit Volt --------:37.00 V\n"
             "\tOpened Circuit Ampere ------:8.50 A\n"
             "\tMax Power ------------------:250.00 W\n"
             "\tMax Volt -------------------:30.50 V\n"
             "\tMax Ampere -----------------:8.20 A\n"
             "\tEfficiency -----------------:15.30 %\n"
             "\tNumber of Cells ------------:60\n"
             "\tNumber of Panels -----------:1\n"},
        {"string four",
         kesEnergyDeviceStringFour,
         2002,
         4,
         {2300, 100, 250, 0, 1000},
         true,
         std::string("[StringFour][4]\n"
                     "\tHardware Serial ------------:2002\n"
                     "\tModbus Address -------------:400\n") +
             HEAD_PANEL +
             "\tVoltage --------------------:230.00 V\n"
             "\t1 Ampere -------------------:1.00 A\n"
             "\t1 Instantaneous Power ------:230.00 W\n"
             "\t2 Ampere -------------------:2.50 A\n"
             "\t2 Instantaneous Power ------:575.00 W\n"
             "\t3 Ampere -------------------:0.00 A\n"
             "\t3 Instantaneous Power ------:0.00 W\n"
             "\t4 Ampere -------------------:10.00 A\n"
             "\t4 Instantaneous Power ------:2300.00 W\n"},
        {"alarm",
         kesEnergyDeviceAlarm,
         3003,
         5,
         {2300, 150, 0x0003, 500},
         true,
         std::string("[Alarm][5]\n"
                     "\tHardware Serial ------------:3003\n"
                     "\tModbus Address -------------:500\n") +
             HEAD_PANEL +
             "\tAlarm Status ---------------:Boost power not reached, possible hardware damage\n"
             "\tAlarm Cycle Check ----------:Terminated\n"
             "\tAlarm Returned Power -------:500\n"
             "\tVoltage --------------------:230.00 V\n"
             "\tCurrent --------------------:1.50 A\n"
             "\tInstantaneous Power --------:345.00 W\n"},
        // Its model and serial text lie under the pulse registers and start
        // with a zero byte; the test date is missing.
        {"five channels",
         kesEnergyDevicePulseCounterFive,
         4004,
         6,
         {0, 1500, 3600, 0, 7, 1, 4464, 0, 0, 0, 0, 0, 1800, 0, 0, 0, 250, 7200, 0, 0, 0, 1000, 360, 0, 42},
         false,
         "[PulseCounterFive][6]\n"
         "\tHardware Serial ------------:4004\n"
         "\tModbus Address -------------:600\n"
         "\tModel ----------------------:\n"
         "\tSerial ---------------------:\n"
         "\tTest Date ------------------:\n"
         "\tIA Pulse Count -------------:1500\n"
         "\tIA Last Time ---------------:3600 ms\n"
         "\tIA Instantaneous Power -----:1.00 kW\n"
         "\tIA Production --------------:1.50 kWh\n"
         "\tIAP Pulse Count ------------:7 ms\n"
         "\tIR Pulse Count -------------:70000\n"
         "\tIR Last Time ---------------:0 ms\n"
         "\tIR Instantaneous Power -----:0.00 kVAR\n"
         "\tIR Production --------------:70.00 kVARh\n"
         "\tIRP Pulse Count ------------:0 ms\n"
         "\t15 Pulse Count -------------:0\n"
         "\t15 Last Time ---------------:1800 ms\n"
         "\t15 Instantaneous Power -----:2.00 kVAR\n"
         "\t15 Production --------------:0.00 kVARh\n"
         "\t15P Pulse Count ------------:0 ms\n"
         "\tOA Pulse Count -------------:250\n"
         "\tOA Last Time ---------------:7200 ms\n"
         "\tOA Instantaneous Power -----:0.50 kW\n"
         "\tOA Production --------------:0.25 kWh\n"
         "\tOAP Pulse Count -------------:0 ms\n"
         "\tOR Pulse Count -------------:1000\n"
         "\tOR Last Time ---------------:360 ms\n"
         "\tOR Instantaneous Power -----:10.00 kW\n"
         "\tOR Production --------------:1.00 kWh\n"
         "\tORP Pulse Count ------------:42 ms\n"},
        {"pulse counter, no time yet",
         kesEnergyDevicePulseCounter,
         5005,
         7,
         {0, 10, 0},
         true,
         std::string("[PulseCounter][7]\n"
                     "\tHardware Serial ------------:5005\n"
                     "\tModbus Address -------------:700\n") +
             HEAD_PANEL +
             "\tO Pulse Count --------------:10\n"
             "\tO Last Time ----------------:0 ms\n"
             "\tO Instantaneous Power ------:0.00 kW\n"
             "\tO Production ---------------:0.01 kWh\n"},
        // Its model would lie on the last pulse register: no texts here.
        {"pulse counter two",
         kesEnergyDevicePulseCounterTwo,
         6006,
         8,
         {0, 1500, 3600, 0, 2000, 1800},
         false,
         std::string("[PulseCounterTwo][8]\n"
                     "\tHardware Serial ------------:6006\n"
                     "\tModbus Address -------------:800\n"
                     "\tModel ----------------------:\n"
                     "\tSerial ---------------------:\n"
                     "\tTest Date ------------------:\n") +
             "\tOA Pulse Count -------------:1500\n"
             "\tOA Last Time ---------------:3600 ms\n"
             "\tOA Instantaneous Power -----:1.00 kW\n"
             "\tOA Production --------------:1.50 kWh\n"
             "\tOR Pulse Count -------------:2000\n"
             "\tOR Last Time ---------------:1800 ms\n"
             "\tOR Instantaneous Power -----:2.00 kVAR\n"
             "\tOR Production --------------:2.00 kVARh\n"},
        {"ambient",
         kesEnergyDeviceAmbient,
         7007,
         9,
         {},
         true,
         std::string("[Ambient][9]\n"
                     "\tHardware Serial ------------:7007\n"
                     "\tModbus Address -------------:900\n") +
             HEAD_PANEL},
        {"string one",
         kesEnergyDeviceStringOne,
         8008,
         10,
         {2300, 200},
         true,
         std::string("[StringOne][10]\n"
                     "\tHardware Serial ------------:8008\n"
                     "\tModbus Address -------------:1000\n") +
             HEAD_PANEL +
             "\tVoltage --------------------:230.00 V\n"
             "\tAmpere ---------------------:2.00 A\n"
             "\tInstantaneous Power --------:460.00 W\n"},
    };
    for (const ReportRow& row : rows) {
        m_gateway.AddDevice(static_cast<uint8_t>(row.type), row.serial, row.module);
        m_gateway.SetDeviceRegisters(row.serial, 0, row.registers);
        if (row.identity)
            m_gateway.SetIdentity(row.serial, "M1", "S1", "2024-01-02");
    }
    Open();
    for (const ReportRow& row : rows) {
        kesString text;
        kesEnergyDevice device = make_device(row.type, row.module, row.serial);
        EXPECT_EQ(kesErrorOk, m_system.GetDeviceInfo(&device, &text)) << row.name;
        EXPECT_EQ(row.expected, text) << row.name;
    }
}

TEST_F(BusTest, ReportOfASilentDeviceAndReportsOneBehindTheOther)
{
    Open();
    kesString text("before\n");
    kesEnergyDevice silent = make_device(kesEnergyDeviceString, 2, 99);
    EXPECT_EQ(kesErrorOk, m_system.GetDeviceInfo(&silent, &text));
    const std::string report = "[String][2]\n"
                               "\tHardware Serial ------------:99\n"
                               "\tModbus Address -------------:200\n"
                               "\tModel ----------------------:\n"
                               "\tSerial ---------------------:\n"
                               "\tTest Date ------------------:\n"
                               "\tVoltage --------------------:0.00 V\n"
                               "\tAmpere ---------------------:0.00 A\n"
                               "\tInstantaneous Power --------:0.00 W\n";
    EXPECT_EQ("before\n" + report, text);
    EXPECT_TRUE(m_log.Contains("Can not get Model at address:200"));
    EXPECT_TRUE(m_log.Contains("Can not voltage and ampere at address:200"));

    EXPECT_EQ(kesErrorOk, m_system.GetDeviceInfo(&silent, &text));
    EXPECT_EQ("before\n" + report + report, text);

    const kesEEnergyDeviceType unknown[] = {static_cast<kesEEnergyDeviceType>(0),
                                            static_cast<kesEEnergyDeviceType>(12)};
    for (kesEEnergyDeviceType type : unknown) {
        kesString nothing;
        kesEnergyDevice device = make_device(type, 2, 99);
        m_gateway.ClearRequests();
        EXPECT_EQ(kesErrorOk, m_system.GetDeviceInfo(&device, &nothing));
        EXPECT_TRUE(nothing.empty());
        EXPECT_EQ(0u, m_gateway.GetRequestCount());
    }
    EXPECT_EQ(kesErrorInvalidArgument, m_system.GetDeviceInfo(&silent, nullptr));
    EXPECT_TRUE(m_log.Contains("o_strData == 0"));
}

} // namespace
