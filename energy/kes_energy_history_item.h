#ifndef KES_ENERGY_HISTORY_ITEM_H
#define KES_ENERGY_HISTORY_ITEM_H

#include "kes_enerysystem.h"

namespace kes {
namespace Energy {

class kesEnegyHistoryItem {
public:
    // Stands in the files and on the datagram for a sample that did not arrive.
    static const char* EMPTY_CHAR;
    // Length of the running interval in ms, as compute_time gave it at its start.
    static unsigned int MS_TIME;
};

// What closing an interval hands to the tick.
struct kesEnegyHistoryFigures {
    bool noData;
    double average;
    double minimum;
    double maximum;
    double last;
};

class kesEnegyHistoryDouble : public kesEnegyHistoryItem {
public:
    kesEnegyHistoryDouble(unsigned char i_fid, kesEEnergyDeviceType i_type);

    void Add(const double& value);
    // The history store passes its own clock so that ticks can be driven in tests.
    void Add(const double& value, unsigned int i_nowMs);
    // Closes the interval at i_nowMs over i_msTime ms and starts the next one clean.
    kesEnegyHistoryFigures Close(unsigned int i_nowMs, unsigned int i_msTime);
    void Reset();

    double m_dValue;
    double m_dSum;
    double m_dMinimum;
    double m_dMaximum;
    unsigned int m_uiTime;
    unsigned int m_uiFlags;
    unsigned char m_ucFid;
    kesEEnergyDeviceType m_eType;
};

class kesEnegyHistoryInteger : public kesEnegyHistoryItem {
public:
    kesEnegyHistoryInteger(unsigned char i_fid, kesEEnergyDeviceType i_type);

    void Set(int value);
    void Reset();

    int m_iValue;
    int m_iMinimum;
    int m_iMaximum;
    unsigned int m_uiFlags;
    unsigned char m_ucFid;
    kesEEnergyDeviceType m_eType;
};

class PulseCounterStorage {
public:
    PulseCounterStorage();

    void SetPower(double value);

    double m_dPower;
    double m_dAdjusted;
    double m_dBase;
    double m_dTotal;
};

} // namespace Energy
} // namespace kes

#endif
