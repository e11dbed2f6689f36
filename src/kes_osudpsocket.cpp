#include "kes_osudpsocket.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <netdb.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <vector>

namespace kes {

namespace {

const kesEOsSocketType UDP_SOCKET_TYPE = static_cast<kesEOsSocketType>(16);

// gethostbyname shares one static result between threads; the reentrant
// form keeps each look-up on its caller's stack.
bool resolve_host(const kesString& host, in_addr* address)
{
    std::vector<char> scratch(1024);
    hostent entry;
    hostent* found = nullptr;
    int lookupError = 0;
    int result;
    while ((result = gethostbyname_r(host.c_str(), &entry, scratch.data(), scratch.size(), &found, &lookupError)) ==
               ERANGE &&
           scratch.size() < 65536)
        scratch.resize(scratch.size() * 2);
    if (result != 0 || found == nullptr || found->h_addrtype != AF_INET || found->h_addr_list[0] == nullptr)
        return false;
    memcpy(address, found->h_addr_list[0], sizeof(*address));
    return true;
}

} // namespace

kesOsUdpSocket::kesOsUdpSocket() : m_uFlags(0), m_iHandle(0), m_sTo(), m_eType(UDP_SOCKET_TYPE)
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

    int handle = socket(AF_INET, SOCK_DGRAM, 17);
    if (handle < 0)
        return KES_LOG_STD(kesErrorNetwork, "Can not create socket");
    if (handle == 0) {
        // Descriptor 0 would read as "no socket": move it above.
        int moved = fcntl(handle, F_DUPFD, 1);
        int saved = errno;
        close(handle);
        if (moved < 0) {
            errno = saved;
            return KES_LOG_STD(kesErrorNetwork, "Can not create socket");
        }
        handle = moved;
    }
    m_iHandle = handle;
    return kesErrorOk;
}

kesEError kesOsUdpSocket::SetTo(const kesString& address, unsigned short port)
{
    kesString host = address;
    kesArray<kesString> parts;
    address.GetSplit(&parts, ":");
    if (parts.size() >= 2) {
        host = parts[0];
        host.SetShrink(" ", true);
        host.SetShrink(" ", false);
        port = static_cast<unsigned short>(kesString::AsULong(parts[1], 10));
    }

    memset(&m_sTo, 0, sizeof(m_sTo));
    m_sTo.sin_family = AF_INET;
    m_sTo.sin_port = htons(port);
    m_sTo.sin_addr.s_addr = inet_addr(host.c_str());
    if (m_sTo.sin_addr.s_addr == INADDR_NONE && !resolve_host(host, &m_sTo.sin_addr))
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
    if (m_iHandle >= FD_SETSIZE) {
        KES_LOG(kesErrorNetwork, "select(...) failed: descriptor beyond FD_SETSIZE");
        return false;
    }
    fd_set set;
    FD_ZERO(&set);
    FD_SET(m_iHandle, &set);
    timeval time;
    time.tv_sec = milliseconds / 1000;
    time.tv_usec = (milliseconds % 1000) * 1000;
    int ready = select(m_iHandle + 1, forReceive ? &set : nullptr, forReceive ? nullptr : &set, nullptr, &time);
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
