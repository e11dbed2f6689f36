#include "kes_energy_history_item.h"

#include <cmath>

#include "kes_time.h"

namespace kes {
namespace Energy {

const char* kesEnegyHistoryItem::EMPTY_CHAR = "f";
unsigned int kesEnegyHistoryItem::MS_TIME = 3600000;

namespace {
const double NO_MINIMUM = 1e308;
const double NO_MAXIMUM = -1e308;
const double PULSE_TOLERANCE = 0.01;

bool near_or_above(double value, double reference)
{
    return std::fabs(value - reference) < PULSE_TOLERANCE || value > reference;
}
} // namespace

kesEnegyHistoryDouble::kesEnegyHistoryDouble(unsigned char i_fid, kesEEnergyDeviceType i_type)
    : m_dValue(0.0), m_dSum(0.0), m_dMinimum(NO_MINIMUM), m_dMaximum(NO_MAXIMUM), m_uiTime(0), m_uiFlags(0),
      m_ucFid(i_fid), m_eType(i_type)
{
}

void kesEnegyHistoryDouble::Add(const double& value)
{
    Add(value, kesTime::GetTime());
}

void kesEnegyHistoryDouble::Add(const double& value, unsigned int i_nowMs)
{
    m_uiFlags |= 1;
    // The previous sample is held until this one: it counts for the span between.
    if (m_uiTime != 0)
        m_dSum += static_cast<unsigned int>(i_nowMs - m_uiTime) * 0.001 * m_dValue;
    m_dValue = value;
    m_uiTime = i_nowMs;
    if (!(value > m_dMinimum))
        m_dMinimum = value;
    if (!(value < m_dMaximum))
        m_dMaximum = value;
}

kesEnegyHistoryFigures kesEnegyHistoryDouble::Close(unsigned int i_nowMs, unsigned int i_msTime)
{
    kesEnegyHistoryFigures figures;
    figures.noData = (m_uiFlags & 1) == 0;
    figures.last = m_dValue;
    figures.minimum = m_dMinimum;
    figures.maximum = m_dMaximum;
    // The divisor is the whole interval, so a late first sample lowers the average.
    figures.average = (m_dSum + static_cast<unsigned int>(i_nowMs - m_uiTime) * 0.001 * m_dValue) / (i_msTime / 1000.0);
    // A clock step back makes the span huge; fall back to the middle of the range.
    if (figures.average > figures.maximum)
        figures.average = (figures.maximum + figures.minimum) * 0.5;
    Reset();
    return figures;
}

void kesEnegyHistoryDouble::Reset()
{
    m_dSum = 0.0;
    m_uiFlags = 0;
    m_dMinimum = NO_MINIMUM;
    m_dMaximum = NO_MAXIMUM;
    m_uiTime = 0;
}

kesEnegyHistoryInteger::kesEnegyHistoryInteger(unsigned char i_fid, kesEEnergyDeviceType i_type)
    : m_iValue(0), m_iMinimum(2147483647), m_iMaximum(-2147483647 - 1), m_uiFlags(0), m_ucFid(i_fid), m_eType(i_type)
{
}

void kesEnegyHistoryInteger::Set(int value)
{
    m_uiFlags |= 1;
    m_iValue = value;
    if (value <= m_iMinimum)
        m_iMinimum = value;
    if (value >= m_iMaximum)
        m_iMaximum = value;
}

void kesEnegyHistoryInteger::Reset()
{
    m_uiFlags = 0;
    m_iMinimum = 2147483647;
    m_iMaximum = -2147483647 - 1;
}

PulseCounterStorage::PulseCounterStorage() : m_dPower(0.0), m_dAdjusted(0.0), m_dBase(0.0), m_dTotal(0.0)
{
}

void PulseCounterStorage::SetPower(double value)
{
    m_dPower = value;
    // A count below the base means the meter was reset: count on from the base.
    m_dAdjusted = near_or_above(value, m_dBase) ? value : m_dBase + value;
    if (near_or_above(m_dAdjusted, m_dTotal))
        m_dTotal = m_dAdjusted;
    else
        m_dBase = m_dTotal;
}

} // namespace Energy
} // namespace kes
