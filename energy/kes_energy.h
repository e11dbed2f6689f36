#ifndef KES_ENERGY_H
#define KES_ENERGY_H

#include <atomic>

#include "kes_containers.h"
#include "kes_error.h"
#include "kes_osevent.h"
#include "kes_osmutex.h"
#include "kes_osthread.h"
#include "kes_string.h"

namespace kes {
namespace Energy {

// The daemon: owns every line, the weather client, the history store and the data-address map.
class kesEnergy : public kesSingletonInherited<kesEnergy> {
public:
    kesEnergy();
    ~kesEnergy();
    kesEnergy(const kesEnergy&) = delete;
    kesEnergy& operator=(const kesEnergy&) = delete;

    kesEError Init(int argc, char** argv);
    kesEError Execute();
    kesEError Term();

    static kesString GetVersion();
    static kesString GetPatch();
    static kesString GetInfo();

    static void on_sigint(int signal);
    // Also called first thing by main: a SIGTERM during start-up is kept, not fatal.
    static bool InstallSigtermHandler();

    unsigned char GetHistoryTime() const { return m_uHistoryTime; }

private:
    static void sigterm_relay_proc(kesOsThread* thread, void* argument);
    bool start_sigterm_relay();
    void stop_sigterm_relay();
    void stop_all();

    kesString m_sConfigurationPath;
    kesString m_sDataDirectory;
    kesOsEvent m_eTerm;
    kesOsMutex m_mMutex;
    unsigned char m_uHistoryTime;
    kesOsThread* m_pSigtermRelay;
    std::atomic<bool> m_bRelayQuit;
};

// The history time that a -history value asks for: a divisor of 60.
unsigned char kesHistoryTimeFromValue(unsigned long value);

} // namespace Energy
} // namespace kes

#endif
