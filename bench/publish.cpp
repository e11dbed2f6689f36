// Cost of one published value on the whole road of a reading: the event
// routing, the history update and the datagram. A StringFour device of nine
// values is configured, and its reading is routed again and again.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "datagram_receiver.h"
#include "kes_energy.h"
#include "kes_enerysystem.h"
#include "test_process.h"

int main(int argc, char** argv)
{
    unsigned int readings = argc > 1 ? static_cast<unsigned int>(atoi(argv[1])) : 5000;
    if (readings == 0)
        readings = 1;
    const unsigned int values = 9;

    kes_test::TempDir dir;
    std::string xml = "<energy><line id=\"1\" adr=\"127.0.0.1:1\">";
    for (unsigned int fid = 0; fid < values; ++fid)
        xml +=
            "<v type=\"7\" mid=\"3\" iid=\"" + std::to_string(100 + fid) + "\" fid=\"" + std::to_string(fid) + "\"/>";
    xml += "</line></energy>";
    kes_test::WriteFile(dir.File("conf.xml"), xml);

    kes_test::DatagramReceiver receiver;
    kes::Energy::kesEnergy::MiraPort = receiver.Port();
    kes::kesError::Level = 0;
    kes::Energy::kesEnergy energy;
    if (energy.Configure(dir.File("conf.xml").c_str()) != kes::kesErrorOk ||
        energy.GetHistory().Init(5) != kes::kesErrorOk) {
        fprintf(stderr, "configuration failed\n");
        return 2;
    }
    energy.GetHistory().SetHistoryFolder(dir.Path().c_str());
    energy.GetHistory().Start();

    kes::kesEnergyStringFourData reading = {300, 230.5f, 1.5f, 2.5f, 3.5f, 4.5f};
    kes::kesEvent event = {1, kes::kesEnergyDeviceStringFour, &reading};
    auto started = std::chrono::steady_clock::now();
    for (unsigned int i = 0; i < readings; ++i)
        kes::Energy::kesEnergy::on_event(event);
    double us = std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - started).count();
    energy.GetHistory().Stop();

    printf("readings: %u of %u values\n", readings, values);
    printf("us per published value (routing, history update, datagram): %.2f\n", us / (readings * values));
    return 0;
}
