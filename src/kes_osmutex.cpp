#include "kes_osmutex.h"

namespace kes {

kesOsMutex::kesOsMutex()
{
    init(false);
}

kesOsMutex::kesOsMutex(bool plain)
{
    init(plain);
}

void kesOsMutex::init(bool plain)
{
    int result;
    if (plain) {
        if ((result = pthread_mutex_init(&m_hMutex, nullptr)) != 0)
            KES_LOG(kesErrorFailed, kesWithStdError("pthread_mutex_init error.", result));
        return;
    }
    pthread_mutexattr_t attributes;
    if ((result = pthread_mutexattr_init(&attributes)) != 0)
        KES_LOG(kesErrorFailed, kesWithStdError("pthread_mutexattr_init error.", result));
    if ((result = pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE)) != 0)
        KES_LOG(kesErrorFailed, kesWithStdError("pthread_mutexattr_settype error.", result));
    if ((result = pthread_mutex_init(&m_hMutex, &attributes)) != 0)
        KES_LOG(kesErrorFailed, kesWithStdError("pthread_mutex_init error.", result));
    if ((result = pthread_mutexattr_destroy(&attributes)) != 0)
        KES_LOG(kesErrorFailed, kesWithStdError("pthread_mutexattr_destroy error.", result));
}

kesOsMutex::~kesOsMutex()
{
    int result = pthread_mutex_destroy(&m_hMutex);
    if (result != 0)
        KES_LOG(kesErrorFailed, kesWithStdError("pthread_mutex_destroy error.", result));
}

kesEError kesOsMutex::Lock()
{
    int result = pthread_mutex_lock(&m_hMutex);
    if (result != 0)
        return KES_LOG(kesErrorFailed, kesWithStdError("pthread_mutex_lock error.", result));
    return kesErrorOk;
}

kesEError kesOsMutex::TryLock()
{
    int result = pthread_mutex_trylock(&m_hMutex);
    if (result != 0)
        return KES_LOG(kesErrorFailed, kesWithStdError("pthread_mutex_trylock error.", result));
    return kesErrorOk;
}

int kesOsMutex::UnLock()
{
    int result = pthread_mutex_unlock(&m_hMutex);
    if (result != 0) {
        kesString message = "pthread_mutex_unlock error. ";
        message += kesString::FromInt(result);
        KES_LOG(kesErrorFailed, kesWithStdError(message, result));
    }
    return result;
}

} // namespace kes
