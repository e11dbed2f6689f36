// What each device type is to the daemon, in one place: its read, where each
// output of the read lands in the reading record, and by fid what each value
// is, how it goes out on the datagram and how the history keeps it. The line's
// cycle, the routing, the configuration, the history tick and the tools read
// this table; a new device type is a row of it.
#ifndef KES_ENERGY_DEVICE_TYPES_H
#define KES_ENERGY_DEVICE_TYPES_H

#include "kes_enerysystem.h"

namespace kes {
namespace Energy {

// What one value of a reading is; the kind also fixes how it is read from the
// record: float for a measurement, unsigned short for the period behind a
// rate, unsigned int for a count, unsigned char for a status.
enum ValueKind { KIND_NONE, KIND_VOLT, KIND_AMPERE, KIND_POWER, KIND_TEMPERATURE, KIND_RATE, KIND_COUNT, KIND_STATUS };

// How a value goes out on the datagram.
enum EPublish {
    PublishDecimal,   // one decimal
    PublishThousands, // in thousands, one decimal
    PublishInteger    // a whole number
};

// How the history store keeps a value.
enum EHistoryClass {
    HistoryNone,    // accumulated, but in no file
    HistoryEnergy,  // average, minimum, maximum and the energy total
    HistoryValue,   // average, minimum and maximum
    HistoryPulse,   // the pulse total
    HistoryInteger, // the last whole number, in no file
};

const unsigned int MAX_FIELDS = 10;
const unsigned int MAX_OUTPUTS = kesEnergySystem::MAX_MEASUREMENT_OUTPUTS;
// Room for the largest reading record.
const unsigned int MAX_RECORD_SIZE = 64;
// Where an output goes that the record has no place for.
const unsigned short NOWHERE = 0xFFFF;

struct ValueField {
    ValueKind kind;
    unsigned char channel; // 0 for the first
    EPublish publish;
    EHistoryClass history;
    unsigned short at; // offset of the value in the reading record
    unsigned short by; // a power: offset of the current the voltage is multiplied by
};

// One output of the engine's read, in the order of the read.
struct ReadOutput {
    const char* label; // as kes_bus read prints it
    const char* unit;  // null for a count
    unsigned short at; // offset in the reading record, or NOWHERE
    unsigned short size;
};

struct DeviceType {
    kesEEnergyDeviceType type; // also the event code of its readings
    unsigned short recordSize; // 0: the type has no read
    unsigned char outputCount;
    ReadOutput outputs[MAX_OUTPUTS];
    unsigned char fieldCount;
    ValueField fields[MAX_FIELDS];
    EHistoryClass otherFids; // how a fid past the fields is kept
    EHistoryClass totals;    // the total kept for every value of such a device
};

// In the order of a line's cycle, which is neither that of the type numbers
// nor that of the configuration.
const unsigned int DEVICE_TYPE_COUNT = 11;
extern const DeviceType DEVICE_TYPES[DEVICE_TYPE_COUNT];

// Null for a number that is no device type.
const DeviceType* FindDeviceType(int i_type);
// Null for a fid the type does not have.
const ValueField* FindValueField(int i_type, unsigned int i_fid);
EHistoryClass HistoryClassOf(int i_type, unsigned int i_fid);
EHistoryClass TotalsOf(int i_type);

// The value of a field in a reading record: a rate in pulses per hour, a count
// in pulses, a status as its number.
double FieldValue(const ValueField& i_field, const unsigned char* i_pRecord);
// The text of the datagram.
kesString PublishedText(const ValueField& i_field, double i_value);

} // namespace Energy
} // namespace kes

#endif
