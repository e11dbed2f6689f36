#ifndef KES_OSEVENT_H
#define KES_OSEVENT_H

#include <pthread.h>

#include <atomic>

namespace kes {

// Manual-reset event: once signalled it stays so until Reset.
class kesOsEvent {
public:
    kesOsEvent();
    ~kesOsEvent();
    kesOsEvent(const kesOsEvent&) = delete;
    kesOsEvent& operator=(const kesOsEvent&) = delete;

    bool Signal();
    // 0 waits without limit; 1 when signalled, 0 when the time ran out or the wait failed.
    bool WaitSignal(unsigned int milliseconds);
    bool IsSignaled() const;
    bool Reset();

private:
    bool init();
    bool term();
    // Takes the mutex of a fully built event, reporting a failure for the caller.
    bool lock_built(const char* function);

    enum { FLAG_MUTEX = 1, FLAG_CONDITION = 2, FLAG_SIGNALED = 4 };
    std::atomic<unsigned int> m_uFlags; // read without the mutex on the fast paths
    pthread_mutex_t m_hMutex;
    pthread_cond_t m_hCondition;
};

} // namespace kes

#endif
