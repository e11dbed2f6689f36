#include "test_gateway_bus.h"

#include "kes_enerysystem.h"

namespace kes_test {

namespace {

const uint8_t BUS_UNIT = 0xFF;

// A device keeps its identity texts where the engine reads them.
using kes::kesEnergySystem;

const uint8_t ALARM_TYPE = 3;
const uint8_t ALARM_STATUS_OFFSET = 2;

bool crc_ok(const Bytes& i_frame)
{
    if (i_frame.size() < 4)
        return false;
    uint16_t crc = Crc16(i_frame.data(), i_frame.size() - 2);
    return i_frame[i_frame.size() - 2] == (crc & 0xFF) && i_frame[i_frame.size() - 1] == (crc >> 8);
}

uint32_t serial_at(const Bytes& i_bytes, size_t i_at)
{
    return (static_cast<uint32_t>(i_bytes[i_at]) << 24) | (static_cast<uint32_t>(i_bytes[i_at + 1]) << 16) |
           (static_cast<uint32_t>(i_bytes[i_at + 2]) << 8) | i_bytes[i_at + 3];
}

void put_serial(Bytes* io_bytes, uint32_t i_serial)
{
    for (int shift = 24; shift >= 0; shift -= 8)
        io_bytes->push_back(static_cast<uint8_t>(i_serial >> shift));
}

bool answers(const TestBusGateway::Device& i_device, uint16_t i_key, bool i_fine)
{
    if (i_device.muted)
        return false;
    if (!i_fine)
        return TestBusGateway::CoarseKey(i_device.serial) == i_key;
    return TestBusGateway::FineKey(i_device.serial) == i_key || static_cast<uint16_t>(i_device.serial) == i_key;
}

} // namespace

TestBusGateway::~TestBusGateway()
{
    // The service thread calls into this class: it must end first.
    Stop();
}

void TestBusGateway::AddDevice(uint8_t i_type, uint32_t i_serial, uint8_t i_module)
{
    Device device;
    device.type = i_type;
    device.serial = i_serial;
    device.module = i_module;
    std::lock_guard<std::mutex> lock(m_busMutex);
    m_devices.push_back(device);
}

void TestBusGateway::RemoveDevices()
{
    std::lock_guard<std::mutex> lock(m_busMutex);
    m_devices.clear();
}

TestBusGateway::Device* TestBusGateway::find(uint32_t i_serial)
{
    for (Device& device : m_devices)
        if (device.serial == i_serial)
            return &device;
    return nullptr;
}

bool TestBusGateway::SetDeviceRegisters(uint32_t i_serial, uint8_t i_offset, const std::vector<uint16_t>& i_values)
{
    std::lock_guard<std::mutex> lock(m_busMutex);
    Device* device = find(i_serial);
    if (!device)
        return false;
    for (size_t i = 0; i < i_values.size(); ++i)
        device->registers[static_cast<uint8_t>(i_offset + i)] = i_values[i];
    return true;
}

bool TestBusGateway::SetIdentity(uint32_t i_serial, const std::string& i_model, const std::string& i_serialText,
                                 const std::string& i_testDate)
{
    uint8_t type;
    {
        std::lock_guard<std::mutex> lock(m_busMutex);
        Device* device = find(i_serial);
        if (!device || device->type < 1 || device->type > 11)
            return false;
        type = device->type;
    }
    const std::string* texts[kesEnergySystem::IDENTITY_FIELDS] = {&i_model, &i_serialText, &i_testDate};
    for (unsigned int field = 0; field < kesEnergySystem::IDENTITY_FIELDS; ++field) {
        std::string text = *texts[field];
        text.resize(2u * kesEnergySystem::IDENTITY_REGISTERS[field], '\0');
        std::vector<uint16_t> values;
        for (size_t i = 0; i < text.size(); i += 2)
            values.push_back(
                static_cast<uint16_t>((static_cast<uint8_t>(text[i]) << 8) | static_cast<uint8_t>(text[i + 1])));
        SetDeviceRegisters(i_serial, kesEnergySystem::IDENTITY_OFFSETS[type][field], values);
    }
    return true;
}

bool TestBusGateway::SetAlarmCycle(uint32_t i_serial, unsigned int i_reads, uint8_t i_status, uint16_t i_power)
{
    std::lock_guard<std::mutex> lock(m_busMutex);
    Device* device = find(i_serial);
    if (!device)
        return false;
    device->hasCycle = true;
    device->cycleReads = i_reads;
    device->cycleStatus = i_status;
    device->cyclePower = i_power;
    return true;
}

template <class Change>
bool TestBusGateway::change(uint32_t i_serial, Change i_change)
{
    std::lock_guard<std::mutex> lock(m_busMutex);
    Device* device = find(i_serial);
    if (!device)
        return false;
    i_change(*device);
    return true;
}

bool TestBusGateway::SetShortForm(uint32_t i_serial)
{
    return change(i_serial, [](Device& io_device) { io_device.shortForm = true; });
}

bool TestBusGateway::SetUnmutable(uint32_t i_serial)
{
    return change(i_serial, [](Device& io_device) { io_device.unmutable = true; });
}

bool TestBusGateway::SetSearchType(uint32_t i_serial, uint8_t i_type)
{
    return change(i_serial, [i_type](Device& io_device) { io_device.searchType = i_type; });
}

bool TestBusGateway::SetRefusals(uint32_t i_serial, unsigned int i_count)
{
    return change(i_serial, [i_count](Device& io_device) { io_device.refusals = i_count; });
}

bool TestBusGateway::GetDevice(uint32_t i_serial, Device* o_pDevice) const
{
    std::lock_guard<std::mutex> lock(m_busMutex);
    for (const Device& device : m_devices) {
        if (device.serial == i_serial) {
            if (o_pDevice)
                *o_pDevice = device;
            return true;
        }
    }
    return false;
}

Bytes TestBusGateway::SearchAnswer(const Device& i_device, bool i_fine)
{
    Bytes reply = {BUS_UNIT, static_cast<uint8_t>(i_fine ? 0x06 : 0x05)};
    if (!i_device.shortForm)
        reply.push_back(i_device.searchType ? i_device.searchType : i_device.type);
    reply.push_back(0);
    reply.push_back(0);
    put_serial(&reply, i_device.serial);
    reply.push_back(i_device.module);
    return WithCrc(reply);
}

size_t TestBusGateway::FrameLength(const Bytes& i_input) const
{
    if (i_input.size() < 2 || i_input[0] != BUS_UNIT)
        return TestGateway::FrameLength(i_input);
    size_t length;
    switch (i_input[1]) {
    case 0x03: // coarse search
    case 0x04: // fine search
    case 0x0E: // enable search
        length = 6;
        break;
    case 0x0C: // mute
        length = 8;
        break;
    case 0x07: // set address
        length = 9;
        break;
    default:
        return TestGateway::FrameLength(i_input);
    }
    return i_input.size() >= length ? length : 0;
}

Bytes TestBusGateway::Reply(const Bytes& i_request)
{
    if (!i_request.empty() && i_request[0] == BUS_UNIT)
        return bus_frame(i_request);
    bool taken = false;
    Bytes reply;
    if (i_request.size() >= 2 && i_request[1] == 3)
        reply = read_registers(i_request, &taken);
    else if (i_request.size() >= 2 && i_request[1] == 16)
        reply = write_registers(i_request, &taken);
    return taken ? reply : TestGateway::Reply(i_request);
}

Bytes TestBusGateway::bus_frame(const Bytes& i_request)
{
    if (!crc_ok(i_request))
        return Bytes();
    std::lock_guard<std::mutex> lock(m_busMutex);
    switch (i_request[1]) {
    case 0x0E:
        if (i_request[2] == 'O' && i_request[3] == 'K')
            for (Device& device : m_devices)
                device.muted = false;
        return Bytes();
    case 0x03:
    case 0x04:
        return search(static_cast<uint16_t>((i_request[2] << 8) | i_request[3]), i_request[1] == 0x04);
    case 0x0C: {
        Device* device = find(serial_at(i_request, 2));
        if (!device)
            return Bytes();
        ++device->mutes;
        if (!device->unmutable)
            device->muted = true;
        Bytes reply = {BUS_UNIT, 0x0D};
        put_serial(&reply, device->serial);
        return WithCrc(reply);
    }
    case 0x07: {
        Device* device = find(serial_at(i_request, 2));
        if (!device)
            return Bytes();
        Bytes reply = {BUS_UNIT, 0x08};
        if (device->refusals) {
            --device->refusals;
            reply[1] = 0x09;
        } else {
            device->module = i_request[6];
        }
        put_serial(&reply, device->serial);
        return WithCrc(reply);
    }
    default:
        return Bytes();
    }
}

Bytes TestBusGateway::search(uint16_t i_key, bool i_fine)
{
    Bytes reply;
    unsigned int answering = 0;
    for (const Device& device : m_devices) {
        if (!answers(device, i_key, i_fine))
            continue;
        Bytes one = SearchAnswer(device, i_fine);
        if (one.size() > reply.size())
            reply = one;
        ++answering;
    }
    // Answers on top of each other: the length of the longest, garbled.
    if (answering > 1)
        reply[reply.size() - 1] ^= 0xFF;
    return reply;
}

Bytes TestBusGateway::read_registers(const Bytes& i_request, bool* o_taken)
{
    *o_taken = false;
    if (i_request.size() != 8 || !crc_ok(i_request))
        return Bytes();
    uint16_t first = static_cast<uint16_t>((i_request[2] << 8) | i_request[3]);
    uint16_t count = static_cast<uint16_t>((i_request[4] << 8) | i_request[5]);
    std::lock_guard<std::mutex> lock(m_busMutex);
    for (Device& device : m_devices) {
        unsigned int base = device.module * 100u;
        if (device.type != i_request[0] || first < base || first >= base + 100)
            continue;
        *o_taken = true;
        unsigned int offset = first - base;
        if (count == 0 || offset + count > 100)
            return Bytes();
        Bytes reply = {i_request[0], 3, static_cast<uint8_t>(count * 2)};
        for (unsigned int i = 0; i < count; ++i) {
            auto it = device.registers.find(static_cast<uint8_t>(offset + i));
            if (it == device.registers.end())
                return Bytes(); // a register the device does not have: silence
            reply.push_back(static_cast<uint8_t>(it->second >> 8));
            reply.push_back(static_cast<uint8_t>(it->second & 0xFF));
        }
        // This read saw the cycle running; the last such read ends it.
        if (device.hasCycle && device.pendingReads && offset <= ALARM_STATUS_OFFSET &&
            offset + count > ALARM_STATUS_OFFSET && --device.pendingReads == 0) {
            device.registers[ALARM_STATUS_OFFSET] = device.cycleStatus;
            device.registers[ALARM_STATUS_OFFSET + 1] = device.cyclePower;
        }
        return WithCrc(reply);
    }
    return Bytes();
}

Bytes TestBusGateway::write_registers(const Bytes& i_request, bool* o_taken)
{
    *o_taken = false;
    if (i_request.size() < 9 || !crc_ok(i_request) || i_request[0] != ALARM_TYPE)
        return Bytes();
    uint16_t first = static_cast<uint16_t>((i_request[2] << 8) | i_request[3]);
    uint16_t count = static_cast<uint16_t>((i_request[4] << 8) | i_request[5]);
    std::lock_guard<std::mutex> lock(m_busMutex);
    for (Device& device : m_devices) {
        if (device.type != ALARM_TYPE || first != device.module * 100u)
            continue;
        *o_taken = true;
        if (i_request[6] != 2u * count || i_request.size() != 9u + i_request[6])
            return Bytes();
        device.tuning.clear();
        for (unsigned int i = 0; i < count; ++i)
            device.tuning.push_back(static_cast<uint16_t>((i_request[7 + 2 * i] << 8) | i_request[8 + 2 * i]));
        if (device.hasCycle) {
            device.pendingReads = device.cycleReads;
            device.registers[ALARM_STATUS_OFFSET] = device.cycleReads ? 0x0100 : device.cycleStatus;
            device.registers[ALARM_STATUS_OFFSET + 1] = device.cycleReads ? 0 : device.cyclePower;
        }
        return WithCrc(Bytes(i_request.begin(), i_request.begin() + 6));
    }
    return Bytes();
}

} // namespace kes_test
