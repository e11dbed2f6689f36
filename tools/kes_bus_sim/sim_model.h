// Measurements that move plausibly over time: a daylight curve for panels
// and strings, pulse counts that rise at a rate matching the period they
// report, alarm check cycles.
#ifndef KES_BUS_SIM_MODEL_H
#define KES_BUS_SIM_MODEL_H

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace kes_sim {

// The simulated day: starts at a given hour (the real one by default) and
// may run faster than real time.
class SimClock {
public:
    // i_startHour < 0 takes the local time of day.
    SimClock(double i_startHour = -1, double i_speed = 1);
    double Seconds() const; // simulated seconds since start
    double Hour() const;    // simulated hour of the day, 0 to 24

private:
    std::chrono::steady_clock::time_point m_start;
    double m_startHour;
    double m_speed;
};

// 0 at night, 1 at noon.
double Daylight(double i_hour);

class DeviceModel {
public:
    DeviceModel(int i_type, unsigned int i_mid, unsigned int i_lineId);

    int Type() const { return m_type; }
    unsigned int Mid() const { return m_mid; }
    uint32_t Serial() const { return m_serial; }
    std::string ModelText() const;
    std::string SerialText() const;
    std::string TestDate() const;
    // Registers of the measurement block from offset 0, for the time given.
    std::vector<uint16_t> Measurements(double i_seconds, double i_hour);
    // Fixed registers beyond the measurements (panel ratings at 32..40).
    std::vector<uint16_t> Ratings() const;
    static const uint8_t RATINGS_OFFSET = 32;

private:
    double advance_pulses(double i_seconds, double i_hour);
    // The registers of a pulse counter from the counts as they stand.
    std::vector<uint16_t> pulse_registers() const;

    int m_type;
    unsigned int m_mid;
    uint32_t m_serial;
    double m_scale; // a little spread between devices
    double m_last;  // simulated second of the last update of the counts
    double m_counts[5];
    double m_seconds[5];
    uint16_t m_periods[5];
};

} // namespace kes_sim

#endif
