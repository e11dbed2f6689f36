// The peer of the fuzz targets whose code reads from a TCP gateway: a
// listener on 127.0.0.1 that serves each input on a fresh connection and then
// stops writing, so the reader gets the bytes and then the end of the stream,
// never a time-out to wait for.
#ifndef KES_FUZZ_LOOPBACK_H
#define KES_FUZZ_LOOPBACK_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

namespace kes_fuzz {

// The fuzzer's own time-out ticks with SIGALRM: a wait cut short by it goes on.
inline bool WaitReadable(int i_fd, int i_timeoutMs)
{
    for (int waited = 0; waited < i_timeoutMs; waited += 100) {
        pollfd entry = {i_fd, POLLIN, 0};
        int ready = poll(&entry, 1, 100);
        if (ready == 1)
            return true;
        if (ready < 0 && errno != EINTR)
            return false;
    }
    return false;
}

class Listener {
public:
    Listener() : m_fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)), m_port(0)
    {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof(address);
        if (m_fd < 0 || bind(m_fd, reinterpret_cast<sockaddr*>(&address), size) != 0 || listen(m_fd, 4) != 0 ||
            getsockname(m_fd, reinterpret_cast<sockaddr*>(&address), &size) != 0)
            abort();
        m_port = ntohs(address.sin_port);
    }
    ~Listener() { close(m_fd); }
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    unsigned short Port() const { return m_port; }

    // The connection the code under test has just made; -1 when none came.
    int Accept() const
    {
        if (!WaitReadable(m_fd, 5000))
            return -1;
        return accept4(m_fd, nullptr, nullptr, SOCK_CLOEXEC);
    }

    // Resets the connections nobody took: a connect cut short by a signal
    // still completes, and must not pass for the next one.
    void DropPending() const;

private:
    int m_fd;
    unsigned short m_port;
};

// Writes the bytes and ends the stream; what the reader sends stays unread.
inline bool Serve(int i_fd, const uint8_t* i_data, size_t i_size)
{
    while (i_size > 0) {
        ssize_t written = send(i_fd, i_data, i_size, MSG_NOSIGNAL);
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0)
            return false;
        i_data += written;
        i_size -= static_cast<size_t>(written);
    }
    return shutdown(i_fd, SHUT_WR) == 0;
}

// Waits, at most i_timeoutMs, until the reader has closed its end.
inline bool AwaitClose(int i_fd, int i_timeoutMs)
{
    unsigned char sink[512];
    for (;;) {
        if (!WaitReadable(i_fd, i_timeoutMs))
            return false;
        ssize_t got = recv(i_fd, sink, sizeof(sink), 0);
        if (got == 0 || (got < 0 && errno != EINTR))
            return true;
    }
}

// Closes with a reset: thousands of connections a second leave no TIME_WAIT
// behind to run out of ports.
inline void Abort(int i_fd)
{
    linger option = {1, 0};
    setsockopt(i_fd, SOL_SOCKET, SO_LINGER, &option, sizeof(option));
    close(i_fd);
}

// Lets the code under test connect through i_connect (true once it has), takes
// the connection and serves the input on it. Returns the peer's end, for Abort.
template <typename CONNECT>
int ConnectAndServe(const Listener& i_listener, CONNECT i_connect, const uint8_t* i_data, size_t i_size)
{
    // The fuzzer's alarm signal can cut a connect short: that is no finding.
    int tries = 0;
    while (!i_connect()) {
        if (++tries == 3)
            abort();
        i_listener.DropPending();
    }
    const int peer = i_listener.Accept();
    if (peer < 0 || !Serve(peer, i_data, i_size))
        abort();
    return peer;
}

inline void Listener::DropPending() const
{
    for (;;) {
        pollfd entry = {m_fd, POLLIN, 0};
        if (poll(&entry, 1, 10) != 1)
            return;
        const int fd = accept4(m_fd, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0)
            return;
        Abort(fd);
    }
}

} // namespace kes_fuzz

#endif
