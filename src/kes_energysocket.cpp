#include "kes_energysocket.h"

#include "kes_modbusrtu.h"
#include "kes_osthread.h"
#include "kes_time.h"

#include <cstring>
#include <new>
#include <vector>

namespace kes {

namespace {

const char* const SERIAL_MARK = "/dev/ttyUSB";
const unsigned int RECV_LESS_TIMEOUT_PAUSE_MS = 30;
// a peer that never stops talking must not hold a drain forever
const unsigned int FLUSH_MAX_BYTES = 65536;

} // namespace

kesEnergySocket::kesEnergySocket()
    : m_bSerial(false), m_uReceiveTimeOut(0), m_pTcpSocket(nullptr), m_pSerialCom(nullptr), m_aEcho()
{
}

kesEnergySocket::~kesEnergySocket()
{
    Close();
    delete m_pTcpSocket;
    m_pTcpSocket = nullptr;
    delete m_pSerialCom;
    m_pSerialCom = nullptr;
}

kesEError kesEnergySocket::Open(const kesString& i_address, unsigned short i_port)
{
    if (Close() != kesErrorOk)
        KES_LOG(kesErrorFailed, "Can not cloese connection");
    delete m_pTcpSocket;
    m_pTcpSocket = nullptr;
    delete m_pSerialCom;
    m_pSerialCom = nullptr;
    m_bSerial = false;

    if (i_address.Find(SERIAL_MARK, 0, true, false) != kesString::npos) {
        m_bSerial = true;
        m_pSerialCom = new (std::nothrow) kesOsSerialCom(false);
        if (m_pSerialCom == nullptr)
            return KES_LOG(kesErrorFailed, "Can not open serial socket");
        kesEError result = m_pSerialCom->Open(i_address, kesOsSerialCom::Baud9600, kesOsSerialCom::DataBits8,
                                              kesOsSerialCom::ParityNone, kesOsSerialCom::StopBitsOne,
                                              kesOsSerialCom::FlowControlNone);
        m_pSerialCom->Flush();
        return result;
    }

    m_pTcpSocket = new (std::nothrow) kesOsTcpSocket();
    if (m_pTcpSocket == nullptr)
        return KES_LOG(kesErrorFailed, "Can not open tcp socket");
    return m_pTcpSocket->Open(i_address, i_port);
}

kesEError kesEnergySocket::Close()
{
    if (m_pTcpSocket != nullptr)
        return m_pTcpSocket->Close();
    if (m_pSerialCom != nullptr)
        return m_pSerialCom->Close();
    return kesErrorOk;
}

bool kesEnergySocket::IsSerial() const
{
    return m_bSerial;
}

bool kesEnergySocket::IsOpen() const
{
    // a serial line is open as long as its device is
    if (m_pTcpSocket != nullptr)
        return m_pTcpSocket->IsOpen();
    return IsValid();
}

bool kesEnergySocket::IsValid() const
{
    if (m_pTcpSocket != nullptr)
        return m_pTcpSocket->IsValid();
    if (m_pSerialCom != nullptr)
        return m_pSerialCom->IsValid();
    return false;
}

bool kesEnergySocket::SetReceiveTimeOut(const unsigned int& i_milliseconds)
{
    if (m_pTcpSocket != nullptr)
        return m_pTcpSocket->SetReceiveTimeOut(i_milliseconds);
    if (m_pSerialCom != nullptr) {
        m_uReceiveTimeOut = i_milliseconds;
        return true;
    }
    return false;
}

unsigned int kesEnergySocket::GetReceiveTimeOut() const
{
    if (m_pTcpSocket != nullptr)
        return m_pTcpSocket->GetReceiveTimeOut();
    if (m_pSerialCom != nullptr)
        return m_uReceiveTimeOut;
    return 0;
}

void kesEnergySocket::close_after_failure(int i_result, const char* i_function)
{
    // a lost connection closes the channel: the line above sees IsOpen false and reconnects
    if ((i_result == -1 || i_result == -3) && Close() != kesErrorOk)
        KES_LOG_IN(kesErrorFailed, "Can not close the communication", i_function);
}

int kesEnergySocket::Send(const void* i_pData, unsigned int i_size)
{
    if (m_pTcpSocket != nullptr) {
        int result = m_pTcpSocket->Send(i_pData, i_size);
        close_after_failure(result, "Send");
        return result;
    }
    if (m_pSerialCom != nullptr)
        return send_serial(static_cast<const unsigned char*>(i_pData), i_size);
    return -1;
}

int kesEnergySocket::send_serial(const unsigned char* i_pData, unsigned int i_size)
{
    if (i_size > ECHO_BUFFER_SIZE || (i_pData == nullptr && i_size != 0)) {
        kesString message;
        message.SetFormat(64, "Frame of %u bytes refused", i_size);
        KES_LOG_IN(kesErrorInvalidArgument, message, "Send");
        return -1;
    }
    // whatever is left of an earlier exchange must not pass for this echo or reply
    m_pSerialCom->Flush();

    int sent = m_pSerialCom->Send(i_pData, i_size);
    close_after_failure(sent, "Send");
    if (sent != (int)i_size) {
        kesString message;
        message.SetFormat(64, "Can not send all data -> [%i] <- [%i]", (int)i_size, sent);
        KES_LOG_IN(kesErrorFailed, message, "Send");
    }

    // missing echo bytes compare as zeros, not as the echo of an earlier frame
    memset(m_aEcho, 0, i_size);
    int echoed = m_pSerialCom->Receive(m_aEcho, i_size, SERIAL_PAUSE_MS, m_uReceiveTimeOut);
    if (echoed == -1 || echoed == -3) {
        close_after_failure(echoed, "Send");
        return echoed;
    }
    if (i_size == 0 || memcmp(m_aEcho, i_pData, i_size) == 0)
        return echoed;

    kesString columns;
    for (unsigned int i = 0; i < i_size; ++i) {
        kesString line;
        line.SetFormat(64, "[0x%.2X][0x%.2X]\n", i_pData[i], m_aEcho[i]);
        columns.append(line);
    }
    KES_LOG_IN(kesErrorFailed, kesString("Echo not equal\n") + columns, "Send");
    return echoed;
}

int kesEnergySocket::Receive(void* o_pData, unsigned int i_size, int* o_pReceived)
{
    if (o_pReceived != nullptr)
        *o_pReceived = 0;
    if (m_pTcpSocket != nullptr) {
        int result = m_pTcpSocket->Receive(o_pData, i_size, o_pReceived);
        close_after_failure(result, "Receive");
        return result;
    }
    if (m_pSerialCom != nullptr) {
        int result = m_pSerialCom->Receive(o_pData, i_size, SERIAL_PAUSE_MS, m_uReceiveTimeOut);
        close_after_failure(result, "Receive");
        if (o_pReceived != nullptr)
            *o_pReceived = result;
        return result;
    }
    return -1;
}

int kesEnergySocket::receive_available(unsigned char* o_pData, unsigned int i_size, unsigned int i_milliseconds)
{
    if (m_pTcpSocket != nullptr)
        return m_pTcpSocket->ReceiveAvailable(o_pData, i_size, i_milliseconds);
    if (m_pSerialCom == nullptr || !m_pSerialCom->IsValid())
        return -1;
    if (i_milliseconds > 0 && !m_pSerialCom->IsReadyToReceive(i_milliseconds))
        return 0;
    int got = m_pSerialCom->Receive(o_pData, i_size);
    return got == -2 ? 0 : got;
}

int kesEnergySocket::Discard(unsigned int i_milliseconds)
{
    unsigned char dropped[ECHO_BUFFER_SIZE];
    unsigned int start = kesTime::GetSteadyTime();
    int count = 0;
    while (count < (int)FLUSH_MAX_BYTES) {
        unsigned int spent = kesTime::GetSteadyTime() - start;
        unsigned int left = spent < i_milliseconds ? i_milliseconds - spent : 0;
        int got = receive_available(dropped, sizeof(dropped), left);
        if (got == -1 || got == -3) {
            close_after_failure(got, "Discard");
            return got;
        }
        if (got > 0)
            count += got;
        else if (left == 0)
            break;
    }
    return count;
}

int __SEND_PURGE_ECHO__(kesEnergySocket* io_pSocket, const void* i_pData, unsigned int i_size)
{
    if (io_pSocket == nullptr)
        return KES_LOG(kesErrorInvalidArgument, "pSocket == 0");
    if (io_pSocket->Send(i_pData, i_size) != (int)i_size)
        return KES_LOG(kesErrorFailed, "Can not send data to the bus...\n");
    std::vector<unsigned char> dropped(i_size);
    int result = io_pSocket->Receive(dropped.data(), i_size, nullptr);
    if (result == -2)
        return KES_LOG(kesErrorFailed, "Timeout response not received...\n");
    return result;
}

kesEError __RECV_LESS_BYTE__(kesEnergySocket* io_pSocket, unsigned char* o_pData, unsigned short i_size,
                             unsigned char* io_pFrame)
{
    if (io_pSocket == nullptr || o_pData == nullptr || io_pFrame == nullptr || i_size < 4)
        return KES_LOG(kesErrorInvalidArgument, "pSocket, pData or pFrame == 0 or size < 4");
    if (io_pSocket->Receive(o_pData, i_size - 4u, nullptr) == -2) {
        kesOsThread::SleepMs(RECV_LESS_TIMEOUT_PAUSE_MS);
        return KES_LOG(kesErrorFailed, "Timeout response not received...\n");
    }
    unsigned short crc = kesModbusRtuCrc(io_pFrame, i_size - 2u);
    io_pFrame[i_size - 2] = (unsigned char)(crc & 0xFF);
    io_pFrame[i_size - 1] = (unsigned char)(crc >> 8);
    return kesErrorOk;
}

kesEError __FLUSH_DATA_SOCKET__(kesEnergySocket* io_pSocket, unsigned int i_milliseconds)
{
    if (io_pSocket == nullptr)
        return KES_LOG(kesErrorInvalidArgument, "pSocket == 0");
    // 0 would mean "no time-out" on TCP and wait for ever
    if (i_milliseconds == 0)
        i_milliseconds = 1;
    unsigned int saved = io_pSocket->GetReceiveTimeOut();
    io_pSocket->SetReceiveTimeOut(i_milliseconds);
    for (unsigned int dropped = 0; dropped < FLUSH_MAX_BYTES; ++dropped) {
        unsigned char byte = 0;
        if (io_pSocket->Receive(&byte, 1, nullptr) != 1)
            break;
    }
    // a TCP socket closed meanwhile took its time-out with it
    if (io_pSocket->IsSerial() || io_pSocket->IsValid())
        io_pSocket->SetReceiveTimeOut(saved);
    return kesErrorOk;
}

} // namespace kes
