#ifndef KES_ENERGY_H
#define KES_ENERGY_H

#include <atomic>

#include "kes_containers.h"
#include "kes_energy_history.h"
#include "kes_error.h"
#include "kes_event.h"
#include "kes_osevent.h"
#include "kes_osmutex.h"
#include "kes_osthread.h"
#include "kes_string.h"

class TiXmlElement;

namespace kes {
namespace Energy {

class kesEnergyLine;
class kesEnergyDavisMeteo;

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

    // One configured value: the device it belongs to by key, and which of its values.
    struct DataAddress {
        unsigned char fid;
        unsigned int key; // bus address << 16 | line id
        unsigned int iid;
        DataAddress* next;
    };

    static void on_sigint(int signal);
    static void on_event(const kesEvent& event);
    void update_from_event(const kesEvent& event);
    unsigned int send_data_to_mira(unsigned int iid, const kesString& text);
    // Also called first thing by main: a SIGTERM during start-up is kept, not fatal.
    static bool InstallSigtermHandler();

    unsigned char GetHistoryTime() const { return m_uHistoryTime; }

    // For tests: the configuration as the daemon reads it, without starting anything.
    kesEError Configure(const kesString& path);
    kesEnergyHistorySystem& GetHistory() { return m_History; }
    const kesArray<kesEnergyLine*>& GetLines() const { return m_aLines; }
    kesEnergyDavisMeteo* GetDavisMeteo() const { return m_pDavisMeteo; }
    const DataAddress* GetDataAddress(unsigned int key) const { return m_mDataAddress.GetKeyValue(key); }
    // The datagram port; 16549 but for tests.
    static unsigned short MiraPort;

private:
    kesEError configure_system();
    kesEError configure_line(const TiXmlElement* element);
    void add_to_line_list(kesEnergyLine* line);
    void clear_line_list();
    bool add_to_dataaddress_map(DataAddress* record);
    void clear_dataaddress_map();

    static void sigterm_relay_proc(kesOsThread* thread, void* argument);
    bool start_sigterm_relay();
    void stop_sigterm_relay();
    void stop_all();

    kesString m_sConfigurationPath;
    kesString m_sDataDirectory;
    kesOsEvent m_eTerm;
    kesOsMutex m_mMutex;
    kesEnergyHistorySystem m_History;
    unsigned char m_uHistoryTime;
    kesArray<kesEnergyLine*> m_aLines;
    // the line that polls each key: two lines of one id must not share one,
    // or each would fill the other's values
    kesMap<unsigned int, const kesEnergyLine*> m_mKeyLine;
    kesEnergyDavisMeteo* m_pDavisMeteo;
    kesMap<unsigned int, DataAddress*> m_mDataAddress;
    kesOsThread* m_pSigtermRelay;
    std::atomic<bool> m_bRelayQuit;
};

// The history time that a -history value asks for: a divisor of 60.
unsigned char kesHistoryTimeFromValue(unsigned long value);

} // namespace Energy
} // namespace kes

#endif
