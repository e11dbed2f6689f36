#include "kes_timer.h"

#include <new>

#include "kes_time.h"

namespace kes {

kesTimer::kesTimer() : m_uResolutionTime(1), m_uExpiredTime(0), m_uCount(0), m_uCounter(0), m_pThread(nullptr)
{
}

kesTimer::~kesTimer()
{
    term();
}

void kesTimer::SetResolutionTime(const unsigned int& milliseconds)
{
    kesSOsMutex lock(&m_mMutex);
    m_uResolutionTime = milliseconds == 0 ? 1 : milliseconds;
}

void kesTimer::SetExpiredTime(const unsigned int& milliseconds)
{
    kesSOsMutex lock(&m_mMutex);
    m_uExpiredTime = milliseconds;
}

void kesTimer::SetCount(const unsigned int& count)
{
    kesSOsMutex lock(&m_mMutex);
    m_uCount = count;
}

unsigned int kesTimer::locked(const unsigned int& field)
{
    kesSOsMutex lock(&m_mMutex);
    return field;
}

unsigned int kesTimer::get_loop_time()
{
    return kesTime::GetTime();
}

kesEError kesTimer::Start(const unsigned int& stackSize)
{
    Stop();
    {
        kesSOsMutex lock(&m_mMutex);
        m_uCounter = 0;
    }
    if (!m_pThread || !m_pThread->Start(stackSize)) {
        delete m_pThread;
        m_pThread = nullptr;
        return KES_LOG(kesErrorFailed, "Can not start Thread");
    }
    return kesErrorOk;
}

kesEError kesTimer::Stop()
{
    term();
    m_pThread = new (std::nothrow) kesOsThread(thread_proc, this, false);
    if (!m_pThread)
        return KES_LOG(kesErrorOutOfMemory, "Can not create Thread");
    return kesErrorOk;
}

void kesTimer::term()
{
    if (!m_pThread)
        return;
    m_pThread->Stop();
    delete m_pThread;
    m_pThread = nullptr;
}

void kesTimer::thread_proc(kesOsThread* thread, void* argument)
{
    static_cast<kesTimer*>(argument)->run(thread);
}

void kesTimer::run(kesOsThread* thread)
{
    OnTimerStart();
    unsigned int last = get_loop_time();
    for (;;) {
        unsigned int now = get_loop_time();
        unsigned int expired = GetExpiredTime();
        if (now - last >= expired) {
            last = get_loop_time();
            unsigned int count = GetCount();
            if (count != 0 && GetCounter() >= count)
                break;
            unsigned int counter;
            {
                kesSOsMutex lock(&m_mMutex);
                counter = ++m_uCounter;
            }
            OnTimer();
            if (count != 0 && counter == count)
                break;
            expired = GetExpiredTime();
        }
        unsigned int resolution = GetResolutionTime();
        unsigned int elapsed = get_loop_time() - now;
        unsigned int wait = resolution - elapsed;
        unsigned int pause = (wait == 0 || elapsed > resolution || wait > expired) ? 1 : wait;
        // Never sleep past the next expiry: a pause as long as the period that wakes a
        // millisecond early would otherwise lose a whole tick.
        // Unsigned all through: a period of 2^31 ms or more is no negative number.
        unsigned int since = get_loop_time() - last;
        unsigned int remaining = since >= expired ? 0u : expired - since;
        if (remaining < pause)
            pause = remaining < 1 ? 1 : remaining;
        if (!thread->WaitContinue(pause))
            break;
    }
    OnTimerStop();
}

} // namespace kes
