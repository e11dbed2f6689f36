#ifndef KES_ENERGY_DAVIS_METEO_H
#define KES_ENERGY_DAVIS_METEO_H

#include "kes_error.h"
#include "kes_osmutex.h"
#include "kes_ostcpsocket.h"
#include "kes_osthread.h"
#include "kes_string.h"

namespace kes {
namespace Energy {

// Reads the record stream of a Davis weather station through its TCP
// gateway and keeps the weather files "meteo_c" and "meteo" up to date.
// The gateway talks by itself: nothing is ever sent to it.
class kesEnergyDavisMeteo {
public:
    // The pacing of the reader: one byte per pass, then this pause. It keeps
    // the client's cost near zero; the gateway's bursts wait in the socket.
    static constexpr unsigned int BYTE_PAUSE_MS = 100;
    static constexpr unsigned int RECEIVE_TIMEOUT_MS = 250;
    static constexpr unsigned int MAX_RECORD_SIZE = 4096;
    static constexpr unsigned int THREAD_STACK_SIZE = 524288;

    // i_uBytePause exists for tests, which cannot wait 100 ms per byte.
    explicit kesEnergyDavisMeteo(unsigned int i_uBytePause = BYTE_PAUSE_MS);
    // Virtual although nothing in the daemon derives from the class: the
    // owner deletes through this type and OnData may be overridden.
    virtual ~kesEnergyDavisMeteo();

    void SetAddress(const kesString& i_address, unsigned short i_port);
    void SetHistoryFolder(const kesString& i_folder);
    kesEError Start();
    kesEError Stop();

    // One record, its fields separated by "|".
    virtual void OnData(const kesString& i_data);

private:
    static constexpr unsigned int FLAG_RUNNING = 1;
    static constexpr unsigned int FLAG_STOP_REQUESTED = 2;

    kesEError start_threads();
    void term_threads();
    bool is_exit();
    static void thread_proc(kesOsThread* i_pThread, void* i_pClient);

    kesEnergyDavisMeteo(const kesEnergyDavisMeteo&) = delete;
    kesEnergyDavisMeteo& operator=(const kesEnergyDavisMeteo&) = delete;

    unsigned int m_uFlags;
    kesOsThread* m_pThread;
    kesOsMutex m_oMutex;
    kesString m_sAddress;
    unsigned short m_usPort;
    kesString m_sHistoryFolder;
    kesOsTcpSocket m_oSocket;
    unsigned int m_uBytePause;
};

} // namespace Energy
} // namespace kes

#endif
