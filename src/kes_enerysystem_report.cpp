// Device report: everything the bus can tell about one device, as text.
#include "kes_enerysystem.h"

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

#pragma GCC diagnostic pop

} // namespace

kesEError kesEnergySystem::GetDeviceInfo(const kesEnergyDevice* i_pDevice, kesString* o_strData)
{
    if (!m_oSocket.IsOpen())
        return kesErrorLog(kesBuildErrorLocation(kesErrorFailed, "Communication is closed! Call OpenCommunication(...)",
                                                 __FILE__, __func__, __LINE__));
    if (!o_strData)
        return kesErrorLog(
            kesBuildErrorLocation(kesErrorInvalidArgument, "o_strData == 0", __FILE__, __func__, __LINE__));
    if (!i_pDevice)
        return kesErrorLog(
            kesBuildErrorLocation(kesErrorInvalidArgument, "i_pDevice == 0", __FILE__, __func__, __LINE__));
    const kesEEnergyDeviceType type = i_pDevice->Type;
    if (type < kesEnergyDevicePanel || type > kesEnergyDeviceStringThree)
        return kesErrorOk;

    const unsigned short address = static_cast<unsigned short>(i_pDevice->Address * 100u);
    const kesIdentityReads& identity = IDENTITY_READS[type];
    kesString model, serial, testDate;
    float voltage = 0, temperature = 0, amperes[4] = {0, 0, 0, 0};
    float openVoltage = 0, openAmpere = 0, maxPower = 0, maxVoltage = 0, maxAmpere = 0, efficiency = 0;
    unsigned int cells = 0, panels = 0;
    unsigned char cycle = 0, status = 0;
    unsigned short returnedPower = 0;
    kesPulseValues pulses[5] = {};

    // A StringTwo is asked for its measurements first; every other type for
    // its identity first. What a device does not answer stays zero or empty.
    if (type == kesEnergyDeviceStringTwo)
        ReadStringTwoVoltAmpere(address, &voltage, &amperes[0], &amperes[1]);
    (this->*identity.model)(address, &model);
    (this->*identity.serial)(address, &serial);
    (this->*identity.testDate)(address, &testDate);
    switch (type) {
    case kesEnergyDevicePanel:
        ReadPanelVoltTemp(address, &voltage, &temperature);
        ReadPanelFlash(address, &openVoltage, &openAmpere, &maxPower, &maxVoltage, &maxAmpere, &efficiency, &cells,
                       &panels);
        break;
    case kesEnergyDeviceString:
        ReadStringVoltAmpere(address, &voltage, &amperes[0]);
        break;
    case kesEnergyDeviceStringOne:
        ReadStringOneVoltAmpere(address, &voltage, &amperes[0]);
        break;
    case kesEnergyDeviceStringThree:
        ReadStringThreeVoltAmpere(address, &voltage, &amperes[0], &amperes[1], &amperes[2]);
        break;
    case kesEnergyDeviceStringFour:
        ReadStringFourVoltAmpere(address, &voltage, &amperes[0], &amperes[1], &amperes[2], &amperes[3]);
        break;
    case kesEnergyDeviceAlarm:
        ReadAlarmVoltAmpere(address, &voltage, &amperes[0]);
        ReadAlarmStatus(address, &cycle, &status, &returnedPower);
        break;
    case kesEnergyDevicePulseCounter:
        ReadPulseCounterData(address, &pulses[0].count, &pulses[0].time);
        break;
    case kesEnergyDevicePulseCounterTwo:
        ReadPulseCounterTwoData(address, &pulses[0].count, &pulses[0].time, &pulses[1].count, &pulses[1].time);
        break;
    case kesEnergyDevicePulseCounterFive:
        ReadPulseCounterFiveData(address, &pulses[0].count, &pulses[0].time, &pulses[0].second, &pulses[1].count,
                                 &pulses[1].time, &pulses[1].second, &pulses[2].count, &pulses[2].time,
                                 &pulses[2].second, &pulses[3].count, &pulses[3].time, &pulses[3].second,
                                 &pulses[4].count, &pulses[4].time, &pulses[4].second);
        break;
    default:
        break;
    }

    o_strData->AddFormat(LINE_LIMIT, "[%s][%i]\n", DeviceTypeToTypeName(type).c_str(),
                         static_cast<int>(i_pDevice->Address));
    o_strData->AddFormat(LINE_LIMIT, "\tHardware Serial ------------:%lu\n",
                         static_cast<unsigned long>(i_pDevice->UniqueID));
    o_strData->AddFormat(LINE_LIMIT, "\tModbus Address -------------:%i\n", static_cast<int>(address));
    // %s stops at the first zero byte of a field.
    o_strData->AddFormat(LINE_LIMIT, "\tModel ----------------------:%s\n", model.c_str());
    o_strData->AddFormat(LINE_LIMIT, "\tSerial ---------------------:%s\n", serial.c_str());
    o_strData->AddFormat(LINE_LIMIT, "\tTest Date ------------------:%s\n", testDate.c_str());

    switch (type) {
    case kesEnergyDevicePanel:
        o_strData->AddFormat(LINE_LIMIT, VOLTAGE_LINE, voltage);
        o_strData->AddFormat(LINE_LIMIT, "\tTemperature ----------------:%.2f °C\n", temperature);
        o_strData->AddFormat(LINE_LIMIT, "\tOpened Circuit Volt --------:%.2f V\n", openVoltage);
        o_strData->AddFormat(LINE_LIMIT, "\tOpened Circuit Ampere ------:%.2f A\n", openAmpere);
        o_strData->AddFormat(LINE_LIMIT, "\tMax Power ------------------:%.2f W\n", maxPower);
        o_strData->AddFormat(LINE_LIMIT, "\tMax Volt -------------------:%.2f V\n", maxVoltage);
        o_strData->AddFormat(LINE_LIMIT, "\tMax Ampere -----------------:%.2f A\n", maxAmpere);
        o_strData->AddFormat(LINE_LIMIT, "\tEfficiency -----------------:%.2f %%\n", efficiency);
        o_strData->AddFormat(LINE_LIMIT, "\tNumber of Cells ------------:%lu\n", static_cast<unsigned long>(cells));
        o_strData->AddFormat(LINE_LIMIT, "\tNumber of Panels -----------:%lu\n", static_cast<unsigned long>(panels));
        break;
    case kesEnergyDeviceString:
    case kesEnergyDeviceStringOne:
        o_strData->AddFormat(LINE_LIMIT, VOLTAGE_LINE, voltage);
        o_strData->AddFormat(LINE_LIMIT, "\tAmpere ---------------------:%.2f A\n", amperes[0]);
        o_strData->AddFormat(LINE_LIMIT, "\tInstantaneous Power --------:%.2f W\n", voltage * amperes[0]);
        break;
    case kesEnergyDeviceStringTwo:
        add_string_lines(voltage, amperes, 2, o_strData);
        break;
    case kesEnergyDeviceStringThree:
        add_string_lines(voltage, amperes, 3, o_strData);
        break;
    case kesEnergyDeviceStringFour:
        add_string_lines(voltage, amperes, 4, o_strData);
        break;
    case kesEnergyDeviceAlarm:
        o_strData->AddFormat(LINE_LIMIT, "\tAlarm Status ---------------:%s\n",
                             AlarmStatusTypeToTypeName(static_cast<kesEEnergyAlarmStatus>(status)).c_str());
        o_strData->AddFormat(LINE_LIMIT, "\tAlarm Cycle Check ----------:%s\n",
                             AlarmCycleStatusTypeToTypeName(static_cast<kesEEnergyAlarmCycleStatus>(cycle)).c_str());
        o_strData->AddFormat(LINE_LIMIT, "\tAlarm Returned Power -------:%i\n", static_cast<int>(returnedPower));
        o_strData->AddFormat(LINE_LIMIT, VOLTAGE_LINE, voltage);
        o_strData->AddFormat(LINE_LIMIT, "\tCurrent --------------------:%.2f A\n", amperes[0]);
        o_strData->AddFormat(LINE_LIMIT, "\tInstantaneous Power --------:%.2f W\n", voltage * amperes[0]);
        break;
    case kesEnergyDevicePulseCounter:
        add_pulse_channels(PULSE_ONE, pulses, 1, o_strData);
        break;
    case kesEnergyDevicePulseCounterTwo:
        add_pulse_channels(PULSE_TWO, pulses, 2, o_strData);
        break;
    case kesEnergyDevicePulseCounterFive:
        add_pulse_channels(PULSE_FIVE, pulses, 5, o_strData);
        break;
    default: // Ambient: the head alone
        break;
    }
    return kesErrorOk;
}

} // namespace kes
