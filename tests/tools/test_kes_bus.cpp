// kes_bus run as a process against the simulated bus.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/resource.h>

#include <array>
#include <string>
#include <vector>

#include "kes_bus_conf.h"
#include "kes_enerysystem.h"
#include "test_gateway_bus.h"
#include "test_process.h"

using kes_test::BinPath;
using kes_test::ChildProcess;
using kes_test::TestBusGateway;

namespace {

const char* const HELP_TITLE = "Kes. Bus Command Help";

struct ToolRun {
    int status;
    std::string output;
};

ToolRun run_kes_bus(const std::vector<std::string>& i_arguments, unsigned int i_timeoutMs = 10000)
{
    std::vector<std::string> argv = {BinPath("kes_bus")};
    argv.insert(argv.end(), i_arguments.begin(), i_arguments.end());
    ChildProcess child;
    ToolRun run = {-1, std::string()};
    if (!child.Start(argv))
        return run;
    run.status = child.Wait(i_timeoutMs);
    run.output = child.Output();
    return run;
}

// The engine's floors: a silent search key costs two frames of 50 ms.
std::vector<std::string> fast(const TestBusGateway& i_gateway, std::vector<std::string> i_command)
{
    std::vector<std::string> arguments = {
        "-adr", i_gateway.GetAddress(), "-timeout", "50", "-answer", "5", "-failure", "30", "-attempts", "1"};
    arguments.insert(arguments.end(), i_command.begin(), i_command.end());
    return arguments;
}

bool contains(const std::string& i_text, const std::string& i_part)
{
    return i_text.find(i_part) != std::string::npos;
}

TEST(KesBusTool, HelpAndBadArguments)
{
    ToolRun help = run_kes_bus({"-h"});
    EXPECT_EQ(0, help.status);
    EXPECT_TRUE(contains(help.output, HELP_TITLE));

    struct Row {
        std::vector<std::string> arguments;
        const char* error;
    };
    const Row rows[] = {
        {{"scan"}, "kes_bus: -adr ADDRESS is required\n"},
        {{"-adr", "127.0.0.1:1"}, "kes_bus: No command given\n"},
        {{"-adr", "127.0.0.1:1", "sing"}, "kes_bus: Unknown command \"sing\"\n"},
        {{"-adr", "127.0.0.1:1", "read", "1"}, "kes_bus: Wrong number of arguments for read\n"},
        {{"-adr", "127.0.0.1:1", "read", "Lamp", "3"}, "TYPE must be a number from 1 to 11 or a device type name"},
        {{"-adr", "127.0.0.1:1", "read", "0", "3"}, "TYPE must be"},
        {{"-adr", "127.0.0.1:1", "info", "panel", "256"}, "MID must be a number from 0 to 255: \"256\""},
        {{"-adr", "127.0.0.1:1", "read", "ambient", "3"}, "An Ambient device has no measurement to read"},
        {{"-adr", "127.0.0.1:1", "mute", "12x"}, "SERIAL must be a number"},
        {{"-adr", "127.0.0.1:1", "find", "-5"}, "Option -5 needs a value"},
        {{"-adr", "127.0.0.1:1", "set-address", "7", "101"}, "MID must be a number from 1 to 100"},
        {{"-adr", "127.0.0.1:1", "alarm", "1", "2", "3", "70000"}, "T3 must be a number from 0 to 65535"},
        {{"-adr", "127.0.0.1:1", "-speed", "9600", "scan"}, "kes_bus: Unknown option -speed\n"},
        {{"-adr", "127.0.0.1:1", "-timeout", "soon", "scan"}, "Option -timeout takes a number"},
        {{"-adr", "127.0.0.1:1", "scan-fine", "10001"}, "COUNT must be a number from 1 to 10000"},
        {{"-adr", "127.0.0.1:1", "-conf", "c.xml", "read", "1", "3"}, "-conf goes with scan, scan-nomute, scan-fine"},
        {{"-adr", "127.0.0.1:1", "-id", "42950", "number", "1"}, "Option -id takes a number from 0 to 42949"},
    };
    for (const Row& row : rows) {
        ToolRun run = run_kes_bus(row.arguments);
        EXPECT_EQ(2, run.status) << row.error;
        EXPECT_TRUE(contains(run.output, row.error)) << run.output;
        EXPECT_TRUE(contains(run.output, HELP_TITLE)) << row.error;
        // one line of error before the help
        EXPECT_EQ(0u, run.output.find("kes_bus: ")) << run.output;
    }
}

TEST(KesBusTool, UnreachableBusFails)
{
    TestBusGateway gateway;
    ASSERT_TRUE(gateway.Start());
    std::string address = gateway.GetAddress();
    gateway.Stop();
    ToolRun run = run_kes_bus({"-adr", address, "enable"});
    EXPECT_EQ(2, run.status);
    EXPECT_TRUE(contains(run.output, "Can not open the bus at " + address)) << run.output;
    EXPECT_FALSE(contains(run.output, HELP_TITLE));
}

TEST(KesBusTool, ReadsReportsAndAlarm)
{
    TestBusGateway gateway;
    gateway.AddDevice(kes::kesEnergyDeviceString, 1001, 3);
    gateway.SetDeviceRegisters(1001, 0, {2300, 150});
    gateway.SetIdentity(1001, "STR-1", "SN-1001", "2024-02-03");
    gateway.AddDevice(kes::kesEnergyDevicePulseCounterTwo, 2002, 4);
    gateway.SetDeviceRegisters(2002, 0, {0, 1500, 3600, 1, 0, 0});
    gateway.AddDevice(kes::kesEnergyDeviceAlarm, 3003, 5);
    gateway.SetDeviceRegisters(3003, 0, {2300, 150, 0, 0});
    gateway.SetAlarmCycle(3003, 2, kes::kesEnergyAlarmPowerAboveMaximum, 321);
    ASSERT_TRUE(gateway.Start());

    struct Row {
        std::vector<std::string> command;
        int status;
        std::string output;
    };
    const Row rows[] = {
        {{"read", "string", "3"}, 0, "[String][3]\nVoltage 230.00 V\nAmpere 1.50 A\n"},
        {{"read", "8", "4"},
         0,
         "[PulseCounterTwo][4]\nOA Pulse Count 1500\nOA Last Time 3600 ms\nOR Pulse Count 65536\nOR Last Time 0 ms\n"},
        {{"info", "String", "3"},
         0,
         "[String][3]\n"
         "\tHardware Serial ------------:0\n"
         "\tModbus Address -------------:300\n"
         "\tModel ----------------------:STR-1\n"
         "\tSerial ---------------------:SN-1001\n"
         "\tTest Date ------------------:2024-02-03\n"
         "\tVoltage --------------------:230.00 V\n"
         "\tAmpere ---------------------:1.50 A\n"
         "\tInstantaneous Power --------:345.00 W\n"},
        {{"alarm", "5", "10", "20", "30", "-wait", "3000"},
         0,
         "Alarm Cycle Check: Terminated\n"
         "Alarm Status: Returned power greater than maximun, possible manumission\n"
         "Alarm Returned Power: 321\n"},
        {{"alarm-status", "5"},
         0,
         "Alarm Cycle Check: Terminated\n"
         "Alarm Status: Returned power greater than maximun, possible manumission\n"
         "Alarm Returned Power: 321\n"},
        {{"set-address", "0x7D1", "9"}, 0, "Device 2001 has the module number 9\n"}, // nobody has 2001
        {{"set-address", "1001", "9"}, 0, "Device 1001 has the module number 9\n"},
        {{"read", "String", "9"}, 0, "[String][9]\nVoltage 230.00 V\nAmpere 1.50 A\n"},
        {{"read", "String", "3"}, 2, "Read failed\n"},
        {{"mute", "1001"}, 0, "Device 1001 muted\n"},
        {{"find", "1001"}, 2, "No device answers for serial 1001\n"},
        {{"enable"}, 0, "All devices answer searches\n"},
        {{"find", "1001"}, 0, "found [String] serial 1001 module 9\n[String] serial 1001 module 9\n"},
    };
    for (const Row& row : rows) {
        ToolRun run = run_kes_bus(fast(gateway, row.command));
        std::string what = row.command[0] + " " + (row.command.size() > 1 ? row.command[1] : "");
        // set-address of a serial nobody has waits for its reply in vain
        if (row.command[0] == "set-address" && row.command[1] == "0x7D1") {
            EXPECT_EQ(2, run.status) << run.output;
            EXPECT_TRUE(contains(run.output, "Set address failed")) << run.output;
            continue;
        }
        EXPECT_EQ(row.status, run.status) << what << "\n" << run.output;
        if (row.status == 0)
            EXPECT_EQ(row.output, run.output) << what;
        else
            EXPECT_TRUE(contains(run.output, row.output)) << what << "\n" << run.output;
    }
    TestBusGateway::Device alarm;
    ASSERT_TRUE(gateway.GetDevice(3003, &alarm));
    EXPECT_EQ((std::vector<uint16_t>{1, 10, 20, 30}), alarm.tuning);
}

// scan mutes each device it finds; scan-nomute, for buses whose devices can
// not be muted, sends no mute at all.
TEST(KesBusTool, ScanListsEveryDevice)
{
    const bool muting[] = {true, false};
    for (bool mute : muting) {
        SCOPED_TRACE(mute ? "scan" : "scan-nomute");
        TestBusGateway gateway;
        gateway.AddDevice(kes::kesEnergyDeviceStringFour, 16909060, 9);
        gateway.AddDevice(kes::kesEnergyDevicePanel, 12345678, 9);
        ASSERT_TRUE(gateway.Start());
        ToolRun run = run_kes_bus(fast(gateway, {mute ? "scan" : "scan-nomute"}), 120000);
        EXPECT_EQ(0, run.status) << run.output;
        EXPECT_TRUE(contains(run.output, "Searching the bus at " + gateway.GetAddress())) << run.output;
        EXPECT_TRUE(contains(run.output, "[StringFour] serial 16909060 module 9\n")) << run.output;
        EXPECT_TRUE(contains(run.output, "[Panel] serial 12345678 module 9\n")) << run.output;
        EXPECT_TRUE(contains(run.output, "2 device(s) found\n")) << run.output;
        size_t mutes = 0;
        for (const kes_test::Bytes& request : gateway.GetRequests())
            mutes += request.size() > 1 && request[1] == 0x0C;
        if (mute) {
            EXPECT_EQ(2u, mutes);
        } else {
            EXPECT_EQ(0u, mutes);
        }
    }
}

TEST(KesBusTool, NumberGivesConsecutiveModuleNumbers)
{
    TestBusGateway gateway;
    gateway.AddDevice(kes::kesEnergyDeviceString, 1011, 1);
    gateway.AddDevice(kes::kesEnergyDeviceAlarm, 2022, 1);
    gateway.AddDevice(kes::kesEnergyDevicePulseCounter, 3033, 1);
    ASSERT_TRUE(gateway.Start());
    ToolRun run = run_kes_bus(fast(gateway, {"number", "5"}), 120000);
    EXPECT_EQ(0, run.status) << run.output;
    EXPECT_TRUE(contains(run.output, "[String] serial 1011 module 1 -> 5\n"
                                     "[Alarm] serial 2022 module 1 -> 6\n"
                                     "[PulseCounter] serial 3033 module 1 -> 7\n"))
        << run.output;
    const unsigned int serials[] = {1011, 2022, 3033};
    for (unsigned int i = 0; i < 3; ++i) {
        TestBusGateway::Device device;
        ASSERT_TRUE(gateway.GetDevice(serials[i], &device));
        EXPECT_EQ(5 + i, device.module);
    }
}

// Devices as {type, module number, serial number}.
kes::kesArray<kes::kesEnergyDevice> devices(std::initializer_list<std::array<unsigned int, 3>> i_rows)
{
    kes::kesArray<kes::kesEnergyDevice> array;
    array.resize(i_rows.size());
    for (size_t i = 0; i < i_rows.size(); ++i) {
        array[i].Type = static_cast<kes::kesEEnergyDeviceType>(i_rows.begin()[i][0]);
        array[i].Address = static_cast<unsigned char>(i_rows.begin()[i][1]);
        array[i].UniqueID = i_rows.begin()[i][2];
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
    struct Row {
        const char* name;
        const char* existing; // null: no file
        unsigned int id;
        const kes::kesArray<kes::kesEnergyDevice>& devices;
        std::string result; // the file written, or a part of the refusal
    };
    const Row rows[] = {
        {"a whole file", nullptr, kes::KES_BUS_LINE_ID_OF_FILE, plant,
         "<energy v=\"1\">\n    <line id=\"1\" adr=\"10.0.0.5:502\">\n" + note +
             "        <!-- [Panel] serial 11 module 2 -->\n        <!-- voltage, V -->\n"
             "        <value type=\"1\" mid=\"2\" iid=\"100200\" fid=\"0\" />\n        <!-- temperature, °C -->\n"
             "        <value type=\"1\" mid=\"2\" iid=\"100201\" fid=\"1\" />\n"
             "        <!-- [Ambient] serial 44 module 0: never read, no value -->\n    </line>\n</energy>\n"},
        {"the line of the address in place, with its id", ELSEWHERE, kes::KES_BUS_LINE_ID_OF_FILE, meter,
         "<?xml version=\"1.0\" ?>\n<!-- plant north -->\n<energy v=\"1\">\n    <line id=\"4\" "
         "adr=\"10.0.0.5:502\">\n" +
             note +
             "        <!-- [PulseCounterTwo] serial 88 module 3 -->\n        <!-- pulse rate 1, pulses/h -->\n"
             "        <value type=\"8\" mid=\"3\" iid=\"400300\" fid=\"0\" />\n        <!-- pulse count 1, pulses -->\n"
             "        <value type=\"8\" mid=\"3\" iid=\"400301\" fid=\"1\" />\n        <!-- pulse rate 2, pulses/h "
             "-->\n"
             "        <value type=\"8\" mid=\"3\" iid=\"400302\" fid=\"2\" />\n        <!-- pulse count 2, pulses -->\n"
             "        <value type=\"8\" mid=\"3\" iid=\"400303\" fid=\"3\" />\n    </line>\n"
             "    <line id=\"2\" adr=\"/dev/ttyUSB0\">\n        <!-- roof -->\n        <v iid=\"400200\" />\n    "
             "</line>\n"
             "    <davis adr=\"10.0.0.6:22222\" />\n</energy>\n"},
        {"a shared module number", nullptr, 1, shared,
         "[Panel] serial 11 module 9 and [String] serial 22 module 9 share a module number; give each device its own "
         "with: kes_bus -adr 10.0.0.5:502 number 1 -conf "},
        {"nothing found", ELSEWHERE, 1, none, "No device with a value to read was found"},
        {"an id another line has", ELSEWHERE, 2, plant, "Line id 2 is the id of the line at /dev/ttyUSB0 in "},
        {"an item number another line has", ELSEWHERE, 4, plant, "Item number 400200 is taken by another line"},
        {"an id past 32-bit item numbers", "<energy><line id=\"50000\" adr=\"10.0.0.5:502\"/></energy>",
         kes::KES_BUS_LINE_ID_OF_FILE, plant, "Line id 50000 would take item numbers past 32 bits (at most 42949)"},
        {"a file that is no XML", "<energy><line", 1, plant, " at row 1"},
        {"a write that fails half way", ELSEWHERE, 1, plant, "File too large; it is as it was"},
    };
    for (const Row& row : rows) {
        kes_test::TempDir dir;
        const std::string path = dir.File("conf.xml");
        if (row.existing)
            kes_test::WriteFile(path, row.existing);
        rlimit before, small;
        getrlimit(RLIMIT_FSIZE, &before);
        small = {200, before.rlim_max};
        sighandler_t handler = signal(SIGXFSZ, SIG_IGN); // a write past the limit fails instead
        if (contains(row.name, "fails"))
            setrlimit(RLIMIT_FSIZE, &small);
        std::string text;
        bool written = kes::kesBusWriteConfiguration(path, "10.0.0.5:502", row.id, row.devices, &text);
        setrlimit(RLIMIT_FSIZE, &before);
        signal(SIGXFSZ, handler);
        EXPECT_EQ(row.result[0] == '<', written) << row.name << ": " << text;
        EXPECT_TRUE(written ? row.result == kes_test::ReadFile(path) : contains(text, row.result)) << row.name << text;
        if (!written) {
            EXPECT_EQ(row.existing ? row.existing : "", kes_test::ReadFile(path)) << row.name;
        }
    }
}

} // namespace
