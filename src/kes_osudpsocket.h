#ifndef KES_OSUDPSOCKET_H
#define KES_OSUDPSOCKET_H

#include <netinet/in.h>

#include "kes_error.h"
#include "kes_ostcpsocket.h"
#include "kes_string.h"

namespace kes {

class kesIOsUdpSocket {
public:
    virtual ~kesIOsUdpSocket() {}
    virtual kesEOsSocketType GetType() const = 0;
    virtual bool IsValid() const = 0;
    virtual bool IsReadyToReceive(unsigned int milliseconds) = 0;
    virtual bool IsReadyToSend(unsigned int milliseconds) = 0;
    virtual bool SetReceiveTimeOut(const unsigned int& milliseconds) = 0;
    virtual unsigned int GetReceiveTimeOut() = 0;
    virtual bool SetSendTimeOut(const unsigned int& milliseconds) = 0;
    virtual unsigned int GetSendTimeOut() = 0;
    virtual unsigned int GetMaxMessageSize() = 0;
    virtual kesEError Close() = 0;
};

// A datagram sender: one destination, no connection, no receiving.
class kesOsUdpSocket : public kesIOsUdpSocket {
public:
    kesOsUdpSocket();
    ~kesOsUdpSocket() override;
    kesOsUdpSocket(const kesOsUdpSocket&) = delete;
    kesOsUdpSocket& operator=(const kesOsUdpSocket&) = delete;

    kesEOsSocketType GetType() const override { return m_eType; }
    bool IsValid() const override { return m_iHandle != 0; }
    bool IsReadyToReceive(unsigned int milliseconds) override;
    bool IsReadyToSend(unsigned int milliseconds) override;
    bool SetReceiveTimeOut(const unsigned int& milliseconds) override;
    unsigned int GetReceiveTimeOut() override;
    bool SetSendTimeOut(const unsigned int& milliseconds) override;
    unsigned int GetSendTimeOut() override;
    unsigned int GetMaxMessageSize() override;
    kesEError Close() override;

    kesEError Reset();
    // "host:port" in the address wins over the port argument.
    kesEError SetTo(const kesString& address, unsigned short port);
    // The byte count sent, -1 on failure, -2 when the socket would block.
    int Send(const void* data, unsigned int length);

private:
    bool set_time_out(int option, unsigned int milliseconds);
    unsigned int get_time_out(int option);
    bool is_ready(bool forReceive, unsigned int milliseconds);

    unsigned int m_uFlags;
    int m_iHandle;
    sockaddr_in m_sTo;
    kesEOsSocketType m_eType;
};

} // namespace kes

#endif
