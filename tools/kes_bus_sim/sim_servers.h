// The peers the daemon talks to: a gateway per TCP line, an echoing
// pseudo-terminal per serial line, and the weather station's stream.
#ifndef KES_BUS_SIM_SERVERS_H
#define KES_BUS_SIM_SERVERS_H

#include <atomic>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "sim_config.h"
#include "sim_model.h"
#include "test_gateway_bus.h"

namespace kes_sim {

enum EFaultKind { SimFaultSilent, SimFaultBadCrc, SimFaultWrongUnit, SimFaultException, SimFaultLate, SimFaultGarbage };

// One fault of the command line: on one line, on one device of it or all.
struct SimFault {
    EFaultKind kind = SimFaultSilent;
    unsigned int line = 0;
    unsigned int mid = 0;       // 0: every device of the line
    unsigned int percent = 100; // share of the replies it spoils
    unsigned int value = 0;     // late: milliseconds; garbage: bytes
};

// "kind:line[:mid[:percent[:value]]]"; false with a message on bad text.
bool ParseFault(const std::string& i_text, SimFault* o_fault, std::string* o_error);
const char* FaultName(EFaultKind i_kind);

// A bus of simulated devices answering frames, with the faults of its line.
class SimBus : public kes_test::TestBusGateway {
public:
    SimBus(const SimLine& i_line, const SimClock& i_clock, const std::vector<SimFault>& i_faults, unsigned int i_seed);
    ~SimBus();

    const SimLine& Line() const { return m_line; }
    // For the serial side, which receives frames itself.
    size_t FrameOf(const kes_test::Bytes& i_input) const { return FrameLength(i_input); }
    kes_test::Bytes Respond(const kes_test::Bytes& i_request) { return Reply(i_request); }
    unsigned long Requests() const { return m_served; }

protected:
    kes_test::Bytes Reply(const kes_test::Bytes& i_request) override;

private:
    void refresh(DeviceModel& io_model);
    kes_test::Bytes spoil(const kes_test::Bytes& i_request, kes_test::Bytes i_reply, unsigned int i_mid);

    SimLine m_line;
    const SimClock& m_clock;
    std::vector<SimFault> m_faults;
    std::mutex m_modelMutex;
    std::vector<DeviceModel> m_models;
    std::mt19937 m_random;
    std::atomic<unsigned long> m_served{0};
};

// A pseudo-terminal behind the line's path: every byte written to it comes
// back as the echo of an RS-485 adapter, then the bus answers.
class SimSerialPort {
public:
    explicit SimSerialPort(SimBus& io_bus);
    ~SimSerialPort();
    bool Plug(std::string* o_error); // a new terminal, and the link to it
    void Unplug();                   // the terminal gone, the link removed
    bool IsPlugged() const { return m_master != -1; }

private:
    void service();

    SimBus& m_bus;
    std::string m_link;
    int m_master = -1;
    int m_slave = -1;
    int m_wake[2] = {-1, -1};
    std::thread m_thread;
};

// The station's gateway: records "<...>" of 13 fields at a steady pace to
// every client.
class SimWeather {
public:
    SimWeather(const SimClock& i_clock, unsigned int i_periodMs);
    ~SimWeather();
    bool Start(uint16_t i_port, std::string* o_error);
    void Stop();
    std::string Record() const;

private:
    void service();

    const SimClock& m_clock;
    unsigned int m_periodMs;
    int m_listener = -1;
    int m_wake[2] = {-1, -1};
    std::thread m_thread;
};

} // namespace kes_sim

#endif
