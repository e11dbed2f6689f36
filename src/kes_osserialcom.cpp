#include "kes_osserialcom.h"

#include "kes_time.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace kes {

namespace {

const unsigned int RECONNECT_PERIOD_MS = 500;
const unsigned int RECONNECT_STACK_SIZE = 262144;
// a line that never stops talking must not hold Flush forever
const unsigned int FLUSH_MAX_BYTES = 65536;

struct baud_row {
    unsigned int code;
    unsigned int bitsPerSecond;
};

const baud_row BAUD_TABLE[] = {
    {B300, 300},   {B600, 600},     {B1200, 1200},   {B2400, 2400},   {B4800, 4800},
    {B9600, 9600}, {B19200, 19200}, {B38400, 38400}, {B57600, 57600}, {B115200, 115200},
};

kesString at_device(const char* i_message, const kesString& i_device)
{
    kesString text(i_message);
    text.append(i_device);
    return text;
}

const char* const INVALID_HANDLE = "Invalid handle";

// Sets the line up; the call that failed, with errno telling why, or null.
const char* set_line(int i_handle, speed_t i_baudRate, unsigned int i_dataBits, unsigned int i_parity,
                     unsigned int i_stopBits, unsigned int i_flowControl)
{
    termios settings;
    memset(&settings, 0, sizeof(settings));
    settings.c_cflag = i_dataBits | i_parity | i_stopBits | CLOCAL | CREAD;
    if (i_flowControl == kesOsSerialCom::FlowControlHardware)
        settings.c_cflag |= CRTSCTS;
    settings.c_iflag = i_flowControl == kesOsSerialCom::FlowControlSoftware ? (IXON | IXOFF) : 0;
    settings.c_cc[VMIN] = 1;
    settings.c_cc[VTIME] = 0;
    if (cfsetospeed(&settings, i_baudRate) == -1)
        return "cfsetospeed(...) == -1 at ";
    if (tcsetattr(i_handle, TCSANOW, &settings) == -1)
        return "tcsetattr(...) == -1 at ";
    return nullptr;
}

// Start bit and data bits, then parity and stop bits.
unsigned char bits_per_byte(unsigned int i_dataBits, unsigned int i_parity, unsigned int i_stopBits)
{
    unsigned char bits = 0;
    switch (i_dataBits & CSIZE) {
    case CS5:
        bits = 6;
        break;
    case CS6:
        bits = 7;
        break;
    case CS7:
        bits = 8;
        break;
    default:
        bits = 9;
        break;
    }
    if (i_parity != 0)
        ++bits;
    bits += (i_stopBits & CSTOPB) != 0 ? 2 : 1;
    return bits;
}

} // namespace

kesOsSerialCom::kesOsSerialCom(bool i_autoReconnect)
    : m_hCom(-1), m_eBaudRate(EBaudRate(~0u)), m_eDataBits(EDataBits(~0u)), m_eParity(EParity(~0u)),
      m_eStopBits(EStopBits(~0u)), m_eFlowControl(EFlowControl(~0u)), m_bAutoReconnect(i_autoReconnect),
      m_uBitsPerByte(0), m_uMaxBytesPerSecond(0), m_uState(0), m_pThreadReconnect(nullptr)
{
}

kesOsSerialCom::~kesOsSerialCom()
{
    if (m_pThreadReconnect != nullptr) {
        m_pThreadReconnect->Stop();
        delete m_pThreadReconnect;
        m_pThreadReconnect = nullptr;
    }
    if (Close() != kesErrorOk)
        KES_LOG(kesErrorFailed, at_device("Can not close com port ", m_sDevice));
}

kesEError kesOsSerialCom::Open(const kesString& i_device, const EBaudRate& i_baudRate, const EDataBits& i_dataBits,
                               const EParity& i_parity, const EStopBits& i_stopBits, const EFlowControl& i_flowControl)
{
    kesEError result = Close();
    if (result != kesErrorOk)
        return KES_LOG(result, "Can not close device");

    kesSOsMutex lock(&m_mMutex);
    // copies first: the arguments may be this object's own fields (reconnect)
    kesString device(i_device);
    EBaudRate baudRate = i_baudRate;
    m_sDevice = device;
    m_eBaudRate = baudRate;
    m_eDataBits = i_dataBits;
    m_eParity = i_parity;
    m_eStopBits = i_stopBits;
    m_eFlowControl = i_flowControl;

    const char* failed = "open(...) == -1 at ";
    int handle = open(device.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (handle != -1) {
        m_hCom = handle;
        failed = set_line(m_hCom, baudRate, m_eDataBits, m_eParity, m_eStopBits, m_eFlowControl);
    }
    if (failed != nullptr) {
        int error = errno;
        on_reopen();
        return KES_LOG(kesErrorFailed, kesWithStdError(at_device(failed, device), error));
    }

    m_uBitsPerByte = bits_per_byte(m_eDataBits, m_eParity, m_eStopBits);
    for (const baud_row& row : BAUD_TABLE)
        if (row.code == (unsigned int)baudRate)
            m_uMaxBytesPerSecond = row.bitsPerSecond / m_uBitsPerByte;

    OnConnectionOpen();
    return kesErrorOk;
}

kesEError kesOsSerialCom::Close()
{
    kesSOsMutex lock(&m_mMutex);
    if (m_hCom == -1)
        return kesErrorOk;
    int result = close(m_hCom);
    int error = errno;
    // Linux releases the descriptor even when close fails: it must not be closed again
    m_hCom = -1;
    if (result == -1)
        return KES_LOG(kesErrorFailed, kesWithStdError(at_device("close(m_hCom) == -1 at device ", m_sDevice), error));
    OnConnectionClose();
    return kesErrorOk;
}

int kesOsSerialCom::handle_for(const char* i_function, unsigned int* o_pBytesPerSecond) const
{
    int handle = -1;
    {
        kesSOsMutex lock(&m_mMutex);
        handle = m_hCom;
        if (o_pBytesPerSecond != nullptr)
            *o_pBytesPerSecond = m_uMaxBytesPerSecond;
    }
    if (handle == -1)
        KES_LOG_IN(kesErrorFailed, INVALID_HANDLE, i_function);
    return handle;
}

bool kesOsSerialCom::IsValid() const
{
    kesSOsMutex lock(&m_mMutex);
    return m_hCom != -1;
}

int kesOsSerialCom::Send(const void* i_pData, const unsigned int& i_length)
{
    unsigned int bytesPerSecond = 0;
    const int handle = handle_for("Send", &bytesPerSecond);
    if (handle == -1)
        return -1;
    ssize_t written = write(handle, i_pData, i_length);
    if (written == -1)
        return failed_transfer("write(...) == -1", "Send");
    // the caller reads the echo next, so it waits until the whole frame is on the line
    if (bytesPerSecond != 0)
        kesOsThread::SleepMicro((unsigned int)((long double)i_length / bytesPerSecond * 1000000.0L));
    return (int)written;
}

int kesOsSerialCom::Receive(void* o_pData, const unsigned int& i_length)
{
    const int handle = handle_for("Receive");
    if (handle == -1)
        return -1;
    ssize_t got = read(handle, o_pData, i_length);
    if (got == -1)
        return failed_transfer("read(...) == -1", "Receive");
    return (int)got;
}

// Would-block is -2 without a record; a vanished adapter (EIO) is -3 and arms
// the reconnection; anything else is -1.
int kesOsSerialCom::failed_transfer(const char* i_call, const char* i_function)
{
    int error = errno;
    if (error == EAGAIN)
        return -2;
    KES_LOG_IN(kesErrorFailed, kesWithStdError(i_call, error), i_function);
    if (error == EIO) {
        on_reopen();
        return -3;
    }
    return -1;
}

int kesOsSerialCom::Receive(void* o_pData, const unsigned int& i_length, const unsigned int& i_pause,
                            const unsigned long& i_timeOut)
{
    if (!IsValid()) {
        KES_LOG(kesErrorFailed, INVALID_HANDLE);
        return -1;
    }
    if (i_length == 0)
        return 0;
    unsigned char* data = static_cast<unsigned char*>(o_pData);
    unsigned int remaining = i_length;
    unsigned int start = kesTime::GetTime();
    for (;;) {
        int got = Receive(data + (i_length - remaining), remaining);
        if (got == -1 || got == -3)
            break;
        if (got > 0) {
            remaining -= (unsigned int)got;
            if (remaining == 0)
                return (int)i_length;
        }
        kesOsThread::SleepMs(i_pause);
        if ((unsigned long)(kesTime::GetTime() - start) > i_timeOut)
            break;
    }
    return (int)(i_length - remaining);
}

int kesOsSerialCom::Flush()
{
    const int handle = handle_for("Flush");
    if (handle == -1)
        return -1;
    if (tcflush(handle, TCIOFLUSH) == -1) {
        KES_LOG_STD(kesErrorFailed, "Can not flush serial");
        return -1;
    }
    return 0;
}

kesEError kesOsSerialCom::Flush(const unsigned int& i_pause, const unsigned long& i_timeOut)
{
    for (unsigned int dropped = 0; dropped < FLUSH_MAX_BYTES; ++dropped) {
        unsigned char byte = 0;
        int got = Receive(&byte, 1, i_pause, i_timeOut);
        if (got < 0)
            return KES_LOG(kesErrorFailed, "Communication error");
        if (got == 0)
            break;
    }
    return kesErrorOk;
}

bool kesOsSerialCom::IsReadyToReceive(unsigned int i_milliseconds) const
{
    const int handle = handle_for("IsReadyToReceive");
    if (handle == -1)
        return false;
    // poll has no FD_SETSIZE limit on the descriptor, unlike select
    pollfd entry = {handle, POLLIN, 0};
    int timeout = i_milliseconds > 0x7FFFFFFF ? 0x7FFFFFFF : (int)i_milliseconds;
    int result = poll(&entry, 1, timeout);
    if (result == -1) {
        KES_LOG_STD(kesErrorFailed, "select(...) failed");
        return false;
    }
    // a hung-up line counts as readable, as select has it: the read then tells
    return result > 0;
}

kesEError kesOsSerialCom::modem_ioctl(unsigned long i_request, int* io_pLines, const char* i_function) const
{
    if (m_hCom == -1)
        return KES_LOG_IN(kesErrorFailed, INVALID_HANDLE, i_function);
    if (ioctl(m_hCom, i_request, io_pLines) == -1)
        return KES_LOG_IN(kesErrorFailed, kesWithStdError(at_device("ioctl(...) == -1 at ", m_sDevice), -1),
                          i_function);
    return kesErrorOk;
}

kesEError kesOsSerialCom::get_modem_line(int i_line, unsigned char* o_pValue, const char* i_function) const
{
    if (o_pValue == nullptr)
        return KES_LOG_IN(kesErrorInvalidArgument, "o_pVal == 0", i_function);
    kesSOsMutex lock(&m_mMutex);
    int lines = 0;
    kesEError result = modem_ioctl(TIOCMGET, &lines, i_function);
    if (result != kesErrorOk)
        return result;
    *o_pValue = (lines & i_line) != 0 ? 1 : 0;
    return kesErrorOk;
}

kesEError kesOsSerialCom::set_modem_line(int i_line, unsigned char i_value, const char* i_function)
{
    kesSOsMutex lock(&m_mMutex);
    int lines = 0;
    kesEError result = modem_ioctl(TIOCMGET, &lines, i_function);
    if (result != kesErrorOk)
        return result;
    lines = i_value != 0 ? (lines | i_line) : (lines & ~i_line);
    return modem_ioctl(TIOCMSET, &lines, i_function);
}

kesEError kesOsSerialCom::SetRTS(unsigned char i_value)
{
    return set_modem_line(TIOCM_RTS, i_value, "SetRTS");
}

kesEError kesOsSerialCom::SetDTR(unsigned char i_value)
{
    return set_modem_line(TIOCM_DTR, i_value, "SetDTR");
}

kesEError kesOsSerialCom::GetRTS(unsigned char* o_pValue) const
{
    return get_modem_line(TIOCM_RTS, o_pValue, "GetRTS");
}

kesEError kesOsSerialCom::GetDTR(unsigned char* o_pValue) const
{
    return get_modem_line(TIOCM_DTR, o_pValue, "GetDTR");
}

bool kesOsSerialCom::GetAutoReconnect() const
{
    kesSOsMutex lock(&m_mMutex);
    return m_bAutoReconnect;
}

unsigned char kesOsSerialCom::GetBitsPerByte() const
{
    kesSOsMutex lock(&m_mMutex);
    return m_uBitsPerByte;
}

unsigned int kesOsSerialCom::GetMaxBytesPerSecond() const
{
    kesSOsMutex lock(&m_mMutex);
    return m_uMaxBytesPerSecond;
}

unsigned int kesOsSerialCom::GetReceiveWaitTime(unsigned int i_bytes) const
{
    unsigned int bytesPerSecond = GetMaxBytesPerSecond();
    if (bytesPerSecond == 0)
        return 0;
    return (unsigned int)((long double)i_bytes / bytesPerSecond * 1000.0L);
}

void kesOsSerialCom::on_reopen()
{
    kesSOsMutex lock(&m_mMutex);
    // the reconnect thread's own failures land here too: the bit keeps it from waiting for itself
    if (!m_bAutoReconnect || (m_uState & STATE_RECONNECTING) != 0)
        return;
    if (Close() != kesErrorOk)
        KES_LOG(kesErrorFailed, at_device("Can not close serial ", m_sDevice));
    m_uState |= STATE_RECONNECTING;

    // an earlier thread has cleared the bit, so it is past its last use of the mutex
    if (m_pThreadReconnect != nullptr) {
        m_pThreadReconnect->Stop();
        delete m_pThreadReconnect;
        m_pThreadReconnect = nullptr;
    }
    m_pThreadReconnect = new (std::nothrow) kesOsThread(thread_reconnect, this, false);
    if (m_pThreadReconnect == nullptr) {
        m_uState &= ~STATE_RECONNECTING;
        KES_LOG(kesErrorInvalidPointer, "m_pThreadReconnect == 0");
        return;
    }
    if (!m_pThreadReconnect->Start(RECONNECT_STACK_SIZE)) {
        delete m_pThreadReconnect;
        m_pThreadReconnect = nullptr;
        m_uState &= ~STATE_RECONNECTING;
        KES_LOG(kesErrorFailed, "Can not start reconnect thread");
    }
}

void kesOsSerialCom::thread_reconnect(kesOsThread* i_pThread, void* i_pArgument)
{
    kesOsSerialCom* self = static_cast<kesOsSerialCom*>(i_pArgument);
    while (i_pThread->WaitContinue(RECONNECT_PERIOD_MS)) {
        kesString device;
        EBaudRate baudRate;
        EDataBits dataBits;
        EParity parity;
        EStopBits stopBits;
        EFlowControl flowControl;
        {
            kesSOsMutex lock(&self->m_mMutex);
            device = self->m_sDevice;
            baudRate = self->m_eBaudRate;
            dataBits = self->m_eDataBits;
            parity = self->m_eParity;
            stopBits = self->m_eStopBits;
            flowControl = self->m_eFlowControl;
        }
        if (self->Open(device, baudRate, dataBits, parity, stopBits, flowControl) == kesErrorOk)
            break;
    }
    kesSOsMutex lock(&self->m_mMutex);
    self->m_uState &= ~STATE_RECONNECTING;
}

} // namespace kes
