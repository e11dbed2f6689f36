// Device report: everything the bus can tell about one device, as text.
#include "kes_enerysystem_private.h"

namespace kes {

namespace {

const unsigned int LINE_LIMIT = 256;

typedef kesEError (kesEnergySystem::*kesIdentityRead)(unsigned short, kesString*);

struct kesIdentityReads {
    kesIdentityRead model;
    kesIdentityRead serial;
    kesIdentityRead testDate;
};

#define KES_IDENTITY(WORD)                                                         \
    {                                                                              \
        &kesEnergySystem::Read##WORD##Model, &kesEnergySystem::Read##WORD##Serial, \
            &kesEnergySystem::Read##WORD##TestDate                                 \
    }

// By device type; type 0 is never read.
const kesIdentityReads IDENTITY_READS[12] = {{nullptr, nullptr, nullptr},   KES_IDENTITY(Panel),
                                             KES_IDENTITY(String),          KES_IDENTITY(Alarm),
                                             KES_IDENTITY(Ambient),         KES_IDENTITY(PulseCounter),
                                             KES_IDENTITY(StringTwo),       KES_IDENTITY(StringFour),
                                             KES_IDENTITY(PulseCounterTwo), KES_IDENTITY(PulseCounterFive),
                                             KES_IDENTITY(StringOne),       KES_IDENTITY(StringThree)};

#undef KES_IDENTITY

// The four lines of a pulse counter channel, and the fifth of a
// PulseCounterFive with its second count.
struct kesPulseChannelLines {
    const char* count;
    const char* time;
    const char* power;
    const char* production;
    const char* second;
};

const kesPulseChannelLines PULSE_ONE[1] = {
    {"\tO Pulse Count --------------:%lu\n", "\tO Last Time ----------------:%i ms\n",
     "\tO Instantaneous Power ------:%.2f kW\n", "\tO Production ---------------:%.2f kWh\n", nullptr}};

const kesPulseChannelLines PULSE_TWO[2] = {
    {"\tOA Pulse Count -------------:%lu\n", "\tOA Last Time ---------------:%i ms\n",
     "\tOA Instantaneous Power -----:%.2f kW\n", "\tOA Production --------------:%.2f kWh\n", nullptr},
    {"\tOR Pulse Count -------------:%lu\n", "\tOR Last Time ---------------:%i ms\n",
     "\tOR Instantaneous Power -----:%.2f kVAR\n", "\tOR Production --------------:%.2f kVARh\n", nullptr}};

const kesPulseChannelLines PULSE_FIVE[5] = {
    {"\tIA Pulse Count -------------:%lu\n", "\tIA Last Time ---------------:%i ms\n",
     "\tIA Instantaneous Power -----:%.2f kW\n", "\tIA Production --------------:%.2f kWh\n",
     "\tIAP Pulse Count ------------:%lu ms\n"},
    {"\tIR Pulse Count -------------:%lu\n", "\tIR Last Time ---------------:%i ms\n",
     "\tIR Instantaneous Power -----:%.2f kVAR\n", "\tIR Production --------------:%.2f kVARh\n",
     "\tIRP Pulse Count ------------:%lu ms\n"},
    {"\t15 Pulse Count -------------:%lu\n", "\t15 Last Time ---------------:%i ms\n",
     "\t15 Instantaneous Power -----:%.2f kVAR\n", "\t15 Production --------------:%.2f kVARh\n",
     "\t15P Pulse Count ------------:%lu ms\n"},
    {"\tOA Pulse Count -------------:%lu\n", "\tOA Last Time ---------------:%i ms\n",
     "\tOA Instantaneous Power -----:%.2f kW\n", "\tOA Production --------------:%.2f kWh\n",
     "\tOAP Pulse Count -------------:%lu ms\n"},
    {"\tOR Pulse Count -------------:%lu\n", "\tOR Last Time ---------------:%i ms\n",
     "\tOR Instantaneous Power -----:%.2f kW\n", "\tOR Production --------------:%.2f kWh\n",
     "\tORP Pulse Count ------------:%lu ms\n"}};

const char* const STRING_AMPERE_LINES[4][2] = {
    {"\t1 Ampere -------------------:%.2f A\n", "\t1 Instantaneous Power ------:%.2f W\n"},
    {"\t2 Ampere -------------------:%.2f A\n", "\t2 Instantaneous Power ------:%.2f W\n"},
    {"\t3 Ampere -------------------:%.2f A\n", "\t3 Instantaneous Power ------:%.2f W\n"},
    {"\t4 Ampere -------------------:%.2f A\n", "\t4 Instantaneous Power ------:%.2f W\n"}};

const char* const VOLTAGE_LINE = "\tVoltage --------------------:%.2f V\n";

struct kesPulseValues {
    unsigned int count;
    unsigned short time;
    unsigned int second;
};

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"

void add_pulse_channels(const kesPulseChannelLines* i_pLines, const kesPulseValues* i_pValues, unsigned int i_uiCount,
                        kesString* io_pText)
{
    for (unsigned int i = 0; i < i_uiCount; ++i) {
        const kesPulseValues& v = i_pValues[i];
        // 3600 ms between pulses of one Wh is one kW.
        double power = v.time ? 3600.0 / v.time : 0.0;
        io_pText->AddFormat(LINE_LIMIT, i_pLines[i].count, static_cast<unsigned long>(v.count));
        io_pText->AddFormat(LINE_LIMIT, i_pLines[i].time, static_cast<int>(v.time));
        io_pText->AddFormat(LINE_LIMIT, i_pLines[i].power, power);
        io_pText->AddFormat(LINE_LIMIT, i_pLines[i].production, v.count / 1000.0);
        if (i_pLines[i].second)
            io_pText->AddFormat(LINE_LIMIT, i_pLines[i].second, static_cast<unsigned long>(v.second));
    }
}

void add_string_lines(float i_fVoltage, const float* i_pAmperes, unsigned int i_uiCount, kesString* io_pText)
{
    io_pText->AddFormat(LINE_LIMIT, VOLTAGE_LINE, i_fVoltage);
    for (unsigned int i = 0; i < i_uiCount; ++i) {
        io_pText->AddFormat(LINE_LIMIT, STRING_AMPERE_LINES[i][0], i_pAmperes[i]);
        io_pText->AddFormat(LINE_LIMIT, STRING_AMPERE_LINES[i][1], i_fVoltage * i_pAmperes[i]);
    }
}

// What the reads of one device bring; what it does not answer stays zero.
struct kesReportValues {
    float voltage, temperature, amperes[4];
    float flash[6]; // open voltage and ampere, max power, voltage, ampere, efficiency
    unsigned int cells, panels;
    unsigned char cycle, status;
    unsigned short returnedPower;
    kesPulseValues pulses[5];
};

// The outputs of the measurement read, in its order; those past the read's
// own are not looked at.
typedef void (*kesOutputs)(kesReportValues& io_values, void** o_ppOutputs);

void volt_temp_outputs(kesReportValues& io_values, void** o_ppOutputs)
{
    o_ppOutputs[0] = &io_values.voltage;
    o_ppOutputs[1] = &io_values.temperature;
}

void volt_ampere_outputs(kesReportValues& io_values, void** o_ppOutputs)
{
    o_ppOutputs[0] = &io_values.voltage;
    for (unsigned int i = 0; i < 4; ++i)
        o_ppOutputs[1 + i] = &io_values.amperes[i];
}

void pulse_outputs(kesReportValues& io_values, void** o_ppOutputs)
{
    for (unsigned int i = 0; i < 2; ++i) {
        o_ppOutputs[2 * i] = &io_values.pulses[i].count;
        o_ppOutputs[2 * i + 1] = &io_values.pulses[i].time;
    }
}

void pulse_second_outputs(kesReportValues& io_values, void** o_ppOutputs)
{
    for (unsigned int i = 0; i < 5; ++i) {
        o_ppOutputs[3 * i] = &io_values.pulses[i].count;
        o_ppOutputs[3 * i + 1] = &io_values.pulses[i].time;
        o_ppOutputs[3 * i + 2] = &io_values.pulses[i].second;
    }
}

void read_flash(kesEnergySystem& io_system, unsigned short i_usAddress, kesReportValues& io_values)
{
    float* flash = io_values.flash;
    io_system.ReadPanelFlash(i_usAddress, &flash[0], &flash[1], &flash[2], &flash[3], &flash[4], &flash[5],
                             &io_values.cells, &io_values.panels);
}

void read_status(kesEnergySystem& io_system, unsigned short i_usAddress, kesReportValues& io_values)
{
    io_system.ReadAlarmStatus(i_usAddress, &io_values.cycle, &io_values.status, &io_values.returnedPower);
}

void add_panel_lines(const kesReportValues& i_values, unsigned int, kesString* io_pText)
{
    static const char* const FLASH_LINES[6] = {
        "\tOpened Circuit Volt --------:%.2f V\n", "\tOpened Circuit Ampere ------:%.2f A\n",
        "\tMax Power ------------------:%.2f W\n", "\tMax Volt -------------------:%.2f V\n",
        "\tMax Ampere -----------------:%.2f A\n", "\tEfficiency -----------------:%.2f %%\n"};
    io_pText->AddFormat(LINE_LIMIT, VOLTAGE_LINE, i_values.voltage);
    io_pText->AddFormat(LINE_LIMIT, "\tTemperature ----------------:%.2f °C\n", i_values.temperature);
    for (unsigned int i = 0; i < 6; ++i)
        io_pText->AddFormat(LINE_LIMIT, FLASH_LINES[i], i_values.flash[i]);
    io_pText->AddFormat(LINE_LIMIT, "\tNumber of Cells ------------:%lu\n", static_cast<unsigned long>(i_values.cells));
    io_pText->AddFormat(LINE_LIMIT, "\tNumber of Panels -----------:%lu\n",
                        static_cast<unsigned long>(i_values.panels));
}

// The current of a single string, or of an alarm device, under its own name.
void add_current_lines(const char* i_szCurrent, const kesReportValues& i_values, kesString* io_pText)
{
    io_pText->AddFormat(LINE_LIMIT, VOLTAGE_LINE, i_values.voltage);
    io_pText->AddFormat(LINE_LIMIT, i_szCurrent, i_values.amperes[0]);
    io_pText->AddFormat(LINE_LIMIT, "\tInstantaneous Power --------:%.2f W\n", i_values.voltage * i_values.amperes[0]);
}

void add_string_report(const kesReportValues& i_values, unsigned int i_uiChannels, kesString* io_pText)
{
    if (i_uiChannels == 1)
        add_current_lines("\tAmpere ---------------------:%.2f A\n", i_values, io_pText);
    else
        add_string_lines(i_values.voltage, i_values.amperes, i_uiChannels, io_pText);
}

void add_alarm_report(const kesReportValues& i_values, unsigned int, kesString* io_pText)
{
    kesString status = kesEnergySystem::AlarmStatusTypeToTypeName(static_cast<kesEEnergyAlarmStatus>(i_values.status));
    kesString cycle =
        kesEnergySystem::AlarmCycleStatusTypeToTypeName(static_cast<kesEEnergyAlarmCycleStatus>(i_values.cycle));
    io_pText->AddFormat(LINE_LIMIT, "\tAlarm Status ---------------:%s\n", status.c_str());
    io_pText->AddFormat(LINE_LIMIT, "\tAlarm Cycle Check ----------:%s\n", cycle.c_str());
    io_pText->AddFormat(LINE_LIMIT, "\tAlarm Returned Power -------:%i\n", static_cast<int>(i_values.returnedPower));
    add_current_lines("\tCurrent --------------------:%.2f A\n", i_values, io_pText);
}

void add_pulse_report(const kesReportValues& i_values, unsigned int i_uiChannels, kesString* io_pText)
{
    static const kesPulseChannelLines* const LINES[6] = {nullptr, PULSE_ONE, PULSE_TWO, nullptr, nullptr, PULSE_FIVE};
    add_pulse_channels(LINES[i_uiChannels], i_values.pulses, i_uiChannels, io_pText);
}

#pragma GCC diagnostic pop

// The report of one device type: its reads, in their order, and its lines.
struct kesReportShape {
    bool measurementFirst;
    kesOutputs outputs; // null: no measurement read
    void (*extra)(kesEnergySystem& io_system, unsigned short i_usAddress, kesReportValues& io_values);
    void (*lines)(const kesReportValues& i_values, unsigned int i_uiChannels, kesString* io_pText);
    unsigned int channels;
};

// By device type; Ambient gives the head alone.
const kesReportShape REPORT_SHAPES[12] = {
    {false, nullptr, nullptr, nullptr, 0},                             // no type 0
    {false, &volt_temp_outputs, &read_flash, &add_panel_lines, 0},     // Panel
    {false, &volt_ampere_outputs, nullptr, &add_string_report, 1},     // String
    {false, &volt_ampere_outputs, &read_status, &add_alarm_report, 0}, // Alarm
    {false, nullptr, nullptr, nullptr, 0},                             // Ambient
    {false, &pulse_outputs, nullptr, &add_pulse_report, 1},            // PulseCounter
    {true, &volt_ampere_outputs, nullptr, &add_string_report, 2},      // StringTwo
    {false, &volt_ampere_outputs, nullptr, &add_string_report, 4},     // StringFour
    {false, &pulse_outputs, nullptr, &add_pulse_report, 2},            // PulseCounterTwo
    {false, &pulse_second_outputs, nullptr, &add_pulse_report, 5},     // PulseCounterFive
    {false, &volt_ampere_outputs, nullptr, &add_string_report, 1},     // StringOne
    {false, &volt_ampere_outputs, nullptr, &add_string_report, 3}};    // StringThree

void add_head(const kesEnergyDevice& i_device, unsigned short i_usAddress, const kesString* i_pTexts,
              kesString* io_pText)
{
    io_pText->AddFormat(LINE_LIMIT, "[%s][%i]\n", kesEnergySystem::DeviceTypeToTypeName(i_device.Type).c_str(),
                        static_cast<int>(i_device.Address));
    io_pText->AddFormat(LINE_LIMIT, "\tHardware Serial ------------:%lu\n",
                        static_cast<unsigned long>(i_device.UniqueID));
    io_pText->AddFormat(LINE_LIMIT, "\tModbus Address -------------:%i\n", static_cast<int>(i_usAddress));
    // %s stops at the first zero byte of a field.
    io_pText->AddFormat(LINE_LIMIT, "\tModel ----------------------:%s\n", i_pTexts[0].c_str());
    io_pText->AddFormat(LINE_LIMIT, "\tSerial ---------------------:%s\n", i_pTexts[1].c_str());
    io_pText->AddFormat(LINE_LIMIT, "\tTest Date ------------------:%s\n", i_pTexts[2].c_str());
}

} // namespace

kesEError kesEnergySystem::GetDeviceInfo(const kesEnergyDevice* i_pDevice, kesString* o_strData)
{
    if (!m_oSocket.IsOpen())
        return KES_LOG(kesErrorFailed, CHANNEL_CLOSED);
    if (!o_strData)
        return KES_LOG(kesErrorInvalidArgument, "o_strData == 0");
    if (!i_pDevice)
        return KES_LOG(kesErrorInvalidArgument, "i_pDevice == 0");
    const kesEEnergyDeviceType type = i_pDevice->Type;
    if (type < kesEnergyDevicePanel || type > kesEnergyDeviceStringThree)
        return kesErrorOk;

    const unsigned short address = static_cast<unsigned short>(i_pDevice->Address * 100u);
    const kesIdentityReads& identity = IDENTITY_READS[type];
    const kesReportShape& shape = REPORT_SHAPES[type];
    kesString texts[3];
    kesReportValues values = {};
    void* outputs[MAX_MEASUREMENT_OUTPUTS] = {};
    if (shape.outputs)
        shape.outputs(values, outputs);

    // A StringTwo is asked for its measurements first; every other type for
    // its identity first.
    if (shape.measurementFirst)
        ReadMeasurement(type, address, outputs);
    (this->*identity.model)(address, &texts[0]);
    (this->*identity.serial)(address, &texts[1]);
    (this->*identity.testDate)(address, &texts[2]);
    if (shape.outputs && !shape.measurementFirst)
        ReadMeasurement(type, address, outputs);
    if (shape.extra)
        shape.extra(*this, address, values);

    add_head(*i_pDevice, address, texts, o_strData);
    if (shape.lines)
        shape.lines(values, shape.channels, o_strData);
    return kesErrorOk;
}

} // namespace kes
