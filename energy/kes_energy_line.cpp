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

namespace {

// Every reading record begins with the bus address; one of them lives on the
// polling thread's stack for each device read.
union kesReading {
    kesEnergyPanelData panel;
    kesEnergyStringData string;
    kesEnergyStringTwoData stringTwo;
    kesEnergyStringThreeData stringThree;
    kesEnergyStringFourData stringFour;
    kesEnergyAlarmData alarm;
    kesEnergyPulseCounterData pulse;
    kesEnergyPulseCounterTwoData pulseTwo;
    kesEnergyPulseCounterFiveData pulseFive;
};

typedef kesEError (*kesReadDevice)(kesEnergySystem& io_system, unsigned short i_usAddress, kesReading& o_reading);

kesEError read_panel(kesEnergySystem& io_system, unsigned short i_usAddress, kesReading& o_reading)
{
    kesEnergyPanelData& r = o_reading.panel;
    r.address = i_usAddress;
    return io_system.ReadPanelVoltTemp(i_usAddress, &r.voltage, &r.temperature);
}

kesEError read_string(kesEnergySystem& io_system, unsigned short i_usAddress, kesReading& o_reading)
{
    kesEnergyStringData& r = o_reading.string;
    r.address = i_usAddress;
    return io_system.ReadStringVoltAmpere(i_usAddress, &r.voltage, &r.ampere);
}

kesEError read_string_one(kesEnergySystem& io_system, unsigned short i_usAddress, kesReading& o_reading)
{
    kesEnergyStringData& r = o_reading.string;
    r.address = i_usAddress;
    return io_system.ReadStringOneVoltAmpere(i_usAddress, &r.voltage, &r.ampere);
}

kesEError read_string_two(kesEnergySystem& io_system, unsigned short i_usAddress, kesReading& o_reading)
{
    kesEnergyStringTwoData& r = o_reading.stringTwo;
    r.address = i_usAddress;
    return io_system.ReadStringTwoVoltAmpere(i_usAddress, &r.voltage, &r.ampere1, &r.ampere2);
}

kesEError read_string_three(kesEnergySystem& io_system, unsigned short i_usAddress, kesReading& o_reading)
{
    kesEnergyStringThreeData& r = o_reading.stringThree;
    r.address = i_usAddress;
    return io_system.ReadStringThreeVoltAmpere(i_usAddress, &r.voltage, &r.ampere1, &r.ampere2, &r.ampere3);
}

kesEError read_string_four(kesEnergySystem& io_system, unsigned short i_usAddress, kesReading& o_reading)
{
    kesEnergyStringFourData& r = o_reading.stringFour;
    r.address = i_usAddress;
    return io_system.ReadStringFourVoltAmpere(i_usAddress, &r.voltage, &r.ampere1, &r.ampere2, &r.ampere3, &r.ampere4);
}

kesEError read_alarm(kesEnergySystem& io_system, unsigned short i_usAddress, kesReading& o_reading)
{
    kesEnergyAlarmData& r = o_reading.alarm;
    r.address = i_usAddress;
    return io_system.ReadAlarmVoltAmpere(i_usAddress, &r.voltage, &r.ampere);
}

kesEError read_pulse(kesEnergySystem& io_system, unsigned short i_usAddress, kesReading& o_reading)
{
    kesEnergyPulseCounterData& r = o_reading.pulse;
    r.address = i_usAddress;
    return io_system.ReadPulseCounterData(i_usAddress, &r.count, &r.period);
}

kesEError read_pulse_two(kesEnergySystem& io_system, unsigned short i_usAddress, kesReading& o_reading)
{
    kesEnergyPulseCounterTwoData& r = o_reading.pulseTwo;
    r.address = i_usAddress;
    return io_system.ReadPulseCounterTwoData(i_usAddress, &r.count1, &r.period1, &r.count2, &r.period2);
}

kesEError read_pulse_five(kesEnergySystem& io_system, unsigned short i_usAddress, kesReading& o_reading)
{
    kesEnergyPulseCounterFiveData& r = o_reading.pulseFive;
    r.address = i_usAddress;
    // The record has no place for the second count of each channel.
    return io_system.ReadPulseCounterFiveData(i_usAddress, &r.count1, &r.period1, nullptr, &r.count2, &r.period2,
                                              nullptr, &r.count3, &r.period3, nullptr, &r.count4, &r.period4, nullptr,
                                              &r.count5, &r.period5, nullptr);
}

struct kesCycleStep {
    kesEnergyLine::EList list;
    kesEEnergyDeviceType type; // also the event code of a reading
    kesReadDevice read;        // null: the type has no read
};

// The order of a cycle: neither that of the type numbers nor that of the lists.
const kesCycleStep CYCLE[] = {
    {kesEnergyLine::ListPanel, kesEnergyDevicePanel, &read_panel},
    {kesEnergyLine::ListString, kesEnergyDeviceString, &read_string},
    {kesEnergyLine::ListStringOne, kesEnergyDeviceStringOne, &read_string_one},
    {kesEnergyLine::ListStringTwo, kesEnergyDeviceStringTwo, &read_string_two},
    {kesEnergyLine::ListStringThree, kesEnergyDeviceStringThree, &read_string_three},
    {kesEnergyLine::ListStringFour, kesEnergyDeviceStringFour, &read_string_four},
    {kesEnergyLine::ListAlarm, kesEnergyDeviceAlarm, &read_alarm},
    {kesEnergyLine::ListPulseCounter, kesEnergyDevicePulseCounter, &read_pulse},
    {kesEnergyLine::ListPulseCounterTwo, kesEnergyDevicePulseCounterTwo, &read_pulse_two},
    {kesEnergyLine::ListPulseCounterFive, kesEnergyDevicePulseCounterFive, &read_pulse_five},
    {kesEnergyLine::ListAmbient, kesEnergyDeviceAmbient, nullptr},
};

const unsigned int CYCLE_STEPS = sizeof(CYCLE) / sizeof(CYCLE[0]);
static_assert(sizeof(CYCLE) / sizeof(CYCLE[0]) == kesEnergyLine::ListCount, "every list has its step");

} // namespace

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
        kesErrorLog(kesBuildErrorLocation(kesErrorFailed, "You must stop the line before to reset the address",
                                          __FILE__, __func__, __LINE__));
        return;
    }
    m_sAddress = i_sAddress;
    m_usPort = i_usPort;
}

int kesEnergyLine::list_of_type(int i_iType)
{
    for (unsigned int i = 0; i < CYCLE_STEPS; ++i)
        if (static_cast<int>(CYCLE[i].type) == i_iType)
            return CYCLE[i].list;
    return -1;
}

kesEError kesEnergyLine::AddDevice(int i_iType, unsigned short i_usAddress)
{
    kesSOsMutex lock(&m_oMutex);
    if (m_uiStatus & StatusRunning)
        return kesErrorLog(kesBuildErrorLocation(kesErrorFailed, "You must stop the line before to add others devices",
                                                 __FILE__, __func__, __LINE__));
    int list = list_of_type(i_iType);
    if (list < 0) {
        kesString text("Invalid Device Type ");
        text += kesString::FromInt(i_iType);
        return kesErrorLog(kesBuildErrorLocation(kesErrorFailed, text, __FILE__, __func__, __LINE__));
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
            return kesErrorLog(
                kesBuildErrorLocation(kesErrorFailed, line_text("Can not start line "), __FILE__, __func__, __LINE__));
    }
    make_devices_unique();
    if (start_threads() != kesErrorOk) {
        kesString text("Can not start all threads line ");
        text += kesString::FromULong(m_usUniqueID);
        return kesErrorLog(kesBuildErrorLocation(kesErrorFailed, text, __FILE__, __func__, __LINE__));
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
        return kesErrorLog(
            kesBuildErrorLocation(kesErrorFailed, line_text("Can not close line "), __FILE__, __func__, __LINE__));
    if (m_oSystem.OpenCommunication(m_sAddress, m_usPort, m_uiReceiveTimeOut, m_uiAnswerPause, m_uiFailurePause) !=
        kesErrorOk)
        return kesErrorLog(
            kesBuildErrorLocation(kesErrorFailed, line_text("Can not start line "), __FILE__, __func__, __LINE__));
    return kesErrorOk;
}

void kesEnergyLine::clear_all_devices()
{
    kesSOsMutex lock(&m_oMutex);
    for (unsigned int i = 0; i < ListCount; ++i)
        m_aDevices[i].clear();
    m_mAlarmStatus.clear();
}

kesEError kesEnergyLine::start_threads()
{
    term_threads();
    m_pThread = new (std::nothrow) kesOsThread(&kesEnergyLine::thread_proc, this, false);
    if (!m_pThread)
        return kesErrorLog(
            kesBuildErrorLocation(kesErrorOutOfMemory, "Can no create thread", __FILE__, __func__, __LINE__));
    if (!m_pThread->Start(THREAD_STACK)) {
        delete m_pThread;
        m_pThread = nullptr;
        return kesErrorLog(kesBuildErrorLocation(kesErrorFailed, "Can no start thread", __FILE__, __func__, __LINE__));
    }
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
    for (unsigned int i = 0; i < ListCount; ++i)
        m_aDevices[i].Unique(nullptr, nullptr);
    return 0;
}

unsigned int kesEnergyLine::get_devices_count()
{
    kesSOsMutex lock(&m_oMutex);
    unsigned int count = 0;
    for (unsigned int i = 0; i < ListCount; ++i)
        count += static_cast<unsigned int>(m_aDevices[i].size());
    return count;
}

void kesEnergyLine::read_device(unsigned int i_uiStep, unsigned short i_usAddress)
{
    const kesCycleStep& step = CYCLE[i_uiStep];
    kesReading reading;
    memset(&reading, 0, sizeof(reading));
    reading.panel.address = i_usAddress;
    if (step.list == ListAlarm)
        reading.alarm.status = m_mAlarmStatus[i_usAddress];

    if (!step.read) {
        kesErrorLog(kesBuildErrorLocation(kesErrorFailed, "Device Ambient still not supported", __FILE__, "thread_proc",
                                          __LINE__));
        return;
    }

    kesEvent event;
    event.source = m_usUniqueID;
    if (step.read(m_oSystem, i_usAddress, reading) == kesErrorOk) {
        event.code = step.type;
        event.data = &reading;
        DispatchEvent(event);
        return;
    }

    unsigned int key = (static_cast<unsigned int>(i_usAddress) << 16) | m_usUniqueID;
    // Printed whatever the log level, and never written to the log file.
    printf("%c[%dm", 27, 31);
    printf("[Communication Error][%s][%i]\n", kesEnergySystem::DeviceTypeToTypeName(step.type).c_str(),
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
            kesErrorLog(
                kesBuildErrorLocation(kesErrorFailed, "Can no reset communication", __FILE__, __func__, __LINE__));
            continue;
        }
        bool lost = false;
        for (unsigned int step = 0; step < CYCLE_STEPS && !lost; ++step) {
            const kesArray<unsigned short>& devices = line->m_aDevices[CYCLE[step].list];
            for (size_t i = 0; i < devices.size(); ++i) {
                if (line->is_exit())
                    return;
                if (!line->m_oSystem.IsConnected()) {
                    // Give the rest of the cycle up; the next pass reconnects.
                    lost = true;
                    break;
                }
                line->read_device(step, devices[i]);
            }
        }
        if (!lost && !io_pThread->WaitContinue(CYCLE_PAUSE))
            return;
    }
}

} // namespace Energy
} // namespace kes
