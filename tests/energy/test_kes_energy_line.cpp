#include "kes_energy_line.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <mutex>
#include <thread>

#include "error_capture.h"
#include "test_gateway.h"

using namespace kes;
using namespace kes::Energy;
using kes_test::TestGateway;
using Clock = std::chrono::steady_clock;
typedef std::vector<std::string> Texts;

namespace {

std::mutex g_mutex;
Texts g_seen;

// An event as "source/code/address/values": a reading with every value of its
// type, a failed read with its key as address:line.
void on_event(const kesEvent& e)
{
    std::string text = std::to_string(e.source) + "/" + std::to_string(e.code) + "/";
    if (e.code == kesEnergyEventCommunicationError) {
        const unsigned int key = *static_cast<const unsigned int*>(e.data);
        text += std::to_string(key >> 16) + ":" + std::to_string(key & 0xFFFF);
    } else {
        const unsigned char* record = static_cast<const unsigned char*>(e.data);
        unsigned short address;
        memcpy(&address, record, sizeof(address));
        text += std::to_string(address);
        const DeviceType* type = FindDeviceType(e.code);
        for (unsigned int fid = 0; fid < type->fieldCount; ++fid) {
            char value[32];
            snprintf(value, sizeof(value), "%c%g", fid ? '|' : '/', FieldValue(type->fields[fid], record));
            text += value;
        }
    }
    std::lock_guard<std::mutex> lock(g_mutex);
    g_seen.push_back(text);
}

Texts seen()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_seen;
}

bool wait_for(const std::function<bool()>& done, int ms)
{
    for (auto end = Clock::now() + std::chrono::milliseconds(ms); !done() && Clock::now() < end;)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return done();
}

long long ms_since(Clock::time_point start)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

class EnergyLineTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        g_seen.clear();
        m_savedCount = kesEnergySystem::EXECUTION_COUNT;
        kesEnergySystem::EXECUTION_COUNT = 2;
        ASSERT_TRUE(m_gateway.Start());
        m_line.SetAddress(m_gateway.GetAddress(), 0);
        for (int code = 1; code <= 11; ++code)
            m_line.AddListener(code, &on_event);
        m_line.AddListener(kesEnergyEventCommunicationError, &on_event);
    }
    void TearDown() override
    {
        m_line.Stop();
        kesEnergySystem::EXECUTION_COUNT = m_savedCount;
    }
    bool wait_events(size_t count, int ms = 5000)
    {
        return wait_for([count] { return seen().size() >= count; }, ms);
    }

    kes_test::ErrorCapture m_log;
    TestGateway m_gateway;
    kesEnergyLine m_line{7};
    unsigned char m_savedCount = 1;
};

TEST_F(EnergyLineTest, DeviceListsAndTheRunningState)
{
    for (int type = 0; type <= 12; ++type) {
        const bool known = type >= 1 && type <= 11;
        m_log.Clear();
        EXPECT_EQ(m_line.AddDevice(type, 300), known ? kesErrorOk : kesErrorFailed) << type;
        EXPECT_EQ(m_log.Count(), known ? 0u : 1u) << type;
        EXPECT_EQ(m_log.Contains("Invalid Device Type " + std::to_string(type)), !known) << m_log.Dump();
    }
    EXPECT_EQ(11u, m_line.GetDeviceCount());
    m_line.clear_all_devices();
    for (int type : {1, 1, 2, 6})
        m_line.AddDevice(type, 300);
    EXPECT_EQ(4u, m_line.GetDeviceCount());
    ASSERT_EQ(kesErrorOk, m_line.Start(50, 5, 30));
    // one entry per device; one address in two lists stays in both
    EXPECT_EQ(3u, m_line.GetDeviceCount());
    EXPECT_EQ(kesErrorFailed, m_line.AddDevice(kesEnergyDevicePanel, 100));
    EXPECT_TRUE(m_log.Contains("You must stop the line before to add others devices"));
    m_line.SetAddress("127.0.0.1:1", 0);
    EXPECT_TRUE(m_log.Contains("You must stop the line before to reset the address"));
    // connected: nothing to do, and no second of sleep
    auto start = Clock::now();
    EXPECT_EQ(kesErrorOk, m_line.Reset());
    EXPECT_LT(ms_since(start), 500);
    EXPECT_EQ(kesErrorOk, m_line.Stop());
    EXPECT_EQ(3u, m_line.GetDeviceCount());
    EXPECT_EQ(kesErrorOk, m_line.AddDevice(kesEnergyDevicePanel, 100));

    // without a gateway the start fails and the repeats stay
    kesEnergyLine line(9);
    EXPECT_EQ(kesErrorOk, line.Stop()); // never started
    line.SetAddress(m_gateway.GetAddress(), 0);
    m_gateway.Stop();
    line.AddDevice(kesEnergyDevicePanel, 300);
    line.AddDevice(kesEnergyDevicePanel, 300);
    EXPECT_EQ(kesErrorFailed, line.Start(50, 5, 30));
    EXPECT_TRUE(m_log.Contains("Can not start line 9 communication ip " + m_gateway.GetAddress())) << m_log.Dump();
    EXPECT_EQ(2u, line.GetDeviceCount());
}

TEST_F(EnergyLineTest, CycleReadsEveryListInItsOrderAndASilentDeviceGetsOneErrorEach)
{
    // every type with a read; Panel 200 is silent
    const std::pair<int, std::vector<uint16_t>> registers[] = {
        {1100, {24000, 250}},
        {1300, {23000, 260}},
        {2300, {2400, 500}},
        {10300, {2300, 400}},
        {6300, {2400, 100, 200}},
        {11300, {1000, 100, 200, 300}},
        {7300, {1000, 100, 200, 300, 450}},
        {3500, {2300, 150}},
        {5100, {1, 2, 10}},
        {8100, {0, 1000, 0, 0, 2000, 1800}},
        {9100, {0, 1500, 3600, 0, 0, 0, 2500, 1800, 0, 0, 0, 3500, 1200, 0, 0, 0, 4500, 900, 0, 0, 0, 5500, 0, 0, 0}}};
    for (const auto& r : registers)
        m_gateway.SetRegisters(r.first / 1000, r.first % 1000, r.second);
    // Lists filled out of order and with repeats, the way the configuration file fills them.
    for (int device :
         {5100, 4700, 1300, 3500, 1300, 6300, 1100, 2300, 1200, 1300, 4700, 9100, 7300, 11300, 8100, 10300})
        ASSERT_EQ(kesErrorOk, m_line.AddDevice(device / 1000, static_cast<unsigned short>(device % 1000)));
    const Texts cycle = {"7/1/100/240|25",
                         "7/65535/200:7",
                         "7/1/300/230|26",
                         "7/2/300/240|5|1200",
                         "7/10/300/230|4|920",
                         "7/6/300/240|1|240|2|480",
                         "7/11/300/100|1|100|2|200|3|300",
                         "7/7/300/100|1|100|2|200|3|300|4.5|450",
                         "7/3/500/230|1.5|345|0",
                         "7/5/100/360|65538",
                         "7/8/100/0|1000|2|2000",
                         "7/9/100/1|1500|2|2500|3|3500|4|4500|0|5500"};

    testing::internal::CaptureStdout();
    ASSERT_EQ(kesErrorOk, m_line.Start(50, 5, 30));
    const bool arrived = wait_events(2 * cycle.size(), 10000);
    m_line.Stop();
    const std::string out = testing::internal::GetCapturedStdout();
    ASSERT_TRUE(arrived) << m_log.Dump();
    const Texts events = seen();
    for (size_t i = 0; i < events.size(); ++i)
        ASSERT_EQ(cycle[i % cycle.size()], events[i]) << "event " << i;

    // one red line per failed read, outside the log
    const size_t errors = std::count(events.begin(), events.end(), cycle[1]);
    const std::string red = "\x1b[31m[Communication Error][Panel][200]\n\x1b[0m";
    size_t lines = 0;
    for (size_t at = out.find(red); at != std::string::npos; at = out.find(red, at + 1))
        ++lines;
    EXPECT_EQ(errors, lines) << out;
    EXPECT_FALSE(m_log.Contains("[Communication Error]"));
    // Ambient has no read: one record per address and cycle, no event
    EXPECT_NEAR(m_log.CountContaining("Device Ambient still not supported"), events.size() / cycle.size(), 1);
    // two attempts per cycle for the silent device, one for each other one
    EXPECT_EQ(2 * errors, m_log.CountContaining("Response timeout received 0 bytes but requested 9 at address:200"));
}

TEST_F(EnergyLineTest, ClosedChannelEndsTheCycleAndTheLineReconnectsAfterItsPause)
{
    for (unsigned short address : {100, 200, 300}) {
        m_gateway.SetRegisters(kesEnergyDevicePanel, address, {static_cast<uint16_t>(address * 100), 250});
        m_line.AddDevice(kesEnergyDevicePanel, address);
    }
    // Panel 100 answers, then the gateway drops the connection on Panel 200, and goes.
    m_gateway.PushFault(TestGateway::MakeFault(TestGateway::FaultNone));
    m_gateway.PushFault(TestGateway::MakeFault(TestGateway::FaultClose));
    ASSERT_EQ(kesErrorOk, m_line.Start(50, 5, 30));
    ASSERT_TRUE(wait_events(2)) << m_log.Dump();
    const uint16_t port = m_gateway.GetPort();
    m_gateway.Stop();
    auto lost = Clock::now();
    // away: one failed attempt after the pause, and no event of any kind
    ASSERT_TRUE(wait_for([this] { return m_log.Contains("Can no reset communication"); }, 3000));
    EXPECT_GT(ms_since(lost), 800);
    EXPECT_EQ(1u, m_log.CountContaining("Can not start line 7 communication ip 127.0.0.1:" + std::to_string(port)));
    EXPECT_EQ(2u, seen().size());

    const unsigned int accepted = m_gateway.GetAcceptedCount();
    ASSERT_TRUE(m_gateway.Start(port));
    ASSERT_TRUE(wait_events(5)) << m_log.Dump();
    m_line.Stop();
    EXPECT_EQ(seen(), (Texts{"7/1/100/100|25", "7/65535/200:7", "7/1/100/100|25", "7/1/200/200|25", "7/1/300/300|25"}));
    EXPECT_TRUE(m_log.Contains("Received 0 bytes but requested 9 at address:200")) << m_log.Dump();
    // the second attempt finds the channel closed
    EXPECT_TRUE(m_log.Contains("Can not send data to the bus at address:200")) << m_log.Dump();
    EXPECT_EQ(accepted + 1, m_gateway.GetAcceptedCount()) << "one new connection";
}

TEST_F(EnergyLineTest, StopDuringReconnectionIsPrompt)
{
    m_gateway.SetRegisters(kesEnergyDevicePanel, 100, {24000, 250});
    m_line.AddDevice(kesEnergyDevicePanel, 100);
    ASSERT_EQ(kesErrorOk, m_line.Start(50, 5, 30));
    ASSERT_TRUE(wait_events(1));
    m_gateway.Stop();
    std::this_thread::sleep_for(std::chrono::milliseconds(200)); // inside the pause of Reset
    auto start = Clock::now();
    EXPECT_EQ(kesErrorOk, m_line.Stop());
    EXPECT_LT(ms_since(start), 300);
    EXPECT_FALSE(m_log.Contains("Can not start line")) << m_log.Dump();
}

std::string g_calls;

TEST(EventDispatcher, ListenersRunInOrderOfRegistrationPerCode)
{
    kesEventListener first = [](const kesEvent& e) { g_calls += "a" + std::to_string(e.code) + ";"; };
    kesEventListener second = [](const kesEvent& e) {
        g_calls += "b" + std::to_string(*static_cast<int*>(e.data)) + ";";
    };
    kesEventDispatcher dispatcher;
    dispatcher.AddListener(1, first);
    dispatcher.AddListener(1, second);
    dispatcher.AddListener(1, first); // twice: called twice
    dispatcher.AddListener(65535, second);
    // 4: a device type nobody listens to, 65534: an unknown code
    const std::pair<int, const char*> rows[] = {{1, "a1;b42;a1;"}, {65535, "b42;"}, {4, ""}, {65534, ""}};
    int data = 42;
    for (const auto& row : rows) {
        g_calls.clear();
        dispatcher.DispatchEvent(kesEvent{7, row.first, &data});
        EXPECT_EQ(row.second, g_calls) << row.first;
    }
}

} // namespace
