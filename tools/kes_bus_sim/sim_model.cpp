#include "sim_model.h"

#include <algorithm>
#include <cmath>
#include <ctime>

#include "kes_enerysystem.h"

namespace kes_sim {

namespace {

const double PI = 3.14159265358979;

uint16_t reg(double i_value)
{
    if (i_value <= 0)
        return 0;
    return i_value >= 65535 ? 65535 : static_cast<uint16_t>(std::lround(i_value));
}

void put32(std::vector<uint16_t>* io_registers, size_t i_offset, double i_count)
{
    uint32_t value = static_cast<uint32_t>(std::fmod(i_count, 4294967296.0));
    (*io_registers)[i_offset] = static_cast<uint16_t>(value >> 16);
    (*io_registers)[i_offset + 1] = static_cast<uint16_t>(value & 0xFFFF);
}

// Pulses per hour of channel n of a meter: consumption channels are steady,
// the production ones follow the sun.
double pulse_rate(int i_channel, double i_scale, double i_sun)
{
    static const double BASE[5] = {1800, 300, 900, 2400, 200};
    bool production = i_channel == 3;
    double rate = BASE[i_channel] * i_scale;
    return production ? rate * i_sun : rate;
}

} // namespace

SimClock::SimClock(double i_startHour, double i_speed)
    : m_start(std::chrono::steady_clock::now()), m_startHour(i_startHour), m_speed(i_speed > 0 ? i_speed : 1)
{
    if (m_startHour < 0) {
        time_t now = time(nullptr);
        struct tm local;
        localtime_r(&now, &local);
        m_startHour = local.tm_hour + local.tm_min / 60.0 + local.tm_sec / 3600.0;
    }
}

double SimClock::Seconds() const
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - m_start).count() * m_speed;
}

double SimClock::Hour() const
{
    return std::fmod(m_startHour + Seconds() / 3600.0, 24.0);
}

double Daylight(double i_hour)
{
    if (i_hour <= 6 || i_hour >= 20)
        return 0;
    return std::pow(std::sin(PI * (i_hour - 6) / 14), 1.5);
}

DeviceModel::DeviceModel(int i_type, unsigned int i_mid, unsigned int i_lineId)
    : m_type(i_type), m_mid(i_mid), m_last(0)
{
    m_serial = 10000000u + (i_lineId % 100) * 100000u + static_cast<uint32_t>(i_type) * 1000u + i_mid;
    m_scale = 0.9 + (m_serial * 2654435761u % 1000) / 5000.0;
    for (int i = 0; i < 5; ++i) {
        m_counts[i] = 1000.0 * (i_mid * 37 % 900 + 100) * (i + 1);
        m_seconds[i] = m_counts[i] / 3;
        m_periods[i] = 0;
    }
}

std::string DeviceModel::ModelText() const
{
    static const char* const MODELS[] = {"",       "KP-250", "KS-600", "KA-100", "KT-10",  "KC-1",
                                         "KS-602", "KS-604", "KC-2",   "KC-5",   "KS-601", "KS-603"};
    return MODELS[m_type];
}

std::string DeviceModel::SerialText() const
{
    return "KES" + std::to_string(m_serial);
}

std::string DeviceModel::TestDate() const
{
    return "2024-0" + std::to_string(1 + m_mid % 9) + "-1" + std::to_string(m_mid % 10);
}

double DeviceModel::advance_pulses(double i_seconds, double i_hour)
{
    double elapsed = std::max(0.0, i_seconds - m_last);
    m_last = i_seconds;
    double sun = Daylight(i_hour);
    for (int i = 0; i < 5; ++i) {
        double rate = pulse_rate(i, m_scale, sun);
        m_counts[i] += rate * elapsed / 3600.0;
        m_seconds[i] += rate * elapsed / 7200.0;
        // the time between the last two pulses, as the meter measures it
        m_periods[i] = rate < 55 ? 0 : reg(3600000.0 / rate);
    }
    return sun;
}

std::vector<uint16_t> DeviceModel::Measurements(double i_seconds, double i_hour)
{
    double sun = Daylight(i_hour);
    // slow clouds: a few minutes of shade now and then
    double cloud = 0.85 + 0.15 * std::sin(i_seconds / 97.0 + m_mid);
    double ampere = 8.5 * sun * cloud * m_scale;
    double volt = sun > 0 ? 560 + 90 * std::sqrt(sun) : 12 * m_scale;
    std::vector<uint16_t> r;
    switch (m_type) {
    case kes::kesEnergyDevicePanel: // Panel: 0.01 V, 0.1 degrees
        r = {reg((sun > 0 ? 30.5 + 6 * std::sqrt(sun) : 0.4) * 100 * m_scale),
             reg((12 + 33 * sun * cloud + std::sin(i_seconds / 31.0)) * 10)};
        break;
    case kes::kesEnergyDeviceString:
    case kes::kesEnergyDeviceStringOne:
    case kes::kesEnergyDeviceStringTwo:
    case kes::kesEnergyDeviceStringThree:
    case kes::kesEnergyDeviceStringFour: {
        int channels = m_type == kes::kesEnergyDeviceStringTwo     ? 2
                       : m_type == kes::kesEnergyDeviceStringThree ? 3
                       : m_type == kes::kesEnergyDeviceStringFour  ? 4
                                                                   : 1;
        r.push_back(reg(volt * 10));
        for (int c = 0; c < channels; ++c)
            r.push_back(reg(ampere * (1 - 0.03 * c) * 100));
        break;
    }
    case kes::kesEnergyDeviceAlarm: { // Alarm: a check cycle every ten minutes, twenty seconds long
        double phase = std::fmod(i_seconds + m_mid * 13, 600.0);
        uint16_t status = phase < 20 ? 0x0100 : 0x0000; // low byte: success
        r = {reg(volt * 10), reg(ampere * 100), status, reg(volt * ampere * 0.02)};
        break;
    }
    case kes::kesEnergyDevicePulseCounter:
    case kes::kesEnergyDevicePulseCounterTwo:
    case kes::kesEnergyDevicePulseCounterFive: {
        advance_pulses(i_seconds, i_hour);
        r = pulse_registers();
        break;
    }
    default:
        break;
    }
    return r;
}

std::vector<uint16_t> DeviceModel::pulse_registers() const
{
    std::vector<uint16_t> r;
    if (m_type == kes::kesEnergyDevicePulseCounter) {
        r.assign(3, 0);
        put32(&r, 0, m_counts[0]);
        r[2] = m_periods[0];
    } else if (m_type == kes::kesEnergyDevicePulseCounterTwo) {
        r.assign(6, 0);
        for (int c = 0; c < 2; ++c) {
            int channel = c == 0 ? 3 : 4; // OA and OR
            put32(&r, c * 3, m_counts[channel]);
            r[c * 3 + 2] = m_periods[channel];
        }
    } else {
        r.assign(25, 0);
        for (int c = 0; c < 5; ++c) {
            put32(&r, c * 5, m_counts[c]);
            r[c * 5 + 2] = m_periods[c];
            put32(&r, c * 5 + 3, m_seconds[c]);
        }
    }
    return r;
}

std::vector<uint16_t> DeviceModel::Ratings() const
{
    if (m_type != kes::kesEnergyDevicePanel)
        return std::vector<uint16_t>();
    // open circuit V and A, max power, V and A at max power, reserved,
    // efficiency, cells, panels
    return {3780, 890, 2500, 3050, 820, 0, 1540, 60, 1};
}

} // namespace kes_sim
