// kes_bus: commissioning of a bus from the command line, on the same engine
// as the daemon.
#ifndef KES_BUS_TOOL_H
#define KES_BUS_TOOL_H

#include <cstdio>
#include <string>
#include <vector>

#include "kes_bus_conf.h"
#include "kes_enerysystem.h"

namespace kes {

// Timing and attempts, as the daemon opens its lines unless told otherwise.
struct kesBusOptions {
    std::string address;
    unsigned int receiveTimeOut = 500;
    unsigned int answerPause = 100;
    unsigned int failurePause = 100;
    unsigned int attempts = 2;
    unsigned int wait = 10000; // alarm: how long to wait for the end of a cycle
    std::string conf;          // scan, number: the configuration file to write
    unsigned int lineId = KES_BUS_LINE_ID_OF_FILE;
};

// The engine with the hooks a person at the console wants to see.
class kesBusTool : public kesEnergySystem {
public:
    explicit kesBusTool(FILE* i_pProgress) : m_pProgress(i_pProgress) {}

    void OnDeviceFound(const kesEnergyDevice* i_pDevice) override;

    using kesEnergySystem::find_all_devices_10000;
    using kesEnergySystem::old_find_all_devices;

private:
    FILE* m_pProgress;
};

// "[StringFour] serial 16909060 module 9"
std::string kesBusDeviceLine(const kesEnergyDevice& i_device);

enum kesEBusOutcome { kesBusOk = 0, kesBusFailed = 2, kesBusBadArguments = 3 };

// Runs one command with its arguments; o_error gets the one-line text of
// bad arguments.
kesEBusOutcome kesBusRun(const kesBusOptions& i_options, const std::vector<std::string>& i_command,
                         std::string* o_error);
// The same on an engine of the caller's, not open yet.
kesEBusOutcome kesBusRun(const kesBusOptions& i_options, const std::vector<std::string>& i_command,
                         std::string* o_error, kesBusTool& io_tool);

} // namespace kes

#endif
