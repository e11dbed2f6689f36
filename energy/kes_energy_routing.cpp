// Turning a reading into published and stored values.
#include "kes_energy.h"
#include "kes_energy_configure.h"
#include "kes_energy_history_item.h"
#include "kes_energy_mira.h"
#include "kes_enerysystem.h"

namespace kes {
namespace Energy {

namespace {

// A reading of any device type, brought to one shape.
struct Reading {
    unsigned short address = 0;
    float voltage = 0;
    float temperature = 0;
    float ampere[4] = {0, 0, 0, 0};
    unsigned int count[5] = {0, 0, 0, 0, 0};
    unsigned short period[5] = {0, 0, 0, 0, 0};
    unsigned char status = 0;
};

} // namespace

namespace {

// Brings the record of a reading event to one shape; false for a code that is no reading.
bool normalise(int code, const void* data, Reading* o_reading)
{
    Reading& r = *o_reading;
    switch (code) {
    case kesEnergyDevicePanel: {
        const kesEnergyPanelData* d = static_cast<const kesEnergyPanelData*>(data);
        r.address = d->address;
        r.voltage = d->voltage;
        r.temperature = d->temperature;
        return true;
    }
    case kesEnergyDeviceString:
    case kesEnergyDeviceStringOne: {
        const kesEnergyStringData* d = static_cast<const kesEnergyStringData*>(data);
        r.address = d->address;
        r.voltage = d->voltage;
        r.ampere[0] = d->ampere;
        return true;
    }
    case kesEnergyDeviceStringTwo: {
        const kesEnergyStringTwoData* d = static_cast<const kesEnergyStringTwoData*>(data);
        r.address = d->address;
        r.voltage = d->voltage;
        r.ampere[0] = d->ampere1;
        r.ampere[1] = d->ampere2;
        return true;
    }
    case kesEnergyDeviceStringThree: {
        const kesEnergyStringThreeData* d = static_cast<const kesEnergyStringThreeData*>(data);
        r.address = d->address;
        r.voltage = d->voltage;
        r.ampere[0] = d->ampere1;
        r.ampere[1] = d->ampere2;
        r.ampere[2] = d->ampere3;
        return true;
    }
    case kesEnergyDeviceStringFour: {
        const kesEnergyStringFourData* d = static_cast<const kesEnergyStringFourData*>(data);
        r.address = d->address;
        r.voltage = d->voltage;
        r.ampere[0] = d->ampere1;
        r.ampere[1] = d->ampere2;
        r.ampere[2] = d->ampere3;
        r.ampere[3] = d->ampere4;
        return true;
    }
    case kesEnergyDeviceAlarm: {
        const kesEnergyAlarmData* d = static_cast<const kesEnergyAlarmData*>(data);
        r.address = d->address;
        r.voltage = d->voltage;
        r.ampere[0] = d->ampere;
        r.status = d->status;
        return true;
    }
    case kesEnergyDevicePulseCounter: {
        const kesEnergyPulseCounterData* d = static_cast<const kesEnergyPulseCounterData*>(data);
        r.address = d->address;
        r.count[0] = d->count;
        r.period[0] = d->period;
        return true;
    }
    case kesEnergyDevicePulseCounterTwo: {
        const kesEnergyPulseCounterTwoData* d = static_cast<const kesEnergyPulseCounterTwoData*>(data);
        r.address = d->address;
        r.count[0] = d->count1;
        r.period[0] = d->period1;
        r.count[1] = d->count2;
        r.period[1] = d->period2;
        return true;
    }
    case kesEnergyDevicePulseCounterFive: {
        const kesEnergyPulseCounterFiveData* d = static_cast<const kesEnergyPulseCounterFiveData*>(data);
        r.address = d->address;
        const unsigned int counts[5] = {d->count1, d->count2, d->count3, d->count4, d->count5};
        const unsigned short periods[5] = {d->period1, d->period2, d->period3, d->period4, d->period5};
        for (int i = 0; i < 5; ++i) {
            r.count[i] = counts[i];
            r.period[i] = periods[i];
        }
        return true;
    }
    default:
        return false;
    }
}

// Pulses per hour from the last time between two pulses in ms; 0 for no period.
double rate_of(unsigned short period)
{
    return period == 0 ? 0.0 : 1.0 / period * 3600.0;
}

} // namespace

void kesEnergy::on_event(const kesEvent& event)
{
    kesEnergy* self = kesSingletonInherited<kesEnergy>::_instance;
    if (self)
        self->update_from_event(event);
}

void kesEnergy::update_from_event(const kesEvent& event)
{
    if (!event.data)
        return;
    Reading reading;
    unsigned int key;
    if (event.code == kesEnergyEventCommunicationError) {
        key = *static_cast<const unsigned int*>(event.data);
    } else if (event.code == kesEnergyEventAlarmStatus) {
        key = (static_cast<unsigned int>(static_cast<const kesEnergyAlarmData*>(event.data)->address) << 16) |
              (event.source & 0xFFFF);
    } else if (normalise(event.code, event.data, &reading)) {
        key = (static_cast<unsigned int>(reading.address) << 16) | (event.source & 0xFFFF);
    } else {
        return;
    }
    const DataAddress* first = m_mDataAddress.GetKeyValue(key);
    if (!first)
        return;

    if (event.code == kesEnergyEventCommunicationError) {
        for (const DataAddress* item = first; item; item = item->next)
            send_data_to_mira(item->iid, kesEnegyHistoryItem::EMPTY_CHAR);
        return;
    }
    if (event.code == kesEnergyEventAlarmStatus) {
        unsigned char status = static_cast<const kesEnergyAlarmData*>(event.data)->status;
        if (m_History.UpdateAlarmStatusFile(first->iid, status) != kesErrorOk)
            KES_LOG(kesErrorFailed, "can not update alarm status");
        return;
    }

    const ValueField* fields = FIELDS[event.code];
    for (const DataAddress* item = first; item; item = item->next) {
        if (item->fid >= MAX_FIELDS || fields[item->fid].kind == KIND_NONE)
            continue;
        const unsigned char channel = fields[item->fid].channel;
        float value = 0;
        switch (fields[item->fid].kind) {
        case KIND_VOLT:
            value = reading.voltage;
            break;
        case KIND_TEMPERATURE:
            value = reading.temperature;
            break;
        case KIND_AMPERE:
            value = reading.ampere[channel];
            break;
        case KIND_POWER:
            value = reading.voltage * reading.ampere[channel];
            break;
        case KIND_RATE: {
            double rate = rate_of(reading.period[channel]);
            m_History.SetValueAsDouble(item->iid, rate);
            send_data_to_mira(item->iid, kesString::FromFloat(static_cast<float>(rate), 1));
            continue;
        }
        case KIND_COUNT: {
            // Stored as single pulses, published in thousands.
            m_History.SetValueAsDouble(item->iid, static_cast<double>(reading.count[channel]));
            send_data_to_mira(item->iid, kesString::FromFloat(static_cast<float>(reading.count[channel]) / 1000.0f, 1));
            continue;
        }
        case KIND_STATUS:
            m_History.SetValueAsInt(item->iid, static_cast<int>(reading.status));
            send_data_to_mira(item->iid, kesString::FromULong(reading.status));
            continue;
        case KIND_NONE:
            continue;
        }
        m_History.SetValueAsDouble(item->iid, static_cast<double>(value));
        send_data_to_mira(item->iid, kesString::FromFloat(value, 1));
    }
}

unsigned int kesEnergy::send_data_to_mira(unsigned int iid, const kesString& text)
{
    kesEnergySendToMira(iid, text, MiraPort);
    return 0;
}

} // namespace Energy
} // namespace kes
