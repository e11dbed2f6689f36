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
    const unsigned char* record = static_cast<const unsigned char*>(e.data);
    unsigned int key = 0;
    memcpy(&key, record, e.code == kesEnergyEventCommunicationError ? 4 : 2);
    text += e.code == kesEnergyEventCommunicationError ? std::to_string(key >> 16) + ":" + std::to_string(key & 0xFFFF)
                                                       : std::to_string(key);
    char value[32];
    for (unsigned int fid = 0; const ValueField* field = FindValueField(e.code, fid); ++fid)
        text += (snprintf(value, sizeof(value), "%c%g", fid ? '|' : '/', FieldValue(*field, record)), value);
    std::lock_guard<std::mutex> lock(g_mutex);
    g_seen.push_back(text);
}

Texts seen()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_seen;
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
        kesEnergySystem::EXECUTION_COUNT = 2;
        ASSERT_TRUE(m_gateway.Start());
        m_line.SetAddress(m_gateway.GetAddress(), 0);
        for (int code : {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, int(kesEnergyEventCommunicationError)})
            m_line.AddListener(code, &on_event);
    }
    void TearDown() override
    {
        m_line.Stop();
        kesEnergySystem::EXECUTION_COUNT = m_savedCount;
    }
    bool wait_for(const std::function<bool()>& done, int ms = 5000)
    {
        for (auto start = Clock::now(); !done() && ms_since(start) < ms;)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        return done();
    }
    bool wait_events(size_t count)
    {
        return wait_for([count] { return seen().size() >= count; });
    }

    const unsigned char m_savedCount = kesEnergySystem::EXECUTION_COUNT;
    kes_test::ErrorCapture m_log;
    TestGateway m_gateway;
    kesEnergyLine m_line{7};
};

TEST_F(EnergyLineTest, CycleReadsEveryListInItsOrderAndASilentDeviceGetsOneErrorEach)
{
    // every type with a read, as type * 1000 + address; Panel 200 is silent
    // clang-format off
    const std::pair<int, std::vector<uint16_t>> registers[] = {
        {1100, {24000, 250}}, {1300, {23000, 260}}, {2300, {2400, 500}}, {10300, {2300, 400}}, {6300, {2400, 100, 200}},
        {11300, {1000, 100, 200, 300}}, {7300, {1000, 100, 200, 300, 450}}, {3500, {2300, 150}}, {5100, {1, 2, 10}},
        {8100, {0, 1000, 0, 0, 2000, 1800}},
        {9100, {0, 1500, 3600, 0, 0, 0, 2500, 1800, 0, 0, 0, 3500, 1200, 0, 0, 0, 4500, 900, 0, 0, 0, 5500, 0, 0, 0}}};
    const Texts cycle = {"7/1/100/240|25", "7/65535/200:7", "7/1/300/230|26", "7/2/300/240|5|1200", "7/10/300/230|4|920",
                         "7/6/300/240|1|240|2|480", "7/11/300/100|1|100|2|200|3|300", "7/7/300/100|1|100|2|200|3|300|4.5|450",
                         "7/3/500/230|1.5|345|0", "7/5/100/360|65538", "7/8/100/0|1000|2|2000",
                         "7/9/100/1|1500|2|2500|3|3500|4|4500|0|5500"};
    // clang-format on
    for (const auto& r : registers)
        m_gateway.SetRegisters(r.first / 1000, r.first % 1000, r.second);
    // Lists filled out of order and with repeats, the way the configuration file fills them.
    for (int device :
         {5100, 4700, 1300, 3500, 1300, 6300, 1100, 2300, 1200, 1300, 4700, 9100, 7300, 11300, 8100, 10300})
        ASSERT_EQ(kesErrorOk, m_line.AddDevice(device / 1000, static_cast<unsigned short>(device % 1000)));

    EXPECT_EQ(16u, m_line.GetDeviceCount());

    testing::internal::CaptureStdout();
    ASSERT_EQ(kesErrorOk, m_line.Start(50, 5, 30));
    // one entry per device; one address in several lists stays in each
    EXPECT_EQ(13u, m_line.GetDeviceCount());
    EXPECT_EQ(kesErrorFailed, m_line.AddDevice(kesEnergyDevicePanel, 400));
    EXPECT_TRUE(m_log.Contains("You must stop the line before to add others devices"));
    m_line.SetAddress("127.0.0.1:1", 0);
    EXPECT_TRUE(m_log.Contains("You must stop the line before to reset the address"));
    auto reset = Clock::now();
    EXPECT_EQ(kesErrorOk, m_line.Reset()); // connected: nothing to do, and no second of sleep
    EXPECT_LT(ms_since(reset), 500);
    const bool arrived = wait_events(2 * cycle.size());
    EXPECT_EQ(kesErrorOk, m_line.Stop());
    const std::string out = testing::internal::GetCapturedStdout();
    ASSERT_TRUE(arrived) << m_log.Dump();
    const Texts events = seen();
    for (size_t i = 0; i < events.size(); ++i)
        ASSERT_EQ(cycle[i % cycle.size()], events[i]) << "event " << i;
    // one red line per failed read, outside the log
    const size_t errors = std::count(events.begin(), events.end(), cycle[1]);
    size_t lines = 0;
    for (size_t at = 0; (at = out.find("\x1b[31m[Communication Error][Panel][200]\n\x1b[0m", at)) != out.npos; ++at)
        ++lines;
    EXPECT_EQ(errors, lines) << out;
    EXPECT_FALSE(m_log.Contains("[Communication Error]"));
    // Ambient has no read: one record per address and cycle, no event
    EXPECT_NEAR(m_log.CountContaining("Device Ambient still not supported"), errors, 1);
    // the lists outlive the stop
    EXPECT_EQ(13u, m_line.GetDeviceCount());
    EXPECT_EQ(kesErrorOk, m_line.AddDevice(kesEnergyDevicePanel, 400));
    m_line.clear_all_devices();
    EXPECT_EQ(0u, m_line.GetDeviceCount());
}

TEST_F(EnergyLineTest, ClosedChannelEndsTheCycleAndTheLineReconnectsAfterItsPauseOrStops)
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
    ASSERT_TRUE(wait_for([this] { return m_log.Contains("Can no reset communication"); }));
    EXPECT_GT(ms_since(lost), 800);
    EXPECT_EQ(1u, m_log.CountContaining("Can not start line 7 communication ip 127.0.0.1:" + std::to_string(port)));
    EXPECT_EQ(2u, seen().size());

    const unsigned int accepted = m_gateway.GetAcceptedCount();
    ASSERT_TRUE(m_gateway.Start(port));
    ASSERT_TRUE(wait_events(5)) << m_log.Dump();
    EXPECT_EQ(seen(), (Texts{"7/1/100/100|25", "7/65535/200:7", "7/1/100/100|25", "7/1/200/200|25", "7/1/300/300|25"}));
    EXPECT_EQ(accepted + 1, m_gateway.GetAcceptedCount()) << "one new connection";

    // gone again: a stop inside the pause before the next attempt ends it at once
    m_gateway.Stop();
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    auto stop = Clock::now();
    EXPECT_EQ(kesErrorOk, m_line.Stop());
    EXPECT_LT(ms_since(stop), 300);
    EXPECT_EQ(1u, m_log.CountContaining("Can not start line 7")) << m_log.Dump();

    // without a gateway a start fails, and the repeats stay
    kesEnergyLine line(9);
    EXPECT_EQ(kesErrorOk, line.Stop()); // never started
    line.SetAddress(m_gateway.GetAddress(), 0);
    line.AddDevice(kesEnergyDevicePanel, 300);
    line.AddDevice(kesEnergyDevicePanel, 300);
    EXPECT_EQ(kesErrorFailed, line.Start(50, 5, 30));
    EXPECT_TRUE(m_log.Contains("Can not start line 9 communication ip " + m_gateway.GetAddress())) << m_log.Dump();
    EXPECT_EQ(2u, line.GetDeviceCount());
}

} // namespace
