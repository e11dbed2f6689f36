#include "kes_energy_device_types.h"

#include <cstddef>
#include <cstring>

namespace kes {
namespace Energy {

namespace {

// clang-format off
#define AT(RECORD, member) static_cast<unsigned short>(offsetof(kesEnergy##RECORD##Data, member))
#define OUT(RECORD, member, label, unit) {label, unit, AT(RECORD, member), sizeof(kesEnergy##RECORD##Data::member)}
#define NO_PLACE(label, unit) {label, unit, NOWHERE, 4}
#define VALUE(kind, channel, publish, history, RECORD, member) \
    {kind, channel, publish, history, AT(RECORD, member), 0}
#define POWER(channel, history, RECORD, ampere) \
    {KIND_POWER, channel, PublishDecimal, history, AT(RECORD, voltage), AT(RECORD, ampere)}

#define STRING_CHANNEL(n, RECORD, ampere)                                              \
    VALUE(KIND_AMPERE, n, PublishDecimal, HistoryNone, RECORD, ampere), \
    POWER(n, HistoryEnergy, RECORD, ampere)
#define PULSE_CHANNEL(n, RECORD, period, count)                                            \
    VALUE(KIND_RATE, n, PublishDecimal, HistoryNone, RECORD, period), \
    VALUE(KIND_COUNT, n, PublishThousands, HistoryPulse, RECORD, count)
#define PULSE_OUTPUTS(RECORD, name, count, period) \
    OUT(RECORD, count, name " Pulse Count", nullptr), OUT(RECORD, period, name " Last Time", "ms")
#define PULSE_FIVE_OUTPUTS(name, count, period)  \
    PULSE_OUTPUTS(PulseCounterFive, name, count, period), NO_PLACE(name "P Pulse Count", nullptr)

} // namespace

constexpr DeviceType DEVICE_TYPES[DEVICE_TYPE_COUNT] = {
    {kesEnergyDevicePanel, sizeof(kesEnergyPanelData),
     2, {OUT(Panel, voltage, "Voltage", "V"), OUT(Panel, temperature, "Temperature", "°C")},
     2, {VALUE(KIND_VOLT, 0, PublishDecimal, HistoryValue, Panel, voltage),
         VALUE(KIND_TEMPERATURE, 0, PublishDecimal, HistoryValue, Panel, temperature)},
     HistoryValue, HistoryNone},
    {kesEnergyDeviceString, sizeof(kesEnergyStringData),
     2, {OUT(String, voltage, "Voltage", "V"), OUT(String, ampere, "Ampere", "A")},
     3, {VALUE(KIND_VOLT, 0, PublishDecimal, HistoryNone, String, voltage),
         STRING_CHANNEL(0, String, ampere)},
     HistoryNone, HistoryEnergy},
    {kesEnergyDeviceStringOne, sizeof(kesEnergyStringData),
     2, {OUT(String, voltage, "Voltage", "V"), OUT(String, ampere, "Ampere", "A")},
     3, {VALUE(KIND_VOLT, 0, PublishDecimal, HistoryNone, String, voltage),
         STRING_CHANNEL(0, String, ampere)},
     HistoryNone, HistoryEnergy},
    {kesEnergyDeviceStringTwo, sizeof(kesEnergyStringTwoData),
     3, {OUT(StringTwo, voltage, "Voltage", "V"), OUT(StringTwo, ampere1, "1 Ampere", "A"),
         OUT(StringTwo, ampere2, "2 Ampere", "A")},
     5, {VALUE(KIND_VOLT, 0, PublishDecimal, HistoryNone, StringTwo, voltage),
         STRING_CHANNEL(0, StringTwo, ampere1), STRING_CHANNEL(1, StringTwo, ampere2)},
     HistoryNone, HistoryEnergy},
    {kesEnergyDeviceStringThree, sizeof(kesEnergyStringThreeData),
     4, {OUT(StringThree, voltage, "Voltage", "V"), OUT(StringThree, ampere1, "1 Ampere", "A"),
         OUT(StringThree, ampere2, "2 Ampere", "A"), OUT(StringThree, ampere3, "3 Ampere", "A")},
     7, {VALUE(KIND_VOLT, 0, PublishDecimal, HistoryNone, StringThree, voltage),
         STRING_CHANNEL(0, StringThree, ampere1), STRING_CHANNEL(1, StringThree, ampere2),
         STRING_CHANNEL(2, StringThree, ampere3)},
     HistoryNone, HistoryEnergy},
    {kesEnergyDeviceStringFour, sizeof(kesEnergyStringFourData),
     5, {OUT(StringFour, voltage, "Voltage", "V"), OUT(StringFour, ampere1, "1 Ampere", "A"),
         OUT(StringFour, ampere2, "2 Ampere", "A"), OUT(StringFour, ampere3, "3 Ampere", "A"),
         OUT(StringFour, ampere4, "4 Ampere", "A")},
     9, {VALUE(KIND_VOLT, 0, PublishDecimal, HistoryNone, StringFour, voltage),
         STRING_CHANNEL(0, StringFour, ampere1), STRING_CHANNEL(1, StringFour, ampere2),
         STRING_CHANNEL(2, StringFour, ampere3), STRING_CHANNEL(3, StringFour, ampere4)},
     HistoryNone, HistoryEnergy},
    {kesEnergyDeviceAlarm, sizeof(kesEnergyAlarmData),
     2, {OUT(Alarm, voltage, "Voltage", "V"), OUT(Alarm, ampere, "Ampere", "A")},
     4, {VALUE(KIND_VOLT, 0, PublishDecimal, HistoryNone, Alarm, voltage),
         STRING_CHANNEL(0, Alarm, ampere),
         VALUE(KIND_STATUS, 0, PublishInteger, HistoryInteger, Alarm, status)},
     HistoryNone, HistoryEnergy},
    {kesEnergyDevicePulseCounter, sizeof(kesEnergyPulseCounterData),
     2, {PULSE_OUTPUTS(PulseCounter, "O", count, period)},
     2, {PULSE_CHANNEL(0, PulseCounter, period, count)},
     HistoryNone, HistoryPulse},
    {kesEnergyDevicePulseCounterTwo, sizeof(kesEnergyPulseCounterTwoData),
     4, {PULSE_OUTPUTS(PulseCounterTwo, "OA", count1, period1), PULSE_OUTPUTS(PulseCounterTwo, "OR", count2, period2)},
     4, {PULSE_CHANNEL(0, PulseCounterTwo, period1, count1), PULSE_CHANNEL(1, PulseCounterTwo, period2, count2)},
     HistoryNone, HistoryPulse},
    {kesEnergyDevicePulseCounterFive, sizeof(kesEnergyPulseCounterFiveData),
     15, {PULSE_FIVE_OUTPUTS("IA", count1, period1), PULSE_FIVE_OUTPUTS("IR", count2, period2),
          PULSE_FIVE_OUTPUTS("15", count3, period3), PULSE_FIVE_OUTPUTS("OA", count4, period4),
          PULSE_FIVE_OUTPUTS("OR", count5, period5)},
     10, {PULSE_CHANNEL(0, PulseCounterFive, period1, count1), PULSE_CHANNEL(1, PulseCounterFive, period2, count2),
          PULSE_CHANNEL(2, PulseCounterFive, period3, count3), PULSE_CHANNEL(3, PulseCounterFive, period4, count4),
          PULSE_CHANNEL(4, PulseCounterFive, period5, count5)},
     HistoryNone, HistoryPulse},
    // Never read: its values are neither published nor kept.
    {kesEnergyDeviceAmbient, 0, 0, {}, 0, {}, HistoryNone, HistoryNone},
};
// clang-format on

#undef AT
#undef OUT
#undef NO_PLACE
#undef VALUE
#undef POWER
#undef STRING_CHANNEL
#undef PULSE_CHANNEL
#undef PULSE_OUTPUTS
#undef PULSE_FIVE_OUTPUTS

namespace {

// Each row names as many outputs and fields as it counts, and its record
// fits the room a line keeps for it.
constexpr bool rows_are_whole()
{
    for (const DeviceType& row : DEVICE_TYPES) {
        if (row.outputCount > MAX_OUTPUTS || row.fieldCount > MAX_FIELDS || row.recordSize > MAX_RECORD_SIZE)
            return false;
        for (unsigned int i = 0; i < MAX_OUTPUTS; ++i)
            if ((i < row.outputCount) != (row.outputs[i].label != nullptr))
                return false;
        for (unsigned int i = 0; i < MAX_FIELDS; ++i)
            if ((i < row.fieldCount) != (row.fields[i].kind != KIND_NONE))
                return false;
    }
    return true;
}

} // namespace

static_assert(rows_are_whole(), "a row of the device types counts what it names");
static_assert(offsetof(kesEnergyPanelData, address) == 0 && offsetof(kesEnergyStringData, address) == 0 &&
                  offsetof(kesEnergyStringTwoData, address) == 0 && offsetof(kesEnergyStringThreeData, address) == 0 &&
                  offsetof(kesEnergyStringFourData, address) == 0 && offsetof(kesEnergyAlarmData, address) == 0 &&
                  offsetof(kesEnergyPulseCounterData, address) == 0 &&
                  offsetof(kesEnergyPulseCounterTwoData, address) == 0 &&
                  offsetof(kesEnergyPulseCounterFiveData, address) == 0,
              "a reading record begins with the bus address");

const DeviceType* FindDeviceType(int i_type)
{
    for (const DeviceType& row : DEVICE_TYPES)
        if (static_cast<int>(row.type) == i_type)
            return &row;
    return nullptr;
}

const ValueField* FindValueField(int i_type, unsigned int i_fid)
{
    const DeviceType* row = FindDeviceType(i_type);
    return row && i_fid < row->fieldCount ? &row->fields[i_fid] : nullptr;
}

EHistoryClass HistoryClassOf(int i_type, unsigned int i_fid)
{
    const DeviceType* row = FindDeviceType(i_type);
    if (!row)
        return HistoryNone;
    return i_fid < row->fieldCount ? row->fields[i_fid].history : row->otherFids;
}

EHistoryClass TotalsOf(int i_type)
{
    const DeviceType* row = FindDeviceType(i_type);
    return row ? row->totals : HistoryNone;
}

namespace {

template <class T>
T record_at(const unsigned char* i_pRecord, unsigned short i_usAt)
{
    T value;
    memcpy(&value, i_pRecord + i_usAt, sizeof(value));
    return value;
}

} // namespace

double FieldValue(const ValueField& i_field, const unsigned char* i_pRecord)
{
    switch (i_field.kind) {
    case KIND_VOLT:
    case KIND_AMPERE:
    case KIND_TEMPERATURE:
        return record_at<float>(i_pRecord, i_field.at);
    case KIND_POWER:
        // the product of the two floats, as the device's own figures are
        return record_at<float>(i_pRecord, i_field.at) * record_at<float>(i_pRecord, i_field.by);
    case KIND_RATE: {
        // from the last time between two pulses in ms; 0 for no period
        const unsigned short period = record_at<unsigned short>(i_pRecord, i_field.at);
        return period == 0 ? 0.0 : 1.0 / period * 3600.0;
    }
    case KIND_COUNT:
        return record_at<unsigned int>(i_pRecord, i_field.at);
    case KIND_STATUS:
        return record_at<unsigned char>(i_pRecord, i_field.at);
    case KIND_NONE:
        break;
    }
    return 0.0;
}

kesString PublishedText(const ValueField& i_field, double i_value)
{
    switch (i_field.publish) {
    case PublishThousands:
        return kesString::FromFloat(static_cast<float>(i_value) / 1000.0f, 1);
    case PublishInteger:
        return kesString::FromULong(static_cast<unsigned long>(i_value));
    case PublishDecimal:
        break;
    }
    return kesString::FromFloat(static_cast<float>(i_value), 1);
}

} // namespace Energy
} // namespace kes
