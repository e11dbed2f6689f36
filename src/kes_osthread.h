#ifndef KES_OSTHREAD_H
#define KES_OSTHREAD_H

#include <pthread.h>

#include "kes_osevent.h"
#include "kes_osmutex.h"

namespace kes {

// A thread runs a plain procedure that polls its stop event through WaitContinue.
class kesOsThread {
public:
    typedef void (*Procedure)(kesOsThread* thread, void* argument);

    kesOsThread(Procedure procedure, void* argument, bool autoRelease);
    ~kesOsThread();
    kesOsThread(const kesOsThread&) = delete;
    kesOsThread& operator=(const kesOsThread&) = delete;

    // Returns once the new thread has begun; 0 for the default stack.
    bool Start(unsigned int stackSize);
    void Stop();
    // True: go on; false: the stop event is signalled, stop at once. 0 waits without limit.
    bool WaitContinue(unsigned int milliseconds);

    bool IsRunning() const { return m_hThread != 0; }
    bool IsStarted();
    bool IsProcedureRunning();
    bool IsAutoRelease();

    // A new thread, started, or null after a failure it has reported in the
    // name of i_szFunction.
    static kesOsThread* Launch(Procedure procedure, void* argument, unsigned int stackSize, const char* i_szFunction);

    static void SleepMs(unsigned int milliseconds);
    static void SleepMicro(unsigned int microseconds);

private:
    enum { FLAG_AUTO_RELEASE = 1, FLAG_RUNNING = 2, FLAG_STARTED = 4, FLAG_START_DONE = 8 };
    static void* thread_procedure(void* argument);
    bool test_flag(unsigned int flag);

    unsigned int m_uFlags;
    kesOsEvent m_eStop;
    kesOsMutex m_mMutex;
    Procedure m_pProcedure;
    void* m_pArgument;
    pthread_t m_hThread;
};

} // namespace kes

#endif
