// What a line raises for every device it reads, and the dispatcher that hands
// it to the listeners of its code.
#ifndef KES_EVENT_H
#define KES_EVENT_H

#include "kes_containers.h"

namespace kes {

// Codes 1 to 11 are the device types (a reading of that type); these two are
// the rest.
enum kesEEnergyEvent {
    kesEnergyEventAlarmStatus = 65534,       // data: kesEnergyAlarmData
    kesEnergyEventCommunicationError = 65535 // data: unsigned int key, address << 16 | line id
};

// Valid only during the call that delivers it; the raiser owns the data.
struct kesEvent {
    unsigned int source;
    int code;
    void* data;
};

typedef void (*kesEventListener)(const kesEvent& i_event);

class kesEventDispatcher {
public:
    // A listener added twice is called twice.
    void AddListener(int i_iCode, kesEventListener i_pListener);
    // Calls the listeners of the code in the order of their registration, on
    // the calling thread; a code without listeners does nothing.
    void DispatchEvent(const kesEvent& i_event) const;

protected:
    // Written only while no thread raises events, so read without a lock.
    kesMap<int, kesList<kesEventListener>> m_mListeners;
};

} // namespace kes

#endif
