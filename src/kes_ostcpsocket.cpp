#include "kes_ostcpsocket.h"

#include "kes_osutility.h"
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
        KES_LOG(kesErrorNetwork, "Can not reset socket");
}

kesOsTcpSocket::~kesOsTcpSocket()
{
    if (Close() != kesErrorOk)
        KES_LOG(kesErrorNetwork, "Can not close socket");
}

kesEError kesOsTcpSocket::Reset()
{
    kesEError result = Close();
    if (result != kesErrorOk)
        return KES_LOG(kesErrorNetwork, "Can not close socket");

    const int handle = kesOsUtility::OpenSocket(SOCK_STREAM, IPPROTO_TCP);
    if (handle == -1)
        return KES_LOG_STD(kesErrorNetwork, "Can not create socket");
    m_hSocket = handle;
    m_uFlags = FLAG_SOCKET;
    return kesErrorOk;
}

kesEError kesOsTcpSocket::Open(const kesString& i_address, unsigned short i_port)
{
    if ((m_uFlags & FLAG_CONNECTED) != 0 || m_uFlags == 0) {
        kesEError result = Reset();
        if (result != kesErrorOk)
            return KES_LOG(result, "Can not reset socket");
    }

    kesString host;
    unsigned short port = i_port;
    kesOsSplitHostPort(i_address, &host, &port);

    sockaddr_in destination = {};
    destination.sin_family = AF_INET;
    destination.sin_port = htons(port);
    if (!kesOsResolveIPv4(host, &destination.sin_addr))
        return KES_LOG(kesErrorNetwork, "gethostbyname failed");

    int error = connect_bounded(destination);
    if (error != 0) {
        KES_LOG(kesErrorNetwork, kesWithStdError("Can not connect socket", error));
        // a socket whose connection failed is not connected again: the next Open gets a fresh one
        if (Reset() != kesErrorOk)
            KES_LOG(kesErrorNetwork, "Can not reset socket");
        return kesErrorNetwork;
    }

    // A bus frame that follows one with no reply must not wait for the
    // gateway's delayed acknowledgement: the reply time-outs are shorter.
    int noDelay = 1;
    setsockopt(m_hSocket, IPPROTO_TCP, TCP_NODELAY, &noDelay, sizeof(noDelay));
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
        KES_LOG(kesErrorNetwork, SOCKET_IS_CLOSE);
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
                KES_LOG(kesErrorNetwork, "Can not close socket");
            return -3;
        }
        if (errno == EINTR)
            continue;
        if (errno == EAGAIN || errno == EWOULDBLOCK)
            return 0;
        KES_LOG_STD(kesErrorNetwork, "recv error");
        return -1;
    }
}

kesEError kesOsTcpSocket::Close()
{
    if (m_hSocket == 0)
        return kesErrorOk;
    kesEError result = kesErrorOk;
    if ((m_uFlags & FLAG_CONNECTED) != 0 && shutdown(m_hSocket, SHUT_RDWR) == -1 && errno != ENOTCONN)
        result = KES_LOG_STD(kesErrorNetwork, "shutdown(...) failed");
    // Linux frees the descriptor even when close fails: never close it twice
    if (close(m_hSocket) == -1)
        result = KES_LOG_STD(kesErrorNetwork, "close(...) failed");
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
    int error = 0;
    return get_option(SO_ERROR, &error, sizeof(error), "HasNoError") && error == 0;
}

bool kesOsTcpSocket::is_valid_for(const char* i_function) const
{
    if (m_hSocket != 0)
        return true;
    KES_LOG_IN(kesErrorNetwork, SOCKET_IS_INVALID, i_function);
    return false;
}

bool kesOsTcpSocket::get_option(int i_option, void* o_pValue, socklen_t i_size, const char* i_function) const
{
    if (!is_valid_for(i_function))
        return false;
    if (getsockopt(m_hSocket, SOL_SOCKET, i_option, o_pValue, &i_size) == -1) {
        KES_LOG_IN(kesErrorNetwork, kesWithStdError("getsockopt(...) failed", -1), i_function);
        return false;
    }
    return true;
}

bool kesOsTcpSocket::set_option(int i_option, const void* i_pValue, socklen_t i_size, const char* i_function)
{
    if (!is_valid_for(i_function))
        return false;
    if (setsockopt(m_hSocket, SOL_SOCKET, i_option, i_pValue, i_size) == -1) {
        KES_LOG_IN(kesErrorNetwork, kesWithStdError("setsockopt(...) failed", -1), i_function);
        return false;
    }
    return true;
}

kesString kesOsTcpSocket::get_address_text(bool i_peer, const char* i_function) const
{
    if (!is_valid_for(i_function))
        return kesString();
    sockaddr_in address = {};
    socklen_t size = sizeof(address);
    sockaddr* generic = reinterpret_cast<sockaddr*>(&address);
    int result = i_peer ? getpeername(m_hSocket, generic, &size) : getsockname(m_hSocket, generic, &size);
    if (result == -1) {
        KES_LOG_IN(kesErrorNetwork, kesWithStdError(i_peer ? "getpeername(...) failed" : "getsockname(...) failed", -1),
                   i_function);
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
    if (!is_valid_for("GetConnectionTime"))
        return 0;
    if (m_uConnectionTime == 0)
        return 0;
    return kesTime::GetTime() / 1000 - m_uConnectionTime;
}

bool kesOsTcpSocket::SetKeepAlive(bool i_keepAlive)
{
    int value = i_keepAlive ? 1 : 0;
    return set_option(SO_KEEPALIVE, &value, sizeof(value), "SetKeepAlive");
}

bool kesOsTcpSocket::GetKeepAlive() const
{
    int value = 0;
    return get_option(SO_KEEPALIVE, &value, sizeof(value), "GetKeepAlive") && value != 0;
}

bool kesOsTcpSocket::set_time_out(int i_option, unsigned int i_milliseconds, const char* i_function)
{
    timeval time = {};
    time.tv_sec = i_milliseconds / 1000;
    time.tv_usec = (i_milliseconds % 1000) * 1000;
    return set_option(i_option, &time, sizeof(time), i_function);
}

unsigned int kesOsTcpSocket::get_time_out(int i_option, const char* i_function) const
{
    timeval time = {};
    if (!get_option(i_option, &time, sizeof(time), i_function))
        return 0;
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
        KES_LOG_IN(kesErrorNetwork, SOCKET_IS_CLOSE, i_function);
        return false;
    }
    // poll has no FD_SETSIZE limit on the descriptor, unlike select
    pollfd entry = {m_hSocket, i_events, 0};
    int timeout = i_milliseconds > 0x7FFFFFFF ? 0x7FFFFFFF : (int)i_milliseconds;
    int result = poll(&entry, 1, timeout);
    if (result == -1) {
        KES_LOG_IN(kesErrorNetwork, kesWithStdError("select(...) failed", -1), i_function);
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
        return KES_LOG(kesErrorNetwork, "Can not set receive timeout");

    unsigned int last = kesTime::GetTime();
    for (unsigned int count = 0;
         count < FLUSH_MAX_BYTES && kesTime::GetTime() - last < i_milliseconds && IsReadyToReceive(i_milliseconds);
         ++count) {
        unsigned char dropped = 0;
        if (Receive(&dropped, 1, nullptr) < 1) {
            KES_LOG(kesErrorNetwork, "while receiving data");
            break;
        }
        if (o_pCount != nullptr)
            ++*o_pCount;
        last = kesTime::GetTime();
    }
    // a peer that closed meanwhile took the socket and its time-out with it
    if (IsValid() && !SetReceiveTimeOut(saved))
        return KES_LOG(kesErrorNetwork, "Can not set receive timeout");
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
        KES_LOG_IN(kesErrorNetwork, SOCKET_IS_CLOSE, i_function);
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
                KES_LOG_IN(kesErrorNetwork, "Can not close socket", i_function);
            return -3;
        }
        int error = errno;
        if (error == EINTR) {
            KES_LOG_IN(kesErrorWarning, "Std EINTR error continue...", i_function);
            continue;
        }
        if (error == EAGAIN)
            return -2;
        KES_LOG_IN(kesErrorNetwork, kesWithStdError(i_send ? "send error" : "recv error", error), i_function);
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
