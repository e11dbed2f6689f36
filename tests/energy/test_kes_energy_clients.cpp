// The clients of the gateways: a bus line and the weather station's reader.
#include "kes_energy_davis_meteo.h"
#include "kes_energy_line.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <regex>
#include <sstream>
#include <thread>

#include "error_capture.h"
#include "loopback.h"
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

bool wait_for(const std::function<bool()>& done, int ms = 5000)
{
    for (auto start = Clock::now(); !done() && ms_since(start) < ms;)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return done();
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
    void TearDown() override { kesEnergySystem::EXECUTION_COUNT = m_savedCount; }
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
    // Lists filled out of order and with repeats, the way the configuration file fills them.
    const int devices[] = {5100, 4700, 1300, 3500, 1300, 6300, 1100, 2300, 1200, 1300, 4700, 9100, 7300, 11300, 8100, 10300};
    // clang-format on
    for (const auto& r : registers)
        m_gateway.SetRegisters(r.first / 1000, r.first % 1000, r.second);
    for (int device : devices)
        ASSERT_EQ(kesErrorOk, m_line.AddDevice(device / 1000, static_cast<unsigned short>(device % 1000)));
    EXPECT_EQ(16u, m_line.GetDeviceCount());
    m_line.DispatchEvent(kesEvent{7, kesEnergyEventAlarmStatus, nullptr}); // nobody listens: nobody is called

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
    const std::regex red("\x1b\\[31m\\[Communication Error\\]\\[Panel\\]\\[200\\]\n\x1b\\[0m");
    const size_t lines = std::distance(std::sregex_iterator(out.begin(), out.end(), red), std::sregex_iterator());
    EXPECT_EQ(errors, lines) << out;
    EXPECT_FALSE(m_log.Contains("[Communication Error]"));
    // Ambient has no read: one record per address and cycle, no event
    EXPECT_NEAR(m_log.CountContaining("Device Ambient still not supported"), errors, 1);
    EXPECT_EQ(kesErrorOk, m_line.AddDevice(kesEnergyDevicePanel, 400)); // stopped: it takes devices again
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

    // without a gateway a start fails
    kesEnergyLine line(9);
    line.SetAddress(m_gateway.GetAddress(), 0);
    EXPECT_EQ(kesErrorFailed, line.Start(50, 5, 30));
    EXPECT_TRUE(m_log.Contains("Can not start line 9 communication ip " + m_gateway.GetAddress())) << m_log.Dump();
}

// Keeps what the reader cut from the stream, and still writes the files;
// read once stopped, when the reader is gone.
struct RecordingMeteo : kesEnergyDavisMeteo {
    using kesEnergyDavisMeteo::kesEnergyDavisMeteo;
    ~RecordingMeteo() override { Stop(); }
    void OnData(const kesString& data) override
    {
        kesEnergyDavisMeteo::OnData(data);
        records.push_back(data);
    }
    Texts records;
};

std::string LocalStamp()
{
    time_t now = time(nullptr);
    tm local{};
    char text[32];
    strftime(text, sizeof(text), "%Y%m%d%H%M%S", localtime_r(&now, &local));
    return text;
}

// The text with each 14-digit time stamp put as "@"; the stamps are collected.
std::string Unstamped(const std::string& text, Texts* stamps)
{
    static const std::regex stamp("[0-9]{14}");
    for (std::sregex_iterator it(text.begin(), text.end(), stamp); it != std::sregex_iterator(); ++it)
        stamps->push_back(it->str());
    return std::regex_replace(text, stamp, "@");
}

Texts Split(const std::string& text, char separator)
{
    Texts pieces;
    std::istringstream in(text + separator);
    for (std::string piece; std::getline(in, piece, separator);)
        pieces.push_back(piece);
    return pieces;
}

// clang-format off
const std::string GOOD = "1,2,180,3.4,21.5,56,0.3,412,0.0,9,10,23.1,1013.2", ZERO("1\0" "80", 4);
const std::string GR = "1|2|180|3.4|21.5|56|0.3|412|0.0|9|10|23.1|1013.2", GV = "180|3.4|21.5|56|0.3|412|0.0|23.1|1013.2";
const std::string OTHER = "7|8|270|1.1|-3.5|91|0|0|0.2|9|10|19.8|998.4", OV = "270|1.1|-3.5|91|0|0|0.2|19.8|998.4";
// clang-format on

// Records and values as "\n"-separated lists; values are the nine a record
// put in the files, "" for a record dropped; pause is between two bytes, in ms.
// clang-format off
struct StreamCase { const char* name; std::string stream, records, values; unsigned int pause; };
std::ostream& operator<<(std::ostream& out, const StreamCase& c) { return out << c.name; }
const StreamCase STREAM_CASES[] = {
    {"commas", "<" + GOOD + ">", GR, GV, 1},
    {"mixed_separators", "<1|2,180|3.4,21.5|56,0.3|412,0.0|9,10|23.1,1013.2>", GR, GV, 0},
    {"bytes_between_records", "\r\nnoise<" + GOOD + ">\r\n\x01 x<" + OTHER + ">\n", GR + "\n" + OTHER, GV + "\n" + OV, 0},
    {"close_without_open", "<" + GOOD + ">stray>", GR + "\n", GV + "\n", 0},
    {"second_open_inside", "<1,2,180,3.4<,21.5,56,0.3,412,0.0,9,10,23.1,1013.2>", GR, GV, 0},
    {"twelve_entries", "<1,2,180,3.4,21.5,56,0.3,412,0.0,9,10,23.1>", "1|2|180|3.4|21.5|56|0.3|412|0.0|9|10|23.1", "", 0},
    {"fourteen_entries", "<" + GOOD + ",5>", GR + "|5", "", 0},
    {"empty_last_field", "<1,2,180,3.4,21.5,56,0.3,412,0.0,9,10,23.1,>",
     "1|2|180|3.4|21.5|56|0.3|412|0.0|9|10|23.1|", "180|3.4|21.5|56|0.3|412|0.0|23.1|", 0},
    {"empty_middle_field", "<1,2,,3.4,21.5,56,0.3,412,0.0,9,10,23.1,1013.2>",
     "1|2||3.4|21.5|56|0.3|412|0.0|9|10|23.1|1013.2", "", 0},
    // the gap closes up: the fields behind it move one place early
    {"fourteen_fields_one_empty", "<1,,2,180,3.4,21.5,56,0.3,412,0.0,9,10,23.1,1013.2>",
     "1||2|180|3.4|21.5|56|0.3|412|0.0|9|10|23.1|1013.2", GV, 0},
    {"quotation_mark", "<1,2,\"N\",3.4,21.5,56,0.3,412,0.0,9,10,23.1,1013.2>",
     "1|2|\"N\"|3.4|21.5|56|0.3|412|0.0|9|10|23.1|1013.2", "\"N\"|3.4|21.5|56|0.3|412|0.0|23.1|1013.2", 0},
    // a "<" never closed: the run is dropped at the record size limit
    {"unclosed_record", "<" + std::string(4200, 'x') + "<" + GOOD + ">", GR, GV, 0},
    {"longest_record", "<" + std::string(4096 - GOOD.size(), '0') + GOOD + ">", std::string(4096 - GOOD.size(), '0') + GR, GV, 0},
    {"unclosed_one_byte_over", "<" + std::string(4097 - GOOD.size(), '0') + GOOD + ">", "", "", 0},
    // cut at the zero byte, as the files' "%s" imply
    {"zero_byte_in_field", "<1,2," + ZERO + ",3.4,21.5,56,0.3,412,0.0,9,10,23.1,1013.2>",
     "1|2|" + ZERO + "|3.4|21.5|56|0.3|412|0.0|9|10|23.1|1013.2", "1|3.4|21.5|56|0.3|412|0.0|23.1|1013.2", 0},
    // the record cut off by the hang-up never counts
    {"hang_up_inside_a_record", "<" + GOOD + "><1,2,180,3.4,21.5,56,0.3,412,0.0,9,10,23.1,", GR, GV, 0},
};
// clang-format on

class DavisMeteoStream : public ::testing::TestWithParam<StreamCase> {};

TEST_P(DavisMeteoStream, CutsRecordsAndWritesFiles)
{
    const StreamCase& c = GetParam();
    kes_test::ErrorCapture captured;
    kes_test::TempDir folder;
    std::string before = LocalStamp();
    kes_test::LoopbackServer station; // plays the stream, then hangs up
    station.Serve([&c](int fd, int) { kes_test::WriteAll(fd, c.stream.data(), c.stream.size()); });
    RecordingMeteo meteo(c.pause);
    meteo.SetAddress(station.Address(), 0);
    meteo.SetHistoryFolder(folder.Path());
    ASSERT_EQ(meteo.Start(), kesErrorOk);
    // no reconnection: once hung up, the reader fails on the closed socket at every pass
    wait_for([&captured] { return captured.CountContaining("Socket is close.") >= 3; });
    std::string after = LocalStamp();
    EXPECT_EQ(meteo.Stop(), kesErrorOk);
    EXPECT_EQ(meteo.records, Split(c.records, '\n'));
    EXPECT_EQ(captured.CountContaining("Weather record without end dropped"),
              std::string(c.name).find("unclosed") == 0 ? 1u : 0u);

    // a dropped record empties "meteo_c" and adds nothing to "meteo"
    // clang-format off
    const char* names[] = {"wind_direction", "wind_speed", "outside_temperature", "outside_humidity", "uv_radiation",
                           "solar_radiation", "last_minute_rain", "inside_temperature", "pressure"};
    // clang-format on
    std::string current, log;
    for (const std::string& values : Split(c.values, '\n')) {
        current = values.empty() ? "" : "{\"timestamp\":\"@\"";
        for (size_t i = 0; i < 9 && !values.empty(); ++i)
            current += ",\"" + std::string(names[i]) + "\":\"" + Split(values, '|')[i] + "\"";
        current += values.empty() ? "" : "}";
        log += values.empty() ? "" : "@|" + values + "\n";
    }
    // the stamp is the local time of the record, the same in both files
    Texts stamps;
    EXPECT_EQ(Unstamped(kes_test::ReadFile(folder.File("meteo")), &stamps), log);
    EXPECT_EQ(Unstamped(kes_test::ReadFile(folder.File("meteo_c")), &stamps), current);
    for (const std::string& stamp : stamps)
        EXPECT_TRUE(before <= stamp && stamp <= after) << stamp;
    EXPECT_TRUE(current.empty() || stamps.back() == stamps[stamps.size() - 2]);
}

INSTANTIATE_TEST_SUITE_P(Records, DavisMeteoStream, ::testing::ValuesIn(STREAM_CASES),
                         [](const ::testing::TestParamInfo<StreamCase>& info) { return info.param.name; });

TEST(DavisMeteoConnection, AddressIsKeptWhileRunningAndStopIsPrompt)
{
    kes_test::ErrorCapture captured;
    kes_test::LoopbackServer gone;
    gone.StopListening();

    kes_test::LoopbackServer station;
    station.Serve([](int, int) {}, 2); // each hung up at once: the reader never waits on the socket
    kesEnergyDavisMeteo meteo(1);
    meteo.SetAddress(station.Address(), 0);
    ASSERT_EQ(meteo.Start(), kesErrorOk);
    meteo.SetAddress(gone.Address(), 0);
    EXPECT_EQ(captured.CountContaining("You must stop the line before to reset the address"), 1u);
    EXPECT_EQ(meteo.Stop(), kesErrorOk);
    EXPECT_EQ(meteo.Start(), kesErrorOk); // the old address held
    EXPECT_EQ(meteo.Stop(), kesErrorOk);
    station.Join();
    EXPECT_EQ(station.Accepted(), 2);
    meteo.SetAddress(gone.Address(), 0);
    EXPECT_EQ(meteo.Start(), kesErrorFailed);
    EXPECT_EQ(captured.CountContaining("Can not open socket for davis meteo"), 1u);

    // a silent station: the stop waits out at most the receive time-out and one pause
    kes_test::LoopbackServer silent;
    kes_test::Gate hangUp;
    silent.Serve([&hangUp](int, int) { hangUp.Wait(5000); });
    meteo.SetAddress(silent.Address(), 0);
    ASSERT_EQ(meteo.Start(), kesErrorOk);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    auto started = Clock::now();
    EXPECT_EQ(meteo.Stop(), kesErrorOk);
    EXPECT_LT(ms_since(started), 700);
    hangUp.Open();
}

// A missing folder, shown as stored (one separator, always), or a "meteo"
// that is no file: the record is lost with a report, "meteo_c" left empty.
TEST(DavisMeteoFiles, AFileThatCanNotBeOpenedLosesTheRecordWithAReport)
{
    kes_test::ErrorCapture captured;
    kes_test::TempDir folder;
    std::filesystem::create_directory(folder.File("meteo"));
    kesEnergyDavisMeteo meteo;
    for (const char* at : {"missing///", ""}) {
        meteo.SetHistoryFolder(folder.File(at));
        meteo.OnData(GR);
    }
    EXPECT_EQ(captured.CountContaining("Can not open file " + folder.File("missing/meteo_c\n")), 1u) << captured.Dump();
    EXPECT_EQ(captured.CountContaining("Can not open file " + folder.File("meteo\n")), 1u);
    EXPECT_EQ(captured.CountContaining("kesError Number : 3"), 2u);
    EXPECT_EQ(kes_test::ReadFile(folder.File("meteo_c")), "");
}

} // namespace
