#ifndef KES_TIMER_H
#define KES_TIMER_H

#include "kes_error.h"
#include "kes_osmutex.h"
#include "kes_osthread.h"

namespace kes {

// Calls OnTimer every expired time from a thread of its own.
class kesTimer {
public:
    kesTimer();
    virtual ~kesTimer();
    kesTimer(const kesTimer&) = delete;
    kesTimer& operator=(const kesTimer&) = delete;

    virtual void OnTimer() {}
    virtual void OnTimerStart() {}
    virtual void OnTimerStop() {}

    void SetResolutionTime(const unsigned int& milliseconds);
    void SetExpiredTime(const unsigned int& milliseconds);
    void SetCount(const unsigned int& count);
    unsigned int GetResolutionTime() { return locked(m_uResolutionTime); }
    unsigned int GetExpiredTime() { return locked(m_uExpiredTime); }
    unsigned int GetCount() { return locked(m_uCount); }
    unsigned int GetCounter() { return locked(m_uCounter); }

    kesEError Start(const unsigned int& stackSize);
    kesEError Stop();

protected:
    // The millisecond clock of the loop; a seam for tests.
    virtual unsigned int get_loop_time();

private:
    static void thread_proc(kesOsThread* thread, void* argument);
    // A field as it stands, read under the lock: the loop thread writes them.
    unsigned int locked(const unsigned int& field);
    void run(kesOsThread* thread);
    void term();

    unsigned int m_uResolutionTime;
    unsigned int m_uExpiredTime;
    unsigned int m_uCount;
    unsigned int m_uCounter;
    kesOsMutex m_mMutex;
    kesOsThread* m_pThread;
};

} // namespace kes

#endif
