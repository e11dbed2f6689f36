#include "kes_energy_line.h"

#include <cstdio>
#include <cstring>
#include <new>

namespace kes {
namespace Energy {

const unsigned int kesEnergyLine::RECEIVE_TIMEOUT;
const unsigned int kesEnergyLine::ANSWER_PAUSE;
const unsigned int kesEnergyLine::FAILURE_PAUSE;
const unsigned int kesEnergyLine::CYCLE_PAUSE;
const unsigned int kesEnergyLine::RECONNECT_PAUSE;
const unsigned int kesEnergyLine::RECONNECT_SLICE;
const unsigned int kesEnergyLine::THREAD_STACK;

kesEnergyLine::kesEnergyLine(const unsigned short& i_usId)
    : m_uiStatus(0), m_pThread(nullptr), m_usUniqueID(i_usId), m_usPort(0), m_uiReceiveTimeOut(0), m_uiAnswerPause(0),
      m_uiFailurePause(0), m_bExitWanted(false)
{
}

kesEnergyLine::~kesEnergyLine()
{
    Stop();
}

unsigned short kesEnergyLine::GetUniqueID() const
{
    return m_usUniqueID;
}

void kesEnergyLine::SetAddress(const kesString& i_sAddress, unsigned short i_usPort)
{
    kesSOsMutex lock(&m_oMutex);
    if (m_uiStatus & StatusRunning) {
        KES_LOG(kesErrorFailed, "You must stop the line before to reset the address");
        return;
    }
    m_sAddress = i_sAddress;
    m_usPort = i_usPort;
}

int kesEnergyLine::list_of_type(int i_iType)
{
    const DeviceType* row = FindDeviceType(i_iType);
    return row ? static_cast<int>(row - DEVICE_TYPES) : -1;
}

kesEError kesEnergyLine::AddDevice(int i_iType, unsigned short i_usAddress)
{
    kesSOsMutex lock(&m_oMutex);
    if (m_uiStatus & StatusRunning)
        return KES_LOG(kesErrorFailed, "You must stop the line before to add others devices");
    int list = list_of_type(i_iType);
    if (list < 0) {
        kesString text("Invalid Device Type ");
        text += kesString::FromInt(i_iType);
        return KES_LOG(kesErrorFailed, text);
    }
    m_aDevices[list].AddBack(i_usAddress);
    return kesErrorOk;
}

unsigned int kesEnergyLine::GetDeviceCount()
{
    return get_devices_count();
}

kesString kesEnergyLine::line_text(const char* i_szWhat) const
{
    kesString text(i_szWhat);
    text += kesString::FromULong(m_usUniqueID);
    text += " communication ip ";
    text += m_sAddress;
    return text;
}

kesEError kesEnergyLine::Start(unsigned int i_uiReceiveTimeOut, unsigned int i_uiAnswerPause,
                               unsigned int i_uiFailurePause)
{
    term_threads();
    {
        kesSOsMutex lock(&m_oMutex);
        m_uiReceiveTimeOut = i_uiReceiveTimeOut;
        m_uiAnswerPause = i_uiAnswerPause;
        m_uiFailurePause = i_uiFailurePause;
        if (m_oSystem.OpenCommunication(m_sAddress, m_usPort, m_uiReceiveTimeOut, m_uiAnswerPause, m_uiFailurePause) !=
            kesErrorOk)
            return KES_LOG(kesErrorFailed, line_text("Can not start line "));
    }
    make_devices_unique();
    if (start_threads() != kesErrorOk) {
        kesString text("Can not start all threads line ");
        text += kesString::FromULong(m_usUniqueID);
        return KES_LOG(kesErrorFailed, text);
    }
    return kesErrorOk;
}

void kesEnergyLine::RequestStop()
{
    m_bExitWanted = true;
}

kesEError kesEnergyLine::Stop()
{
    term_threads();
    // The thread is gone: nobody reads the table any more.
    m_mListeners.clear();
    return kesErrorOk;
}

kesEError kesEnergyLine::Reset()
{
    // Held through the whole reconnection, so that a stop waits for its end.
    kesSOsMutex lock(&m_oMutex);
    if (m_oSystem.IsConnected())
        return kesErrorOk;
    // In slices: a stop must not wait out the pause, nor a connection after it.
    for (unsigned int slept = 0; slept < RECONNECT_PAUSE; slept += RECONNECT_SLICE) {
        if (m_bExitWanted || kesOsTcpSocket::IsConnectAborted())
            return kesErrorFailed;
        kesOsThread::SleepMs(RECONNECT_SLICE);
    }
    if (m_oSystem.CloseCommunication() != kesErrorOk)
        return KES_LOG(kesErrorFailed, line_text("Can not close line "));
    if (m_oSystem.OpenCommunication(m_sAddress, m_usPort, m_uiReceiveTimeOut, m_uiAnswerPause, m_uiFailurePause) !=
        kesErrorOk)
        return KES_LOG(kesErrorFailed, line_text("Can not start line "));
    return kesErrorOk;
}

void kesEnergyLine::clear_all_devices()
{
    kesSOsMutex lock(&m_oMutex);
    for (unsigned int i = 0; i < DEVICE_TYPE_COUNT; ++i)
        m_aDevices[i].clear();
    m_mAlarmStatus.clear();
}

kesEError kesEnergyLine::start_threads()
{
    term_threads();
    m_pThread = kesOsThread::Launch(&kesEnergyLine::thread_proc, this, THREAD_STACK, __func__);
    if (!m_pThread)
        return kesErrorFailed;
    kesSOsMutex lock(&m_oMutex);
    m_uiStatus |= StatusRunning;
    return kesErrorOk;
}

void kesEnergyLine::term_threads()
{
    m_bExitWanted = true;
    {
        kesSOsMutex lock(&m_oMutex);
        m_uiStatus |= StatusStopRequested;
    }
    if (m_pThread) {
        m_pThread->Stop();
        delete m_pThread;
        m_pThread = nullptr;
    }
    kesSOsMutex lock(&m_oMutex);
    m_uiStatus &= ~static_cast<unsigned int>(StatusRunning | StatusStopRequested);
    m_bExitWanted = false;
}

bool kesEnergyLine::is_exit()
{
    if (m_bExitWanted)
        return true;
    kesSOsMutex lock(&m_oMutex);
    return (m_uiStatus & StatusStopRequested) != 0;
}

int kesEnergyLine::make_devices_unique()
{
    kesSOsMutex lock(&m_oMutex);
    for (unsigned int i = 0; i < DEVICE_TYPE_COUNT; ++i)
        m_aDevices[i].Unique(nullptr, nullptr);
    return 0;
}

unsigned int kesEnergyLine::get_devices_count()
{
    kesSOsMutex lock(&m_oMutex);
    unsigned int count = 0;
    for (unsigned int i = 0; i < DEVICE_TYPE_COUNT; ++i)
        count += static_cast<unsigned int>(m_aDevices[i].size());
    return count;
}

void kesEnergyLine::read_device(const DeviceType& i_type, unsigned short i_usAddress)
{
    if (i_type.recordSize == 0) {
        KES_LOG_IN(kesErrorFailed, "Device Ambient still not supported", "thread_proc");
        return;
    }
    // Every reading record begins with the bus address.
    alignas(8) unsigned char record[MAX_RECORD_SIZE];
    memset(record, 0, sizeof(record));
    memcpy(record, &i_usAddress, sizeof(i_usAddress));
    void* outputs[MAX_OUTPUTS];
    for (unsigned int i = 0; i < i_type.outputCount; ++i)
        outputs[i] = i_type.outputs[i].at == NOWHERE ? nullptr : record + i_type.outputs[i].at;
    for (unsigned int i = 0; i < i_type.fieldCount; ++i)
        if (i_type.fields[i].kind == KIND_STATUS)
            record[i_type.fields[i].at] = m_mAlarmStatus[i_usAddress];

    kesEvent event;
    event.source = m_usUniqueID;
    if (m_oSystem.ReadMeasurement(i_type.type, i_usAddress, outputs) == kesErrorOk) {
        event.code = i_type.type;
        event.data = record;
        DispatchEvent(event);
        return;
    }

    unsigned int key = (static_cast<unsigned int>(i_usAddress) << 16) | m_usUniqueID;
    // Printed whatever the log level, and never written to the log file.
    printf("%c[%dm", 27, 31);
    printf("[Communication Error][%s][%i]\n", kesEnergySystem::DeviceTypeToTypeName(i_type.type).c_str(),
           static_cast<int>(i_usAddress));
    printf("%c[%dm", 27, 0);
    event.code = kesEnergyEventCommunicationError;
    event.data = &key;
    DispatchEvent(event);
}

void kesEnergyLine::thread_proc(kesOsThread* io_pThread, void* io_pLine)
{
    kesEnergyLine* line = static_cast<kesEnergyLine*>(io_pLine);
    for (;;) {
        if (line->is_exit())
            return;
        if (line->Reset() != kesErrorOk) {
            // Reset has slept before it failed: this is no busy loop.
            KES_LOG(kesErrorFailed, "Can no reset communication");
            continue;
        }
        bool lost = false;
        for (unsigned int step = 0; step < DEVICE_TYPE_COUNT && !lost; ++step) {
            const kesArray<unsigned short>& devices = line->m_aDevices[step];
            for (size_t i = 0; i < devices.size(); ++i) {
                if (line->is_exit())
                    return;
                if (!line->m_oSystem.IsConnected()) {
                    // Give the rest of the cycle up; the next pass reconnects.
                    lost = true;
                    break;
                }
                line->read_device(DEVICE_TYPES[step], devices[i]);
            }
        }
        if (!lost && !io_pThread->WaitContinue(CYCLE_PAUSE))
            return;
    }
}

} // namespace Energy
} // namespace kes
