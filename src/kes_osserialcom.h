#ifndef KES_OSSERIALCOM_H
#define KES_OSSERIALCOM_H

#include "kes_error.h"
#include "kes_osmutex.h"
#include "kes_osthread.h"
#include "kes_string.h"

#include <termios.h>

namespace kes {

// Raw serial line, non-blocking for its whole life. Send holds the caller
// until the bytes have left the line; the timed Receive gives whatever came
// within its time limit.
class kesOsSerialCom {
public:
    // The values are the termios constants themselves.
    enum EBaudRate : unsigned int {
        Baud300 = B300,
        Baud600 = B600,
        Baud1200 = B1200,
        Baud2400 = B2400,
        Baud4800 = B4800,
        Baud9600 = B9600,
        Baud19200 = B19200,
        Baud38400 = B38400,
        Baud57600 = B57600,
        Baud115200 = B115200
    };
    enum EDataBits : unsigned int { DataBits5 = CS5, DataBits6 = CS6, DataBits7 = CS7, DataBits8 = CS8 };
    // a c_cflag mask
    enum EParity : unsigned int { ParityNone = 0, ParityEven = PARENB, ParityOdd = PARENB | PARODD };
    enum EStopBits : unsigned int { StopBitsOne = 0, StopBitsTwo = CSTOPB };
    enum EFlowControl : unsigned int { FlowControlNone = 0, FlowControlHardware = 1, FlowControlSoftware = 2 };

    explicit kesOsSerialCom(bool i_autoReconnect);
    virtual ~kesOsSerialCom();

    kesOsSerialCom(const kesOsSerialCom&) = delete;
    kesOsSerialCom& operator=(const kesOsSerialCom&) = delete;

    kesEError Open(const kesString& i_device, const EBaudRate& i_baudRate, const EDataBits& i_dataBits,
                   const EParity& i_parity, const EStopBits& i_stopBits, const EFlowControl& i_flowControl);
    kesEError Close();
    bool IsValid() const;

    // count written, -1 failure, -2 output full, -3 device gone
    int Send(const void* i_pData, const unsigned int& i_length);
    // count read (0 possible), -1 failure, -2 nothing to read, -3 device gone
    int Receive(void* o_pData, const unsigned int& i_length);
    // bytes received until length or the time limit (from the call's start); -1 only without a device
    int Receive(void* o_pData, const unsigned int& i_length, const unsigned int& i_pause,
                const unsigned long& i_timeOut);

    int Flush();
    kesEError Flush(const unsigned int& i_pause, const unsigned long& i_timeOut);
    bool IsReadyToReceive(unsigned int i_milliseconds) const;

    kesEError SetRTS(unsigned char i_value);
    kesEError SetDTR(unsigned char i_value);
    kesEError GetRTS(unsigned char* o_pValue) const;
    kesEError GetDTR(unsigned char* o_pValue) const;

    bool GetAutoReconnect() const;
    unsigned char GetBitsPerByte() const;
    unsigned int GetMaxBytesPerSecond() const;
    unsigned int GetReceiveWaitTime(unsigned int i_bytes) const;

protected:
    virtual void OnConnectionClose() {}
    virtual void OnConnectionOpen() {}

private:
    enum EState : unsigned int { STATE_RECONNECTING = 1 };

    void on_reopen();
    // The descriptor, read under the lock; -1, reported for i_function, without one.
    int handle_for(const char* i_function, unsigned int* o_pBytesPerSecond = nullptr) const;
    int failed_transfer(const char* i_call, const char* i_function);
    static void thread_reconnect(kesOsThread* i_pThread, void* i_pArgument);
    // The caller holds the lock; failures are reported for i_function.
    kesEError modem_ioctl(unsigned long i_request, int* io_pLines, const char* i_function) const;
    kesEError set_modem_line(int i_line, unsigned char i_value, const char* i_function);
    kesEError get_modem_line(int i_line, unsigned char* o_pValue, const char* i_function) const;

    int m_hCom;
    kesString m_sDevice;
    EBaudRate m_eBaudRate;
    EDataBits m_eDataBits;
    EParity m_eParity;
    EStopBits m_eStopBits;
    EFlowControl m_eFlowControl;
    bool m_bAutoReconnect;
    unsigned char m_uBitsPerByte;
    unsigned int m_uMaxBytesPerSecond;
    unsigned int m_uState;
    mutable kesOsMutex m_mMutex;
    kesOsThread* m_pThreadReconnect;
};

} // namespace kes

#endif
