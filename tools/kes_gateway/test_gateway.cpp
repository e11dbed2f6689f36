#include "test_gateway.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>

namespace kes_test {

namespace {

uint64_t now_ms()
{
    return static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
            .count());
}

void send_all(int i_fd, const Bytes& i_bytes)
{
    size_t done = 0;
    while (done < i_bytes.size()) {
        ssize_t n = ::send(i_fd, i_bytes.data() + done, i_bytes.size() - done, MSG_NOSIGNAL);
        if (n <= 0)
            return; // the client went away; its close shows up in poll
        done += static_cast<size_t>(n);
    }
}

} // namespace

uint16_t Crc16(const uint8_t* i_pData, size_t i_size)
{
    uint16_t crc = 0xFFFF;
    for (size_t i = 0; i < i_size; ++i) {
        crc ^= i_pData[i];
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc & 1) ? static_cast<uint16_t>((crc >> 1) ^ 0xA001) : static_cast<uint16_t>(crc >> 1);
    }
    return crc;
}

Bytes WithCrc(Bytes i_frame)
{
    uint16_t crc = Crc16(i_frame.data(), i_frame.size());
    i_frame.push_back(static_cast<uint8_t>(crc & 0xFF));
    i_frame.push_back(static_cast<uint8_t>(crc >> 8));
    return i_frame;
}

Bytes Hex(const std::string& i_text)
{
    Bytes out;
    int high = -1;
    for (char c : i_text) {
        int v;
        if (c >= '0' && c <= '9')
            v = c - '0';
        else if (c >= 'a' && c <= 'f')
            v = c - 'a' + 10;
        else if (c >= 'A' && c <= 'F')
            v = c - 'A' + 10;
        else
            continue;
        if (high < 0) {
            high = v;
        } else {
            out.push_back(static_cast<uint8_t>(high * 16 + v));
            high = -1;
        }
    }
    return out;
}

std::string ToHex(const Bytes& i_bytes)
{
    std::string out;
    char part[4];
    for (size_t i = 0; i < i_bytes.size(); ++i) {
        snprintf(part, sizeof(part), i ? " %.2X" : "%.2X", i_bytes[i]);
        out += part;
    }
    return out;
}

TestGateway::Fault TestGateway::MakeFault(EFault i_kind, unsigned int i_value, const Bytes& i_raw)
{
    Fault fault;
    fault.kind = i_kind;
    fault.value = i_value;
    fault.raw = i_raw;
    return fault;
}

TestGateway::TestGateway() : m_accepted(0), m_listener(-1), m_port(0), m_running(false)
{
    m_wake[0] = m_wake[1] = -1;
}

TestGateway::~TestGateway()
{
    Stop();
}

bool TestGateway::Start(uint16_t i_port)
{
    Stop();
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return false;
    int yes = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof(yes));
    sockaddr_in addr;
    memset(&addr, 0, sizeof(addr));
    addr.sin_family = AF_INET;
    addr.sin_port = htons(i_port);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof(addr);
    if (::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 || ::listen(fd, 16) != 0 ||
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0 || ::pipe2(m_wake, O_CLOEXEC) != 0) {
        ::close(fd);
        return false;
    }
    m_listener = fd;
    m_port = ntohs(addr.sin_port);
    m_running = true;
    m_thread = std::thread(&TestGateway::service, this);
    return true;
}

void TestGateway::Stop()
{
    if (!m_running)
        return;
    char c = 0;
    if (::write(m_wake[1], &c, 1) != 1) {
        // the pipe cannot be full with one byte; nothing else to do
    }
    m_thread.join();
    while (!m_connections.empty())
        close_connection(m_connections.size() - 1);
    m_delayed.clear();
    ::close(m_listener);
    ::close(m_wake[0]);
    ::close(m_wake[1]);
    m_listener = m_wake[0] = m_wake[1] = -1;
    m_running = false;
}

bool TestGateway::IsRunning() const
{
    return m_running;
}

uint16_t TestGateway::GetPort() const
{
    return m_port;
}

std::string TestGateway::GetAddress() const
{
    return "127.0.0.1:" + std::to_string(m_port);
}

void TestGateway::SetRegisters(uint8_t i_unit, uint16_t i_first, const std::vector<uint16_t>& i_values)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    for (size_t i = 0; i < i_values.size(); ++i)
        m_registers[(static_cast<uint32_t>(i_unit) << 16) | static_cast<uint16_t>(i_first + i)] = i_values[i];
}

void TestGateway::RemoveRegisters(uint8_t i_unit, uint16_t i_first, uint16_t i_count)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    for (uint32_t i = 0; i < i_count; ++i)
        m_registers.erase((static_cast<uint32_t>(i_unit) << 16) | static_cast<uint16_t>(i_first + i));
}

void TestGateway::ClearRegisters()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_registers.clear();
}

void TestGateway::PushFault(const Fault& i_fault)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_faults.push_back(i_fault);
}

void TestGateway::ClearFaults()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_faults.clear();
}

std::vector<Bytes> TestGateway::GetRequests() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_requests;
}

size_t TestGateway::GetRequestCount() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_requests.size();
}

void TestGateway::ClearRequests()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_requests.clear();
}

bool TestGateway::WaitForRequests(size_t i_count, unsigned int i_milliseconds) const
{
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_requestArrived.wait_for(lock, std::chrono::milliseconds(i_milliseconds),
                                     [&] { return m_requests.size() >= i_count; });
}

unsigned int TestGateway::GetAcceptedCount() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_accepted;
}

Bytes TestGateway::Answer(const Bytes& i_request) const
{
    if (i_request.size() != 8 || i_request[1] != 3 ||
        Crc16(i_request.data(), 6) != (i_request[6] | (i_request[7] << 8)))
        return Bytes();
    uint16_t first = static_cast<uint16_t>((i_request[2] << 8) | i_request[3]);
    uint16_t count = static_cast<uint16_t>((i_request[4] << 8) | i_request[5]);
    if (count == 0 || count > 125)
        return Bytes();
    Bytes reply = {i_request[0], 3, static_cast<uint8_t>(count * 2)};
    std::lock_guard<std::mutex> lock(m_mutex);
    for (uint32_t i = 0; i < count; ++i) {
        auto it = m_registers.find((static_cast<uint32_t>(i_request[0]) << 16) | static_cast<uint16_t>(first + i));
        if (it == m_registers.end())
            return Bytes();
        reply.push_back(static_cast<uint8_t>(it->second >> 8));
        reply.push_back(static_cast<uint8_t>(it->second & 0xFF));
    }
    return WithCrc(reply);
}

// Length of the first frame in the input, or 0 while it is incomplete.
size_t TestGateway::request_length(const Bytes& i_input)
{
    if (i_input.size() < 2)
        return 0;
    size_t length = 8;
    if (i_input[1] == 15 || i_input[1] == 16) {
        if (i_input.size() < 7)
            return 0;
        length = 9u + i_input[6];
    }
    return i_input.size() >= length ? length : 0;
}

namespace {

// Turns the normal reply into the one a queued fault asks for; false when the
// fault closes the connection instead.
bool apply_fault(const TestGateway::Fault& fault, const Bytes& request, Bytes* io_reply, uint64_t* o_delay)
{
    Bytes& reply = *io_reply;
    switch (fault.kind) {
    case TestGateway::FaultNone:
        break;
    case TestGateway::FaultSilent:
        reply.clear();
        break;
    case TestGateway::FaultBadCrc:
        if (!reply.empty())
            reply.back() ^= 0x5A;
        break;
    case TestGateway::FaultWrongUnit:
    case TestGateway::FaultWrongFunction:
        if (!reply.empty()) {
            reply.resize(reply.size() - 2);
            reply[fault.kind == TestGateway::FaultWrongUnit ? 0 : 1] = static_cast<uint8_t>(fault.value);
            reply = WithCrc(reply);
        }
        break;
    case TestGateway::FaultException:
        reply = WithCrc({request[0], static_cast<uint8_t>(request[1] | 0x80), static_cast<uint8_t>(fault.value)});
        break;
    case TestGateway::FaultShort:
        reply.resize(reply.size() > fault.value ? reply.size() - fault.value : 0);
        break;
    case TestGateway::FaultLate:
        *o_delay = fault.value;
        break;
    case TestGateway::FaultClose:
        return false;
    case TestGateway::FaultRaw:
        reply = fault.value ? WithCrc(fault.raw) : fault.raw;
        break;
    }
    return true;
}

} // namespace

void TestGateway::serve_input(Connection& io_connection, bool* o_close)
{
    *o_close = false;
    for (;;) {
        size_t length = FrameLength(io_connection.input);
        if (length == 0)
            return;
        Bytes request(io_connection.input.begin(), io_connection.input.begin() + static_cast<long>(length));
        io_connection.input.erase(io_connection.input.begin(), io_connection.input.begin() + static_cast<long>(length));

        Fault fault = MakeFault(FaultNone);
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_requests.push_back(request);
            if (!m_faults.empty()) {
                fault = m_faults.front();
                m_faults.pop_front();
            }
        }
        m_requestArrived.notify_all();

        Bytes reply = Reply(request);
        uint64_t delay = 0;
        if (!apply_fault(fault, request, &reply, &delay)) {
            *o_close = true;
            return;
        }
        if (reply.empty())
            continue;
        if (delay)
            m_delayed.push_back(Delayed{io_connection.fd, now_ms() + delay, reply});
        else
            send_all(io_connection.fd, reply);
    }
}

void TestGateway::close_connection(size_t i_index)
{
    int fd = m_connections[i_index].fd;
    for (size_t i = m_delayed.size(); i-- > 0;)
        if (m_delayed[i].fd == fd)
            m_delayed.erase(m_delayed.begin() + static_cast<long>(i));
    ::shutdown(fd, SHUT_RDWR);
    ::close(fd);
    m_connections.erase(m_connections.begin() + static_cast<long>(i_index));
}

void TestGateway::service()
{
    for (;;) {
        std::vector<pollfd> fds;
        fds.push_back(pollfd{m_wake[0], POLLIN, 0});
        fds.push_back(pollfd{m_listener, POLLIN, 0});
        for (const Connection& c : m_connections)
            fds.push_back(pollfd{c.fd, POLLIN, 0});

        int timeout = 1000;
        uint64_t now = now_ms();
        for (const Delayed& d : m_delayed)
            timeout = std::min<int>(timeout, d.due > now ? static_cast<int>(d.due - now) : 0);

        if (::poll(fds.data(), fds.size(), timeout) < 0 && errno != EINTR)
            return;
        if (fds[0].revents)
            return;

        now = now_ms();
        for (size_t i = 0; i < m_delayed.size();) {
            if (m_delayed[i].due <= now) {
                send_all(m_delayed[i].fd, m_delayed[i].bytes);
                m_delayed.erase(m_delayed.begin() + static_cast<long>(i));
            } else {
                ++i;
            }
        }

        // Walk backwards: closing removes the connection from the list.
        for (size_t i = fds.size(); i-- > 2;) {
            if (!fds[i].revents)
                continue;
            size_t index = i - 2;
            uint8_t buffer[512];
            ssize_t n = ::recv(m_connections[index].fd, buffer, sizeof(buffer), 0);
            if (n <= 0) {
                close_connection(index);
                continue;
            }
            Connection& c = m_connections[index];
            c.input.insert(c.input.end(), buffer, buffer + n);
            bool close = false;
            serve_input(c, &close);
            if (close)
                close_connection(index);
        }

        if (fds[1].revents & POLLIN) {
            int fd = ::accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd >= 0) {
                int yes = 1;
                ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof(yes));
                m_connections.push_back(Connection{fd, Bytes()});
                std::lock_guard<std::mutex> lock(m_mutex);
                ++m_accepted;
            }
        }
    }
}

} // namespace kes_test
