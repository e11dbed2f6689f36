// A gateway with simulated devices behind it, speaking the bus's own frames
// as well as register reads.
//
// Each device has a type (the unit it answers reads on), a module number
// (its block of 100 registers starts at 100 times it), a 32-bit hardware
// serial number and registers given by offset in its block. Keys it answers
// while it is not muted:
//   coarse key  serial % 100
//   fine key    serial % 10000, and also the low 16 bits of the serial number,
//               the key asked when a device is looked for by its serial.
// Two or more devices answering one key collide: the reply has the length of
// the longest answer and a bad CRC. Enable search unmutes all; mute and set
// address act on the device with the serial number of the frame. A device
// set up with SetAlarmCycle starts a check cycle when the tuning write
// reaches it; its status register reads "in progress" for the given number of
// reads, then the outcome.
//
// Requests that no device takes go to the register table of TestGateway, and
// the faults of TestGateway apply to every reply.
#ifndef KES_TEST_TEST_GATEWAY_BUS_H
#define KES_TEST_TEST_GATEWAY_BUS_H

#include "test_gateway.h"

#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace kes_test {

class TestBusGateway : public TestGateway {
public:
    struct Device {
        uint8_t type = 0;
        uint32_t serial = 0;
        uint8_t module = 0;
        bool muted = false;
        bool shortForm = false;                // search answers without the type (11 bytes)
        bool unmutable = false;                // acknowledges a mute and keeps answering
        uint8_t searchType = 0;                // type in search answers when not 0
        unsigned int refusals = 0;             // set-address requests refused before one is taken
        std::map<uint8_t, uint16_t> registers; // by offset in the block
        // alarm check cycle
        bool hasCycle = false;
        unsigned int cycleReads = 0;
        uint8_t cycleStatus = 0;
        uint16_t cyclePower = 0;
        unsigned int pendingReads = 0;
        std::vector<uint16_t> tuning; // the last tuning write, 4 registers
        unsigned int mutes = 0;
    };

    static uint16_t CoarseKey(uint32_t i_serial) { return static_cast<uint16_t>(i_serial % 100); }
    static uint16_t FineKey(uint32_t i_serial) { return static_cast<uint16_t>(i_serial % 10000); }

    TestBusGateway() = default;
    ~TestBusGateway();

    void AddDevice(uint8_t i_type, uint32_t i_serial, uint8_t i_module);
    void RemoveDevices();
    // false when there is no device with the serial number
    bool SetDeviceRegisters(uint32_t i_serial, uint8_t i_offset, const std::vector<uint16_t>& i_values);
    // Texts are cut or padded with zero bytes to the length of their field
    // and stored at the offsets of the device type.
    bool SetIdentity(uint32_t i_serial, const std::string& i_model, const std::string& i_serialText,
                     const std::string& i_testDate);
    bool SetAlarmCycle(uint32_t i_serial, unsigned int i_reads, uint8_t i_status, uint16_t i_power);
    bool SetShortForm(uint32_t i_serial);
    bool SetUnmutable(uint32_t i_serial);
    bool SetSearchType(uint32_t i_serial, uint8_t i_type);
    bool SetRefusals(uint32_t i_serial, unsigned int i_count);
    bool GetDevice(uint32_t i_serial, Device* o_pDevice) const;

    // The search answer of one device: 12 bytes, or 11 in the short form.
    static Bytes SearchAnswer(const Device& i_device, bool i_fine);

protected:
    size_t FrameLength(const Bytes& i_input) const override;
    Bytes Reply(const Bytes& i_request) override;

private:
    Device* find(uint32_t i_serial);
    template <class Change>
    bool change(uint32_t i_serial, Change i_change);
    Bytes bus_frame(const Bytes& i_request);
    Bytes search(uint16_t i_key, bool i_fine);
    Bytes read_registers(const Bytes& i_request, bool* o_taken);
    Bytes write_registers(const Bytes& i_request, bool* o_taken);

    mutable std::mutex m_busMutex;
    std::vector<Device> m_devices;
};

} // namespace kes_test

#endif
