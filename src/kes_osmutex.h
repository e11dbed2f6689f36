#ifndef KES_OSMUTEX_H
#define KES_OSMUTEX_H

#include <pthread.h>

#include "kes_error.h"

namespace kes {

// Recursive by default: an owner may lock again what it holds.
class kesOsMutex {
public:
    kesOsMutex();
    explicit kesOsMutex(bool plain);
    ~kesOsMutex();
    kesOsMutex(const kesOsMutex&) = delete;
    kesOsMutex& operator=(const kesOsMutex&) = delete;

    kesEError Lock();
    kesEError TryLock();
    int UnLock();

private:
    void init(bool plain);
    pthread_mutex_t m_hMutex;
};

// Holds the lock for the length of a scope.
class kesSOsMutex {
public:
    explicit kesSOsMutex(kesOsMutex* mutex) : m_pMutex(mutex)
    {
        if (m_pMutex)
            m_pMutex->Lock();
    }
    ~kesSOsMutex()
    {
        if (m_pMutex)
            m_pMutex->UnLock();
    }
    kesSOsMutex(const kesSOsMutex&) = delete;
    kesSOsMutex& operator=(const kesSOsMutex&) = delete;

private:
    kesOsMutex* m_pMutex;
};

} // namespace kes

#endif
