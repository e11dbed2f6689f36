// A Modbus RTU-over-TCP gateway on loopback for tests and benchmarks.
//
// It answers reads of holding registers from a table of register values kept
// per unit (the device type on this bus). A request whose registers are not
// all in the table gets no answer, the way a bus without such a device stays
// silent. Faults queued with PushFault apply to the next requests, one each,
// so a test can script any reply shape.
#ifndef KES_TEST_TEST_GATEWAY_H
#define KES_TEST_TEST_GATEWAY_H

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace kes_test {

typedef std::vector<unsigned char> Bytes; // as in loopback.h

// Modbus CRC-16, written apart from the framework's so that a test never
// checks the frame code against itself.
uint16_t Crc16(const uint8_t* i_pData, size_t i_size);
Bytes WithCrc(Bytes i_frame);
// "01 03 00 64" -> bytes; blanks are ignored.
Bytes Hex(const std::string& i_text);
std::string ToHex(const Bytes& i_bytes);

class TestGateway {
public:
    enum EFault {
        FaultNone,          // answer normally
        FaultSilent,        // no answer at all
        FaultBadCrc,        // the normal reply with its last byte changed
        FaultWrongUnit,     // the normal reply from unit (value)
        FaultWrongFunction, // the normal reply with function code (value)
        FaultException,     // the 5-byte exception reply with code (value)
        FaultShort,         // the normal reply less its last (value) bytes
        FaultLate,          // the normal reply after (value) milliseconds
        FaultClose,         // close the connection instead of answering
        FaultRaw            // send (raw), with a CRC appended if value != 0
    };
    struct Fault {
        EFault kind;
        unsigned int value;
        Bytes raw;
    };
    static Fault MakeFault(EFault i_kind, unsigned int i_value = 0, const Bytes& i_raw = Bytes());

    TestGateway();
    ~TestGateway();

    // Listens on 127.0.0.1; port 0 takes a free one. Start after Stop may reuse
    // the old port, so a test can bring a gateway back where it was.
    bool Start(uint16_t i_port = 0);
    // Closes the listener and every connection.
    void Stop();
    bool IsRunning() const;
    uint16_t GetPort() const;
    std::string GetAddress() const; // "127.0.0.1:port"

    void SetRegisters(uint8_t i_unit, uint16_t i_first, const std::vector<uint16_t>& i_values);
    void RemoveRegisters(uint8_t i_unit, uint16_t i_first, uint16_t i_count);
    void ClearRegisters();

    void PushFault(const Fault& i_fault);
    void ClearFaults();

    // Requests as received, in order, each one whole frame.
    std::vector<Bytes> GetRequests() const;
    size_t GetRequestCount() const;
    void ClearRequests();
    bool WaitForRequests(size_t i_count, unsigned int i_milliseconds) const;
    unsigned int GetAcceptedCount() const;

    // The normal reply to one request from the register table, empty when the
    // gateway would stay silent. The service thread uses it; tests may too.
    Bytes Answer(const Bytes& i_request) const;

protected:
    // Hooks for gateways that speak more than reads of holding registers,
    // called on the service thread. A subclass must Stop() in its own
    // destructor, before its state goes.
    virtual size_t FrameLength(const Bytes& i_input) const { return request_length(i_input); }
    virtual Bytes Reply(const Bytes& i_request) { return Answer(i_request); }

private:
    struct Connection {
        int fd;
        Bytes input;
    };
    struct Delayed {
        int fd;
        uint64_t due;
        Bytes bytes;
    };

    void service();
    void serve_input(Connection& io_connection, bool* o_close);
    static size_t request_length(const Bytes& i_input);
    void close_connection(size_t i_index);

    mutable std::mutex m_mutex;
    mutable std::condition_variable m_requestArrived;
    std::map<uint32_t, uint16_t> m_registers; // (unit << 16) | register
    std::deque<Fault> m_faults;
    std::vector<Bytes> m_requests;
    unsigned int m_accepted;

    // service thread only, once started
    std::vector<Connection> m_connections;
    std::vector<Delayed> m_delayed;

    std::thread m_thread;
    int m_listener;
    int m_wake[2];
    uint16_t m_port;
    bool m_running;
};

} // namespace kes_test

#endif
