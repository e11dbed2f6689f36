#ifndef KES_ENERGY_DEVICE_TYPE_H
#define KES_ENERGY_DEVICE_TYPE_H

// The device types belong to the bus engine; until it is in the tree the history
// store carries the same enumeration so that it builds on its own.
#if __has_include("kes_enerysystem.h")
#include "kes_enerysystem.h"
#else
namespace kes
{
enum kesEEnergyDeviceType : unsigned int
{
    kesEnergyDevicePanel = 1,
    kesEnergyDeviceString = 2,
    kesEnergyDeviceAlarm = 3,
    kesEnergyDeviceAmbient = 4,
    kesEnergyDevicePulseCounter = 5,
    kesEnergyDeviceStringTwo = 6,
    kesEnergyDeviceStringFour = 7,
    kesEnergyDevicePulseCounterTwo = 8,
    kesEnergyDevicePulseCounterFive = 9,
    kesEnergyDeviceStringOne = 10,
    kesEnergyDeviceStringThree = 11
};
} // namespace kes
#endif

#endif
