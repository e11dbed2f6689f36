// Cost of the bus channel: building and checking frames, and one serial
// exchange (request, echo, reply) over a pseudo-terminal against the least
// the 9600 8N1 line allows. Prints wall and CPU time per exchange.
//
// usage: bench_bus_channel [exchanges (100)] [frames (1000000)]
#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "error_capture.h"
#include "kes_energysocket.h"
#include "kes_modbusrtu.h"
#include "loopback.h"

using namespace kes;
using kes_test::Bytes;

namespace {

typedef std::chrono::steady_clock Clock;

double seconds_since(Clock::time_point i_start)
{
    return std::chrono::duration<double>(Clock::now() - i_start).count();
}

double cpu_seconds()
{
    rusage usage = {};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_utime.tv_sec + usage.ru_stime.tv_sec + (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

} // namespace

int main(int argc, char** argv)
{
    int exchanges = argc > 1 ? atoi(argv[1]) : 100;
    long frames = argc > 2 ? atol(argv[2]) : 1000000;
    kes_test::ErrorCapture errors;

    // frames: a request built from nothing and a reply checked, as one read does
    Clock::time_point start = Clock::now();
    unsigned long sink = 0;
    unsigned char replyBytes[] = {0x01, 0x03, 0x04, 0x00, 0x01, 0x00, 0x02, 0x2A, 0x32};
    for (long i = 0; i < frames; ++i) {
        kesModbusRtuReadHoldingRegistersFrame request;
        request.SetUnitID(1);
        request.SetRegisters((unsigned short)(i % 256 * 100), 2);
        kesModbusRtuFrame reply(replyBytes, sizeof(replyBytes));
        sink += request.GetFrameBufferPtr()[7] + reply.HasValidCrc();
    }
    double frameTime = seconds_since(start);
    printf("frames: %ld request+reply pairs in %.3f s, %.0f ns each (%lu)\n", frames, frameTime,
           frameTime / frames * 1e9, sink % 2);

    // serial exchanges against an echoing peer
    kes_test::PtyPair pty;
    kesEnergySocket channel;
    if (channel.Open(pty.LinkPath().c_str(), 0) != kesErrorOk) {
        printf("cannot open the pseudo-terminal\n%s", errors.Dump().c_str());
        return 1;
    }
    channel.SetReceiveTimeOut(300);
    const Bytes request = {0x01, 0x03, 0x00, 0x64, 0x00, 0x02, 0x85, 0xD4};
    const Bytes reply(replyBytes, replyBytes + sizeof(replyBytes));
    kes_test::PeerThread peer([&] {
        for (int i = 0; i < exchanges; ++i) {
            Bytes got = kes_test::ReadFor(pty.Master(), request.size(), 2000);
            if (got.size() != request.size())
                return;
            kes_test::WriteAll(pty.Master(), got);
            // the device answers after the request has left the line
            kes_test::WriteAll(pty.Master(), reply);
        }
    });
    int good = 0;
    double cpuStart = cpu_seconds();
    start = Clock::now();
    for (int i = 0; i < exchanges; ++i) {
        unsigned char buffer[9];
        int received = 0;
        if (channel.Send(request.data(), (unsigned int)request.size()) == 8 &&
            channel.Receive(buffer, sizeof(buffer), &received) == 9)
            ++good;
    }
    double wall = seconds_since(start);
    double cpu = cpu_seconds() - cpuStart;
    peer.Join();
    // the sender's line time only: a pseudo-terminal delivers the reply at once
    double floor = request.size() / 960.0;
    printf("serial exchanges: %d of %d good, %.2f ms each (line floor %.2f ms), CPU %.3f ms each (both threads)\n",
           good, exchanges, wall / exchanges * 1e3, floor * 1e3, cpu / exchanges * 1e3);
    printf("records logged: %zu\n", errors.Count());
    return good == exchanges ? 0 : 1;
}
