#include "kes_energy_davis_meteo.h"

#include "error_capture.h"
#include "loopback.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <ctime>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

namespace {

using kes::kesString;
using kes::Energy::kesEnergyDavisMeteo;
using kes_test::ReadFile;
using kes_test::TempDir;
using Clock = std::chrono::steady_clock;
typedef std::vector<std::string> Texts;

// A station gateway on loopback: plays its bytes to the one client, then
// holds the line until hung up.
class StationFeeder {
public:
    explicit StationFeeder(const std::string& bytes)
    {
        m_server.Serve([this, bytes](int fd, int) {
            kes_test::WriteAll(fd, bytes.data(), bytes.size());
            m_hangUp.Wait(20000);
        });
    }
    ~StationFeeder() { HangUp(); }
    kesString Address() const { return m_server.Address(); }
    void HangUp()
    {
        m_hangUp.Open();
        m_server.Join();
    }

private:
    kes_test::Gate m_hangUp;
    kes_test::LoopbackServer m_server;
};

// Keeps what the reader cut from the stream, and still writes the files.
class RecordingMeteo : public kesEnergyDavisMeteo {
public:
    explicit RecordingMeteo(unsigned int pause) : kesEnergyDavisMeteo(pause) {}
    ~RecordingMeteo() override { Stop(); }
    void OnData(const kesString& data) override
    {
        kesEnergyDavisMeteo::OnData(data);
        std::lock_guard<std::mutex> lock(m_mutex);
        m_records.push_back(data);
        m_arrived.notify_all();
    }
    bool WaitRecords(size_t count)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_arrived.wait_for(lock, std::chrono::seconds(20), [&] { return m_records.size() >= count; });
    }
    Texts Records()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_records;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_arrived;
    Texts m_records;
};

std::string LocalStamp()
{
    time_t now = time(nullptr);
    tm local{};
    localtime_r(&now, &local);
    char text[32];
    strftime(text, sizeof(text), "%Y%m%d%H%M%S", &local);
    return text;
}

// Matches a text in which each "@" stands for a 14-digit time stamp, and
// collects the stamps.
bool MatchStamped(const std::string& expected, const std::string& actual, Texts* stamps)
{
    size_t at = 0;
    for (char c : expected) {
        if (c != '@') {
            if (at >= actual.size() || actual[at++] != c)
                return false;
            continue;
        }
        std::string stamp = actual.substr(at, 14);
        if (stamp.size() != 14 || stamp.find_first_not_of("0123456789") != std::string::npos)
            return false;
        stamps->push_back(stamp);
        at += 14;
    }
    return at == actual.size();
}

// The two files for one record of the nine used values, in file order.
std::string Current(const Texts& v)
{
    return "{\"timestamp\":\"@\",\"wind_direction\":\"" + v[0] + "\",\"wind_speed\":\"" + v[1] +
           "\",\"outside_temperature\":\"" + v[2] + "\",\"outside_humidity\":\"" + v[3] + "\",\"uv_radiation\":\"" +
           v[4] + "\",\"solar_radiation\":\"" + v[5] + "\",\"last_minute_rain\":\"" + v[6] +
           "\",\"inside_temperature\":\"" + v[7] + "\",\"pressure\":\"" + v[8] + "\"}";
}

std::string Line(const Texts& v)
{
    std::string line = "@";
    for (const std::string& value : v)
        line += "|" + value;
    return line + "\n";
}

const std::string GOOD = "1,2,180,3.4,21.5,56,0.3,412,0.0,9,10,23.1,1013.2";
const std::string GOOD_RECORD = "1|2|180|3.4|21.5|56|0.3|412|0.0|9|10|23.1|1013.2";
const Texts GOOD_VALUES = {"180", "3.4", "21.5", "56", "0.3", "412", "0.0", "23.1", "1013.2"};
const std::string OTHER = "7|8|270|1.1|-3.5|91|0|0|0.2|9|10|19.8|998.4";
const Texts OTHER_VALUES = {"270", "1.1", "-3.5", "91", "0", "0", "0.2", "19.8", "998.4"};
const std::string ZERO("1\0"
                       "80",
                       4);
const Texts DROPPED;

struct StreamCase {
    const char* name;
    std::string stream;
    Texts records;             // as handed to OnData
    std::vector<Texts> values; // the values each record put in the files, or DROPPED
    unsigned int pause = 1;    // between two bytes, in milliseconds
};

std::ostream& operator<<(std::ostream& out, const StreamCase& c)
{
    return out << c.name;
}

const StreamCase STREAM_CASES[] = {
    {"commas", "<" + GOOD + ">", {GOOD_RECORD}, {GOOD_VALUES}},
    {"mixed_separators", "<1|2,180|3.4,21.5|56,0.3|412,0.0|9,10|23.1,1013.2>", {GOOD_RECORD}, {GOOD_VALUES}},
    {"bytes_between_records",
     "\r\nnoise<" + GOOD + ">\r\n\x01 x<" + OTHER + ">\n",
     {GOOD_RECORD, OTHER},
     {GOOD_VALUES, OTHER_VALUES}},
    {"close_without_open", "<" + GOOD + ">stray>", {GOOD_RECORD, ""}, {GOOD_VALUES, DROPPED}},
    {"second_open_inside", "<1,2,180,3.4<,21.5,56,0.3,412,0.0,9,10,23.1,1013.2>", {GOOD_RECORD}, {GOOD_VALUES}},
    {"twelve_entries",
     "<1,2,180,3.4,21.5,56,0.3,412,0.0,9,10,23.1>",
     {"1|2|180|3.4|21.5|56|0.3|412|0.0|9|10|23.1"},
     {DROPPED}},
    {"fourteen_entries", "<" + GOOD + ",5>", {GOOD_RECORD + "|5"}, {DROPPED}},
    {"empty_last_field",
     "<1,2,180,3.4,21.5,56,0.3,412,0.0,9,10,23.1,>",
     {"1|2|180|3.4|21.5|56|0.3|412|0.0|9|10|23.1|"},
     {{"180", "3.4", "21.5", "56", "0.3", "412", "0.0", "23.1", ""}}},
    {"empty_middle_field",
     "<1,2,,3.4,21.5,56,0.3,412,0.0,9,10,23.1,1013.2>",
     {"1|2||3.4|21.5|56|0.3|412|0.0|9|10|23.1|1013.2"},
     {DROPPED}},
    // the gap closes up: the fields behind it move one place early
    {"fourteen_fields_one_empty",
     "<1,,2,180,3.4,21.5,56,0.3,412,0.0,9,10,23.1,1013.2>",
     {"1||2|180|3.4|21.5|56|0.3|412|0.0|9|10|23.1|1013.2"},
     {GOOD_VALUES}},
    {"quotation_mark",
     "<1,2,\"N\",3.4,21.5,56,0.3,412,0.0,9,10,23.1,1013.2>",
     {"1|2|\"N\"|3.4|21.5|56|0.3|412|0.0|9|10|23.1|1013.2"},
     {{"\"N\"", "3.4", "21.5", "56", "0.3", "412", "0.0", "23.1", "1013.2"}}},
    // a "<" never closed: the run is dropped at the record size limit
    {"unclosed_record", "<" + std::string(4200, 'x') + "<" + GOOD + ">", {GOOD_RECORD}, {GOOD_VALUES}},
    // cut at the zero byte, as the files' "%s" imply
    {"zero_byte_in_field",
     "<1,2," + ZERO + ",3.4,21.5,56,0.3,412,0.0,9,10,23.1,1013.2>",
     {"1|2|" + ZERO + "|3.4|21.5|56|0.3|412|0.0|9|10|23.1|1013.2"},
     {{"1", "3.4", "21.5", "56", "0.3", "412", "0.0", "23.1", "1013.2"}}},
    // found by fuzzing: the reader stopped after the first byte
    {"no_pause", "<" + GOOD + "><" + OTHER + ">", {GOOD_RECORD, OTHER}, {GOOD_VALUES, OTHER_VALUES}, 0},
};

class DavisMeteoStream : public ::testing::TestWithParam<StreamCase> {};

TEST_P(DavisMeteoStream, CutsRecordsAndWritesFiles)
{
    const StreamCase& c = GetParam();
    TempDir folder;
    std::string before = LocalStamp();
    StationFeeder feeder(c.stream);
    RecordingMeteo meteo(c.pause);
    meteo.SetAddress(feeder.Address(), 0);
    meteo.SetHistoryFolder(folder.Path().c_str());
    ASSERT_EQ(meteo.Start(), kes::kesErrorOk);
    ASSERT_TRUE(meteo.WaitRecords(c.records.size()));
    std::string after = LocalStamp();
    EXPECT_EQ(meteo.Stop(), kes::kesErrorOk);
    EXPECT_EQ(meteo.Records(), c.records);

    // a dropped record empties "meteo_c" and adds nothing to "meteo"
    std::string current = c.values.back().empty() ? "" : Current(c.values.back());
    std::string log;
    for (const Texts& values : c.values)
        log += values.empty() ? "" : Line(values);
    Texts currentStamps, logStamps;
    EXPECT_TRUE(MatchStamped(current, ReadFile(folder.File("meteo_c")), &currentStamps));
    EXPECT_TRUE(MatchStamped(log, ReadFile(folder.File("meteo")), &logStamps));

    // the stamp is the local time of the record, the same in both files
    for (const std::string& stamp : logStamps) {
        EXPECT_LE(before, stamp);
        EXPECT_GE(after, stamp);
    }
    if (!currentStamps.empty() && !logStamps.empty()) {
        EXPECT_EQ(currentStamps[0], logStamps.back());
    }
}

INSTANTIATE_TEST_SUITE_P(Records, DavisMeteoStream, ::testing::ValuesIn(STREAM_CASES),
                         [](const ::testing::TestParamInfo<StreamCase>& info) { return info.param.name; });

TEST(DavisMeteoConnection, GatewayHangingUpLeavesTheClientIdle)
{
    kes_test::ErrorCapture captured;
    TempDir folder;
    // the second record is cut off by the hang-up and must not count
    StationFeeder feeder("<" + GOOD + "><1,2,180,3.4,21.5,56,0.3,412,0.0,9,10,23.1,");
    RecordingMeteo meteo(20);
    meteo.SetAddress(feeder.Address(), 0);
    meteo.SetHistoryFolder(folder.Path().c_str());
    ASSERT_EQ(meteo.Start(), kes::kesErrorOk);
    ASSERT_TRUE(meteo.WaitRecords(1));
    std::string current = ReadFile(folder.File("meteo_c"));
    std::string log = ReadFile(folder.File("meteo"));
    feeder.HangUp();

    // no reconnection: the reader fails on the closed socket at every pass
    auto deadline = Clock::now() + std::chrono::seconds(10);
    while (captured.CountContaining("Socket is close.") < 3 && Clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_GE(captured.CountContaining("Socket is close."), 3u);

    EXPECT_EQ(meteo.Stop(), kes::kesErrorOk);
    EXPECT_EQ(meteo.Records().size(), 1u);
    EXPECT_EQ(ReadFile(folder.File("meteo_c")), current);
    EXPECT_EQ(ReadFile(folder.File("meteo")), log);
}

TEST(DavisMeteoConnection, StopIsPromptAndHarmlessWithoutStart)
{
    kesEnergyDavisMeteo idle;
    EXPECT_EQ(idle.Stop(), kes::kesErrorOk);

    StationFeeder silent("");
    kesEnergyDavisMeteo meteo;
    meteo.SetAddress(silent.Address(), 0);
    ASSERT_EQ(meteo.Start(), kes::kesErrorOk);
    std::this_thread::sleep_for(std::chrono::milliseconds(120));
    // bounded by the receive time-out and one pause: about 350 ms
    auto started = Clock::now();
    EXPECT_EQ(meteo.Stop(), kes::kesErrorOk);
    EXPECT_LT(Clock::now() - started, std::chrono::milliseconds(700));
}

TEST(DavisMeteoConnection, AddressIsKeptWhileRunningAndAFailedStartIsReported)
{
    kes_test::ErrorCapture captured;
    kes_test::LoopbackServer gone;
    std::string goneAddress = gone.Address();
    gone.StopListening();

    StationFeeder feeder("");
    kesEnergyDavisMeteo meteo;
    meteo.SetAddress(feeder.Address(), 0);
    ASSERT_EQ(meteo.Start(), kes::kesErrorOk);
    meteo.SetAddress(goneAddress.c_str(), 0);
    EXPECT_EQ(captured.CountContaining("You must stop the line before to reset the address"), 1u);
    EXPECT_EQ(meteo.Stop(), kes::kesErrorOk);
    // the listener's backlog takes the second connection: the old address held
    EXPECT_EQ(meteo.Start(), kes::kesErrorOk);
    EXPECT_EQ(meteo.Stop(), kes::kesErrorOk);

    meteo.SetAddress(goneAddress.c_str(), 0);
    EXPECT_EQ(meteo.Start(), kes::kesErrorFailed);
    EXPECT_EQ(captured.CountContaining("Can not open socket for davis meteo"), 1u);
    EXPECT_EQ(meteo.Stop(), kes::kesErrorOk);
}

// The path in the report shows the folder as stored: one separator, always.
class DavisMeteoFolder : public ::testing::TestWithParam<const char*> {};

TEST_P(DavisMeteoFolder, MissingFolderLosesTheRecordWithAReport)
{
    kes_test::ErrorCapture captured;
    TempDir folder;
    kesEnergyDavisMeteo meteo;
    meteo.SetHistoryFolder((folder.File("missing") + GetParam()).c_str());
    meteo.OnData(GOOD_RECORD.c_str());
    EXPECT_EQ(captured.CountContaining("Can not open file " + folder.File("missing/meteo_c\n")), 1u) << captured.Dump();
    EXPECT_EQ(captured.CountContaining("kesError Number : 3"), 1u);
}

INSTANTIATE_TEST_SUITE_P(TrailingSeparators, DavisMeteoFolder, ::testing::Values("", "/", "///"));

TEST(DavisMeteoFiles, UnwritableLogLeavesTheCurrentFileEmpty)
{
    kes_test::ErrorCapture captured;
    TempDir folder;
    std::filesystem::create_directory(folder.File("meteo"));
    kesEnergyDavisMeteo meteo;
    meteo.SetHistoryFolder(folder.Path().c_str());
    meteo.OnData(GOOD_RECORD.c_str());
    EXPECT_EQ(captured.CountContaining("Can not open file " + folder.File("meteo\n")), 1u);
    EXPECT_TRUE(std::filesystem::exists(folder.File("meteo_c")));
    EXPECT_EQ(ReadFile(folder.File("meteo_c")), "");
}

// Anything but a regular file as a weather file: named in a record, left as it was.
typedef std::tuple<const char*, kes_test::Intruder> MeteoIntruderCase;
class DavisMeteoIntruder : public ::testing::TestWithParam<MeteoIntruderCase> {};

TEST_P(DavisMeteoIntruder, IsNamedInARecordAndLeftAsItWas)
{
    TempDir folder;
    kesEnergyDavisMeteo meteo;
    meteo.SetHistoryFolder(folder.Path().c_str());
    if (!kes_test::RefusesIntruder(folder.File(std::get<0>(GetParam())), std::get<1>(GetParam()),
                                   [&meteo] { meteo.OnData(GOOD_RECORD.c_str()); }))
        GTEST_SKIP() << "root reads every file";
}

INSTANTIATE_TEST_SUITE_P(Files, DavisMeteoIntruder,
                         ::testing::Combine(::testing::Values("meteo_c", "meteo"),
                                            ::testing::ValuesIn(kes_test::INTRUDERS)),
                         [](const ::testing::TestParamInfo<MeteoIntruderCase>& info) {
                             return std::string(std::get<0>(info.param)) + "_" + std::get<1>(info.param).name;
                         });

} // namespace
