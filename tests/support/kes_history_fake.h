#ifndef KES_HISTORY_FAKE_H
#define KES_HISTORY_FAKE_H

#include <ftw.h>
#include <stdlib.h>

#include <atomic>
#include <cstdio>
#include <ctime>
#include <string>

#include "kes_energy_history.h"

namespace kes_test {

// Milliseconds since the epoch of a local date and time.
inline unsigned long long LocalMs(int year, int month, int day, int hour, int minute, int second = 0)
{
    struct tm local = {};
    local.tm_year = year - 1900, local.tm_mon = month - 1, local.tm_mday = day;
    local.tm_hour = hour, local.tm_min = minute, local.tm_sec = second, local.tm_isdst = -1;
    return static_cast<unsigned long long>(mktime(&local)) * 1000ull;
}

// A folder in memory where there is one: every file the store replaces is
// synced, which on a disk shared by busy builds costs more than the test itself.
class MemoryDir {
public:
    MemoryDir()
    {
        char memory[] = "/dev/shm/kes_history_XXXXXX", disk[] = "/tmp/kes_history_XXXXXX";
        const char* made = mkdtemp(memory);
        m_path = made ? made : mkdtemp(disk);
    }
    ~MemoryDir()
    {
        auto remove_one = [](const char* path, const struct stat*, int, struct FTW*) { return remove(path); };
        nftw(m_path.c_str(), remove_one, 8, FTW_DEPTH | FTW_PHYS);
    }
    const std::string& Path() const { return m_path; }
    std::string File(const std::string& name) const { return m_path + "/" + name; }

private:
    std::string m_path;
};

// The history store on a clock the test sets. Its timer thread runs but does
// nothing unless let: the test drives each tick through Tick().
class FakeClockHistory : public kes::Energy::kesEnergyHistorySystem {
public:
    FakeClockHistory() : m_ms(LocalMs(2015, 3, 14, 9, 0)) {}
    // Stopped while still of this class, so the thread never reaches the real tick.
    ~FakeClockHistory() override
    {
        Stop();
        kes::kesTimer::Stop();
    }
    void SetClock(unsigned long long ms) { m_ms = ms; }
    void SetLocal(int year, int month, int day, int hour, int minute, int second = 0)
    {
        m_ms = LocalMs(year, month, day, hour, minute, second);
    }
    void Tick() { kes::Energy::kesEnergyHistorySystem::OnTimer(); }
    void LetTimerTick(bool allowed) { m_timerTicks = allowed; }
    void OnTimer() override
    {
        if (m_timerTicks)
            Tick();
    }
    unsigned int ComputeTime()
    {
        unsigned int ms = 0;
        compute_time(&ms);
        return ms;
    }

protected:
    unsigned long long get_clock_ms() const override { return m_ms; }

private:
    std::atomic<unsigned long long> m_ms;
    std::atomic<bool> m_timerTicks{false};
};

} // namespace kes_test

#endif
