#include "kes_energy_davis_meteo.h"

#include "error_capture.h"
#include "loopback.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <regex>
#include <sstream>
#include <thread>

namespace {

using kes::kesString;
using kes::Energy::kesEnergyDavisMeteo;
using kes_test::ReadFile;
using kes_test::TempDir;
typedef std::vector<std::string> Texts;

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
    Texts parts;
    std::istringstream in(text + separator);
    for (std::string part; std::getline(in, part, separator);)
        parts.push_back(part);
    return parts;
}

// clang-format off
const std::string GOOD = "1,2,180,3.4,21.5,56,0.3,412,0.0,9,10,23.1,1013.2", ZERO("1\0" "80", 4);
const std::string GR = "1|2|180|3.4|21.5|56|0.3|412|0.0|9|10|23.1|1013.2", GV = "180|3.4|21.5|56|0.3|412|0.0|23.1|1013.2";
const std::string OTHER = "7|8|270|1.1|-3.5|91|0|0|0.2|9|10|19.8|998.4", OV = "270|1.1|-3.5|91|0|0|0.2|19.8|998.4";
// clang-format on

// Records and values as "\n"-separated lists; values are the nine a record
// put in the files, "" for a record dropped.
struct StreamCase {
    const char* name;
    std::string stream, records, values;
    unsigned int pause; // between two bytes, in milliseconds
};

// clang-format off
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
    TempDir folder;
    std::string before = LocalStamp();
    kes_test::LoopbackServer station; // plays the stream, then hangs up
    station.Serve([&c](int fd, int) { kes_test::WriteAll(fd, c.stream.data(), c.stream.size()); });
    RecordingMeteo meteo(c.pause);
    meteo.SetAddress(station.Address(), 0);
    meteo.SetHistoryFolder(folder.Path());
    ASSERT_EQ(meteo.Start(), kes::kesErrorOk);
    // no reconnection: once hung up, the reader fails on the closed socket at every pass
    for (int i = 0; i < 2500 && captured.CountContaining("Socket is close.") < 3; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    std::string after = LocalStamp();
    EXPECT_EQ(meteo.Stop(), kes::kesErrorOk);
    EXPECT_EQ(meteo.records, Split(c.records, '\n'));
    EXPECT_EQ(captured.CountContaining("Weather record without end dropped"), c.stream.size() > 4096 ? 1u : 0u);

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
    EXPECT_EQ(Unstamped(ReadFile(folder.File("meteo")), &stamps), log);
    EXPECT_EQ(Unstamped(ReadFile(folder.File("meteo_c")), &stamps), current);
    for (const std::string& stamp : stamps)
        EXPECT_TRUE(before <= stamp && stamp <= after) << stamp;
    EXPECT_TRUE(current.empty() || stamps.back() == stamps[stamps.size() - 2]);
}

INSTANTIATE_TEST_SUITE_P(Records, DavisMeteoStream, ::testing::ValuesIn(STREAM_CASES),
                         [](const ::testing::TestParamInfo<StreamCase>& info) { return info.param.name; });

TEST(DavisMeteoConnection, AddressIsKeptWhileRunningAndStopIsPrompt)
{
    kes_test::ErrorCapture captured;
    kesEnergyDavisMeteo idle;
    EXPECT_EQ(idle.Stop(), kes::kesErrorOk);
    kes_test::LoopbackServer gone;
    gone.StopListening();

    kes_test::LoopbackServer station;
    station.Serve([](int, int) {}, 2); // each hung up at once: the reader never waits on the socket
    kesEnergyDavisMeteo meteo(1);
    meteo.SetAddress(station.Address(), 0);
    ASSERT_EQ(meteo.Start(), kes::kesErrorOk);
    meteo.SetAddress(gone.Address(), 0);
    EXPECT_EQ(captured.CountContaining("You must stop the line before to reset the address"), 1u);
    EXPECT_EQ(meteo.Stop(), kes::kesErrorOk);
    EXPECT_EQ(meteo.Start(), kes::kesErrorOk); // the old address held
    EXPECT_EQ(meteo.Stop(), kes::kesErrorOk);
    station.Join();
    EXPECT_EQ(station.Accepted(), 2);
    meteo.SetAddress(gone.Address(), 0);
    EXPECT_EQ(meteo.Start(), kes::kesErrorFailed);
    EXPECT_EQ(captured.CountContaining("Can not open socket for davis meteo"), 1u);

    // a silent station: the stop waits out at most the receive time-out and one pause
    kes_test::LoopbackServer silent;
    kes_test::Gate hangUp;
    silent.Serve([&hangUp](int, int) { hangUp.Wait(5000); });
    kesEnergyDavisMeteo slow;
    slow.SetAddress(silent.Address(), 0);
    ASSERT_EQ(slow.Start(), kes::kesErrorOk);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    auto started = std::chrono::steady_clock::now();
    EXPECT_EQ(slow.Stop(), kes::kesErrorOk);
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(700));
    hangUp.Open();
}

// A folder that is missing, shown as stored (one separator, always), or a
// "meteo" that is no file: the record is lost with a report, "meteo_c" left empty.
TEST(DavisMeteoFiles, AFileThatCanNotBeOpenedLosesTheRecordWithAReport)
{
    // clang-format off
    const char* rows[][2] = {{"missing", "missing/meteo_c"}, {"missing/", "missing/meteo_c"},
                             {"missing///", "missing/meteo_c"}, {"", "meteo"}};
    // clang-format on
    for (const auto& row : rows) {
        SCOPED_TRACE(row[0]);
        kes_test::ErrorCapture captured;
        TempDir folder;
        std::filesystem::create_directory(folder.File("meteo"));
        kesEnergyDavisMeteo meteo;
        meteo.SetHistoryFolder(folder.File(row[0]));
        meteo.OnData(GR);
        EXPECT_EQ(captured.CountContaining("Can not open file " + folder.File(row[1]) + "\n"), 1u) << captured.Dump();
        EXPECT_EQ(captured.CountContaining("kesError Number : 3"), 1u);
        EXPECT_EQ(ReadFile(folder.File("meteo_c")), "");
    }
}

} // namespace
