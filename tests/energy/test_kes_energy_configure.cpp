#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "error_capture.h"
#include "kes_energy.h"
#include "kes_energy_davis_meteo.h"
#include "kes_energy_line.h"
#include "kes_enerysystem.h"
#include "kes_net_test_support.h"
#include "test_process.h"

using kes::kesEError;
using kes::kesEvent;
using kes::Energy::kesEnergy;

namespace {

struct ConfigCase {
    const char* name;
    std::string xml; // "" leaves the file missing
    bool ok;
    const char* record; // a text the log must hold, or ""
    size_t lines;
    bool davis;
};

std::ostream& operator<<(std::ostream& out, const ConfigCase& c)
{
    return out << c.name;
}

std::string value(int type, int mid, unsigned int iid, int fid)
{
    return "<value type=\"" + std::to_string(type) + "\" mid=\"" + std::to_string(mid) + "\" iid=\"" +
           std::to_string(iid) + "\" fid=\"" + std::to_string(fid) + "\"/>";
}

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
    {"latin1_declared",
     "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?><energy><!-- d\xe9part --><line id=\"1\" adr=\"a:1\">" +
         value(2, 3, 1, 0) + "</line></energy>\xf4",
     true, "", 1, false},
    {"latin1_undeclared", "<energy><!-- d\xe9part --><v\xe0\x8c/></energy>\xf4", true, "", 0, false},
    {"wrong_root_case", "<ENERGY><line id=\"1\" adr=\"a:1\">" + value(2, 3, 1, 0) + "</line></ENERGY>", false,
     "Main energy node not found in file:", 0, false},
    {"empty_energy", "<energy/>", true, "", 0, false},
    {"line_in_any_case", "<energy><LINE id=\"1\" adr=\"a:1\">" + value(2, 3, 1, 0) + "</LINE></energy>", true, "", 1,
     false},
    {"line_without_devices", "<energy><line id=\"1\" adr=\"a:1\"/></energy>", true, "", 0, false},
    {"comment_and_text_in_line",
     "<energy><line id=\"1\" adr=\"a:1\"><!-- note -->stray" + value(2, 3, 1, 0) + "</line></energy>", true,
     "Text inside line 1 ignored", 1, false},
    {"unknown_types",
     "<energy><line id=\"1\" adr=\"a:1\">" + value(0, 3, 1, 0) + value(12, 3, 2, 0) + value(-1, 3, 3, 0) +
         "</line></energy>",
     true, "Invalid Device Type 12", 0, false},
    {"missing_and_text_attributes", "<energy><line><value type=\"2\" mid=\"x\" iid=\"\"/></line></energy>", true, "", 1,
     false},
    {"negative_and_huge_numbers",
     "<energy><line id=\"-5\" adr=\"a:1\">" + value(2, -3, 4294967295u, 999) +
         "<value type=\"2\" mid=\"99999999999\" iid=\"7\" fid=\"1\"/></line></energy>",
     true, "", 1, false},
    {"same_iid_twice_on_a_device",
     "<energy><line id=\"1\" adr=\"a:1\">" + value(2, 3, 1, 0) + value(2, 3, 1, 1) + "</line></energy>", false,
     "Can not register parameter 1", 0, false},
    {"same_fid_twice_on_a_device",
     "<energy><line id=\"1\" adr=\"a:1\">" + value(2, 3, 1, 0) + value(2, 3, 2, 0) + "</line></energy>", true,
     "kesEnergy::DataAddress already exist with same setting, skip...", 1, false},
    {"same_line_id_twice",
     "<energy><line id=\"1\" adr=\"a:1\">" + value(2, 3, 1, 0) + "</line><line id=\"1\" adr=\"b:1\">" +
         value(2, 4, 2, 0) + "</line></energy>",
     true, "", 2, false},
    {"mid_zero_and_656",
     "<energy><line id=\"1\" adr=\"a:1\">" + value(2, 0, 1, 0) + value(2, 656, 2, 0) + "</line></energy>", true, "", 1,
     false},
    {"address_without_port", "<energy><line id=\"1\" adr=\"127.0.0.1\">" + value(2, 3, 1, 0) + "</line></energy>", true,
     "", 1, false},
    {"two_davis", "<energy><davis adr=\"a:1\"/><DAVIS adr=\"b:2\"/></energy>", true, "", 0, true},
    {"other_children_skipped", "<energy v=\"1\"><meter/><!-- c --></energy>", true, "", 0, false},
};

class Configuration : public ::testing::TestWithParam<ConfigCase> {};

TEST_P(Configuration, BuildsWhatTheFileSaysOrRefusesIt)
{
    const ConfigCase& c = GetParam();
    kes_test::TempDir dir;
    std::string path = dir.File("conf.xml");
    if (!c.xml.empty())
        kes_test::WriteFile(path, c.xml);
    kes_test::ErrorCapture log;
    kesEnergy energy;
    kesEError result = energy.Configure(path.c_str());
    EXPECT_EQ(result == kes::kesErrorOk, c.ok) << log.Dump();
    if (*c.record) {
        EXPECT_TRUE(log.Contains(c.record)) << log.Dump();
    }
    EXPECT_EQ(energy.GetLines().size(), c.lines);
    EXPECT_EQ(energy.GetDavisMeteo() != nullptr, c.davis);
}

INSTANTIATE_TEST_SUITE_P(Files, Configuration, ::testing::ValuesIn(CONFIG_CASES),
                         [](const ::testing::TestParamInfo<ConfigCase>& info) { return std::string(info.param.name); });

class ConfigurationIntruder : public ::testing::TestWithParam<kes_test::Intruder> {};

TEST_P(ConfigurationIntruder, IsRefusedWithARecordNamingThePath)
{
    kes_test::TempDir dir;
    const std::string path = dir.File("conf.xml");
    kesEnergy energy;
    kesEError result = kes::kesErrorOk;
    if (!kes_test::RefusesIntruder(path, GetParam(), [&] { result = energy.Configure(path.c_str()); }))
        GTEST_SKIP() << "root reads every file";
    EXPECT_NE(kes::kesErrorOk, result);
}

INSTANTIATE_TEST_SUITE_P(Kinds, ConfigurationIntruder, ::testing::ValuesIn(kes_test::INTRUDERS),
                         [](const ::testing::TestParamInfo<kes_test::Intruder>& info) { return info.param.name; });

TEST(ConfigurationMap, ChainsValuesOfOneDeviceInFileOrder)
{
    kes_test::TempDir dir;
    kes_test::WriteFile(dir.File("conf.xml"), "<energy><line id=\"2\" adr=\"a:1\">" + value(2, 7, 1201, 0) +
                                                  value(2, 7, 1202, 1) + value(2, 7, 1203, 2) + value(2, 656, 9, 0) +
                                                  "</line></energy>");
    kes_test::ErrorCapture log;
    kesEnergy energy;
    ASSERT_EQ(energy.Configure(dir.File("conf.xml").c_str()), kes::kesErrorOk);
    const kesEnergy::DataAddress* item = energy.GetDataAddress(0x02BC0002);
    std::vector<unsigned int> iids;
    for (; item; item = item->next) {
        EXPECT_EQ(item->key, 0x02BC0002u);
        iids.push_back(item->iid * 10 + item->fid);
    }
    EXPECT_EQ(iids, (std::vector<unsigned int>{12010, 12021, 12032}));
    // mid 656 is 65600, cut to 16 bits: 64.
    ASSERT_NE(energy.GetDataAddress((64u << 16) | 2), nullptr);
}

// Readings of every device type, routed through a configuration that asks for
// fids 0 to 10 of each: only the fids of the type's row may come out.
struct RouteCase {
    const char* name;
    int code;
    std::vector<unsigned char> record; // the reading record's bytes, built by the case
    std::vector<std::string> texts;    // by fid
};

std::ostream& operator<<(std::ostream& out, const RouteCase& c)
{
    return out << c.name;
}

template <typename T>
std::vector<unsigned char> bytes_of(const T& record)
{
    const unsigned char* p = reinterpret_cast<const unsigned char*>(&record);
    return std::vector<unsigned char>(p, p + sizeof(T));
}

std::vector<RouteCase> route_cases()
{
    std::vector<RouteCase> cases;
    kes::kesEnergyPanelData panel = {300, 240.0f, 25.0f};
    cases.push_back({"panel", 1, bytes_of(panel), {"240", "25"}});
    kes::kesEnergyStringData string = {300, 230.5f, 1.5f};
    cases.push_back({"string", 2, bytes_of(string), {"230.5", "1.5", "345.8"}});
    cases.push_back({"string_one", 10, bytes_of(string), {"230.5", "1.5", "345.8"}});
    kes::kesEnergyStringTwoData two = {300, 200.0f, 1.0f, 2.0f};
    cases.push_back({"string_two", 6, bytes_of(two), {"200", "1", "200", "2", "400"}});
    kes::kesEnergyStringThreeData three = {300, 100.0f, 1.0f, 2.0f, 3.0f};
    cases.push_back({"string_three", 11, bytes_of(three), {"100", "1", "100", "2", "200", "3", "300"}});
    kes::kesEnergyStringFourData four = {300, 10.0f, 1.0f, 2.0f, 3.0f, 4.5f};
    cases.push_back({"string_four", 7, bytes_of(four), {"10", "1", "10", "2", "20", "3", "30", "4.5", "45"}});
    kes::kesEnergyAlarmData alarm = {300, 12.0f, 0.5f, 3};
    cases.push_back({"alarm", 3, bytes_of(alarm), {"12", "0.5", "6", "3"}});
    kes::kesEnergyPulseCounterData pulse = {300, 123456, 7};
    cases.push_back({"pulse", 5, bytes_of(pulse), {"514.3", "123.5"}});
    kes::kesEnergyPulseCounterTwoData pulse2 = {300, 1000, 0, 2000, 1800};
    cases.push_back({"pulse_two", 8, bytes_of(pulse2), {"0", "1", "2", "2"}});
    kes::kesEnergyPulseCounterFiveData pulse5 = {300, 1, 3600, 2, 1800, 3, 1200, 4, 900, 5, 0};
    cases.push_back({"pulse_five", 9, bytes_of(pulse5), {"1", "0", "2", "0", "3", "0", "4", "0", "0", "0"}});
    return cases;
}

class Routing : public ::testing::TestWithParam<RouteCase> {};

TEST_P(Routing, PublishesEveryFieldOfTheRowAndNothingBeyond)
{
    const RouteCase& c = GetParam();
    kes_test::TempDir dir;
    std::string xml = "<energy><line id=\"2\" adr=\"a:1\">";
    for (int fid = 0; fid <= 10; ++fid)
        xml += value(c.code, 3, 100 + fid, fid);
    xml += "</line></energy>";
    kes_test::WriteFile(dir.File("conf.xml"), xml);

    kes_test::DatagramReceiver receiver;
    kesEnergy::MiraPort = receiver.Port();
    kes_test::ErrorCapture log;
    kesEnergy energy;
    ASSERT_EQ(energy.Configure(dir.File("conf.xml").c_str()), kes::kesErrorOk) << log.Dump();

    std::vector<unsigned char> record = c.record;
    kesEvent event = {2, c.code, record.data()};
    kesEnergy::on_event(event);
    std::vector<std::string> texts;
    std::string datagram;
    while (receiver.Receive(&datagram, 200)) {
        unsigned int iid;
        memcpy(&iid, datagram.data(), 4);
        EXPECT_EQ(iid, 100u + texts.size());
        EXPECT_EQ(static_cast<unsigned char>(datagram[4]), datagram.size() - 5);
        texts.push_back(datagram.substr(5));
    }
    EXPECT_EQ(texts, c.texts);

    // A failed read of the same device: one "f" per configured value, in chain order.
    unsigned int key = (300u << 16) | 2;
    kesEvent failed = {2, kes::kesEnergyEventCommunicationError, &key};
    kesEnergy::on_event(failed);
    size_t count = 0;
    while (receiver.Receive(&datagram, 200)) {
        EXPECT_EQ(datagram.size(), 6u);
        EXPECT_EQ(datagram.substr(4), std::string("\x01"
                                                  "f",
                                                  2));
        ++count;
    }
    EXPECT_EQ(count, 11u);
    kesEnergy::MiraPort = 16549;
}

INSTANTIATE_TEST_SUITE_P(DeviceTypes, Routing, ::testing::ValuesIn(route_cases()),
                         [](const ::testing::TestParamInfo<RouteCase>& info) { return std::string(info.param.name); });

TEST(RoutingKeys, OtherLinesAndUnknownCodesPublishNothing)
{
    kes_test::TempDir dir;
    kes_test::WriteFile(dir.File("conf.xml"),
                        "<energy><line id=\"2\" adr=\"a:1\">" + value(2, 3, 1, 0) + "</line></energy>");
    kes_test::DatagramReceiver receiver;
    kesEnergy::MiraPort = receiver.Port();
    kes_test::ErrorCapture log;
    kesEnergy energy;
    ASSERT_EQ(energy.Configure(dir.File("conf.xml").c_str()), kes::kesErrorOk);
    kes::kesEnergyStringData string = {300, 1.0f, 1.0f};
    kesEvent otherLine = {3, 2, &string};
    kesEvent ambient = {2, 4, &string};
    kesEvent unknown = {2, 12, &string};
    kesEvent nothing = {2, 2, nullptr};
    for (const kesEvent& e : {otherLine, ambient, unknown, nothing})
        kesEnergy::on_event(e);
    std::string datagram;
    EXPECT_FALSE(receiver.Receive(&datagram, 200));
    kesEnergy::MiraPort = 16549;
}

} // namespace
