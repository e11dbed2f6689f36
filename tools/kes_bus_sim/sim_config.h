// The installation as the daemon's configuration file describes it, read the
// way the daemon reads it, so that one file drives both programs.
#ifndef KES_BUS_SIM_CONFIG_H
#define KES_BUS_SIM_CONFIG_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace kes_sim {

struct SimValue {
    unsigned int iid = 0;
    unsigned int fid = 0;
};

struct SimDevice {
    int type = 0;         // 1 to 11, also the unit on the bus
    unsigned int mid = 0; // module number
    std::vector<SimValue> values;
};

struct SimLine {
    unsigned int id = 0;
    std::string address;
    bool serial = false;            // the address holds "/dev/ttyUSB"
    std::vector<SimDevice> devices; // one per (type, mid), in file order
};

struct SimConfig {
    std::vector<SimLine> lines;
    std::string davis; // empty when there is no station

    // Reads the file; false with a message in o_error when it can not be used.
    bool Load(const std::string& i_path, std::string* o_error);
};

// "host:port" -> port, 0 when there is none.
uint16_t PortOf(const std::string& i_address);
bool IsSerialAddress(const std::string& i_address);
const char* TypeName(int i_type);

} // namespace kes_sim

#endif
