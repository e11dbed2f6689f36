#ifndef KES_NET_TEST_SUPPORT_H
#define KES_NET_TEST_SUPPORT_H

// Helpers of the weather client and datagram tests: a log sent to a file of
// its own, and a datagram receiver on loopback.

#include "kes_error.h"
#include "test_process.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

namespace kes_net_test {

// Sends the log to a file of its own, and nowhere else, for its lifetime.
class LogCapture {
public:
    LogCapture() : m_level(kes::kesError::Level), m_file(kes::kesError::LogFile), m_size(kes::kesError::LogFileSize)
    {
        m_path = m_folder.File("log");
        kes::kesError::LogFile = m_path.c_str();
        kes::kesError::LogFileSize = 0;
        kes::kesError::Level = kes::kesErrorOutFile;
    }
    ~LogCapture()
    {
        kes::kesError::Level = m_level;
        kes::kesError::LogFile = m_file;
        kes::kesError::LogFileSize = m_size;
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::string Text() const { return kes_test::ReadFile(m_path); }
    size_t Count(const std::string& what) const
    {
        std::string text = Text();
        size_t count = 0;
        for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
            ++count;
        return count;
    }

private:
    kes_test::TempDir m_folder;
    std::string m_path;
    unsigned int m_level;
    kes::kesString m_file;
    unsigned int m_size;
};

// A datagram receiver bound to 127.0.0.1, on a port of the system's choice by default.
class UdpReceiver {
public:
    explicit UdpReceiver(unsigned short wanted = 0)
    {
        m_handle = socket(AF_INET, SOCK_DGRAM, 0);
        int buffer = 1 << 20;
        setsockopt(m_handle, SOL_SOCKET, SO_RCVBUF, &buffer, sizeof(buffer));
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(wanted);
        socklen_t size = sizeof(address);
        if (bind(m_handle, reinterpret_cast<sockaddr*>(&address), size) == 0 &&
            getsockname(m_handle, reinterpret_cast<sockaddr*>(&address), &size) == 0)
            port = ntohs(address.sin_port);
    }
    ~UdpReceiver() { close(m_handle); }
    UdpReceiver(const UdpReceiver&) = delete;
    UdpReceiver& operator=(const UdpReceiver&) = delete;

    // One whole datagram, or false when none came within the time.
    bool Receive(std::string* datagram, int milliseconds = 2000)
    {
        pollfd waiting{m_handle, POLLIN, 0};
        if (poll(&waiting, 1, milliseconds) != 1)
            return false;
        char buffer[65536];
        ssize_t size = recv(m_handle, buffer, sizeof(buffer), 0);
        if (size < 0)
            return false;
        datagram->assign(buffer, static_cast<size_t>(size));
        return true;
    }

    unsigned short port = 0;

private:
    int m_handle = -1;
};

} // namespace kes_net_test

#endif
