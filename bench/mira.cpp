// Cost of publishing one value: a socket, a look-up of "localhost", one
// datagram and a close, as every reading pays it. Prints microseconds per
// value with a receiver listening and with none.

#include "datagram_receiver.h"
#include "kes_energy_mira.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

double MicrosecondsPerValue(unsigned short port, unsigned int count)
{
    auto started = std::chrono::steady_clock::now();
    for (unsigned int i = 0; i < count; ++i)
        kes::Energy::kesEnergySendToMira(1000 + i, "230.5", port);
    auto took = std::chrono::steady_clock::now() - started;
    return std::chrono::duration<double, std::micro>(took).count() / count;
}

} // namespace

int main(int argc, char** argv)
{
    unsigned int count = argc > 1 ? static_cast<unsigned int>(atoi(argv[1])) : 20000;
    if (count == 0)
        count = 1;

    double listened;
    {
        kes_test::DatagramReceiver receiver;
        listened = MicrosecondsPerValue(receiver.Port(), count);
    }
    unsigned short freePort;
    {
        kes_test::DatagramReceiver probe;
        freePort = probe.Port();
    }
    double unheard = MicrosecondsPerValue(freePort, count);

    printf("values: %u\n", count);
    printf("us per value, receiver listening: %.2f\n", listened);
    printf("us per value, no receiver: %.2f\n", unheard);
    return 0;
}
