#ifndef KES_TEST_LOOPBACK_H
#define KES_TEST_LOOPBACK_H

// Real peers for the byte channels: a scripted TCP server on 127.0.0.1 with
// an ephemeral port, and a pseudo-terminal pair reachable through a symlink
// (e.g. <temp>/dev/ttyUSB0). Every wait here is bounded.

#include "test_process.h"

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace kes_test {

typedef std::vector<unsigned char> Bytes;

// Reads up to i_count bytes, waiting at most i_timeoutMs in all; returns what came.
Bytes ReadFor(int i_fd, size_t i_count, int i_timeoutMs);
// Writes everything (blocking descriptors or not); false on failure.
bool WriteAll(int i_fd, const Bytes& i_bytes);
bool WriteAll(int i_fd, const void* i_pData, size_t i_size);

// A one-shot signal between a test and its peer thread.
class Gate {
public:
    void Open() { m_open = true; }
    // true once opened, false when the time ran out
    bool Wait(int i_timeoutMs) const;

private:
    std::atomic<bool> m_open{false};
};

// Listens on 127.0.0.1, port chosen by the system. Serve() accepts up to
// i_connections connections one after the other on a thread and hands each
// to the script with its index; the connection is closed when the script
// returns. A script that needs the close to be an abort (RST) can set
// SO_LINGER itself.
class LoopbackServer {
public:
    typedef std::function<void(int i_fd, int i_index)> Script;

    LoopbackServer();
    ~LoopbackServer();
    LoopbackServer(const LoopbackServer&) = delete;
    LoopbackServer& operator=(const LoopbackServer&) = delete;

    unsigned short Port() const { return m_port; }
    // "127.0.0.1:<port>"
    std::string Address() const;
    void Serve(Script i_script, int i_connections = 1, int i_acceptTimeoutMs = 5000);
    // waits for the scripts to end
    void Join();
    // connections accepted so far
    int Accepted() const { return m_accepted; }
    // stop listening at once: later connects are refused
    void StopListening();

private:
    int m_listener;
    unsigned short m_port;
    std::thread m_thread;
    std::atomic<int> m_accepted{0};
};

// openpty pair. The test keeps the master side; the slave is opened by the
// code under test through LinkPath(), a symlink in a temporary folder
// (<temp>/dev/ttyUSB0 unless told otherwise). Raw mode is set by whoever
// opens the slave.
class PtyPair {
public:
    explicit PtyPair(const std::string& i_linkName = "dev/ttyUSB0");
    ~PtyPair();
    PtyPair(const PtyPair&) = delete;
    PtyPair& operator=(const PtyPair&) = delete;

    bool IsValid() const { return m_master != -1; }
    int Master() const { return m_master; }
    const std::string& LinkPath() const { return m_linkPath; }
    // Closes the master: the slave side then reads 0 and fails writes with EIO,
    // as a USB adapter that was pulled out.
    void CloseMaster();
    // A fresh pair behind the same link, as an adapter plugged in again.
    bool Replug();

private:
    bool open_pair();

    kes_test::TempDir m_dir;
    int m_master;
    std::string m_slavePath;
    std::string m_linkPath;
};

// Runs a peer procedure on a thread and joins it in the destructor.
class PeerThread {
public:
    explicit PeerThread(std::function<void()> i_procedure) : m_thread(std::move(i_procedure)) {}
    ~PeerThread() { Join(); }
    void Join()
    {
        if (m_thread.joinable())
            m_thread.join();
    }

private:
    std::thread m_thread;
};

} // namespace kes_test

#endif
