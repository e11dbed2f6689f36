#include <gtest/gtest.h>

#include <signal.h>

#include <chrono>
#include <cstring>
#include <regex>
#include <thread>

#include "datagram_receiver.h"
#include "error_capture.h"
#include "kes_energy.h"
#include "kes_energy_mira.h"
#include "test_process.h"

using namespace kes;
using namespace kes::Energy;

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

// xml "" leaves the file missing; record is a text the log must hold, or "".
// clang-format off
struct ConfigCase { const char* name; std::string xml; bool ok; const char* record; size_t lines; bool davis; };
std::ostream& operator<<(std::ostream& out, const ConfigCase& c) { return out << c.name; }
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
    // one module on two lines of one id would fill each other's values
    {"same_module_on_two_lines_of_one_id", "<energy>" + line(1, value(2, 3, 1, 0)) + line(1, value(1, 3, 2, 1)) + "</energy>",
     true, "Module 3 is already on another line of id 1, value 2 skipped", 1, false},
    {"mid_zero_and_656", "<energy>" + line(1, value(2, 0, 1, 0) + value(2, 656, 2, 0)) + "</energy>", true, "", 1, false},
    {"line_in_any_case_without_port", "<energy><LINE id=\"1\" adr=\"127.0.0.1\">" + value(2, 3, 1, 0) + "</LINE></energy>", true, "", 1, false},
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

// One daemon for every route. Line 2 asks for fids 0 to 10 of a device of each
// type, mid the type's number, as iids type * 100 + fid: only the fids of the
// type's row come out, on the datagram and in the history store each as it
// takes them. For the keys: a second line of id 2, a line 5, mid 656 that is
// 65600 cut to 16 bits, and values chained in file order.
TEST(Routing, EachEventReachesTheValuesOfItsLineAndAddressOnly)
{
    std::string values;
    for (int type : {1, 2, 3, 5, 6, 7, 8, 9, 10, 11})
        for (int fid = 0; fid <= 10; ++fid)
            values += value(type, type, type * 100 + fid, fid);
    kes_test::TempDir dir;
    // clang-format off
    kes_test::WriteFile(dir.File("conf.xml"), "<energy>" + line(2, values + value(2, 20, 1, 0) + value(2, 22, 1201, 0) +
        value(2, 22, 1202, 1) + value(2, 22, 1203, 2) + value(2, 656, 9, 0)) + line(2, value(2, 21, 2, 0)) +
        line(5, value(2, 20, 3, 0)) + "</energy>");
    // clang-format on
    kes_test::DatagramReceiver receiver;
    kes_test::ErrorCapture log;
    kesEnergy energy;
    kesEnergy::MiraPort = receiver.Port();
    ASSERT_EQ(energy.Configure(dir.File("conf.xml")), kesErrorOk) << log.Dump();
    // the history store in the folder, without its timer: the test ticks it
    energy.GetHistory().SetHistoryFolder(dir.Path());
    ASSERT_EQ(energy.GetHistory().Start(), kesErrorOk);
    energy.GetHistory().kesTimer::Stop();
    // clang-format off
    const kesEnergyPanelData panel = {100, 240.0f, 25.0f};
    const kesEnergyStringData string = {200, 230.5f, 1.5f}, one = {1000, 230.5f, 1.5f}, at20 = {2000, 1.0f, 2.0f},
        at21 = {2100, 4.0f, 2.0f}, at22 = {2200, 230.5f, 1.5f}, at656 = {64, 6.0f, 2.0f};
    const kesEnergyStringTwoData two = {600, 200.0f, 1.0f, 2.0f};
    const kesEnergyStringThreeData three = {1100, 100.0f, 1.0f, 2.0f, 3.0f};
    const kesEnergyStringFourData four = {700, 10.0f, 1.0f, 2.0f, 3.0f, 4.5f};
    const kesEnergyAlarmData alarm = {300, 12.0f, 0.5f, 3}, status22 = {2200, 0, 0, 3}, status23 = {2300, 0, 0, 4};
    const kesEnergyPulseCounterData pulse = {500, 123456, 7};
    const kesEnergyPulseCounterTwoData pulse2 = {800, 1000, 0, 2000, 1800};
    const kesEnergyPulseCounterFiveData pulse5 = {900, 1500, 3600, 2500, 1800, 3500, 1200, 4500, 900, 5500, 0};
    const unsigned int failed200 = (200u << 16) | 2, failed21 = (2100u << 16) | 2, failed20onLine3 = (2000u << 16) | 3;
    // the datagrams of each event as "iid:text"
    const struct { unsigned int source; int code; const void* data; const char* texts; } rows[] = {
        {2, 1, &panel, "100:240 101:25"},
        {2, 2, &string, "200:230.5 201:1.5 202:345.8"},
        {2, 10, &one, "1000:230.5 1001:1.5 1002:345.8"},
        {2, 6, &two, "600:200 601:1 602:200 603:2 604:400"},
        {2, 11, &three, "1100:100 1101:1 1102:100 1103:2 1104:200 1105:3 1106:300"},
        {2, 7, &four, "700:10 701:1 702:10 703:2 704:20 705:3 706:30 707:4.5 708:45"},
        {2, 3, &alarm, "300:12 301:0.5 302:6 303:3"},
        // a count goes out in thousands, a rate in pulses an hour
        {2, 5, &pulse, "500:514.3 501:123.5"},
        {2, 8, &pulse2, "800:0 801:1 802:2 803:2"},
        {2, 9, &pulse5, "900:1 901:1.5 902:2 903:2.5 904:3 905:3.5 906:4 907:4.5 908:0 909:5.5"},
        {2, 2, &at20, "1:1"},
        {2, 2, &at21, "2:4"},
        {5, 2, &at20, "3:1"},
        {2, 2, &at22, "1201:230.5 1202:1.5 1203:345.8"},
        {2, 2, &at656, "9:6"},
        {3, 2, &at20, ""},   // a line without the device
        {2, 4, &at20, ""},   // Ambient: never read
        {2, 12, &at20, ""},  // no device type
        {2, 2, nullptr, ""}, // no reading
        {2, kesEnergyEventCommunicationError, &failed200, "200:f 201:f 202:f 203:f 204:f 205:f 206:f 207:f 208:f 209:f 210:f"},
        {2, kesEnergyEventCommunicationError, &failed21, "2:f"},
        {2, kesEnergyEventCommunicationError, &failed20onLine3, ""},
        {2, kesEnergyEventAlarmStatus, &status22, ""}, // to the file "a", as the first value of the device
        {2, kesEnergyEventAlarmStatus, &status23, ""},
    };
    // clang-format on
    for (const auto& row : rows) {
        kesEnergy::on_event(kesEvent{row.source, row.code, const_cast<void*>(row.data)});
        // the datagrams of the event as "iid:text", up to an empty one sent after them
        kesEnergySendToMira(0, "", receiver.Port());
        std::string texts, datagram;
        for (unsigned int iid; receiver.Receive(&datagram) && datagram.size() > 5;) {
            memcpy(&iid, datagram.data(), 4);
            EXPECT_EQ(static_cast<unsigned char>(datagram[4]), datagram.size() - 5);
            texts += (texts.empty() ? "" : " ") + std::to_string(iid) + ":" + datagram.substr(5);
        }
        EXPECT_EQ(texts, row.texts) << row.source << "/" << row.code;
    }
    kesEnergy::MiraPort = MIRA_PORT;
    // A record (as on a little-endian host): the item number in host byte order, the
    // length byte, the text; a text the length byte can not count is refused whole, with a report.
    // clang-format off
    const struct { unsigned int iid; std::string text, bytes; } records[] = {
        {1201, "230.5", std::string("\xB1\x04\x00\x00\x05" "230.5", 10)},
        {0x12345678u, "1", std::string("\x78\x56\x34\x12\x01" "1", 6)},
        {0xFFFFFFFFu, "", std::string("\xFF\xFF\xFF\xFF\x00", 5)},
        {3, std::string(255, 'a'), std::string("\x03\x00\x00\x00\xFF", 5) + std::string(255, 'a')},
        {5, std::string(256, 'b'), std::string(5, '\0')}, // refused: the empty record behind it comes first
    };
    // clang-format on
    for (const auto& record : records) {
        const int sent = kesEnergySendToMira(record.iid, record.text, receiver.Port());
        EXPECT_EQ(sent, record.iid == 5 ? -1 : int(record.bytes.size()));
        if (sent < 0)
            kesEnergySendToMira(0, "", receiver.Port());
        std::string datagram;
        EXPECT_TRUE(receiver.Receive(&datagram) && datagram == record.bytes) << record.iid;
    }
    EXPECT_EQ(log.CountContaining("Text of item 5 is 256 bytes, over 255: not published"), 1u);
    const std::string alarms = kes_test::ReadFile(dir.File("a"));
    EXPECT_TRUE(std::regex_match(alarms, std::regex("[0-9]{12}\\|1201\\|3\n"))) << alarms;
    // Powers as energy rows, Panel values as value rows, counts, taken in pulses,
    // as totals in thousands; the status goes as a whole number, which no file shows.
    std::string day = "202|345.8|345.8|345.8|345.8\n302|6|6|6|6\n602|200|200|200|200\n604|400|400|400|400\n"
                      "702|10|10|10|10\n704|20|20|20|20\n706|30|30|30|30\n708|45|45|45|45\n"
                      "1002|345.8|345.8|345.8|345.8\n1102|100|100|100|100\n1104|200|200|200|200\n"
                      "1106|300|300|300|300\n1203|345.8|345.8|345.8|345.8\n100|240|240|240\n101|25|25|25\n";
    day += "102|f|f|f\n103|f|f|f\n104|f|f|f\n105|f|f|f\n106|f|f|f\n107|f|f|f\n108|f|f|f\n109|f|f|f\n110|f|f|f\n";
    // one tick over an interval of a millisecond: each average is then the middle of its range
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
    kesEnegyHistoryItem::MS_TIME = 1;
    energy.GetHistory().OnTimer();
    const std::string file = kes_test::ReadFile(dir.File("d"));
    EXPECT_EQ(file.substr(file.find('\n') + 1), // behind the header of the hour
              day + "501|123.5\n801|1\n803|2\n901|1.5\n903|2.5\n905|3.5\n907|4.5\n909|5.5\n");
}

const char* const HELP = "\nKes. Energy Command Help\n"
                         "-conf configuration file ------ [e.g - \"/data/conf.xml\" or \"./conf.xml\"]\n"
                         "-dir data directory ----------- [e.g - \"/data\" or \"./data\"]\n"
                         "-history History time --------- [e.g - save data every minute, possible values are "
                         "1-2-3-4-5-6-10-12-15-20-30-60]\n"
                         "-version appliation version --- [e.g - 1.0.0]\n"
                         "-fversion fremwork version ---- [e.g - 1.0.0]\n"
                         "-log log file name ------------ [file application log]\n\n";

// CONF, DIR and LOG stand for a file, a folder and a log file of the test. The
// texts come in this order in the output, or in the log file if one is asked
// for; whole: the only text is the whole output; sigterm: sent once the daemon
// waits, which must then end within a second.
// clang-format off
struct RunCase { std::vector<std::string> args; int status; std::vector<std::string> texts; bool whole = false, sigterm = false; };
std::ostream& operator<<(std::ostream& out, const RunCase& c) { return out << ::testing::PrintToString(c.args); }
// clang-format on

class DaemonCommandLine : public ::testing::TestWithParam<RunCase> {};

TEST_P(DaemonCommandLine, PrintsAndEndsWithItsStatus)
{
    const RunCase& c = GetParam();
    kes_test::TempDir dir;
    kes_test::WriteFile(dir.File("conf.xml"), "<energy></energy>");
    std::vector<std::string> argv = {kes_test::BinPath("kes_energy")};
    for (const std::string& a : c.args)
        argv.push_back(a == "CONF" ? dir.File("conf.xml") : a == "DIR" ? dir.Path() : a == "LOG" ? dir.File("log") : a);
    kes_test::ChildProcess child;
    ASSERT_TRUE(child.Start(argv, dir.Path()));
    if (c.sigterm) {
        ASSERT_TRUE(kes_test::CatchesSigterm(child.Pid(), 2000));
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        child.Signal(SIGTERM);
    }
    EXPECT_EQ(child.Wait(c.sigterm ? 1000 : 5000), c.status);
    const bool toLog = !c.args.empty() && c.args[0] == "-log";
    const std::string out = toLog ? kes_test::ReadFile(dir.File("log")) : child.Output();
    EXPECT_TRUE(!c.whole || out == c.texts[0]) << out;
    for (size_t i = 0, at = 0; i < c.texts.size(); ++i) {
        at = out.find(c.texts[i], at);
        ASSERT_NE(at, std::string::npos) << "missing in order: " << c.texts[i] << "\n" << out;
    }
    EXPECT_TRUE(!toLog || out.find("\x1b[") == std::string::npos) << "no colours in the log file";
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Cases, DaemonCommandLine, ::testing::Values(
    RunCase{{"-version"}, 0, {"0.2.2.0\n"}, true}, RunCase{{"-fversion"}, 0, {"0.5.0\n"}, true},
    RunCase{{"-h", "-conf"}, 0, {HELP}, true}, RunCase{{"-conf", "x", "-H", "-version"}, 0, {HELP}, true},
    RunCase{{}, 2, {"Configuration file not found", "Energy Init"}},
    RunCase{{"-dir", "DIR", "-conf"}, 2, {"Configuration file is invalid", "Energy Init"}},
    RunCase{{"-conf", "/nonexistent/conf.xml"}, 2, {"Configuration file does not exist"}},
    RunCase{{"-conf", "CONF"}, 2, {"Data directory not found"}},
    RunCase{{"-conf", "CONF", "-dir", ""}, 2, {"Data directory is invalid"}},
    RunCase{{"-conf", "CONF", "-dir", "/nonexistent/dir"}, 2, {"Data directory does not exist"}},
    RunCase{{"-HISTORY", "7"}, 2, {"History Time changed to 10 minutes", "Configuration file not found"}},
    RunCase{{"-history", "0"}, 2, {"History Time 0 is not valid", "History Time changed to 60 minutes"}},
    RunCase{{"-log", "LOG"}, 2, {"Custom Message - : Configuration file not found\n", "Custom Message - : Energy Init\n"}},
    RunCase{{"-conf", "CONF", "-dir", "DIR"}, 0, {"Info : [EXIT SUCCESS][FILE:energy/main.cpp][FUNCTION:main]"}, false, true}));
// clang-format on

TEST(DaemonHistoryTime, RoundsUpToADivisorOfSixty)
{
    // clang-format off
    const unsigned long cases[][2] = {{1, 1}, {5, 5}, {7, 10}, {9, 10}, {11, 12}, {13, 15}, {16, 20}, {21, 30}, {31, 60},
                                      {59, 60}, {60, 60}, {61, 60}, {200, 60}, {257, 1}, {300, 60}, {0, 60}, {256, 60}};
    // clang-format on
    for (const auto& c : cases)
        EXPECT_EQ(kes::Energy::kesHistoryTimeFromValue(c[0]), c[1]) << c[0];
}

} // namespace
