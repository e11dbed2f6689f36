// Turning a reading into published and stored values.
#include "kes_energy.h"

#include <cstring>

#include "kes_energy_device_types.h"
#include "kes_energy_history_item.h"
#include "kes_energy_mira.h"
#include "kes_enerysystem.h"

namespace kes {
namespace Energy {

namespace {

// The key of a device's values: bus address and line.
unsigned int key_of(unsigned short address, unsigned int line)
{
    return (static_cast<unsigned int>(address) << 16) | (line & 0xFFFF);
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
    if (event.code == kesEnergyEventCommunicationError) {
        for (const DataAddress* item = GetDataAddress(*static_cast<const unsigned int*>(event.data)); item;
             item = item->next)
            send_data_to_mira(item->iid, kesEnegyHistoryItem::EMPTY_CHAR);
        return;
    }
    if (event.code == kesEnergyEventAlarmStatus) {
        const kesEnergyAlarmData* alarm = static_cast<const kesEnergyAlarmData*>(event.data);
        const DataAddress* first = GetDataAddress(key_of(alarm->address, event.source));
        if (first && m_History.UpdateAlarmStatusFile(first->iid, alarm->status) != kesErrorOk)
            KES_LOG(kesErrorFailed, "can not update alarm status");
        return;
    }
    const DeviceType* type = FindDeviceType(event.code);
    if (!type || type->recordSize == 0)
        return;
    // Every reading record begins with the bus address.
    const unsigned char* record = static_cast<const unsigned char*>(event.data);
    unsigned short address = 0;
    memcpy(&address, record, sizeof(address));
    for (const DataAddress* item = GetDataAddress(key_of(address, event.source)); item; item = item->next) {
        if (item->fid >= type->fieldCount)
            continue;
        const ValueField& field = type->fields[item->fid];
        const double value = FieldValue(field, record);
        if (field.history == HistoryInteger)
            m_History.SetValueAsInt(item->iid, static_cast<int>(value));
        else
            m_History.SetValueAsDouble(item->iid, value);
        send_data_to_mira(item->iid, PublishedText(field, value));
    }
}

unsigned int kesEnergy::send_data_to_mira(unsigned int iid, const kesString& text)
{
    kesEnergySendToMira(iid, text, MiraPort);
    return 0;
}

} // namespace Energy
} // namespace kes
