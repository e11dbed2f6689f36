// The table of device types against the engine's register map: a row that
// names an output the read does not give, or gives it another size, would
// land a value in the wrong place of the record.
#include <gtest/gtest.h>

#include "kes_energy_device_types.h"

using namespace kes;
using namespace kes::Energy;

namespace {

unsigned int size_of(kesEnergySystem::kesEMeasurementOutput i_kind)
{
    switch (i_kind) {
    case kesEnergySystem::MeasurementFloat:
        return sizeof(float);
    case kesEnergySystem::MeasurementWord:
        return sizeof(unsigned short);
    case kesEnergySystem::MeasurementLong:
        return sizeof(unsigned int);
    default:
        return 0;
    }
}

unsigned int kind_size(ValueKind i_kind)
{
    return i_kind == KIND_RATE     ? sizeof(unsigned short)
           : i_kind == KIND_COUNT  ? sizeof(unsigned int)
           : i_kind == KIND_STATUS ? sizeof(unsigned char)
                                   : sizeof(float);
}

} // namespace

TEST(DeviceTypes, EveryRowMatchesTheReadOfItsTypeAndItsRecord)
{
    bool seen[12] = {};
    for (const DeviceType& row : DEVICE_TYPES) {
        SCOPED_TRACE(kesEnergySystem::DeviceTypeToTypeName(row.type).c_str());
        ASSERT_LT(static_cast<unsigned int>(row.type), 12u);
        EXPECT_FALSE(seen[row.type]) << "one row per type";
        seen[row.type] = true;
        EXPECT_EQ(kesEnergySystem::GetMeasurementOutput(row.type, row.outputCount), kesEnergySystem::MeasurementNone);
        for (unsigned int i = 0; i < row.outputCount; ++i) {
            EXPECT_EQ(size_of(kesEnergySystem::GetMeasurementOutput(row.type, i)), row.outputs[i].size) << i;
            if (row.outputs[i].at != NOWHERE) {
                EXPECT_LE(row.outputs[i].at + row.outputs[i].size, row.recordSize) << i;
            }
        }
        // every value is read from a place the read fills, at the size of its kind
        for (unsigned int fid = 0; fid < row.fieldCount; ++fid) {
            const ValueField& field = row.fields[fid];
            bool filled = field.kind == KIND_STATUS; // kept by the line, not read
            for (unsigned int i = 0; i < row.outputCount; ++i)
                filled = filled || (row.outputs[i].at == field.at && row.outputs[i].size == kind_size(field.kind));
            EXPECT_TRUE(filled) << "fid " << fid;
            EXPECT_LE(field.at + kind_size(field.kind), row.recordSize) << "fid " << fid;
        }
    }
    for (unsigned int type = kesEnergyDevicePanel; type <= kesEnergyDeviceStringThree; ++type)
        EXPECT_TRUE(seen[type]) << type;
}
