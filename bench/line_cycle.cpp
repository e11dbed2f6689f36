// Cycle time of a line of answering devices on the test gateway, against the
// least the timing allows: the round trips, the answer pause after each reply
// and the pause between cycles. Also the CPU time of the polling thread.
//
// usage: bench_line_cycle [devices (50)] [cycles (3)]
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <vector>

#include "error_capture.h"
#include "kes_energy_line.h"
#include "test_gateway.h"

using namespace kes;
using kes::Energy::kesEnergyLine;
using kes_test::Bytes;
using kes_test::TestGateway;

namespace {

// The ten types with a read, and their register counts.
const struct {
    unsigned char type;
    unsigned short registers;
} TYPES[] = {{1, 2}, {2, 2}, {10, 2}, {6, 3}, {11, 4}, {7, 5}, {3, 2}, {5, 3}, {8, 6}, {9, 25}};
const unsigned int TYPE_COUNT = sizeof(TYPES) / sizeof(TYPES[0]);

double now_s()
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

double thread_cpu_s()
{
    timespec t;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
}

double process_cpu_s()
{
    rusage u;
    getrusage(RUSAGE_SELF, &u);
    return static_cast<double>(u.ru_utime.tv_sec + u.ru_stime.tv_sec) +
           static_cast<double>(u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
}

// Marks taken on the polling thread at each reading of the first device.
std::mutex g_mutex;
std::condition_variable g_marked;
std::vector<double> g_wall;
std::vector<double> g_cpu;
unsigned long g_events = 0;
unsigned short g_firstAddress = 0;

void on_event(const kesEvent& i_event)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    ++g_events;
    if (i_event.code == TYPES[0].type && *static_cast<unsigned short*>(i_event.data) == g_firstAddress) {
        g_wall.push_back(now_s());
        g_cpu.push_back(thread_cpu_s());
        g_marked.notify_all();
    }
}

// Median round trip of one request on a plain socket, without any pause.
double median_round_trip(uint16_t i_port, const Bytes& i_request, size_t i_replyLength)
{
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr = {};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(i_port);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (fd < 0 || connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
        if (fd >= 0)
            close(fd);
        return 0;
    }
    std::vector<double> samples;
    unsigned char reply[300];
    for (int i = 0; i < 31; ++i) {
        double start = now_s();
        if (send(fd, i_request.data(), i_request.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(i_request.size()))
            break;
        size_t got = 0;
        while (got < i_replyLength) {
            ssize_t n = recv(fd, reply + got, i_replyLength - got, 0);
            if (n <= 0)
                break;
            got += static_cast<size_t>(n);
        }
        if (got < i_replyLength)
            break;
        samples.push_back(now_s() - start);
    }
    close(fd);
    if (samples.empty())
        return 0;
    std::sort(samples.begin(), samples.end());
    return samples[samples.size() / 2];
}

} // namespace

int main(int argc, char** argv)
{
    unsigned int devices = argc > 1 ? static_cast<unsigned int>(atoi(argv[1])) : 50;
    unsigned int cycles = argc > 2 ? static_cast<unsigned int>(atoi(argv[2])) : 3;
    if (devices == 0 || devices > 600 || cycles == 0) {
        fprintf(stderr, "usage: %s [devices 1..600] [cycles >= 1]\n", argv[0]);
        return 2;
    }

    TestGateway gateway;
    if (!gateway.Start()) {
        fprintf(stderr, "the test gateway does not start\n");
        return 2;
    }
    kes_test::ErrorCapture log; // a clean console; failures are counted below

    kesEnergySystem::EXECUTION_COUNT = 2;
    kesEnergyLine line(1);
    line.SetAddress(gateway.GetAddress().c_str(), 0);
    for (int code = 1; code <= 11; ++code)
        line.AddListener(code, &on_event);
    line.AddListener(kesEnergyEventCommunicationError, &on_event);

    // Types in turn, module numbers 1, 2, 3 ...: every device answers.
    double leastPerCycle = kesEnergyLine::CYCLE_PAUSE / 1000.0;
    for (unsigned int i = 0; i < devices; ++i) {
        unsigned char type = TYPES[i % TYPE_COUNT].type;
        unsigned short registers = TYPES[i % TYPE_COUNT].registers;
        unsigned short address = static_cast<unsigned short>(100 * (i + 1));
        if (i == 0)
            g_firstAddress = address;
        gateway.SetRegisters(type, address, std::vector<uint16_t>(registers, static_cast<uint16_t>(i)));
        line.AddDevice(type, address);
        Bytes request = kes_test::WithCrc({type, 3, static_cast<uint8_t>(address >> 8),
                                           static_cast<uint8_t>(address & 0xFF), 0, static_cast<uint8_t>(registers)});
        leastPerCycle +=
            median_round_trip(gateway.GetPort(), request, 2u * registers + 5u) + kesEnergyLine::ANSWER_PAUSE / 1000.0;
    }

    double cpuStart = process_cpu_s();
    if (line.Start(kesEnergyLine::RECEIVE_TIMEOUT, kesEnergyLine::ANSWER_PAUSE, kesEnergyLine::FAILURE_PAUSE) !=
        kesErrorOk) {
        fprintf(stderr, "the line does not start\n%s\n", log.Dump().c_str());
        return 2;
    }
    bool done;
    {
        std::unique_lock<std::mutex> lock(g_mutex);
        double budget = (cycles + 2) * leastPerCycle * 2 + 5;
        done =
            g_marked.wait_for(lock, std::chrono::duration<double>(budget), [&] { return g_wall.size() >= cycles + 1; });
    }
    line.Stop();
    double cpuProcess = process_cpu_s() - cpuStart;
    if (!done) {
        fprintf(stderr, "fewer than %u cycles in time\n", cycles);
        return 2;
    }

    std::lock_guard<std::mutex> lock(g_mutex);
    double cycle = (g_wall[cycles] - g_wall[0]) / cycles;
    double cpu = (g_cpu[cycles] - g_cpu[0]) / cycles;
    printf("devices                      %u\n", devices);
    printf("cycles measured              %u\n", cycles);
    printf("cycle time                   %.4f s\n", cycle);
    printf("least the timing allows      %.4f s (round trips + %u ms per reply + %u ms)\n", leastPerCycle,
           kesEnergyLine::ANSWER_PAUSE, kesEnergyLine::CYCLE_PAUSE);
    printf("ratio                        %.4f (target <= 1.02)\n", cycle / leastPerCycle);
    printf("polling thread CPU per cycle %.3f ms\n", cpu * 1000);
    printf("process CPU per cycle        %.3f ms (gateway included)\n", cpuProcess * 1000 / (cycles + 1));
    printf("events                       %lu, log records %zu\n", g_events, log.Count());
    return 0;
}
