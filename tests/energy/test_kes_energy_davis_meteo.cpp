#include "kes_energy_davis_meteo.h"
#include "kes_error.h"
#include "error_capture.h"
#include "loopback.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

using kes::kesString;
using kes::Energy::kesEnergyDavisMeteo;
using Clock = std::chrono::steady_clock;
using kes_test::ReadFile;
using kes_test::TempDir;

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

// A port on loopback where nobody listens.
unsigned short DeadPort()
{
    int probe = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(address);
    bind(probe, reinterpret_cast<sockaddr*>(&address), size);
    getsockname(probe, reinterpret_cast<sockaddr*>(&address), &size);
    close(probe);
    return ntohs(address.sin_port);
}

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
        return m_arrived.wait_for(lock, std::chrono::seconds(20), [&] {
            return m_records.size() >= count;
        });
    }
    std::vector<std::string> Records()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_records;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_arrived;
    std::vector<std::string> m_records;
};

std::string LocalStamp()
{
    time_t now = time(nullptr);
    tm local{};
    localtime_r(&now, &local);
    char text[32];
    snprintf(text, sizeof(text), "%.4i%.2i%.2i%.2i%.2i%.2i", local.tm_year + 1900, local.tm_mon + 1, local.tm_mday,
             local.tm_hour, local.tm_min, local.tm_sec);
    return text;
}

// Matches a text in which each "@" stands for a 14-digit time stamp, and
// gives the stamps found.
bool MatchStamped(const std::string& expected, const std::string& actual, std::vector<std::string>* stamps)
{
    size_t at = 0;
    for (char c : expected) {
        if (c != '@') {
            if (at >= actual.size() || actual[at] != c)
                return false;
            ++at;
            continue;
        }
        if (actual.size() - at < 14)
            return false;
        std::string stamp = actual.substr(at, 14);
        if (stamp.find_first_not_of("0123456789") != std::string::npos)
            return false;
        stamps->push_back(stamp);
        at += 14;
    }
    return at == actual.size();
}

// The two files for one record of the nine used values, in file order.
std::string Current(const std::vector<std::string>& v)
{
    return "{\"timestamp\":\"@\",\"wind_direction\":\"" + v[0] + "\",\"wind_speed\":\"" + v[1] +
           "\",\"outside_temperature\":\"" + v[2] + "\",\"outside_humidity\":\"" + v[3] + "\",\"uv_radiation\":\"" +
           v[4] + "\",\"solar_radiation\":\"" + v[5] + "\",\"last_minute_rain\":\"" + v[6] +
           "\",\"inside_temperature\":\"" + v[7] + "\",\"pressure\":\"" + v[8] + "\"}";
}

// "~" stands for a zero byte, which a literal cannot hold.
std::string Z(std::string text)
{
    for (char& c : text)
        if (c == '~')
            c = '\0';
    return text;
}

std::string Line(const std::vector<std::string>& v)
{
    std::string line = "@";
    for (const std::string& value : v)
        line += "|" + value;
    return line + "\n";
}

const std::string GOOD = "1,2,180,3.4,21.5,56,0.3,412,0.0,9,10,23.1,1013.2";
const std::string GOOD_RECORD = "1|2|180|3.4|21.5|56|0.3|412|0.0|9|10|23.1|1013.2";
const std::vector<std::string> GOOD_VALUES = {"180", "3.4", "21.5", "56", "0.3", "412", "0.0", "23.1", "1013.2"};
const std::string OTHER = "7|8|270|1.1|-3.5|91|0|0|0.2|9|10|19.8|998.4";
const std::vector<std::string> OTHER_VALUES = {"270", "1.1", "-3.5", "91", "0", "0", "0.2", "19.8", "998.4"};

struct StreamCase {
    const char* name;
    std::string stream;
    std::vector<std::string> records; // as handed to OnData
    std::string current;              // "meteo_c" afterwards, "@" for the stamp
    std::string log;                  // "meteo" afterwards
};

std::ostream& operator<<(std::ostream& out, const StreamCase& c)
{
    return out << c.name;
}

const StreamCase STREAM_CASES[] = {
    {"commas", "<" + GOOD + ">", {GOOD_RECORD}, Current(GOOD_VALUES), Line(GOOD_VALUES)},
    {"bars", "<" + GOOD_RECORD + ">", {GOOD_RECORD}, Current(GOOD_VALUES), Line(GOOD_VALUES)},
    {"mixed_separators",
     "<1|2,180|3.4,21.5|56,0.3|412,0.0|9,10|23.1,1013.2>",
     {GOOD_RECORD},
     Current(GOOD_VALUES),
     Line(GOOD_VALUES)},
    {"bytes_between_records",
     "\r\nnoise<" + GOOD + ">\r\n\x01 x<" + OTHER + ">\n",
     {GOOD_RECORD, OTHER},
     Current(OTHER_VALUES),
     Line(GOOD_VALUES) + Line(OTHER_VALUES)},
    {"close_without_open", "<" + GOOD + ">stray>", {GOOD_RECORD, ""}, "", Line(GOOD_VALUES)},
    {"second_open_inside",
     "<1,2,180,3.4<,21.5,56,0.3,412,0.0,9,10,23.1,1013.2>",
     {GOOD_RECORD},
     Current(GOOD_VALUES),
     Line(GOOD_VALUES)},
    {"twelve_entries",
     "<1,2,180,3.4,21.5,56,0.3,412,0.0,9,10,23.1>",
     {"1|2|180|3.4|21.5|56|0.3|412|0.0|9|10|23.1"},
     "",
     ""},
    {"fourteen_entries", "<" + GOOD + ",5>", {GOOD_RECORD + "|5"}, "", ""},
    {"empty_last_field",
     "<1,2,180,3.4,21.5,56,0.3,412,0.0,9,10,23.1,>",
     {"1|2|180|3.4|21.5|56|0.3|412|0.0|9|10|23.1|"},
     Current({"180", "3.4", "21.5", "56", "0.3", "412", "0.0", "23.1", ""}),
     Line({"180", "3.4", "21.5", "56", "0.3", "412", "0.0", "23.1", ""})},
    {"empty_middle_field",
     "<1,2,,3.4,21.5,56,0.3,412,0.0,9,10,23.1,1013.2>",
     {"1|2||3.4|21.5|56|0.3|412|0.0|9|10|23.1|1013.2"},
     "",
     ""},
    // the gap closes up: the fields behind it move one place early
    {"fourteen_fields_one_empty",
     "<1,,2,180,3.4,21.5,56,0.3,412,0.0,9,10,23.1,1013.2>",
     {"1||2|180|3.4|21.5|56|0.3|412|0.0|9|10|23.1|1013.2"},
     Current(GOOD_VALUES),
     Line(GOOD_VALUES)},
    {"quotation_mark",
     "<1,2,\"N\",3.4,21.5,56,0.3,412,0.0,9,10,23.1,1013.2>",
     {"1|2|\"N\"|3.4|21.5|56|0.3|412|0.0|9|10|23.1|1013.2"},
     Current({"\"N\"", "3.4", "21.5", "56", "0.3", "412", "0.0", "23.1", "1013.2"}),
     Line({"\"N\"", "3.4", "21.5", "56", "0.3", "412", "0.0", "23.1", "1013.2"})},
    {"zero_byte_in_field",
     Z("<1,2,1~80,3.4,21.5,56,0.3,412,0.0,9,10,23.1,1013.2>"),
     {Z("1|2|1~80|3.4|21.5|56|0.3|412|0.0|9|10|23.1|1013.2")},
     Current({Z("1~80"), "3.4", "21.5", "56", "0.3", "412", "0.0", "23.1", "1013.2"}),
     Line({Z("1~80"), "3.4", "21.5", "56", "0.3", "412", "0.0", "23.1", "1013.2"})},
    {"two_records_back_to_back",
     "<" + GOOD + "><" + GOOD + ">",
     {GOOD_RECORD, GOOD_RECORD},
     Current(GOOD_VALUES),
     Line(GOOD_VALUES) + Line(GOOD_VALUES)},
    {"bad_record_after_good", "<" + GOOD + "><1,2,3>", {GOOD_RECORD, "1|2|3"}, "", Line(GOOD_VALUES)},
};

} // namespace

class DavisMeteoStream : public ::testing::TestWithParam<StreamCase> {};

TEST_P(DavisMeteoStream, CutsRecordsAndWritesFiles)
{
    const StreamCase& c = GetParam();
    TempDir folder;
    std::string before = LocalStamp();
    StationFeeder feeder(c.stream);
    RecordingMeteo meteo(1);
    meteo.SetAddress(feeder.Address(), 0);
    meteo.SetHistoryFolder(folder.Path().c_str());
    ASSERT_EQ(meteo.Start(), kes::kesErrorOk);
    ASSERT_TRUE(meteo.WaitRecords(c.records.size()));
    std::string after = LocalStamp();
    EXPECT_EQ(meteo.Stop(), kes::kesErrorOk);

    EXPECT_EQ(meteo.Records(), c.records);

    std::vector<std::string> currentStamps, logStamps;
    std::string current = ReadFile(folder.Path() + "/meteo_c");
    std::string log = ReadFile(folder.Path() + "/meteo");
    EXPECT_TRUE(MatchStamped(c.current, current, &currentStamps)) << current;
    EXPECT_TRUE(MatchStamped(c.log, log, &logStamps)) << log;

    // the stamp is the local time of the record, the same in both files
    for (const std::string& stamp : logStamps) {
        EXPECT_LE(before, stamp);
        EXPECT_GE(after, stamp);
    }
    if (!currentStamps.empty()) {
        ASSERT_FALSE(logStamps.empty());
        EXPECT_EQ(currentStamps[0], logStamps.back());
    }
}

INSTANTIATE_TEST_SUITE_P(Records, DavisMeteoStream, ::testing::ValuesIn(STREAM_CASES),
                         [](const ::testing::TestParamInfo<StreamCase>& info) {
                             return std::string(info.param.name);
                         });

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
    std::string current = ReadFile(folder.Path() + "/meteo_c");
    std::string log = ReadFile(folder.Path() + "/meteo");
    feeder.HangUp();

    // the reader keeps failing on the closed socket, once per pass
    auto deadline = Clock::now() + std::chrono::seconds(10);
    while (captured.CountContaining("Socket is close.") < 3 && Clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_GE(captured.CountContaining("Socket is close."), 3u);

    EXPECT_EQ(meteo.Stop(), kes::kesErrorOk);
    EXPECT_EQ(meteo.Records().size(), 1u);
    EXPECT_EQ(ReadFile(folder.Path() + "/meteo_c"), current);
    EXPECT_EQ(ReadFile(folder.Path() + "/meteo"), log);
}

TEST(DavisMeteoConnection, StopEndsAReaderWaitingOnASilentGateway)
{
    StationFeeder feeder("");
    TempDir folder;
    kesEnergyDavisMeteo meteo;
    meteo.SetAddress(feeder.Address(), 0);
    meteo.SetHistoryFolder(folder.Path().c_str());
    ASSERT_EQ(meteo.Start(), kes::kesErrorOk);
    std::this_thread::sleep_for(std::chrono::milliseconds(120));

    // bounded by the receive time-out and one pause: about 350 ms
    auto started = Clock::now();
    EXPECT_EQ(meteo.Stop(), kes::kesErrorOk);
    auto took = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - started).count();
    EXPECT_LT(took, 700);
}

TEST(DavisMeteoConnection, StopWithoutStartDoesNothing)
{
    kes_test::ErrorCapture captured;
    kesEnergyDavisMeteo meteo;
    EXPECT_EQ(meteo.Stop(), kes::kesErrorOk);
    EXPECT_EQ(meteo.Stop(), kes::kesErrorOk);
    EXPECT_EQ(captured.Count(), 0u) << captured.Dump();
}

TEST(DavisMeteoConnection, StartWithoutGatewayFailsAndStaysStopped)
{
    kes_test::ErrorCapture captured;
    kesEnergyDavisMeteo meteo;
    meteo.SetAddress(("127.0.0.1:" + std::to_string(DeadPort())).c_str(), 0);
    EXPECT_EQ(meteo.Start(), kes::kesErrorFailed);
    EXPECT_EQ(captured.CountContaining("Can not open socket for davis meteo"), 1u);
    EXPECT_EQ(meteo.Stop(), kes::kesErrorOk);
}

TEST(DavisMeteoConnection, AddressIsKeptWhileRunning)
{
    StationFeeder feeder("");
    TempDir folder;
    RecordingMeteo meteo(1);
    meteo.SetAddress(feeder.Address(), 0);
    meteo.SetHistoryFolder(folder.Path().c_str());
    ASSERT_EQ(meteo.Start(), kes::kesErrorOk);
    {
        kes_test::ErrorCapture captured;
        meteo.SetAddress(("127.0.0.1:" + std::to_string(DeadPort())).c_str(), 0);
        EXPECT_EQ(captured.CountContaining("You must stop the line before to reset the address"), 1u);
    }
    EXPECT_EQ(meteo.Stop(), kes::kesErrorOk);
    // the listener's backlog takes the second connection: the old address held
    EXPECT_EQ(meteo.Start(), kes::kesErrorOk);
    EXPECT_EQ(meteo.Stop(), kes::kesErrorOk);
}

struct FolderCase {
    const char* name;
    const char* suffix; // appended to the temporary folder
};

class DavisMeteoFolder : public ::testing::TestWithParam<FolderCase> {};

TEST_P(DavisMeteoFolder, FilesLandInTheFolderWhateverItsTrailingSeparators)
{
    TempDir folder;
    kesEnergyDavisMeteo meteo;
    meteo.SetHistoryFolder((folder.Path() + GetParam().suffix).c_str());
    meteo.OnData(GOOD_RECORD.c_str());
    std::vector<std::string> stamps;
    EXPECT_TRUE(MatchStamped(Current(GOOD_VALUES), ReadFile(folder.Path() + "/meteo_c"), &stamps));
    EXPECT_TRUE(MatchStamped(Line(GOOD_VALUES), ReadFile(folder.Path() + "/meteo"), &stamps));
}

INSTANTIATE_TEST_SUITE_P(Forms, DavisMeteoFolder,
                         ::testing::Values(FolderCase{"bare", ""}, FolderCase{"one", "/"}, FolderCase{"three", "///"}),
                         [](const ::testing::TestParamInfo<FolderCase>& info) {
                             return std::string(info.param.name);
                         });

TEST(DavisMeteoFiles, MissingFolderLosesTheRecordWithAReport)
{
    kes_test::ErrorCapture captured;
    TempDir folder;
    kesEnergyDavisMeteo meteo;
    meteo.SetHistoryFolder((folder.Path() + "/missing").c_str());
    meteo.OnData(GOOD_RECORD.c_str());
    EXPECT_EQ(captured.CountContaining("Can not open file " + folder.Path() + "/missing/meteo_c"), 1u);
    EXPECT_EQ(captured.CountContaining("kesError Number : 3"), 1u);
    EXPECT_FALSE(std::filesystem::exists(folder.Path() + "/missing"));
}

TEST(DavisMeteoFiles, UnwritableLogLeavesTheCurrentFileEmpty)
{
    kes_test::ErrorCapture captured;
    TempDir folder;
    std::filesystem::create_directory(folder.Path() + "/meteo");
    kesEnergyDavisMeteo meteo;
    meteo.SetHistoryFolder(folder.Path().c_str());
    meteo.OnData(GOOD_RECORD.c_str());
    EXPECT_EQ(captured.CountContaining("Can not open file " + folder.Path() + "/meteo\n"), 1u);
    EXPECT_TRUE(std::filesystem::exists(folder.Path() + "/meteo_c"));
    EXPECT_EQ(ReadFile(folder.Path() + "/meteo_c"), "");
}
