#ifndef KES_OSTCPSOCKET_H
#define KES_OSTCPSOCKET_H

#include "kes_error.h"
#include "kes_string.h"

#include <netinet/in.h>
#include <sys/socket.h>

namespace kes {

enum kesEOsSocketType : unsigned int { kesOsSocketTypeTcp = 1, kesOsSocketTypeUdp = 16 };

// "host:port" or "host": with a port in the text it replaces io_port and the
// host is trimmed of blanks; without one the whole text is the host.
void kesOsSplitHostPort(const kesString& i_address, kesString* o_host, unsigned short* io_port);

// Dotted IPv4 address or host name to an IPv4 address. Safe on any thread.
bool kesOsResolveIPv4(const kesString& i_host, in_addr* o_address);

class kesIOsTcpSocket {
public:
    virtual ~kesIOsTcpSocket() {}

    virtual kesEOsSocketType GetType() const = 0;
    virtual bool IsOpen() const = 0;
    virtual bool IsValid() const = 0;
    virtual bool HasNoError() const = 0;
    virtual kesString GetName() const = 0;
    virtual kesString GetPeerName() const = 0;
    virtual unsigned int GetConnectionTime() const = 0;
    virtual bool SetKeepAlive(bool i_keepAlive) = 0;
    virtual bool GetKeepAlive() const = 0;
    virtual bool SetReceiveTimeOut(const unsigned int& i_milliseconds) = 0;
    virtual unsigned int GetReceiveTimeOut() const = 0;
    virtual bool SetSendTimeOut(const unsigned int& i_milliseconds) = 0;
    virtual unsigned int GetSendTimeOut() const = 0;
    virtual bool IsReadyToReceive(unsigned int i_milliseconds) const = 0;
    virtual kesEError FlushReceive(unsigned int i_milliseconds, int* o_pCount) = 0;
    virtual int Receive(void* o_pData, unsigned int i_length, int* o_pReceived) = 0;
    virtual bool IsReadyToSend(unsigned int i_milliseconds) const = 0;
    virtual int Send(const void* i_pData, unsigned int i_length) = 0;
    virtual kesEError Close() = 0;
};

// Blocking IPv4 TCP client. Send and Receive give the whole length, or
// -1 (failure, logged), -2 (time-out, silent), -3 (peer closed; this object
// is closed too).
class kesOsTcpSocket : public kesIOsTcpSocket {
public:
    kesOsTcpSocket();
    ~kesOsTcpSocket() override;

    kesOsTcpSocket(const kesOsTcpSocket&) = delete;
    kesOsTcpSocket& operator=(const kesOsTcpSocket&) = delete;

    kesEOsSocketType GetType() const override;
    bool IsOpen() const override;
    bool IsValid() const override;
    bool HasNoError() const override;
    kesString GetName() const override;
    kesString GetPeerName() const override;
    unsigned int GetConnectionTime() const override;
    bool SetKeepAlive(bool i_keepAlive) override;
    bool GetKeepAlive() const override;
    bool SetReceiveTimeOut(const unsigned int& i_milliseconds) override;
    unsigned int GetReceiveTimeOut() const override;
    bool SetSendTimeOut(const unsigned int& i_milliseconds) override;
    unsigned int GetSendTimeOut() const override;
    bool IsReadyToReceive(unsigned int i_milliseconds) const override;
    kesEError FlushReceive(unsigned int i_milliseconds, int* o_pCount) override;
    int Receive(void* o_pData, unsigned int i_length, int* o_pReceived) override;
    bool IsReadyToSend(unsigned int i_milliseconds) const override;
    int Send(const void* i_pData, unsigned int i_length) override;
    kesEError Close() override;

    // Connects within CONNECT_TIME_OUT_MS; a gateway that drops the attempts
    // must not hold the caller for the kernel's two minutes.
    kesEError Open(const kesString& i_address, unsigned short i_port);
    kesEError Reset();

    // Waits up to i_milliseconds for bytes, then takes what is there, at most
    // i_length: the count, 0 when none came, -1 on a failure, -3 when the peer closed.
    int ReceiveAvailable(void* o_pData, unsigned int i_length, unsigned int i_milliseconds);

    // Set when the process stops: connections in progress and later ones give
    // up at once, in every thread.
    static void SetConnectAbort(bool i_abort);
    static bool IsConnectAborted();

    static const unsigned int CONNECT_TIME_OUT_MS = 3000;

    enum EFlags : unsigned int { FLAG_SOCKET = 1, FLAG_CONNECTED = 4 };

private:
    int transfer(bool i_send, unsigned char* io_pData, unsigned int i_length, int* o_pDone, const char* i_function);
    // The validity check and the socket option calls, each reporting for i_function.
    bool is_valid_for(const char* i_function) const;
    bool get_option(int i_option, void* o_pValue, socklen_t i_size, const char* i_function) const;
    bool set_option(int i_option, const void* i_pValue, socklen_t i_size, const char* i_function);
    bool set_time_out(int i_option, unsigned int i_milliseconds, const char* i_function);
    unsigned int get_time_out(int i_option, const char* i_function) const;
    int connect_bounded(const sockaddr_in& i_destination);
    bool is_ready(short i_events, unsigned int i_milliseconds, const char* i_function) const;
    kesString get_address_text(bool i_peer, const char* i_function) const;

    unsigned int m_uFlags;
    int m_hSocket;
    unsigned int m_uConnectionTime;
    kesEOsSocketType m_eType;
};

} // namespace kes

#endif
