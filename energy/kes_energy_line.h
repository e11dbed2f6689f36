// One polled bus: its channel, the device addresses on it, and the thread that
// reads them in turn and raises one event per device and cycle.
#ifndef KES_ENERGY_LINE_H
#define KES_ENERGY_LINE_H

#include <atomic>

#include "kes_energy_device_types.h"
#include "kes_enerysystem.h"
#include "kes_error.h"
#include "kes_event.h"
#include "kes_osmutex.h"
#include "kes_osthread.h"
#include "kes_string.h"

namespace kes {
namespace Energy {

class kesEnergyLine : public kesEventDispatcher {
public:
    // Timing the daemon starts every line with, in milliseconds.
    static const unsigned int RECEIVE_TIMEOUT = 500;
    static const unsigned int ANSWER_PAUSE = 100;
    static const unsigned int FAILURE_PAUSE = 100;
    // Pause between two cycles, and before each reconnection attempt.
    static const unsigned int CYCLE_PAUSE = 10;
    static const unsigned int RECONNECT_PAUSE = 1000;
    static const unsigned int RECONNECT_SLICE = 50;
    static const unsigned int THREAD_STACK = 1048576;

    explicit kesEnergyLine(const unsigned short& i_usId);
    ~kesEnergyLine();
    kesEnergyLine(const kesEnergyLine&) = delete;
    kesEnergyLine& operator=(const kesEnergyLine&) = delete;

    unsigned short GetUniqueID() const;
    // Both refused while the line runs.
    void SetAddress(const kesString& i_sAddress, unsigned short i_usPort);
    kesEError AddDevice(int i_iType, unsigned short i_usAddress);
    unsigned int GetDeviceCount();

    kesEError Start(unsigned int i_uiReceiveTimeOut, unsigned int i_uiAnswerPause, unsigned int i_uiFailurePause);
    // Asks the polling thread to end without waiting for it: several lines
    // then end side by side, and Stop only joins.
    void RequestStop();
    // Ends the thread and drops every listener; the channel stays open.
    kesEError Stop();
    // Reconnects a lost channel; the polling thread calls it before each cycle.
    kesEError Reset();
    void clear_all_devices();

private:
    enum EStatus { StatusRunning = 1, StatusStopRequested = 2 };

    kesEError start_threads();
    void term_threads();
    bool is_exit();
    static void thread_proc(kesOsThread* io_pThread, void* io_pLine);
    void read_device(const DeviceType& i_type, unsigned short i_usAddress);
    int make_devices_unique();
    unsigned int get_devices_count();
    static int list_of_type(int i_iType);
    kesString line_text(const char* i_szWhat) const;

    kesEnergySystem m_oSystem;
    unsigned int m_uiStatus;
    kesOsThread* m_pThread;
    kesOsMutex m_oMutex;
    unsigned short m_usUniqueID;
    kesString m_sAddress;
    unsigned short m_usPort;
    unsigned int m_uiReceiveTimeOut;
    unsigned int m_uiAnswerPause;
    unsigned int m_uiFailurePause;
    // One list per device type, in the order of the cycle.
    kesArray<unsigned short> m_aDevices[DEVICE_TYPE_COUNT];
    kesMap<unsigned short, unsigned char> m_mAlarmStatus;
    // Raised by term_threads before it waits for the mutex: the polling thread
    // retakes the mutex at once after a failed Reset, and a waiting stop could
    // otherwise be starved for many passes.
    std::atomic<bool> m_bExitWanted;
};

} // namespace Energy
} // namespace kes

#endif
