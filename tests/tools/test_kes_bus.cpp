// kes_bus: its command line as a process, its commands in-process on an
// engine that does not sleep, and the configuration file it writes.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/resource.h>

#include <array>
#include <iterator>
#include <regex>
#include <sstream>
#include <tuple>

#include "error_capture.h"
#include "kes_bus_conf.h"
#include "kes_bus_tool.h"
#include "test_gateway_bus.h"
#include "test_process.h"

namespace {

bool contains(const std::string& i_text, const std::string& i_part)
{
    return i_text.find(i_part) != std::string::npos;
}

// The text with each ADR and CONF put in place.
std::string fill(const std::string& i_text, const std::string& i_address, const std::string& i_conf = "")
{
    return std::regex_replace(std::regex_replace(i_text, std::regex("ADR"), i_address), std::regex("CONF"), i_conf);
}

std::vector<std::string> words(const std::string& i_text)
{
    std::istringstream in(i_text);
    return {std::istream_iterator<std::string>(in), std::istream_iterator<std::string>()};
}

// A key nobody answers gets a frame of another unit at once: the search takes
// it for silence without waiting out its time-out.
class QuickGateway : public kes_test::TestBusGateway {
public:
    QuickGateway()
    {
        AddDevice(kes::kesEnergyDeviceString, 1001, 3);
        SetDeviceRegisters(1001, 0, {2300, 150});
        SetIdentity(1001, "STR-1", "SN-1001", "2024-02-03");
        AddDevice(kes::kesEnergyDevicePulseCounterTwo, 2002, 4);
        SetDeviceRegisters(2002, 0, {0, 1500, 3600, 1, 0, 0});
        SetRefusals(2002, 1);
        AddDevice(kes::kesEnergyDeviceAlarm, 3003, 5);
        SetDeviceRegisters(3003, 0, {2300, 150, 0, 0});
        SetAlarmCycle(3003, 2, kes::kesEnergyAlarmPowerAboveMaximum, 321);
        AddDevice(kes::kesEnergyDevicePanel, 20007, 9); // fine key 7
        Start();
    }
    ~QuickGateway() { Stop(); }

protected:
    kes_test::Bytes Reply(const kes_test::Bytes& i_request) override
    {
        kes_test::Bytes reply = TestBusGateway::Reply(i_request);
        if (reply.empty() && i_request.size() == 6 && i_request[0] == 0xFF && (i_request[1] == 3 || i_request[1] == 4))
            return kes_test::WithCrc({0xFE, 0, 0, 0, 0, 0, 0, 0, 0, 0});
        return reply;
    }
};

// The engine of the tool without its pauses: the gateway's replies are all
// there when they are read.
class QuickTool : public kes::kesBusTool {
public:
    QuickTool() : kes::kesBusTool(stderr) {}

protected:
    void pause_after_answer() const override {}
    void pause_after_failure() const override {}
    int drop_arriving(kes::kesEnergySocket* io_pChannel, unsigned int) const override
    {
        return io_pChannel->Discard(0);
    }
};

// The program's own reading of options, the help and the exit status; then
// its commands in-process on one gateway: each row finds the bus as the rows
// before it left it.
TEST(KesBusTool, CommandLineAndCommandsOnTheBus)
{
    QuickGateway gateway;
    const std::string address = gateway.GetAddress();
    // output: a part of it; all of it for a success; "kes_bus: " comes with the help
    // clang-format off
    const std::tuple<const char*, int, const char*> processes[] = {
        {"-h", 0, "\nKes. Bus Command Help\nkes_bus -adr ADDRESS [options] COMMAND [ARGUMENTS]\n"},
        {"scan", 2, "kes_bus: -adr ADDRESS is required\n"},
        {"-adr ADR read 1", 2, "kes_bus: Wrong number of arguments for read\n"},
        {"-adr ADR find -5", 2, "kes_bus: Option -5 needs a value\n"},
        {"-adr ADR -speed 9600 scan", 2, "kes_bus: Unknown option -speed\n"},
        {"-adr ADR -timeout soon scan", 2, "kes_bus: Option -timeout takes a number from 1 to 3600000: \"soon\"\n"},
        {"-adr ADR -id 42950 number 1", 2, "kes_bus: Option -id takes a number from 0 to 42949: \"42950\"\n"},
        {"-adr 127.0.0.1:1 enable", 2, "Can not open the bus at 127.0.0.1:1\n"},
        // a check that outlasts its wait is no failure
        {"-adr ADR -wait 0 alarm 5 1 2 3", 0, "Alarm Cycle Check: In Progress\nThe check did not end within 0 ms; ask again with alarm-status\n"},
    };
    // clang-format on
    for (const auto& row : processes) {
        std::vector<std::string> argv = words(fill(std::get<0>(row), address));
        argv.insert(argv.begin(), kes_test::BinPath("kes_bus"));
        kes_test::ChildProcess child;
        const int status = child.Start(argv) ? child.Wait(10000) : -1;
        const std::string output = child.Output(), expected = fill(std::get<2>(row), address);
        SCOPED_TRACE(std::string(std::get<0>(row)) + "\n" + output);
        EXPECT_EQ(std::get<1>(row), status);
        EXPECT_TRUE(status == 0 && argv[1] != "-h" ? output == expected : contains(output, expected));
        EXPECT_EQ(argv[1] == "-h" || expected.rfind("kes_bus: ", 0) == 0, contains(output, "Kes. Bus Command Help"));
    }

    kes_test::TempDir dir;
    const std::string status = "Alarm Cycle Check: Terminated\nAlarm Status: Returned power greater than maximun, "
                               "possible manumission\nAlarm Returned Power: 321\n";
    const std::string scan = "[String] serial 1001 module 9\n[PulseCounterTwo] serial 2002 module 4\n[Alarm] serial "
                             "3003 module 5\n[Panel] serial 20007 module 9\n";
    const std::string found = "Searching the bus at ADR...\n" + std::regex_replace(scan, std::regex("\\["), "found [") +
                              "4 device(s) found\n";
    const std::string string = "Voltage 230.00 V\nAmpere 1.50 A\n";
    // out, err: the standard output and error, or the error of bad arguments
    // clang-format off
    const std::tuple<const char*, int, std::string, std::string> commands[] = {
        {"", 3, "", "No command given"},
        {"sing", 3, "", "Unknown command \"sing\""},
        {"read Lamp 3", 3, "", "TYPE must be a number from 1 to 11 or a device type name: \"Lamp\""},
        {"read 0 3", 3, "", "TYPE must be a number from 1 to 11 or a device type name: \"0\""},
        {"info panel 256", 3, "", "MID must be a number from 0 to 255: \"256\""},
        {"read ambient 3", 3, "", "An Ambient device has no measurement to read; try info"},
        {"mute 12x", 3, "", "SERIAL must be a number from 0 to 4294967295: \"12x\""},
        {"set-address 7 101", 3, "", "MID must be a number from 1 to 100: \"101\""},
        {"alarm 1 2 3 70000", 3, "", "T3 must be a number from 0 to 65535: \"70000\""},
        {"scan-fine 10001", 3, "", "COUNT must be a number from 1 to 10000: \"10001\""},
        {"-conf read 1 3", 3, "", "-conf goes with scan, scan-nomute, scan-fine and number"},
        {"read string 3", 0, "[String][3]\n" + string, ""},
        {"read 8 4", 0, "[PulseCounterTwo][4]\nOA Pulse Count 1500\nOA Last Time 3600 ms\nOR Pulse Count 65536\nOR Last Time 0 ms\n", ""},
        {"info String 3", 0, "[String][3]\n\tHardware Serial ------------:0\n\tModbus Address -------------:300\n\tModel ----------------------:STR-1\n"
                             "\tSerial ---------------------:SN-1001\n\tTest Date ------------------:2024-02-03\n\tVoltage --------------------:230.00 V\n"
                             "\tAmpere ---------------------:1.50 A\n\tInstantaneous Power --------:345.00 W\n", ""},
        {"alarm 5 10 20 30", 0, status, ""},
        {"alarm-status 5", 0, status, ""},
        {"set-address 2002 9", 2, "", "Set address failed\n"},  // refused once
        {"set-address 0x7D1 9", 2, "", "Set address failed\n"}, // nobody has 2001: a second in vain
        {"set-address 0x3E9 9", 0, "Device 1001 has the module number 9\n", ""},
        {"read String 3", 2, "", "Read failed\n"},
        {"mute 1001", 0, "Device 1001 muted\n", ""},
        {"find 1001", 2, "", "No device answers for serial 1001\n"},
        {"enable", 0, "All devices answer searches\n", ""},
        {"scan-nomute", 0, scan, found}, // it neither enables nor mutes
        {"find 1001", 0, "[String] serial 1001 module 9\n", "found [String] serial 1001 module 9\n"},
        {"scan-fine 10", 0, "[Panel] serial 20007 module 9\n", "Searching the bus at ADR...\nfound [Panel] serial 20007 module 9\n1 device(s) found\n"},
        {"scan", 0, scan, found},
        {"-conf number 5", 0, "[String] serial 1001 module 9 -> 5\n[PulseCounterTwo] serial 2002 module 4 -> 6\n[Alarm] serial 3003 module 5 -> 7\n"
                              "[Panel] serial 20007 module 9 -> 8\n", found + "Line 1 at ADR written to CONF: 4 device(s), 13 value(s)\n"},
        {"read string 5", 0, "[String][5]\n" + string, ""},
    };
    // clang-format on
    kes_test::ErrorCapture records;
    for (const auto& row : commands) {
        SCOPED_TRACE(std::get<0>(row));
        std::vector<std::string> command = words(std::get<0>(row));
        const bool conf = !command.empty() && command[0] == "-conf";
        kes::kesBusOptions options{address, 50, 100, 100, 1, 3000, conf ? dir.File("conf.xml") : ""};
        command.erase(command.begin(), command.begin() + conf);
        QuickTool tool;
        std::string error;
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        const kes::kesEBusOutcome outcome = kes::kesBusRun(options, command, &error, tool);
        const std::string out = testing::internal::GetCapturedStdout(), err = testing::internal::GetCapturedStderr();
        EXPECT_EQ(std::get<1>(row), outcome);
        EXPECT_EQ(fill(std::get<2>(row), address), out);
        EXPECT_EQ(fill(std::get<3>(row), address, options.conf), outcome == kes::kesBusBadArguments ? error : err);
    }
    // the searches leave the engine's mode as they found it
    EXPECT_EQ(2, kes::kesEnergySystem::MODE);
    kes_test::TestBusGateway::Device alarm;
    ASSERT_TRUE(gateway.GetDevice(3003, &alarm));
    EXPECT_EQ((std::vector<uint16_t>{1, 10, 20, 30}), alarm.tuning);
}

// Devices as {type, module number, serial number}.
kes::kesArray<kes::kesEnergyDevice> devices(std::initializer_list<std::array<unsigned int, 3>> i_rows)
{
    kes::kesArray<kes::kesEnergyDevice> array;
    for (const auto& row : i_rows) {
        array.emplace_back();
        array.back().Type = static_cast<kes::kesEEnergyDeviceType>(row[0]);
        array.back().Address = static_cast<unsigned char>(row[1]);
        array.back().UniqueID = row[2];
    }
    return array;
}

const char* const ELSEWHERE = "<?xml version=\"1.0\"?>\n<!-- plant north -->\n<energy v=\"1\">\n"
                              "  <line id=\"4\" adr=\"10.0.0.5:502\"><v type=\"2\" mid=\"3\" iid=\"7\"/></line>\n"
                              "  <line id=\"2\" adr=\"/dev/ttyUSB0\"><!-- roof --><v iid=\"400200\"/></line>\n"
                              "  <davis adr=\"10.0.0.6:22222\"/>\n</energy>\n";

TEST(KesBusConf, WritesTheLineOfTheBusAndKeepsTheRest)
{
    const kes::kesArray<kes::kesEnergyDevice> plant = devices({{1, 2, 11}, {4, 0, 44}}), none,
                                              meter = devices({{8, 3, 88}}), shared = devices({{1, 9, 11}, {2, 9, 22}});
    const std::string note = "        <!-- written by kes_bus: iid = 100000 x id + 100 x mid + fid -->\n";
    // existing: null for no file; result: the file written, or a part of the refusal
    // clang-format off
    const std::tuple<const char*, const char*, unsigned int, const kes::kesArray<kes::kesEnergyDevice>&, std::string> rows[] = {
        {"a whole file", nullptr, kes::KES_BUS_LINE_ID_OF_FILE, plant,
         "<energy v=\"1\">\n    <line id=\"1\" adr=\"10.0.0.5:502\">\n" + note + "        <!-- [Panel] serial 11 module 2 -->\n"
         "        <!-- voltage, V -->\n        <value type=\"1\" mid=\"2\" iid=\"100200\" fid=\"0\" />\n        <!-- temperature, °C -->\n"
         "        <value type=\"1\" mid=\"2\" iid=\"100201\" fid=\"1\" />\n        <!-- [Ambient] serial 44 module 0: never read, no value -->\n"
         "    </line>\n</energy>\n"},
        {"the line of the address in place, with its id", ELSEWHERE, kes::KES_BUS_LINE_ID_OF_FILE, meter,
         "<?xml version=\"1.0\" ?>\n<!-- plant north -->\n<energy v=\"1\">\n    <line id=\"4\" adr=\"10.0.0.5:502\">\n" + note +
         "        <!-- [PulseCounterTwo] serial 88 module 3 -->\n        <!-- pulse rate 1, pulses/h -->\n"
         "        <value type=\"8\" mid=\"3\" iid=\"400300\" fid=\"0\" />\n        <!-- pulse count 1, pulses -->\n"
         "        <value type=\"8\" mid=\"3\" iid=\"400301\" fid=\"1\" />\n        <!-- pulse rate 2, pulses/h -->\n"
         "        <value type=\"8\" mid=\"3\" iid=\"400302\" fid=\"2\" />\n        <!-- pulse count 2, pulses -->\n"
         "        <value type=\"8\" mid=\"3\" iid=\"400303\" fid=\"3\" />\n    </line>\n    <line id=\"2\" adr=\"/dev/ttyUSB0\">\n"
         "        <!-- roof -->\n        <v iid=\"400200\" />\n    </line>\n    <davis adr=\"10.0.0.6:22222\" />\n</energy>\n"},
        {"a shared module number", nullptr, 1, shared, "[Panel] serial 11 module 9 and [String] serial 22 module 9 share a module number; "
                                                       "give each device its own with: kes_bus -adr 10.0.0.5:502 number 1 -conf "},
        {"nothing found", ELSEWHERE, 1, none, "No device with a value to read was found"},
        {"an id another line has", ELSEWHERE, 2, plant, "Line id 2 is the id of the line at /dev/ttyUSB0 in "},
        {"an item number another line has", ELSEWHERE, 4, plant, "Item number 400200 is taken by another line"},
        {"an id past 32-bit item numbers", "<energy><line id=\"50000\" adr=\"10.0.0.5:502\"/></energy>", kes::KES_BUS_LINE_ID_OF_FILE, plant,
         "Line id 50000 would take item numbers past 32 bits (at most 42949)"},
        {"a file that is no XML", "<energy><line", 1, plant, " at row 1"},
        {"a write that fails half way", ELSEWHERE, 1, plant, "File too large; it is as it was"},
    };
    // clang-format on
    rlimit before;
    getrlimit(RLIMIT_FSIZE, &before);
    const rlimit small = {200, before.rlim_max};
    signal(SIGXFSZ, SIG_IGN); // a write past the limit fails instead of ending the tests
    for (const auto& [name, existing, id, found, result] : rows) {
        kes_test::TempDir dir;
        const std::string path = dir.File("conf.xml");
        if (existing)
            kes_test::WriteFile(path, existing);
        setrlimit(RLIMIT_FSIZE, contains(name, "fails") ? &small : &before);
        std::string text;
        bool written = kes::kesBusWriteConfiguration(path, "10.0.0.5:502", id, found, &text);
        setrlimit(RLIMIT_FSIZE, &before);
        EXPECT_EQ(result[0] == '<', written) << name << ": " << text;
        EXPECT_TRUE(written ? result == kes_test::ReadFile(path) : contains(text, result)) << name << text;
        EXPECT_TRUE(written || kes_test::ReadFile(path) == (existing ? existing : "")) << name;
    }
}

} // namespace
