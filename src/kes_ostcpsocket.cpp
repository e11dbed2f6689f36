#include "kes_ostcpsocket.h"

#include "kes_time.h"

#include <arpa/inet.h>
#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace kes {

namespace {

kesEError report(kesEError i_code, const kesString& i_message, const char* i_function, int i_line)
{
    return kesErrorLog(kesBuildErrorLocation(i_code, i_message, __FILE__, i_function, i_line));
}

// the message of a failed system call: text, then the error number and its text
kesString with_std_error(const char* i_message, int i_errno)
{
    kesString text(i_message);
    text.append("\nStd Error ");
    text.append(kesErrorStdToString(i_errno));
    return text;
}

const char* const SOCKET_IS_INVALID = "Socket is invalid.";
const char* const SOCKET_IS_CLOSE = "Socket is close.";
// a peer that never stops talking must not hold FlushReceive forever
const unsigned int FLUSH_MAX_BYTES = 65536;
// how often a connection in progress looks at the abort flag
const unsigned int CONNECT_SLICE_MS = 50;

std::atomic<bool> g_connect_abort(false);

} // namespace

void kesOsSplitHostPort(const kesString& i_address, kesString* o_host, unsigned short* io_port)
{
    if (o_host == nullptr || io_port == nullptr)
        return;
    kesArray<kesString> parts;
    i_address.GetSplit(&parts, ":");
    if (parts.size() < 2) {
        *o_host = i_address;
        return;
    }
    *o_host = parts[0];
    o_host->SetShrink(" \t", true);
    o_host->SetShrink(" \t", false);
    *io_port = (unsigned short)kesString::AsULong(parts[1], 10);
}

bool kesOsResolveIPv4(const kesString& i_host, in_addr* o_address)
{
    if (o_address == nullptr)
        return false;
    in_addr_t dotted = inet_addr(i_host.c_str());
    if (dotted != INADDR_NONE) {
        o_address->s_addr = dotted;
        return true;
    }
    // getaddrinfo, unlike gethostbyname, keeps no shared state between threads
    addrinfo hints = {};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (getaddrinfo(i_host.c_str(), nullptr, &hints, &found) != 0 || found == nullptr)
        return false;
    *o_address = reinterpret_cast<sockaddr_in*>(found->ai_addr)->sin_addr;
    freeaddrinfo(found);
    return true;
}

kesOsTcpSocket::kesOsTcpSocket() : m_uFlags(0), m_hSocket(0), m_uConnectionTime(0), m_eType(kesOsSocketTypeTcp)
{
    if (Reset() != kesErrorOk)
        report(kesErrorNetwork, "Can not reset socket", "kesOsTcpSocket", __LINE__);
}

kesOsTcpSocket::~kesOsTcpSocket()
{
    if (Close() != kesErrorOk)
        report(kesErrorNetwork, "Can not close socket", "~kesOsTcpSocket", __LINE__);
}

kesEError kesOsTcpSocket::Reset()
{
    kesEError result = Close();
    if (result != kesErrorOk)
        return report(kesErrorNetwork, "Can not close socket", "Reset", __LINE__);

    int handle = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP);
    if (handle == 0) {
        // descriptor 0 would read as "no socket": move it up
        int moved = fcntl(handle, F_DUPFD_CLOEXEC, 1);
        close(handle);
        handle = moved;
    }
    if (handle == -1)
        return report(kesErrorNetwork, with_std_error("Can not create socket", errno), "Reset", __LINE__);
    m_hSocket = handle;
    m_uFlags = FLAG_SOCKET;
    return kesErrorOk;
}

kesEError kesOsTcpSocket::Open(const kesString& i_address, unsigned short i_port)
{
    if ((m_uFlags & FLAG_CONNECTED) != 0 || m_uFlags == 0) {
        kesEError result = Reset();
        if (result != kesErrorOk)
            return report(result, "Can not reset socket", "Open", __LINE__);
    }

    kesString host;
    unsigned short port = i_port;
    kesOsSplitHostPort(i_address, &host, &port);

    sockaddr_in destination = {};
    destination.sin_family = AF_INET;
    destination.sin_port = htons(port);
    if (!kesOsResolveIPv4(host, &destination.sin_addr))
        return report(kesErrorNetwork, "gethostbyname failed", "Open", __LINE__);

    int error = connect_bounded(destination);
    if (error != 0) {
        report(kesErrorNetwork, with_std_error("Can not connect socket", error), "Open", __LINE__);
        // a socket whose connection failed is not connected again: the next Open gets a fresh one
        if (Reset() != kesErrorOk)
            report(kesErrorNetwork, "Can not reset socket", "Open", __LINE__);
        return kesErrorNetwork;
    }

    m_uFlags |= FLAG_CONNECTED;
    m_uConnectionTime = kesTime::GetTime() / 1000;
    return kesErrorOk;
}

void kesOsTcpSocket::SetConnectAbort(bool i_abort)
{
    g_connect_abort = i_abort;
}

bool kesOsTcpSocket::IsConnectAborted()
{
    return g_connect_abort;
}

// 0 once connected, otherwise the reason as an errno value. The descriptor is
// blocking again afterwards: the transfers rely on the socket time-outs.
int kesOsTcpSocket::connect_bounded(const sockaddr_in& i_destination)
{
    if (g_connect_abort)
        return ECANCELED;
    int flags = fcntl(m_hSocket, F_GETFL);
    if (flags == -1 || fcntl(m_hSocket, F_SETFL, flags | O_NONBLOCK) == -1)
        return errno;
    int error = 0;
    if (connect(m_hSocket, reinterpret_cast<const sockaddr*>(&i_destination), sizeof(i_destination)) == -1)
        error = errno;
    unsigned int start = kesTime::GetSteadyTime();
    while (error == EINPROGRESS || error == EINTR) {
        unsigned int spent = kesTime::GetSteadyTime() - start;
        if (g_connect_abort)
            error = ECANCELED;
        else if (spent >= CONNECT_TIME_OUT_MS)
            error = ETIMEDOUT;
        else {
            unsigned int left = CONNECT_TIME_OUT_MS - spent;
            pollfd entry = {m_hSocket, POLLOUT, 0};
            int ready = poll(&entry, 1, (int)(left < CONNECT_SLICE_MS ? left : CONNECT_SLICE_MS));
            if (ready == -1 && errno != EINTR)
                error = errno;
            else if (ready > 0) {
                socklen_t size = sizeof(error);
                if (getsockopt(m_hSocket, SOL_SOCKET, SO_ERROR, &error, &size) == -1)
                    error = errno;
            }
        }
    }
    if (fcntl(m_hSocket, F_SETFL, flags) == -1 && error == 0)
        error = errno;
    return error;
}

int kesOsTcpSocket::ReceiveAvailable(void* o_pData, unsigned int i_length, unsigned int i_milliseconds)
{
    if (!IsOpen()) {
        report(kesErrorNetwork, SOCKET_IS_CLOSE, "ReceiveAvailable", __LINE__);
        return -1;
    }
    if (i_length == 0 || (i_milliseconds > 0 && !IsReadyToReceive(i_milliseconds)))
        return 0;
    for (;;) {
        ssize_t result = recv(m_hSocket, o_pData, i_length, MSG_DONTWAIT);
        if (result > 0)
            return (int)result;
        if (result == 0) {
            if (Close() != kesErrorOk)
                report(kesErrorNetwork, "Can not close socket", "ReceiveAvailable", __LINE__);
            return -3;
        }
        if (errno == EINTR)
            continue;
        if (errno == EAGAIN || errno == EWOULDBLOCK)
            return 0;
        report(kesErrorNetwork, with_std_error("recv error", errno), "ReceiveAvailable", __LINE__);
        return -1;
    }
}

kesEError kesOsTcpSocket::Close()
{
    if (m_hSocket == 0)
        return kesErrorOk;
    kesEError result = kesErrorOk;
    if ((m_uFlags & FLAG_CONNECTED) != 0 && shutdown(m_hSocket, SHUT_RDWR) == -1 && errno != ENOTCONN)
        result = report(kesErrorNetwork, with_std_error("shutdown(...) failed", errno), "Close", __LINE__);
    // Linux frees the descriptor even when close fails: never close it twice
    if (close(m_hSocket) == -1)
        result = report(kesErrorNetwork, with_std_error("close(...) failed", errno), "Close", __LINE__);
    m_uFlags = 0;
    m_hSocket = 0;
    m_uConnectionTime = 0;
    return result;
}

kesEOsSocketType kesOsTcpSocket::GetType() const
{
    return m_eType;
}

bool kesOsTcpSocket::IsOpen() const
{
    return (m_uFlags & FLAG_CONNECTED) != 0;
}

bool kesOsTcpSocket::IsValid() const
{
    return m_hSocket != 0;
}

bool kesOsTcpSocket::HasNoError() const
{
    if (m_hSocket == 0) {
        report(kesErrorNetwork, SOCKET_IS_INVALID, "HasNoError", __LINE__);
        return false;
    }
    int error = 0;
    socklen_t size = sizeof(error);
    if (getsockopt(m_hSocket, SOL_SOCKET, SO_ERROR, &error, &size) == -1) {
        report(kesErrorNetwork, with_std_error("getsockopt(...) failed", errno), "HasNoError", __LINE__);
        return false;
    }
    return error == 0;
}

kesString kesOsTcpSocket::get_address_text(bool i_peer, const char* i_function) const
{
    if (m_hSocket == 0) {
        report(kesErrorNetwork, SOCKET_IS_INVALID, i_function, __LINE__);
        return kesString();
    }
    sockaddr_in address = {};
    socklen_t size = sizeof(address);
    sockaddr* generic = reinterpret_cast<sockaddr*>(&address);
    int result = i_peer ? getpeername(m_hSocket, generic, &size) : getsockname(m_hSocket, generic, &size);
    if (result == -1) {
        report(kesErrorNetwork, with_std_error(i_peer ? "getpeername(...) failed" : "getsockname(...) failed", errno),
               i_function, __LINE__);
        return kesString();
    }
    // inet_ntop: the same dotted text as inet_ntoa, without its shared buffer
    char dotted[INET_ADDRSTRLEN] = {0};
    inet_ntop(AF_INET, &address.sin_addr, dotted, sizeof(dotted));
    kesString text(dotted);
    text.append(":");
    text.append(kesString::FromULong(ntohs(address.sin_port)));
    return text;
}

kesString kesOsTcpSocket::GetName() const
{
    return get_address_text(false, "GetName");
}

kesString kesOsTcpSocket::GetPeerName() const
{
    return get_address_text(true, "GetPeerName");
}

unsigned int kesOsTcpSocket::GetConnectionTime() const
{
    if (m_hSocket == 0) {
        report(kesErrorNetwork, SOCKET_IS_INVALID, "GetConnectionTime", __LINE__);
        return 0;
    }
    if (m_uConnectionTime == 0)
        return 0;
    return kesTime::GetTime() / 1000 - m_uConnectionTime;
}

bool kesOsTcpSocket::SetKeepAlive(bool i_keepAlive)
{
    if (m_hSocket == 0) {
        report(kesErrorNetwork, SOCKET_IS_INVALID, "SetKeepAlive", __LINE__);
        return false;
    }
    int value = i_keepAlive ? 1 : 0;
    if (setsockopt(m_hSocket, SOL_SOCKET, SO_KEEPALIVE, &value, sizeof(value)) == -1) {
        report(kesErrorNetwork, with_std_error("setsockopt(...) failed", errno), "SetKeepAlive", __LINE__);
        return false;
    }
    return true;
}

bool kesOsTcpSocket::GetKeepAlive() const
{
    if (m_hSocket == 0) {
        report(kesErrorNetwork, SOCKET_IS_INVALID, "GetKeepAlive", __LINE__);
        return false;
    }
    int value = 0;
    socklen_t size = sizeof(value);
    if (getsockopt(m_hSocket, SOL_SOCKET, SO_KEEPALIVE, &value, &size) == -1) {
        report(kesErrorNetwork, with_std_error("getsockopt(...) failed", errno), "GetKeepAlive", __LINE__);
        return false;
    }
    return value != 0;
}

bool kesOsTcpSocket::set_time_out(int i_option, unsigned int i_milliseconds, const char* i_function)
{
    if (m_hSocket == 0) {
        report(kesErrorNetwork, SOCKET_IS_INVALID, i_function, __LINE__);
        return false;
    }
    timeval time = {};
    time.tv_sec = i_milliseconds / 1000;
    time.tv_usec = (i_milliseconds % 1000) * 1000;
    if (setsockopt(m_hSocket, SOL_SOCKET, i_option, &time, sizeof(time)) == -1) {
        report(kesErrorNetwork, with_std_error("setsockopt(...) failed", errno), i_function, __LINE__);
        return false;
    }
    return true;
}

unsigned int kesOsTcpSocket::get_time_out(int i_option, const char* i_function) const
{
    if (m_hSocket == 0) {
        report(kesErrorNetwork, SOCKET_IS_INVALID, i_function, __LINE__);
        return 0;
    }
    timeval time = {};
    socklen_t size = sizeof(time);
    if (getsockopt(m_hSocket, SOL_SOCKET, i_option, &time, &size) == -1) {
        report(kesErrorNetwork, with_std_error("getsockopt(...) failed", errno), i_function, __LINE__);
        return 0;
    }
    return (unsigned int)(time.tv_sec * 1000 + time.tv_usec / 1000);
}

bool kesOsTcpSocket::SetReceiveTimeOut(const unsigned int& i_milliseconds)
{
    return set_time_out(SO_RCVTIMEO, i_milliseconds, "SetReceiveTimeOut");
}

unsigned int kesOsTcpSocket::GetReceiveTimeOut() const
{
    return get_time_out(SO_RCVTIMEO, "GetReceiveTimeOut");
}

bool kesOsTcpSocket::SetSendTimeOut(const unsigned int& i_milliseconds)
{
    return set_time_out(SO_SNDTIMEO, i_milliseconds, "SetSendTimeOut");
}

unsigned int kesOsTcpSocket::GetSendTimeOut() const
{
    return get_time_out(SO_SNDTIMEO, "GetSendTimeOut");
}

bool kesOsTcpSocket::is_ready(short i_events, unsigned int i_milliseconds, const char* i_function) const
{
    if (!IsOpen()) {
        report(kesErrorNetwork, SOCKET_IS_CLOSE, i_function, __LINE__);
        return false;
    }
    // poll has no FD_SETSIZE limit on the descriptor, unlike select
    pollfd entry = {m_hSocket, i_events, 0};
    int timeout = i_milliseconds > 0x7FFFFFFF ? 0x7FFFFFFF : (int)i_milliseconds;
    int result = poll(&entry, 1, timeout);
    if (result == -1) {
        report(kesErrorNetwork, with_std_error("select(...) failed", errno), i_function, __LINE__);
        return false;
    }
    return result > 0;
}

bool kesOsTcpSocket::IsReadyToReceive(unsigned int i_milliseconds) const
{
    return is_ready(POLLIN, i_milliseconds, "IsReadyToReceive");
}

bool kesOsTcpSocket::IsReadyToSend(unsigned int i_milliseconds) const
{
    return is_ready(POLLOUT, i_milliseconds, "IsReadyToSend");
}

kesEError kesOsTcpSocket::FlushReceive(unsigned int i_milliseconds, int* o_pCount)
{
    if (i_milliseconds == 0)
        i_milliseconds = 1;
    if (o_pCount != nullptr)
        *o_pCount = 0;
    unsigned int saved = GetReceiveTimeOut();
    if (!SetReceiveTimeOut(i_milliseconds))
        return report(kesErrorNetwork, "Can not set receive timeout", "FlushReceive", __LINE__);

    unsigned int last = kesTime::GetTime();
    for (unsigned int count = 0;
         count < FLUSH_MAX_BYTES && kesTime::GetTime() - last < i_milliseconds && IsReadyToReceive(i_milliseconds);
         ++count) {
        unsigned char dropped = 0;
        if (Receive(&dropped, 1, nullptr) < 1) {
            report(kesErrorNetwork, "while receiving data", "FlushReceive", __LINE__);
            break;
        }
        if (o_pCount != nullptr)
            ++*o_pCount;
        last = kesTime::GetTime();
    }
    // a peer that closed meanwhile took the socket and its time-out with it
    if (IsValid() && !SetReceiveTimeOut(saved))
        return report(kesErrorNetwork, "Can not set receive timeout", "FlushReceive", __LINE__);
    return kesErrorOk;
}

// The one loop of Send and Receive: on until the whole length has gone, a
// time-out, a failure or the peer closing.
int kesOsTcpSocket::transfer(bool i_send, unsigned char* io_pData, unsigned int i_length, int* o_pDone,
                             const char* i_function)
{
    if (o_pDone != nullptr)
        *o_pDone = 0;
    if (!IsOpen()) {
        report(kesErrorNetwork, SOCKET_IS_CLOSE, i_function, __LINE__);
        return -1;
    }
    unsigned int done = 0;
    do {
        // MSG_NOSIGNAL: a vanished peer is an EPIPE here, never a SIGPIPE for the process
        ssize_t result = i_send ? send(m_hSocket, io_pData + done, i_length - done, MSG_NOSIGNAL)
                                : recv(m_hSocket, io_pData + done, i_length - done, 0);
        if (result > 0) {
            done += (unsigned int)result;
            if (o_pDone != nullptr)
                *o_pDone = (int)done;
            continue;
        }
        if (result == 0) {
            if (i_length == 0)
                return 0;
            if (Close() != kesErrorOk)
                report(kesErrorNetwork, "Can not close socket", i_function, __LINE__);
            return -3;
        }
        int error = errno;
        if (error == EINTR) {
            report(kesErrorWarning, "Std EINTR error continue...", i_function, __LINE__);
            continue;
        }
        if (error == EAGAIN)
            return -2;
        report(kesErrorNetwork, with_std_error(i_send ? "send error" : "recv error", error), i_function, __LINE__);
        return -1;
    } while (done < i_length);
    return (int)i_length;
}

int kesOsTcpSocket::Send(const void* i_pData, unsigned int i_length)
{
    // send only reads the buffer
    unsigned char* data = static_cast<unsigned char*>(const_cast<void*>(i_pData));
    return transfer(true, data, i_length, nullptr, "Send");
}

int kesOsTcpSocket::Receive(void* o_pData, unsigned int i_length, int* o_pReceived)
{
    return transfer(false, static_cast<unsigned char*>(o_pData), i_length, o_pReceived, "Receive");
}

} // namespace kes
