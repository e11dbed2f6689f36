#ifndef KES_ENERGY_HISTORY_H
#define KES_ENERGY_HISTORY_H

#include "kes_energy_history_item.h"
#include "kes_enerysystem.h"
#include "kes_error.h"
#include "kes_osmutex.h"
#include "kes_string.h"
#include "kes_time.h"
#include "kes_timer.h"

namespace kes {
namespace Energy {

struct kesEnergyHistoryLevel;
struct kesEnergyHistoryPlace;
struct kesEnergyHistoryRows;

class kesEnergyHistorySystem : public kesSingletonInherited<kesEnergyHistorySystem>, public kesTimer {
public:
    kesEnergyHistorySystem();
    virtual ~kesEnergyHistorySystem();

    virtual void OnTimer();

    kesEError Init(const unsigned int& minutes);
    void SetHistoryFolder(const kesString& folder);
    kesEError RegisterParameterDouble(unsigned int uid, const kesEEnergyDeviceType& type, unsigned char fid);
    kesEError RegisterParameterInteger(unsigned int uid, const kesEEnergyDeviceType& type, unsigned char fid);
    kesEError Start();
    kesEError Stop();
    void SetValueAsDouble(unsigned int uid, const double& value);
    void SetValueAsInt(unsigned int uid, const int& value);
    kesEError UpdateAlarmStatusFile(const unsigned int& uid, unsigned char status);

    // Lists the history folder on stdout; the daemon itself does not call it.
    kesEError build_history_files();

protected:
    // The wall clock in milliseconds since the epoch. Every time the store
    // reads, the tick's date and the time of each sample alike, comes from here.
    virtual unsigned long long get_clock_ms() const;

    kesEError compute_time(unsigned int* io_msTime);

private:
    enum { STATE_RUNNING = 1 };

    unsigned int get_time() const;
    void get_date(kesTime::kesDateTime* o_date) const;
    kesString get_folder();

    void clear_history_map();

    // The steps of a tick: the rows of the interval, the next tick's time, then the files.
    void collect_rows(kesEnergyHistoryRows* o_rows);
    double add_energy(unsigned int uid, const kesEnegyHistoryFigures& figures);
    double add_pulse(unsigned int uid, const kesEnegyHistoryFigures& figures);
    void schedule_next_tick();
    kesEError update_files(const kesEnergyHistoryRows& rows, const kesTime::kesDateTime& now);

    // Every level is read or rolled over and written alike; only the day builds its text otherwise.
    kesEError open_level_file(const kesEnergyHistoryLevel& level, const kesTime::kesDateTime& now,
                              kesEnergyHistoryPlace* o_place, kesString* io_strText);
    kesEError update_day_file(const kesEnergyHistoryRows& rows, const kesTime::kesDateTime& now,
                              kesString* io_strSourceDay);
    kesEError update_level_file(const kesEnergyHistoryLevel& level, const kesEnergyHistoryRows& rows,
                                const kesTime::kesDateTime& now, const kesString& source, kesString* io_strText);
    kesString make_energy_row_final(const kesString& row);
    bool get_pulse_total(unsigned int uid, double* o_total);

    kesEError load_offset_file();
    kesEError save_offset_file();

    unsigned int m_uiFlags;
    kesString m_strFolder;
    kesOsMutex m_mutex;
    kesMap<unsigned int, kesEnegyHistoryDouble*> m_mapDouble;
    kesMap<unsigned int, kesEnegyHistoryInteger*> m_mapInteger;
    kesMap<unsigned int, double> m_mapEnergy;
    kesMap<unsigned int, PulseCounterStorage*> m_mapPulse;
    kesTime::kesDateTime m_lastDate;
    unsigned int m_uiMinutes;
};

} // namespace Energy
} // namespace kes

#endif
