#include "kes_bus_tool.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "kes_energy_device_types.h"

namespace kes {

namespace {

const unsigned int MAX_MODULE_NUMBER = 255;
const unsigned int FINE_KEYS = 10000;

struct kesBusContext {
    const kesBusOptions* options;
    const std::vector<std::string>* arguments;
    kesBusTool* tool;
    std::string* error;
    // The arguments as the command's row reads them, in order.
    kesEEnergyDeviceType type;
    unsigned long numbers[4];
};

kesEBusOutcome bad(kesBusContext& io_context, const std::string& i_text)
{
    *io_context.error = i_text;
    return kesBusBadArguments;
}

// Decimal, or hexadecimal with 0x; nothing else may follow the number.
bool parse_unsigned(const std::string& i_text, unsigned long i_max, unsigned long* o_value)
{
    if (i_text.empty() || i_text[0] == '-' || i_text[0] == '+' || i_text[0] == ' ')
        return false;
    errno = 0;
    char* end = nullptr;
    bool hex = i_text.size() > 2 && i_text[0] == '0' && (i_text[1] == 'x' || i_text[1] == 'X');
    unsigned long long value = strtoull(i_text.c_str() + (hex ? 2 : 0), &end, hex ? 16 : 10);
    if (errno != 0 || !end || *end != '\0' || value > i_max)
        return false;
    *o_value = static_cast<unsigned long>(value);
    return true;
}

bool argument(kesBusContext& io_context, size_t i_index, const char* i_name, unsigned long i_min, unsigned long i_max,
              unsigned long* o_value, kesEBusOutcome* o_outcome)
{
    const std::string& text = (*io_context.arguments)[i_index];
    if (parse_unsigned(text, i_max, o_value) && *o_value >= i_min)
        return true;
    *o_outcome = bad(io_context, std::string(i_name) + " must be a number from " + std::to_string(i_min) + " to " +
                                     std::to_string(i_max) + ": \"" + text + "\"");
    return false;
}

bool type_argument(kesBusContext& io_context, size_t i_index, kesEEnergyDeviceType* o_type, kesEBusOutcome* o_outcome)
{
    const std::string& text = (*io_context.arguments)[i_index];
    unsigned long number = 0;
    if (parse_unsigned(text, kesEnergyDeviceStringThree, &number) && number >= kesEnergyDevicePanel) {
        *o_type = static_cast<kesEEnergyDeviceType>(number);
        return true;
    }
    for (unsigned int type = kesEnergyDevicePanel; type <= kesEnergyDeviceStringThree; ++type) {
        if (kesEnergySystem::DeviceTypeToTypeName(static_cast<kesEEnergyDeviceType>(type)).IsEqualNoCase(text)) {
            *o_type = static_cast<kesEEnergyDeviceType>(type);
            return true;
        }
    }
    *o_outcome = bad(io_context, "TYPE must be a number from 1 to 11 or a device type name: \"" + text + "\"");
    return false;
}

kesEBusOutcome open(kesBusContext& io_context)
{
    const kesBusOptions& options = *io_context.options;
    kesEnergySystem::EXECUTION_COUNT = static_cast<unsigned char>(options.attempts);
    if (io_context.tool->OpenCommunication(options.address.c_str(), 0, options.receiveTimeOut, options.answerPause,
                                           options.failurePause) != kesErrorOk) {
        fprintf(stderr, "Can not open the bus at %s\n", options.address.c_str());
        return kesBusFailed;
    }
    return kesBusOk;
}

kesEBusOutcome failed(const char* i_szWhat)
{
    fprintf(stderr, "%s\n", i_szWhat);
    return kesBusFailed;
}

// ---------------------------------------------------------------- read

struct kesReadValue {
    std::string label;
    double value;
    const char* unit; // null for a count
};

// Every output of the type's read, each as the engine gives it.
kesEError read_values(kesBusTool& io_tool, kesEEnergyDeviceType i_type, unsigned short i_address,
                      std::vector<kesReadValue>* o_values)
{
    const Energy::DeviceType* row = Energy::FindDeviceType(i_type);
    if (!row || row->recordSize == 0)
        return kesErrorInvalidArgument;
    union kesOutput {
        float scaled;
        unsigned short word;
        unsigned int count;
    } outputs[Energy::MAX_OUTPUTS] = {};
    void* places[Energy::MAX_OUTPUTS];
    for (unsigned int i = 0; i < row->outputCount; ++i)
        places[i] = &outputs[i];
    const kesEError result = io_tool.ReadMeasurement(i_type, i_address, places);
    o_values->clear();
    for (unsigned int i = 0; i < row->outputCount; ++i) {
        double value = outputs[i].count;
        switch (kesEnergySystem::GetMeasurementOutput(i_type, i)) {
        case kesEnergySystem::MeasurementFloat:
            value = outputs[i].scaled;
            break;
        case kesEnergySystem::MeasurementWord:
            value = outputs[i].word;
            break;
        default:
            break;
        }
        o_values->push_back({row->outputs[i].label, value, row->outputs[i].unit});
    }
    return result;
}

kesEBusOutcome command_read(kesBusContext& io_context)
{
    std::vector<kesReadValue> values;
    const unsigned long mid = io_context.numbers[1];
    if (read_values(*io_context.tool, io_context.type, static_cast<unsigned short>(mid * 100), &values) != kesErrorOk)
        return failed("Read failed");
    printf("[%s][%lu]\n", kesEnergySystem::DeviceTypeToTypeName(io_context.type).c_str(), mid);
    for (const kesReadValue& value : values) {
        if (value.unit && strcmp(value.unit, "ms") != 0)
            printf("%s %.2f %s\n", value.label.c_str(), value.value, value.unit);
        else if (value.unit)
            printf("%s %.0f %s\n", value.label.c_str(), value.value, value.unit);
        else
            printf("%s %.0f\n", value.label.c_str(), value.value);
    }
    return kesBusOk;
}

kesEBusOutcome refuse_ambient(kesBusContext& io_context)
{
    if (io_context.type == kesEnergyDeviceAmbient)
        return bad(io_context, "An Ambient device has no measurement to read; try info");
    return kesBusOk;
}

// ---------------------------------------------------------------- info

kesEBusOutcome command_info(kesBusContext& io_context)
{
    kesEnergyDevice device;
    device.Type = io_context.type;
    device.Address = static_cast<unsigned char>(io_context.numbers[1]);
    kesString text;
    if (io_context.tool->GetDeviceInfo(&device, &text) != kesErrorOk)
        return failed("Report failed");
    fputs(text.c_str(), stdout);
    return kesBusOk;
}

// ---------------------------------------------------------------- discovery

kesEBusOutcome write_configuration(kesBusContext& io_context, const kesArray<kesEnergyDevice>& i_devices)
{
    const kesBusOptions& options = *io_context.options;
    if (options.conf.empty())
        return kesBusOk;
    std::string text;
    bool written = kesBusWriteConfiguration(options.conf, options.address, options.lineId, i_devices, &text);
    fprintf(stderr, "%s\n", text.c_str());
    return written ? kesBusOk : kesBusFailed;
}

kesEBusOutcome print_devices(kesBusContext& io_context, const kesArray<kesEnergyDevice>& i_devices)
{
    for (const kesEnergyDevice& device : i_devices)
        printf("%s\n", kesBusDeviceLine(device).c_str());
    fprintf(stderr, "%u device(s) found\n", static_cast<unsigned int>(i_devices.size()));
    return write_configuration(io_context, i_devices);
}

kesEBusOutcome scan(kesBusContext& io_context, int i_iFineCount, bool i_bMute)
{
    fprintf(stderr, "Searching the bus at %s...\n", io_context.options->address.c_str());
    kesArray<kesEnergyDevice> devices;
    // The search mutes each device it finds only in the muting mode.
    unsigned char mode = kesEnergySystem::MODE;
    if (!i_bMute)
        kesEnergySystem::MODE = 1;
    kesEError result = i_iFineCount > 0 ? io_context.tool->find_all_devices_10000(&devices, i_iFineCount)
                       : i_bMute        ? io_context.tool->FindAllDevices(&devices)
                                        : io_context.tool->old_find_all_devices(&devices, 3, 50);
    kesEnergySystem::MODE = mode;
    if (result != kesErrorOk)
        return failed("Search failed");
    return print_devices(io_context, devices);
}

kesEBusOutcome command_scan(kesBusContext& io_context)
{
    return scan(io_context, 0, true);
}

kesEBusOutcome command_scan_nomute(kesBusContext& io_context)
{
    return scan(io_context, 0, false);
}

kesEBusOutcome command_scan_fine(kesBusContext& io_context)
{
    return scan(io_context, static_cast<int>(io_context.numbers[0]), true);
}

kesEBusOutcome command_find(kesBusContext& io_context)
{
    const unsigned long serial = io_context.numbers[0];
    kesEnergyDevice device;
    if (!io_context.tool->FindDeviceBySerial(static_cast<unsigned int>(serial), &device)) {
        fprintf(stderr, "No device answers for serial %lu\n", serial);
        return kesBusFailed;
    }
    printf("%s\n", kesBusDeviceLine(device).c_str());
    return kesBusOk;
}

// ---------------------------------------------------------------- addressing

kesEBusOutcome command_enable(kesBusContext& io_context)
{
    if (io_context.tool->EnableAllDeviceFind() != kesErrorOk)
        return failed("Enable failed");
    printf("All devices answer searches\n");
    return kesBusOk;
}

kesEBusOutcome command_mute(kesBusContext& io_context)
{
    const unsigned long serial = io_context.numbers[0];
    if (io_context.tool->MuteDeviceBySerial(static_cast<unsigned int>(serial)) != kesErrorOk)
        return failed("Mute failed");
    printf("Device %lu muted\n", serial);
    return kesBusOk;
}

kesEBusOutcome command_set_address(kesBusContext& io_context)
{
    const unsigned long serial = io_context.numbers[0], mid = io_context.numbers[1];
    if (io_context.tool->SetDeviceAddress(static_cast<unsigned int>(serial), static_cast<unsigned char>(mid)) !=
        kesErrorOk)
        return failed("Set address failed");
    printf("Device %lu has the module number %lu\n", serial, mid);
    return kesBusOk;
}

kesEBusOutcome command_number(kesBusContext& io_context)
{
    const unsigned long offset = io_context.numbers[0];
    fprintf(stderr, "Searching the bus at %s...\n", io_context.options->address.c_str());
    kesArray<kesEnergyDevice> devices;
    if (io_context.tool->FindAllDevices(&devices) != kesErrorOk)
        return failed("Search failed");
    fprintf(stderr, "%u device(s) found\n", static_cast<unsigned int>(devices.size()));
    const kesArray<kesEnergyDevice> before = devices;
    kesEError result = io_context.tool->SetDevicesAddresses(static_cast<unsigned char>(offset), &devices);
    // Devices numbered before a failure keep their new numbers: show them all.
    for (size_t i = 0; i < devices.size(); ++i)
        printf("%s -> %u\n", kesBusDeviceLine(before[i]).c_str(), static_cast<unsigned int>(devices[i].Address));
    if (result != kesErrorOk)
        return failed("Numbering failed");
    return write_configuration(io_context, devices);
}

// ---------------------------------------------------------------- alarm

void print_alarm(unsigned char i_ucCycle, unsigned char i_ucStatus, unsigned short i_usPower)
{
    printf("Alarm Cycle Check: %s\n",
           kesEnergySystem::AlarmCycleStatusTypeToTypeName(static_cast<kesEEnergyAlarmCycleStatus>(i_ucCycle)).c_str());
    // Status and power mean something only once the cycle has ended.
    if (i_ucCycle != kesEnergyAlarmCycleTerminated)
        return;
    printf("Alarm Status: %s\n",
           kesEnergySystem::AlarmStatusTypeToTypeName(static_cast<kesEEnergyAlarmStatus>(i_ucStatus)).c_str());
    printf("Alarm Returned Power: %u\n", static_cast<unsigned int>(i_usPower));
}

kesEBusOutcome command_alarm(kesBusContext& io_context)
{
    const unsigned long mid = io_context.numbers[0];
    const unsigned long* tuning = io_context.numbers + 1;
    unsigned char cycle = kesEnergyAlarmCycleInProgress, status = 0;
    unsigned short power = 0;
    if (io_context.tool->ControlAlarmDevice(
            static_cast<unsigned short>(mid * 100), io_context.options->wait, static_cast<unsigned short>(tuning[0]),
            static_cast<unsigned short>(tuning[1]), static_cast<unsigned short>(tuning[2]), &cycle, &status,
            &power) != kesErrorOk)
        return failed("Alarm check failed");
    print_alarm(cycle, status, power);
    if (cycle != kesEnergyAlarmCycleTerminated)
        fprintf(stderr, "The check did not end within %u ms; ask again with alarm-status\n", io_context.options->wait);
    return kesBusOk;
}

kesEBusOutcome command_alarm_status(kesBusContext& io_context)
{
    const unsigned long mid = io_context.numbers[0];
    unsigned char cycle = 0, status = 0;
    unsigned short power = 0;
    if (io_context.tool->ReadAlarmStatus(static_cast<unsigned short>(mid * 100), &cycle, &status, &power) != kesErrorOk)
        return failed("Alarm status read failed");
    print_alarm(cycle, status, power);
    return kesBusOk;
}

// One argument of a command: a device type (name null), or a number.
struct kesBusArgument {
    const char* name;
    unsigned long min;
    unsigned long max; // also what an argument left out stands for
};

const kesBusArgument TYPE = {nullptr, 0, 0};
const kesBusArgument MID = {"MID", 0, MAX_MODULE_NUMBER};
const kesBusArgument SERIAL = {"SERIAL", 0, 0xFFFFFFFFul};
const kesBusArgument TUNING[3] = {{"T1", 0, 65535}, {"T2", 0, 65535}, {"T3", 0, 65535}};

struct kesBusCommand {
    const char* name;
    unsigned int minArguments;
    unsigned int maxArguments;
    kesEBusOutcome (*run)(kesBusContext&);
    bool finds; // takes -conf
    kesBusArgument arguments[4];
    // a refusal the arguments alone decide, before the bus is opened
    kesEBusOutcome (*refuse)(kesBusContext&);
};

const kesBusCommand COMMANDS[] = {
    {"read", 2, 2, &command_read, false, {TYPE, MID}, &refuse_ambient},
    {"info", 2, 2, &command_info, false, {TYPE, MID}, nullptr},
    {"scan", 0, 0, &command_scan, true, {}, nullptr},
    {"scan-nomute", 0, 0, &command_scan_nomute, true, {}, nullptr},
    {"scan-fine", 0, 1, &command_scan_fine, true, {{"COUNT", 1, FINE_KEYS}}, nullptr},
    {"find", 1, 1, &command_find, false, {SERIAL}, nullptr},
    {"enable", 0, 0, &command_enable, false, {}, nullptr},
    {"mute", 1, 1, &command_mute, false, {SERIAL}, nullptr},
    {"set-address", 2, 2, &command_set_address, false, {SERIAL, {"MID", 1, 100}}, nullptr},
    {"number", 1, 1, &command_number, true, {{"OFFSET", 0, MAX_MODULE_NUMBER}}, nullptr},
    {"alarm", 4, 4, &command_alarm, false, {MID, TUNING[0], TUNING[1], TUNING[2]}, nullptr},
    {"alarm-status", 1, 1, &command_alarm_status, false, {MID}, nullptr},
};

// Reads the arguments as the row names them, then opens the bus: a bad
// argument is told before anything goes on the line.
kesEBusOutcome prepare(const kesBusCommand& i_command, kesBusContext& io_context)
{
    kesEBusOutcome outcome = kesBusOk;
    for (size_t i = 0; i < i_command.maxArguments; ++i) {
        const kesBusArgument& spec = i_command.arguments[i];
        io_context.numbers[i] = spec.max;
        if (i >= io_context.arguments->size())
            continue;
        if (!spec.name ? !type_argument(io_context, i, &io_context.type, &outcome)
                       : !argument(io_context, i, spec.name, spec.min, spec.max, &io_context.numbers[i], &outcome))
            return outcome;
    }
    if (i_command.refuse && (outcome = i_command.refuse(io_context)) != kesBusOk)
        return outcome;
    return open(io_context);
}

} // namespace

void kesBusTool::OnDeviceFound(const kesEnergyDevice* i_pDevice)
{
    if (m_pProgress && i_pDevice)
        fprintf(m_pProgress, "found %s\n", kesBusDeviceLine(*i_pDevice).c_str());
}

std::string kesBusDeviceLine(const kesEnergyDevice& i_device)
{
    kesString line;
    line.SetFormat(128, "[%s] serial %lu module %u", kesEnergySystem::DeviceTypeToTypeName(i_device.Type).c_str(),
                   static_cast<unsigned long>(i_device.UniqueID), static_cast<unsigned int>(i_device.Address));
    return line;
}

kesEBusOutcome kesBusRun(const kesBusOptions& i_options, const std::vector<std::string>& i_command,
                         std::string* o_error)
{
    kesBusTool tool(stderr);
    return kesBusRun(i_options, i_command, o_error, tool);
}

kesEBusOutcome kesBusRun(const kesBusOptions& i_options, const std::vector<std::string>& i_command,
                         std::string* o_error, kesBusTool& io_tool)
{
    if (i_command.empty()) {
        *o_error = "No command given";
        return kesBusBadArguments;
    }
    for (const kesBusCommand& command : COMMANDS) {
        if (i_command[0] != command.name)
            continue;
        std::vector<std::string> arguments(i_command.begin() + 1, i_command.end());
        if (arguments.size() < command.minArguments || arguments.size() > command.maxArguments) {
            *o_error = "Wrong number of arguments for " + i_command[0];
            return kesBusBadArguments;
        }
        if (!i_options.conf.empty() && !command.finds) {
            *o_error = "-conf goes with scan, scan-nomute, scan-fine and number";
            return kesBusBadArguments;
        }
        kesBusContext context = {&i_options, &arguments, &io_tool, o_error, kesEnergyDevicePanel, {0, 0, 0, 0}};
        const kesEBusOutcome outcome = prepare(command, context);
        return outcome == kesBusOk ? command.run(context) : outcome;
    }
    *o_error = "Unknown command \"" + i_command[0] + "\"";
    return kesBusBadArguments;
}

} // namespace kes
