#include "sim_servers.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <pty.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

using kes_test::Bytes;

namespace kes_sim {

namespace {

const uint8_t ALARM_STATUS_OFFSET = 2;
// Bytes that stop coming for this long end a frame, as silence does on RS-485.
const int FRAME_GAP_MS = 50;

bool write_all(int i_fd, const uint8_t* i_pData, size_t i_size)
{
    size_t done = 0;
    for (int spins = 0; done < i_size && spins < 1000; ++spins) {
        ssize_t n = ::write(i_fd, i_pData + done, i_size - done);
        if (n > 0) {
            done += static_cast<size_t>(n);
        } else if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
            pollfd waiting{i_fd, POLLOUT, 0};
            ::poll(&waiting, 1, 10);
        } else {
            return false;
        }
    }
    return done == i_size;
}

void wake(int i_fd)
{
    char c = 0;
    if (::write(i_fd, &c, 1) != 1) {
        // one byte into an empty pipe; nothing else can be done
    }
}

void close_pipe(int* io_pipe)
{
    for (int i = 0; i < 2; ++i) {
        if (io_pipe[i] != -1)
            ::close(io_pipe[i]);
        io_pipe[i] = -1;
    }
}

} // namespace

const char* FaultName(EFaultKind i_kind)
{
    static const char* const NAMES[] = {"silent", "crc", "unit", "exception", "late", "garbage"};
    return NAMES[i_kind];
}

bool ParseFault(const std::string& i_text, SimFault* o_fault, std::string* o_error)
{
    std::vector<std::string> parts;
    size_t from = 0;
    for (;;) {
        size_t colon = i_text.find(':', from);
        parts.push_back(i_text.substr(from, colon == std::string::npos ? std::string::npos : colon - from));
        if (colon == std::string::npos)
            break;
        from = colon + 1;
    }
    SimFault fault;
    bool known = false;
    for (int kind = SimFaultSilent; kind <= SimFaultGarbage; ++kind)
        if (parts[0] == FaultName(static_cast<EFaultKind>(kind))) {
            fault.kind = static_cast<EFaultKind>(kind);
            known = true;
        }
    if (!known || parts.size() < 2 || parts.size() > 5) {
        *o_error = "bad fault \"" + i_text + "\": KIND:LINE[:MID[:PERCENT[:VALUE]]]";
        return false;
    }
    unsigned long numbers[4] = {0, 0, 100, 0};
    for (size_t i = 1; i < parts.size(); ++i) {
        if (parts[i] == "*" || (i != 1 && parts[i].empty()))
            continue;
        if (parts[i].empty() || parts[i].find_first_not_of("0123456789") != std::string::npos || parts[i].size() > 6) {
            *o_error = "bad number \"" + parts[i] + "\" in fault \"" + i_text + "\"";
            return false;
        }
        numbers[i - 1] = strtoul(parts[i].c_str(), nullptr, 10);
    }
    fault.line = static_cast<unsigned int>(numbers[0]);
    fault.mid = static_cast<unsigned int>(numbers[1]);
    fault.percent = static_cast<unsigned int>(std::min<unsigned long>(numbers[2], 100));
    fault.value = static_cast<unsigned int>(numbers[3]);
    if (fault.kind == SimFaultLate && fault.value == 0)
        fault.value = 700; // past the daemon's receive time-out of 500 ms
    if (fault.kind == SimFaultLate && fault.value > 10000) {
        *o_error = "a late reply waits at most 10000 ms";
        return false;
    }
    if (fault.kind == SimFaultGarbage && fault.value > 256) {
        *o_error = "garbage is at most 256 bytes";
        return false;
    }
    *o_fault = fault;
    return true;
}

SimBus::SimBus(const SimLine& i_line, const SimClock& i_clock, const std::vector<SimFault>& i_faults,
               unsigned int i_seed)
    : m_line(i_line), m_clock(i_clock), m_random(i_seed + i_line.id)
{
    for (const SimFault& fault : i_faults)
        if (fault.line == i_line.id)
            m_faults.push_back(fault);
    for (const SimDevice& device : i_line.devices) {
        if (device.mid > 255) {
            fprintf(stderr, "kes_bus_sim: line %u: module number %u does not fit the bus, skipped\n", i_line.id,
                    device.mid);
            continue;
        }
        m_models.emplace_back(device.type, device.mid, i_line.id);
        DeviceModel& model = m_models.back();
        AddDevice(static_cast<uint8_t>(device.type), model.Serial(), static_cast<uint8_t>(device.mid));
        SetIdentity(model.Serial(), model.ModelText(), model.SerialText(), model.TestDate());
        if (!model.Ratings().empty())
            SetDeviceRegisters(model.Serial(), DeviceModel::RATINGS_OFFSET, model.Ratings());
        if (device.type == 3)
            SetAlarmCycle(model.Serial(), 3, 0, 1200);
        refresh(model);
    }
}

SimBus::~SimBus()
{
    Stop();
}

void SimBus::refresh(DeviceModel& io_model)
{
    std::vector<uint16_t> values = io_model.Measurements(m_clock.Seconds(), m_clock.Hour());
    if (values.empty())
        return;
    if (io_model.Type() == 3) {
        // a check cycle started from the bus runs its own course
        Device device;
        if (GetDevice(io_model.Serial(), &device) && device.pendingReads)
            values.resize(ALARM_STATUS_OFFSET);
    }
    SetDeviceRegisters(io_model.Serial(), 0, values);
}

Bytes SimBus::Reply(const Bytes& i_request)
{
    ++m_served;
    unsigned int mid = 0;
    if (i_request.size() == 8 && i_request[1] == 3 && i_request[0] >= 1 && i_request[0] <= 11) {
        unsigned int first = (i_request[2] << 8) | i_request[3];
        mid = first / 100;
        std::lock_guard<std::mutex> lock(m_modelMutex);
        for (DeviceModel& model : m_models)
            if (model.Type() == i_request[0] && model.Mid() == mid)
                refresh(model);
    }
    return spoil(i_request, TestBusGateway::Reply(i_request), mid);
}

Bytes SimBus::spoil(const Bytes& i_request, Bytes i_reply, unsigned int i_mid)
{
    for (const SimFault& fault : m_faults) {
        if (fault.mid != 0 && fault.mid != i_mid)
            continue;
        unsigned int roll;
        {
            std::lock_guard<std::mutex> lock(m_modelMutex);
            roll = m_random() % 100;
        }
        if (roll >= fault.percent)
            continue;
        switch (fault.kind) {
        case SimFaultSilent:
            return Bytes();
        case SimFaultBadCrc:
            if (!i_reply.empty())
                i_reply.back() ^= 0x5A;
            return i_reply;
        case SimFaultWrongUnit:
            if (i_reply.size() > 2) {
                i_reply.resize(i_reply.size() - 2);
                i_reply[0] = static_cast<uint8_t>(i_reply[0] % 11 + 1);
                i_reply = kes_test::WithCrc(i_reply);
            }
            return i_reply;
        case SimFaultException:
            // illegal data address, the usual answer of a gateway for an absent device
            return kes_test::WithCrc({i_request[0], static_cast<uint8_t>(i_request[1] | 0x80), 2});
        case SimFaultLate:
            std::this_thread::sleep_for(std::chrono::milliseconds(fault.value));
            return i_reply;
        case SimFaultGarbage: {
            size_t size = fault.value ? fault.value : (i_reply.empty() ? 9 : i_reply.size());
            Bytes garbage(size);
            std::lock_guard<std::mutex> lock(m_modelMutex);
            for (uint8_t& b : garbage)
                b = static_cast<uint8_t>(m_random());
            return garbage;
        }
        }
    }
    return i_reply;
}

SimSerialPort::SimSerialPort(SimBus& io_bus) : m_bus(io_bus), m_link(io_bus.Line().address)
{
}

SimSerialPort::~SimSerialPort()
{
    Unplug();
}

bool SimSerialPort::Plug(std::string* o_error)
{
    Unplug();
    int master = -1;
    int slave = -1;
    char name[128];
    if (::openpty(&master, &slave, name, nullptr, nullptr) != 0) {
        *o_error = std::string("openpty: ") + strerror(errno);
        return false;
    }
    // Raw until the daemon sets its own line; the sim keeps the slave open so
    // that the master never reads a hang-up between two openings of the daemon.
    termios settings;
    if (::tcgetattr(slave, &settings) == 0) {
        cfmakeraw(&settings);
        ::tcsetattr(slave, TCSANOW, &settings);
    }
    ::fcntl(master, F_SETFL, ::fcntl(master, F_GETFL) | O_NONBLOCK);
    ::fcntl(master, F_SETFD, FD_CLOEXEC);
    ::fcntl(slave, F_SETFD, FD_CLOEXEC);
    // Replace the link in one step, so the daemon never sees a half-made one.
    std::string temporary = m_link + ".sim";
    ::unlink(temporary.c_str());
    if (::symlink(name, temporary.c_str()) != 0 || ::rename(temporary.c_str(), m_link.c_str()) != 0) {
        *o_error = "can not make the link " + m_link + " to " + name + ": " + strerror(errno);
        ::unlink(temporary.c_str());
        ::close(master);
        ::close(slave);
        return false;
    }
    if (::pipe(m_wake) != 0) {
        *o_error = std::string("pipe: ") + strerror(errno);
        ::unlink(m_link.c_str());
        ::close(master);
        ::close(slave);
        return false;
    }
    m_master = master;
    m_slave = slave;
    m_thread = std::thread(&SimSerialPort::service, this);
    return true;
}

void SimSerialPort::Unplug()
{
    if (m_master == -1)
        return;
    wake(m_wake[1]);
    m_thread.join();
    ::unlink(m_link.c_str());
    ::close(m_master);
    ::close(m_slave);
    m_master = m_slave = -1;
    close_pipe(m_wake);
}

void SimSerialPort::service()
{
    Bytes input;
    for (;;) {
        pollfd fds[2] = {{m_wake[0], POLLIN, 0}, {m_master, POLLIN, 0}};
        int ready = ::poll(fds, 2, input.empty() ? 1000 : FRAME_GAP_MS);
        if (ready < 0 && errno != EINTR)
            return;
        if (fds[0].revents)
            return;
        if (ready == 0) {
            input.clear(); // a gap ends whatever came: no frame will complete it
            continue;
        }
        if (!(fds[1].revents & POLLIN))
            continue;
        uint8_t buffer[512];
        ssize_t n = ::read(m_master, buffer, sizeof(buffer));
        if (n <= 0)
            continue;
        // the adapter hears its own sending
        write_all(m_master, buffer, static_cast<size_t>(n));
        input.insert(input.end(), buffer, buffer + n);
        for (size_t length = m_bus.FrameOf(input); length; length = m_bus.FrameOf(input)) {
            Bytes request(input.begin(), input.begin() + static_cast<long>(length));
            input.erase(input.begin(), input.begin() + static_cast<long>(length));
            Bytes reply = m_bus.Respond(request);
            if (!reply.empty())
                write_all(m_master, reply.data(), reply.size());
        }
    }
}

SimWeather::SimWeather(const SimClock& i_clock, unsigned int i_periodMs) : m_clock(i_clock), m_periodMs(i_periodMs)
{
}

SimWeather::~SimWeather()
{
    Stop();
}

bool SimWeather::Start(uint16_t i_port, std::string* o_error)
{
    Stop();
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int yes = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof(yes));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(i_port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 || ::listen(fd, 4) != 0 ||
        ::pipe(m_wake) != 0) {
        *o_error = "weather station on port " + std::to_string(i_port) + ": " + strerror(errno);
        if (fd >= 0)
            ::close(fd);
        close_pipe(m_wake);
        return false;
    }
    m_listener = fd;
    m_thread = std::thread(&SimWeather::service, this);
    return true;
}

void SimWeather::Stop()
{
    if (m_listener == -1)
        return;
    wake(m_wake[1]);
    m_thread.join();
    ::close(m_listener);
    m_listener = -1;
    close_pipe(m_wake);
}

std::string SimWeather::Record() const
{
    double seconds = m_clock.Seconds();
    double sun = Daylight(m_clock.Hour());
    char record[160];
    // station id, record type, then the fields the daemon keeps: wind
    // direction and speed, outside temperature and humidity, UV, solar
    // radiation, rain of the last minute, two unused, inside temperature,
    // pressure
    snprintf(record, sizeof(record), "<1,0,%d,%.1f,%.1f,%d,%.1f,%d,%.1f,0,0,%.1f,%.1f>\r\n",
             static_cast<int>(std::fmod(200 + seconds / 20, 360)), 3 + 2 * std::sin(seconds / 60),
             9 + 14 * sun + std::sin(seconds / 300), static_cast<int>(70 - 25 * sun), 6 * sun,
             static_cast<int>(850 * sun), 0.0, 21.5 + sun, 1013.2 + std::sin(seconds / 900));
    return record;
}

void SimWeather::service()
{
    std::vector<int> clients;
    auto next = std::chrono::steady_clock::now();
    for (;;) {
        std::vector<pollfd> fds = {{m_wake[0], POLLIN, 0}, {m_listener, POLLIN, 0}};
        for (int c : clients)
            fds.push_back(pollfd{c, POLLIN, 0});
        auto now = std::chrono::steady_clock::now();
        int timeout =
            next > now ? static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(next - now).count()) + 1
                       : 0;
        if (::poll(fds.data(), fds.size(), timeout) < 0 && errno != EINTR)
            break;
        if (fds[0].revents)
            break;
        for (size_t i = fds.size(); i-- > 2;) {
            if (!fds[i].revents)
                continue;
            char buffer[256];
            if (::recv(fds[i].fd, buffer, sizeof(buffer), MSG_DONTWAIT) <= 0) {
                ::close(fds[i].fd);
                clients.erase(clients.begin() + static_cast<long>(i - 2));
            }
        }
        if (fds[1].revents & POLLIN) {
            int fd = ::accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd >= 0) {
                clients.push_back(fd);
                next = std::chrono::steady_clock::now(); // a first record at once
            }
        }
        if (std::chrono::steady_clock::now() >= next) {
            std::string record = Record();
            for (int c : clients)
                ::send(c, record.data(), record.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
            next = std::chrono::steady_clock::now() + std::chrono::milliseconds(m_periodMs);
        }
    }
    for (int c : clients)
        ::close(c);
}

} // namespace kes_sim
