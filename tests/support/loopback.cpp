#include "loopback.h"

#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <pty.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kes_test {

namespace {

typedef std::chrono::steady_clock Clock;

int remaining_ms(Clock::time_point i_deadline)
{
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(i_deadline - Clock::now()).count();
    return left > 0 ? (int)left : 0;
}

} // namespace

Bytes ReadFor(int i_fd, size_t i_count, int i_timeoutMs)
{
    Bytes got;
    Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(i_timeoutMs);
    while (got.size() < i_count) {
        pollfd entry = {i_fd, POLLIN, 0};
        int ready = poll(&entry, 1, remaining_ms(deadline));
        if (ready == -1 && errno == EINTR)
            continue;
        if (ready <= 0)
            break;
        unsigned char buffer[512];
        size_t want = std::min(sizeof(buffer), i_count - got.size());
        ssize_t n = read(i_fd, buffer, want);
        if (n == -1 && (errno == EAGAIN || errno == EINTR))
            continue;
        if (n <= 0)
            break;
        got.insert(got.end(), buffer, buffer + n);
    }
    return got;
}

bool WriteAll(int i_fd, const void* i_pData, size_t i_size)
{
    const unsigned char* data = static_cast<const unsigned char*>(i_pData);
    size_t done = 0;
    Clock::time_point deadline = Clock::now() + std::chrono::seconds(5);
    while (done < i_size) {
        ssize_t n = send(i_fd, data + done, i_size - done, MSG_NOSIGNAL);
        if (n == -1 && errno == ENOTSOCK)
            n = write(i_fd, data + done, i_size - done);
        if (n > 0) {
            done += (size_t)n;
            continue;
        }
        if (n == -1 && (errno == EAGAIN || errno == EINTR) && remaining_ms(deadline) > 0) {
            pollfd entry = {i_fd, POLLOUT, 0};
            poll(&entry, 1, 10);
            continue;
        }
        return false;
    }
    return true;
}

bool WriteAll(int i_fd, const Bytes& i_bytes)
{
    return WriteAll(i_fd, i_bytes.data(), i_bytes.size());
}

bool Gate::Wait(int i_timeoutMs) const
{
    Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(i_timeoutMs);
    while (!m_open) {
        if (remaining_ms(deadline) == 0)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

LoopbackServer::LoopbackServer() : m_listener(-1), m_port(0)
{
    m_listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (m_listener == -1)
        return;
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = 0;
    socklen_t size = sizeof(address);
    if (bind(m_listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == -1 || listen(m_listener, 8) == -1 ||
        getsockname(m_listener, reinterpret_cast<sockaddr*>(&address), &size) == -1) {
        close(m_listener);
        m_listener = -1;
        return;
    }
    m_port = ntohs(address.sin_port);
}

LoopbackServer::~LoopbackServer()
{
    StopListening();
    Join();
    if (m_listener != -1)
        close(m_listener);
}

std::string LoopbackServer::Address() const
{
    return "127.0.0.1:" + std::to_string(m_port);
}

void LoopbackServer::StopListening()
{
    if (m_listener != -1) {
        // wakes a pending accept poll; the thread then sees the closed listener
        shutdown(m_listener, SHUT_RDWR);
    }
}

void LoopbackServer::Serve(Script i_script, int i_connections, int i_acceptTimeoutMs)
{
    Join();
    int listener = m_listener;
    m_thread = std::thread([this, listener, i_script, i_connections, i_acceptTimeoutMs] {
        for (int index = 0; index < i_connections && listener != -1; ++index) {
            pollfd entry = {listener, POLLIN, 0};
            if (poll(&entry, 1, i_acceptTimeoutMs) <= 0 || (entry.revents & POLLIN) == 0)
                return;
            int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd == -1)
                return;
            ++m_accepted;
            i_script(fd, index);
            close(fd);
        }
    });
}

void LoopbackServer::Join()
{
    if (m_thread.joinable())
        m_thread.join();
}

PtyPair::PtyPair(const std::string& i_linkName) : m_master(-1)
{
    m_linkPath = m_dir.Path() + "/" + i_linkName;
    // make the folders between the temporary folder and the link
    for (size_t slash = m_dir.Path().size() + 1; (slash = m_linkPath.find('/', slash)) != std::string::npos; ++slash)
        mkdir(m_linkPath.substr(0, slash).c_str(), 0700);
    open_pair();
}

PtyPair::~PtyPair()
{
    CloseMaster();
}

bool PtyPair::open_pair()
{
    int master = -1;
    int slave = -1;
    char name[256] = {0};
    if (openpty(&master, &slave, name, nullptr, nullptr) == -1)
        return false;
    // only the code under test holds the slave, so that closing it is seen here
    close(slave);
    fcntl(master, F_SETFD, FD_CLOEXEC);
    m_master = master;
    m_slavePath = name;
    unlink(m_linkPath.c_str());
    return symlink(m_slavePath.c_str(), m_linkPath.c_str()) == 0;
}

void PtyPair::CloseMaster()
{
    if (m_master != -1) {
        close(m_master);
        m_master = -1;
    }
    // as the device node of a pulled adapter: another test's new pair may
    // take the freed terminal number
    unlink(m_linkPath.c_str());
}

bool PtyPair::Replug()
{
    CloseMaster();
    return open_pair();
}

} // namespace kes_test
