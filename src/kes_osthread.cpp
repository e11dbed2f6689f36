#include "kes_osthread.h"

#include <new>
#include <unistd.h>

#include "kes_error.h"

namespace kes {

kesOsThread::kesOsThread(Procedure procedure, void* argument, bool autoRelease)
    : m_uFlags(autoRelease ? FLAG_AUTO_RELEASE : 0), m_pProcedure(procedure), m_pArgument(argument), m_hThread(0)
{
}

kesOsThread::~kesOsThread()
{
    Stop();
}

bool kesOsThread::test_flag(unsigned int flag)
{
    kesSOsMutex lock(&m_mMutex);
    return (m_uFlags & flag) != 0;
}

bool kesOsThread::IsStarted()
{
    return test_flag(FLAG_STARTED);
}

bool kesOsThread::IsProcedureRunning()
{
    return test_flag(FLAG_RUNNING);
}

bool kesOsThread::IsAutoRelease()
{
    return test_flag(FLAG_AUTO_RELEASE);
}

bool kesOsThread::Start(unsigned int stackSize)
{
    Stop();
    if (!m_pProcedure) {
        KES_LOG(kesErrorFailed, "m_pProcedure == 0");
        return false;
    }
    pthread_attr_t attributes;
    int result = pthread_attr_init(&attributes);
    if (result != 0) {
        KES_LOG(kesErrorFailed, kesString("pthread_attr_init error ") + kesString::FromInt(result));
        return false;
    }
    result =
        pthread_attr_setdetachstate(&attributes, IsAutoRelease() ? PTHREAD_CREATE_DETACHED : PTHREAD_CREATE_JOINABLE);
    if (result != 0) {
        pthread_attr_destroy(&attributes);
        KES_LOG(kesErrorFailed, kesString("pthread_attr_setdetachstate error ") + kesString::FromInt(result));
        return false;
    }
    if (stackSize != 0) {
        result = pthread_attr_setstacksize(&attributes, static_cast<size_t>(stackSize) + 16384);
        if (result != 0) {
            pthread_attr_destroy(&attributes);
            KES_LOG(kesErrorFailed, kesString("pthread_attr_setstacksize error ") + kesString::FromInt(result));
            return false;
        }
    }
    result = pthread_create(&m_hThread, &attributes, thread_procedure, this);
    if (result != 0) {
        m_hThread = 0;
        pthread_attr_destroy(&attributes);
        KES_LOG(kesErrorFailed, kesString("Can not create Thread, error ") + kesString::FromInt(result));
        return false;
    }
    bool ok = true;
    result = pthread_attr_destroy(&attributes);
    if (result != 0) {
        KES_LOG(kesErrorFailed, kesString("pthread_attr_destroy error ") + kesString::FromInt(result));
        ok = false;
    }
    while (!IsStarted())
        usleep(1000);
    {
        kesSOsMutex lock(&m_mMutex);
        m_uFlags |= FLAG_START_DONE;
    }
    return ok;
}

void* kesOsThread::thread_procedure(void* argument)
{
    kesOsThread* self = static_cast<kesOsThread*>(argument);
    {
        kesSOsMutex lock(&self->m_mMutex);
        self->m_uFlags |= FLAG_RUNNING | FLAG_STARTED;
    }
    self->m_pProcedure(self, self->m_pArgument);
    {
        kesSOsMutex lock(&self->m_mMutex);
        self->m_uFlags &= ~static_cast<unsigned int>(FLAG_RUNNING);
    }
    self->m_eStop.Reset();
    if (self->IsAutoRelease()) {
        while (!self->test_flag(FLAG_START_DONE))
            usleep(1000);
        self->m_hThread = 0;
        delete self;
    }
    return nullptr;
}

void kesOsThread::Stop()
{
    if (m_hThread == 0)
        return;
    m_eStop.Signal();
    // An auto-release thread was made detached and frees itself: nothing to wait for.
    if (!IsAutoRelease())
        pthread_join(m_hThread, nullptr);
    m_hThread = 0;
}

bool kesOsThread::WaitContinue(unsigned int milliseconds)
{
    return !m_eStop.WaitSignal(milliseconds);
}

kesOsThread* kesOsThread::Launch(Procedure procedure, void* argument, unsigned int stackSize, const char* i_szFunction)
{
    kesOsThread* thread = new (std::nothrow) kesOsThread(procedure, argument, false);
    if (!thread) {
        KES_LOG_IN(kesErrorOutOfMemory, "Can no create thread", i_szFunction);
        return nullptr;
    }
    if (!thread->Start(stackSize)) {
        delete thread;
        KES_LOG_IN(kesErrorFailed, "Can no start thread", i_szFunction);
        return nullptr;
    }
    return thread;
}

void kesOsThread::SleepMs(unsigned int milliseconds)
{
    if (milliseconds == 0)
        return;
    usleep(static_cast<useconds_t>(milliseconds) * 1000);
}

void kesOsThread::SleepMicro(unsigned int microseconds)
{
    if (microseconds == 0)
        return;
    usleep(static_cast<useconds_t>(microseconds));
}

} // namespace kes
