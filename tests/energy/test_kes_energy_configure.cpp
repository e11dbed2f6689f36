#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <regex>
#include <thread>

#include "datagram_receiver.h"
#include "error_capture.h"
#include "kes_energy.h"
#include "kes_energy_davis_meteo.h"
#include "kes_energy_device_types.h"
#include "kes_energy_line.h"
#include "kes_energy_mira.h"
#include "test_process.h"

using namespace kes;
using namespace kes::Energy;
typedef std::vector<std::string> Texts;

namespace {

std::string value(int type, int mid, unsigned int iid, int fid)
{
    return "<value type=\"" + std::to_string(type) + "\" mid=\"" + std::to_string(mid) + "\" iid=\"" +
           std::to_string(iid) + "\" fid=\"" + std::to_string(fid) + "\"/>";
}

std::string line(int id, const std::string& values)
{
    return "<line id=\"" + std::to_string(id) + "\" adr=\"a:1\">" + values + "</line>";
}

struct ConfigCase {
    const char* name;
    std::string xml; // "" leaves the file missing
    bool ok;
    const char* record; // a text the log must hold, or ""
    size_t lines;
    bool davis;
};

// clang-format off
const ConfigCase CONFIG_CASES[] = {
    {"missing_file", "", false, "Can not read configuration file: ", 0, false},
    {"malformed", "<energy><line id=\"1\"></energy>", false, "Error", 0, false},
    {"not_xml", "\x01\x02garbage", false, "Error", 0, false},
    // a cut multi-byte sequence once made the parser read past its buffer,
    // where it reads UTF-8: after a declaration of UTF-8 or of no encoding
    {"broken_utf8", "<?xml version=\"1.0\"?><energy><line id=\"1\" adr=\"a:1\"><v\xe0\x8c type=\"2\"/></line></energy>",
     false, "Configuration file is not valid UTF-8 at byte 56", 0, false},
    {"truncated_utf8", "<?xml version=\"1.0\" encoding=\"utf-8\"?><energy/>\xf4", false, "not valid UTF-8", 0, false},
    {"byte_order_mark_wins", "\xef\xbb\xbf<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?><energy/>\xf4", false,
     "not valid UTF-8", 0, false},
    {"utf8_comment", "<energy><!-- d\xc3\xa9part --></energy>", true, "", 0, false},
    // elsewhere it reads byte by byte
    {"latin1_declared", "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?><energy><!-- d\xe9part -->" +
     line(1, value(2, 3, 1, 0)) + "</energy>\xf4", true, "", 1, false},
    {"latin1_undeclared", "<energy><!-- d\xe9part --><v\xe0\x8c/></energy>\xf4", true, "", 0, false},
    {"wrong_root_case", "<ENERGY>" + line(1, value(2, 3, 1, 0)) + "</ENERGY>", false, "Main energy node not found in file:", 0, false},
    {"empty_energy", "<energy/>", true, "", 0, false},
    {"line_in_any_case", "<energy><LINE id=\"1\" adr=\"a:1\">" + value(2, 3, 1, 0) + "</LINE></energy>", true, "", 1, false},
    {"line_without_devices", "<energy>" + line(1, "") + "</energy>", true, "", 0, false},
    {"comment_and_text_in_line", "<energy>" + line(1, "<!-- note -->stray" + value(2, 3, 1, 0)) + "</energy>", true,
     "Text inside line 1 ignored", 1, false},
    {"unknown_types", "<energy>" + line(1, value(0, 3, 1, 0) + value(12, 3, 2, 0) + value(-1, 3, 3, 0)) + "</energy>",
     true, "Invalid Device Type 12", 0, false},
    {"missing_and_text_attributes", "<energy><line><value type=\"2\" mid=\"x\" iid=\"\"/></line></energy>", true, "", 1, false},
    {"negative_and_huge_numbers", "<energy><line id=\"-5\" adr=\"a:1\">" + value(2, -3, 4294967295u, 999) +
     "<value type=\"2\" mid=\"99999999999\" iid=\"7\" fid=\"1\"/></line></energy>", true, "", 1, false},
    {"same_iid_twice_on_a_device", "<energy>" + line(1, value(2, 3, 1, 0) + value(2, 3, 1, 1)) + "</energy>", false,
     "Can not register parameter 1", 0, false},
    {"same_fid_twice_on_a_device", "<energy>" + line(1, value(2, 3, 1, 0) + value(2, 3, 2, 0)) + "</energy>", true,
     "kesEnergy::DataAddress already exist with same setting, skip...", 1, false},
    {"same_line_id_twice", "<energy>" + line(1, value(2, 3, 1, 0)) + line(1, value(2, 4, 2, 0)) + "</energy>", true, "", 2, false},
    {"mid_zero_and_656", "<energy>" + line(1, value(2, 0, 1, 0) + value(2, 656, 2, 0)) + "</energy>", true, "", 1, false},
    {"address_without_port", "<energy><line id=\"1\" adr=\"127.0.0.1\">" + value(2, 3, 1, 0) + "</line></energy>", true, "", 1, false},
    {"two_davis", "<energy><davis adr=\"a:1\"/><DAVIS adr=\"b:2\"/></energy>", true, "", 0, true},
    {"other_children_skipped", "<energy v=\"1\"><meter/><!-- c --></energy>", true, "", 0, false},
};
// clang-format on

class Configuration : public ::testing::TestWithParam<ConfigCase> {};

TEST_P(Configuration, BuildsWhatTheFileSaysOrRefusesIt)
{
    const ConfigCase& c = GetParam();
    kes_test::TempDir dir;
    if (!c.xml.empty())
        kes_test::WriteFile(dir.File("conf.xml"), c.xml);
    kes_test::ErrorCapture log;
    kesEnergy energy;
    EXPECT_EQ(energy.Configure(dir.File("conf.xml")) == kesErrorOk, c.ok) << log.Dump();
    EXPECT_TRUE(!*c.record || log.Contains(c.record)) << log.Dump();
    EXPECT_EQ(energy.GetLines().size(), c.lines);
    EXPECT_EQ(energy.GetDavisMeteo() != nullptr, c.davis);
}

INSTANTIATE_TEST_SUITE_P(Files, Configuration, ::testing::ValuesIn(CONFIG_CASES),
                         [](const ::testing::TestParamInfo<ConfigCase>& info) { return std::string(info.param.name); });

// A daemon configured with the lines, publishing to a receiver of its own,
// its history store running in a folder of its own, without its timer.
struct Daemon {
    explicit Daemon(const std::string& lines)
    {
        kes_test::WriteFile(dir.File("conf.xml"), "<energy>" + lines + "</energy>");
        kesEnergy::MiraPort = receiver.Port();
        EXPECT_EQ(energy.Configure(dir.File("conf.xml")), kesErrorOk) << log.Dump();
        energy.GetHistory().SetHistoryFolder(dir.Path());
        EXPECT_EQ(energy.GetHistory().Start(), kesErrorOk);
        energy.GetHistory().kesTimer::Stop();
    }
    ~Daemon() { kesEnergy::MiraPort = MIRA_PORT; }
    // The datagrams of one event as "iid:text": all of them, since a marker sent after it ends the wait.
    std::string Publish(unsigned int source, int code, const void* data)
    {
        kesEnergy::on_event(kesEvent{source, code, const_cast<void*>(data)});
        kesEnergySendToMira(0, "end", receiver.Port());
        std::string texts, datagram;
        while (receiver.Receive(&datagram, 1000) && datagram.substr(4) != std::string("\3end")) {
            unsigned int iid;
            memcpy(&iid, datagram.data(), 4);
            EXPECT_EQ(static_cast<unsigned char>(datagram[4]), datagram.size() - 5);
            texts += (texts.empty() ? "" : " ") + std::to_string(iid) + ":" + datagram.substr(5);
        }
        return texts;
    }
    // The rows of the day file after one tick, its header left out.
    std::string DayRows()
    {
        // an interval of a millisecond: each average is then the middle of its range
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        kesEnegyHistoryItem::MS_TIME = 1;
        energy.GetHistory().OnTimer();
        const std::string day = kes_test::ReadFile(dir.File("d"));
        EXPECT_EQ(day.compare(0, 2, "H|"), 0) << day;
        return day.substr(day.find('\n') + 1);
    }

    kes_test::TempDir dir;
    kes_test::DatagramReceiver receiver;
    kes_test::ErrorCapture log;
    kesEnergy energy;
};

template <typename T>
std::vector<unsigned char> bytes_of(const T& record)
{
    const unsigned char* p = reinterpret_cast<const unsigned char*>(&record);
    return std::vector<unsigned char>(p, p + sizeof(T));
}

// A reading of each device type, through a configuration that asks for fids 0
// to 10 of device 300 as iids 100 to 110: only the fids of the type's row come
// out, as the datagram and the history store each take them.
struct RouteCase {
    const char* name;
    int code;
    std::vector<unsigned char> record;
    std::string texts; // the datagrams, "iid:text"
    std::string day;   // the rows of the day file
};

std::vector<RouteCase> route_cases()
{
    const std::string none =
        "102|f|f|f\n103|f|f|f\n104|f|f|f\n105|f|f|f\n106|f|f|f\n107|f|f|f\n108|f|f|f\n109|f|f|f\n110|f|f|f\n";
    const std::string panel = "100|240|240|240\n101|25|25|25\n" + none;
    const kesEnergyStringData string = {300, 230.5f, 1.5f};
    // clang-format off
    return {
        {"panel", 1, bytes_of(kesEnergyPanelData{300, 240.0f, 25.0f}), "100:240 101:25", panel},
        {"string", 2, bytes_of(string), "100:230.5 101:1.5 102:345.8", "102|345.8|345.8|345.8|345.8\n"},
        {"string_one", 10, bytes_of(string), "100:230.5 101:1.5 102:345.8", "102|345.8|345.8|345.8|345.8\n"},
        {"string_two", 6, bytes_of(kesEnergyStringTwoData{300, 200.0f, 1.0f, 2.0f}), "100:200 101:1 102:200 103:2 104:400",
         "102|200|200|200|200\n104|400|400|400|400\n"},
        {"string_three", 11, bytes_of(kesEnergyStringThreeData{300, 100.0f, 1.0f, 2.0f, 3.0f}),
         "100:100 101:1 102:100 103:2 104:200 105:3 106:300",
         "102|100|100|100|100\n104|200|200|200|200\n106|300|300|300|300\n"},
        {"string_four", 7, bytes_of(kesEnergyStringFourData{300, 10.0f, 1.0f, 2.0f, 3.0f, 4.5f}),
         "100:10 101:1 102:10 103:2 104:20 105:3 106:30 107:4.5 108:45",
         "102|10|10|10|10\n104|20|20|20|20\n106|30|30|30|30\n108|45|45|45|45\n"},
        // the status goes to the store as a whole number, which no file shows
        {"alarm", 3, bytes_of(kesEnergyAlarmData{300, 12.0f, 0.5f, 3}), "100:12 101:0.5 102:6 103:3", "102|6|6|6|6\n"},
        // a count goes out in thousands and to the store in pulses; a rate to no file
        {"pulse", 5, bytes_of(kesEnergyPulseCounterData{300, 123456, 7}), "100:514.3 101:123.5", "101|123.5\n"},
        {"pulse_two", 8, bytes_of(kesEnergyPulseCounterTwoData{300, 1000, 0, 2000, 1800}), "100:0 101:1 102:2 103:2",
         "101|1\n103|2\n"},
        {"pulse_five", 9, bytes_of(kesEnergyPulseCounterFiveData{300, 1500, 3600, 2500, 1800, 3500, 1200, 4500, 900, 5500, 0}),
         "100:1 101:1.5 102:2 103:2.5 104:3 105:3.5 106:4 107:4.5 108:0 109:5.5",
         "101|1.5\n103|2.5\n105|3.5\n107|4.5\n109|5.5\n"},
    };
    // clang-format on
}

class Routing : public ::testing::TestWithParam<RouteCase> {};

TEST_P(Routing, PublishesAndStoresEveryFieldOfTheRowAndNothingBeyond)
{
    const RouteCase& c = GetParam();
    std::string values;
    for (int fid = 0; fid <= 10; ++fid)
        values += value(c.code, 3, 100 + fid, fid);
    Daemon daemon(line(2, values));
    std::vector<unsigned char> record = c.record;
    EXPECT_EQ(daemon.Publish(2, c.code, record.data()), c.texts);
    EXPECT_EQ(daemon.DayRows(), c.day);
    // a failed read of the same device: one "f" per configured value, in chain order
    const unsigned int key = (300u << 16) | 2;
    EXPECT_EQ(daemon.Publish(2, kesEnergyEventCommunicationError, &key),
              "100:f 101:f 102:f 103:f 104:f 105:f 106:f 107:f 108:f 109:f 110:f");
}

INSTANTIATE_TEST_SUITE_P(DeviceTypes, Routing, ::testing::ValuesIn(route_cases()),
                         [](const ::testing::TestParamInfo<RouteCase>& info) { return std::string(info.param.name); });

// Two lines of one id, a third of another: a device is found by line id and
// bus address, its values chained in file order; mid 656 is 65600 cut to 16 bits.
TEST(RoutingKeys, EachEventReachesTheValuesOfItsLineAndAddress)
{
    Daemon daemon(line(2, value(2, 3, 1, 0) + value(2, 7, 1201, 0) + value(2, 7, 1202, 1) + value(2, 7, 1203, 2) +
                              value(2, 656, 9, 0)) +
                  line(2, value(2, 4, 2, 0)) + line(5, value(2, 3, 3, 0)));
    const kesEnergyStringData at300 = {300, 1.0f, 2.0f}, at400 = {400, 4.0f, 2.0f}, at700 = {700, 230.5f, 1.5f},
                              at64 = {64, 6.0f, 2.0f};
    const unsigned int failed400 = (400u << 16) | 2, failed300onLine3 = (300u << 16) | 3;
    const kesEnergyAlarmData alarm700 = {700, 0, 0, 3}, alarm500 = {500, 0, 0, 4};
    const struct {
        unsigned int source;
        int code;
        const void* data;
        const char* texts;
    } rows[] = {
        {2, 2, &at300, "1:1"},
        {2, 2, &at400, "2:4"},
        {5, 2, &at300, "3:1"},
        {2, 2, &at700, "1201:230.5 1202:1.5 1203:345.8"},
        {2, 2, &at64, "9:6"},
        {3, 2, &at300, ""},  // a line without the device
        {2, 4, &at300, ""},  // Ambient: never read
        {2, 12, &at300, ""}, // no device type
        {2, 2, nullptr, ""}, // no reading
        {2, kesEnergyEventCommunicationError, &failed400, "2:f"},
        {2, kesEnergyEventCommunicationError, &failed300onLine3, ""},
        {2, kesEnergyEventAlarmStatus, &alarm700, ""}, // to the file "a", as the first value of the device
        {2, kesEnergyEventAlarmStatus, &alarm500, ""},
    };
    for (const auto& row : rows)
        EXPECT_EQ(daemon.Publish(row.source, row.code, row.data), row.texts) << row.source << "/" << row.code;
    const std::string alarms = kes_test::ReadFile(daemon.dir.File("a"));
    EXPECT_TRUE(std::regex_match(alarms, std::regex("[0-9]{12}\\|1201\\|3\n"))) << alarms;
}

// A record: the item number in host byte order, the length byte, the text; a
// text the length byte can not count is refused whole, with a report.
TEST(MiraDatagram, ReceiverGetsTheExactRecord)
{
    const unsigned int one = 1;
    if (*reinterpret_cast<const unsigned char*>(&one) != 1)
        GTEST_SKIP() << "expected bytes are written for a little-endian host";
    // clang-format off
    const struct {
        unsigned int iid;
        std::string text, bytes;
    } rows[] = {
        {1201, "230.5", std::string("\xB1\x04\x00\x00\x05" "230.5", 10)},
        {1201, "f", std::string("\xB1\x04\x00\x00\x01" "f", 6)},
        {7, "0", std::string("\x07\x00\x00\x00\x01" "0", 6)},
        {0x12345678u, "1", std::string("\x78\x56\x34\x12\x01" "1", 6)},
        {0xFFFFFFFFu, "", std::string("\xFF\xFF\xFF\xFF\x00", 5)},
        {3, std::string(255, 'a'), std::string("\x03\x00\x00\x00\xFF", 5) + std::string(255, 'a')},
        {5, std::string(256, 'b'), ""},
    };
    // clang-format on
    kes_test::ErrorCapture captured;
    kes_test::DatagramReceiver receiver;
    for (const auto& row : rows) {
        EXPECT_EQ(kesEnergySendToMira(row.iid, row.text, receiver.Port()),
                  row.bytes.empty() ? -1 : int(row.bytes.size()));
        if (row.bytes.empty())
            kesEnergySendToMira(0, "", receiver.Port()); // comes first when nothing went before it
        std::string datagram;
        EXPECT_TRUE(receiver.Receive(&datagram));
        EXPECT_EQ(datagram, row.bytes.empty() ? std::string(5, '\0') : row.bytes);
    }
    EXPECT_EQ(captured.CountContaining("Text of item 5 is 256 bytes, over 255: not published"), 1u);
}

} // namespace
