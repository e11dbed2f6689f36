#ifndef KES_TEST_DATAGRAM_RECEIVER_H
#define KES_TEST_DATAGRAM_RECEIVER_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <string>

namespace kes_test {

// A datagram receiver bound to 127.0.0.1, on a port of the system's choice by default.
class DatagramReceiver {
public:
    explicit DatagramReceiver(unsigned short i_wanted = 0)
    {
        m_handle = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        // room for every datagram of a burst from several publishers
        int buffer = 1 << 20;
        setsockopt(m_handle, SOL_SOCKET, SO_RCVBUF, &buffer, sizeof(buffer));
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(i_wanted);
        socklen_t size = sizeof(address);
        if (bind(m_handle, reinterpret_cast<sockaddr*>(&address), size) == 0 &&
            getsockname(m_handle, reinterpret_cast<sockaddr*>(&address), &size) == 0)
            m_port = ntohs(address.sin_port);
    }
    ~DatagramReceiver() { close(m_handle); }
    DatagramReceiver(const DatagramReceiver&) = delete;
    DatagramReceiver& operator=(const DatagramReceiver&) = delete;

    unsigned short Port() const { return m_port; }

    // One whole datagram, or false when none came within the time.
    bool Receive(std::string* o_datagram, int i_timeoutMs = 2000)
    {
        pollfd waiting{m_handle, POLLIN, 0};
        if (poll(&waiting, 1, i_timeoutMs) != 1)
            return false;
        char buffer[65536];
        ssize_t size = recv(m_handle, buffer, sizeof(buffer), 0);
        if (size < 0)
            return false;
        o_datagram->assign(buffer, static_cast<size_t>(size));
        return true;
    }

private:
    int m_handle = -1;
    unsigned short m_port = 0;
};

// A datagram of the daemon: the item id (4 bytes, host order), the length of the text (1 byte), the text.
struct PublishedDatagram {
    double at = 0; // when it came, as the test counts
    unsigned int iid = 0;
    unsigned int length = 0;
    std::string text;
};

// False for a datagram too short for its header.
inline bool ParseDatagram(const std::string& i_raw, PublishedDatagram* o_datagram)
{
    if (i_raw.size() < 5)
        return false;
    memcpy(&o_datagram->iid, i_raw.data(), 4);
    o_datagram->length = static_cast<unsigned char>(i_raw[4]);
    o_datagram->text = i_raw.substr(5);
    return true;
}

} // namespace kes_test

#endif
