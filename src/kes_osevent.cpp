#include "kes_osevent.h"

#include <cerrno>
#include <ctime>

#include "kes_error.h"

namespace kes {

kesOsEvent::kesOsEvent() : m_uFlags(0)
{
    if (!init())
        KES_LOG(kesErrorFailed, "Can not init event");
}

kesOsEvent::~kesOsEvent()
{
    if (!term())
        KES_LOG(kesErrorFailed, "Can not term event");
}

bool kesOsEvent::init()
{
    m_uFlags = 0;
    if (pthread_mutex_init(&m_hMutex, nullptr) != 0) {
        KES_LOG_STD(kesErrorFailed, "pthread_mutex_init error.");
        return false;
    }
    m_uFlags |= FLAG_MUTEX;
    // A monotonic deadline: a step of the wall clock must not stretch a pause into hours.
    pthread_condattr_t attributes;
    bool ok = pthread_condattr_init(&attributes) == 0;
    if (ok)
        pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
    if (pthread_cond_init(&m_hCondition, ok ? &attributes : nullptr) != 0) {
        if (ok)
            pthread_condattr_destroy(&attributes);
        KES_LOG_STD(kesErrorFailed, "pthread_cond_init error.");
        return false;
    }
    if (ok)
        pthread_condattr_destroy(&attributes);
    m_uFlags |= FLAG_CONDITION;
    return true;
}

bool kesOsEvent::term()
{
    if ((m_uFlags & FLAG_CONDITION) && pthread_cond_destroy(&m_hCondition) != 0) {
        KES_LOG_STD(kesErrorFailed, "pthread_cond_destroy error.");
        return false;
    }
    if ((m_uFlags & FLAG_MUTEX) && pthread_mutex_destroy(&m_hMutex) != 0) {
        KES_LOG_STD(kesErrorFailed, "pthread_mutex_destroy error.");
        return false;
    }
    return true;
}

bool kesOsEvent::lock_built(const char* function)
{
    if (!(m_uFlags & FLAG_MUTEX) || !(m_uFlags & FLAG_CONDITION))
        return false;
    const int result = pthread_mutex_lock(&m_hMutex);
    if (result != 0) {
        KES_LOG_IN(kesErrorFailed, kesWithStdError("pthread_mutex_lock error.", result), function);
        return false;
    }
    return true;
}

bool kesOsEvent::Signal()
{
    if (m_uFlags & FLAG_SIGNALED)
        return true;
    if (!lock_built("Signal"))
        return false;
    m_uFlags |= FLAG_SIGNALED;
    // Every waiter sees a manual-reset event, so wake them all.
    const int result = pthread_cond_broadcast(&m_hCondition);
    if (result != 0) {
        KES_LOG(kesErrorFailed, kesWithStdError("pthread_cond_signal error.", result));
        if (pthread_mutex_unlock(&m_hMutex) != 0)
            KES_LOG(kesErrorFailed, "pthread_mutex_unlock error.");
        return false;
    }
    if (pthread_mutex_unlock(&m_hMutex) != 0)
        KES_LOG(kesErrorFailed, "pthread_mutex_unlock error but event signaled.");
    return true;
}

bool kesOsEvent::WaitSignal(unsigned int milliseconds)
{
    if (m_uFlags & FLAG_SIGNALED)
        return true;
    if (!lock_built("WaitSignal"))
        return false;
    int result = 0;
    if (milliseconds == 0) {
        while (!(m_uFlags & FLAG_SIGNALED)) {
            result = pthread_cond_wait(&m_hCondition, &m_hMutex);
            if (result != 0) {
                KES_LOG(kesErrorFailed, "pthread_cond_wait error.");
                if (pthread_mutex_unlock(&m_hMutex) != 0)
                    KES_LOG(kesErrorFailed, "pthread_mutex_unlock error");
                return false;
            }
        }
    } else {
        struct timespec deadline;
        clock_gettime(CLOCK_MONOTONIC, &deadline);
        deadline.tv_sec += milliseconds / 1000;
        deadline.tv_nsec += static_cast<long>(milliseconds % 1000) * 1000000L;
        if (deadline.tv_nsec > 999999999L) {
            deadline.tv_sec += 1;
            deadline.tv_nsec -= 1000000000L;
        }
        // Loop over spurious wake-ups until signalled or the deadline passed.
        while (!(m_uFlags & FLAG_SIGNALED)) {
            result = pthread_cond_timedwait(&m_hCondition, &m_hMutex, &deadline);
            if (result == ETIMEDOUT)
                break;
            if (result != 0) {
                KES_LOG(kesErrorFailed, kesString("pthread_cond_timedwait error ") + kesString::FromInt(result));
                if (pthread_mutex_unlock(&m_hMutex) != 0)
                    KES_LOG(kesErrorFailed, "pthread_mutex_unlock error");
                return false;
            }
        }
    }
    bool signaled = (m_uFlags & FLAG_SIGNALED) != 0;
    if (pthread_mutex_unlock(&m_hMutex) != 0)
        KES_LOG(kesErrorFailed, "pthread_mutex_unlock error but condition wait");
    return signaled;
}

bool kesOsEvent::IsSignaled() const
{
    return (m_uFlags & FLAG_SIGNALED) != 0;
}

bool kesOsEvent::Reset()
{
    if (!(m_uFlags & FLAG_SIGNALED))
        return true;
    // A plain clear under the mutex: a thread may still be leaving Signal.
    if (pthread_mutex_lock(&m_hMutex) == 0) {
        m_uFlags &= ~static_cast<unsigned int>(FLAG_SIGNALED);
        pthread_mutex_unlock(&m_hMutex);
    }
    return true;
}

} // namespace kes
