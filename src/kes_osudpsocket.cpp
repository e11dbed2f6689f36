#include "kes_osudpsocket.h"

#include "kes_osutility.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace kes {

kesOsUdpSocket::kesOsUdpSocket() : m_uFlags(0), m_iHandle(0), m_sTo(), m_eType(kesOsSocketTypeUdp)
{
    if (Reset() != kesErrorOk)
        KES_LOG(kesErrorNetwork, "Can not reset socket");
}

kesOsUdpSocket::~kesOsUdpSocket()
{
    if (Close() != kesErrorOk)
        KES_LOG(kesErrorNetwork, "Can not close socket");
}

kesEError kesOsUdpSocket::Reset()
{
    kesEError closed = Close();
    if (closed != kesErrorOk)
        return KES_LOG(closed, "Can not close socket");

    const int handle = kesOsUtility::OpenSocket(SOCK_DGRAM, IPPROTO_UDP);
    if (handle < 0)
        return KES_LOG_STD(kesErrorNetwork, "Can not create socket");
    m_iHandle = handle;
    return kesErrorOk;
}

kesEError kesOsUdpSocket::SetTo(const kesString& address, unsigned short port)
{
    kesString host;
    kesOsSplitHostPort(address, &host, &port);

    memset(&m_sTo, 0, sizeof(m_sTo));
    m_sTo.sin_family = AF_INET;
    m_sTo.sin_port = htons(port);
    m_sTo.sin_addr.s_addr = INADDR_NONE;
    if (!kesOsResolveIPv4(host, &m_sTo.sin_addr))
        return KES_LOG(kesErrorNetwork, "gethostbyname failed");
    return kesErrorOk;
}

int kesOsUdpSocket::Send(const void* data, unsigned int length)
{
    if (m_iHandle == 0) {
        KES_LOG(kesErrorNetwork, "Socket is invalid.");
        return -1;
    }
    for (;;) {
        ssize_t sent =
            sendto(m_iHandle, data, length, MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&m_sTo), sizeof(m_sTo));
        if (sent >= 0)
            return static_cast<int>(sent);
        if (errno == EINTR) {
            KES_LOG(kesErrorWarning, "Std EINTR error continue...");
            continue;
        }
        if (errno == EAGAIN)
            return -2;
        KES_LOG_STD(kesErrorNetwork, "send error");
        return -1;
    }
}

kesEError kesOsUdpSocket::Close()
{
    if (m_iHandle == 0)
        return kesErrorOk;

    kesEError result = kesErrorOk;
    // An unconnected datagram socket always answers ENOTCONN here.
    if (shutdown(m_iHandle, SHUT_RDWR) != 0 && errno != ENOTCONN)
        result = KES_LOG_STD(kesErrorNetwork, "shutdown(...) failed");
    if (close(m_iHandle) != 0)
        result = KES_LOG_STD(kesErrorNetwork, "close(...) failed");

    m_uFlags = 0;
    m_iHandle = 0;
    memset(&m_sTo, 0, sizeof(m_sTo));
    return result;
}

bool kesOsUdpSocket::set_time_out(int option, unsigned int milliseconds)
{
    if (m_iHandle == 0) {
        KES_LOG(kesErrorNetwork, "Socket is invalid.");
        return false;
    }
    timeval time;
    time.tv_sec = milliseconds / 1000;
    time.tv_usec = (milliseconds % 1000) * 1000;
    if (setsockopt(m_iHandle, SOL_SOCKET, option, &time, sizeof(time)) != 0) {
        KES_LOG_STD(kesErrorNetwork, "setsockopt(...) failed");
        return false;
    }
    return true;
}

unsigned int kesOsUdpSocket::get_time_out(int option)
{
    if (m_iHandle == 0) {
        KES_LOG(kesErrorNetwork, "Socket is invalid.");
        return 0;
    }
    timeval time;
    socklen_t size = sizeof(time);
    if (getsockopt(m_iHandle, SOL_SOCKET, option, &time, &size) != 0) {
        KES_LOG_STD(kesErrorNetwork, "getsockopt(...) failed");
        return 0;
    }
    return static_cast<unsigned int>(time.tv_sec * 1000 + time.tv_usec / 1000);
}

bool kesOsUdpSocket::SetReceiveTimeOut(const unsigned int& milliseconds)
{
    return set_time_out(SO_RCVTIMEO, milliseconds);
}

unsigned int kesOsUdpSocket::GetReceiveTimeOut()
{
    return get_time_out(SO_RCVTIMEO);
}

bool kesOsUdpSocket::SetSendTimeOut(const unsigned int& milliseconds)
{
    return set_time_out(SO_SNDTIMEO, milliseconds);
}

unsigned int kesOsUdpSocket::GetSendTimeOut()
{
    return get_time_out(SO_SNDTIMEO);
}

unsigned int kesOsUdpSocket::GetMaxMessageSize()
{
    if (m_iHandle == 0) {
        KES_LOG(kesErrorNetwork, "Socket is invalid.");
        return 0;
    }
    int size = 0;
    socklen_t length = sizeof(size);
    if (getsockopt(m_iHandle, SOL_SOCKET, SO_SNDBUF, &size, &length) != 0) {
        KES_LOG_STD(kesErrorNetwork, "getsockopt(...) failed");
        return 0;
    }
    return static_cast<unsigned int>(size);
}

bool kesOsUdpSocket::is_ready(bool forReceive, unsigned int milliseconds)
{
    if (m_iHandle == 0) {
        KES_LOG(kesErrorNetwork, "Socket is not valid.");
        return false;
    }
    // poll has no ceiling on the descriptor number, unlike select
    pollfd waiting = {m_iHandle, static_cast<short>(forReceive ? POLLIN : POLLOUT), 0};
    int ready = poll(&waiting, 1, static_cast<int>(milliseconds > 0x7FFFFFFFu ? 0x7FFFFFFFu : milliseconds));
    if (ready < 0) {
        KES_LOG_STD(kesErrorNetwork, "select(...) failed");
        return false;
    }
    return ready > 0;
}

bool kesOsUdpSocket::IsReadyToReceive(unsigned int milliseconds)
{
    return is_ready(true, milliseconds);
}

bool kesOsUdpSocket::IsReadyToSend(unsigned int milliseconds)
{
    return is_ready(false, milliseconds);
}

} // namespace kes
