#include "sim_config.h"

#include <tinyxml.h>

#include <cstdlib>
#include <strings.h>
#include <vector>

#include "kes_enerysystem.h"

namespace kes_sim {

namespace {

std::string attribute(const TiXmlElement* i_element, const char* i_name)
{
    const char* value = i_element->Attribute(i_name);
    return value ? value : "";
}

// As the daemon reads numbers: text that is no number counts as 0.
long number(const TiXmlElement* i_element, const char* i_name)
{
    return strtol(attribute(i_element, i_name).c_str(), nullptr, 10);
}

} // namespace

const char* TypeName(int i_type)
{
    // the engine's names, made once and kept for the life of the program
    static const std::vector<std::string> NAMES = [] {
        std::vector<std::string> names;
        for (unsigned int type = kes::kesEnergyDevicePanel; type <= kes::kesEnergyDeviceStringThree; ++type)
            names.push_back(kes::kesEnergySystem::DeviceTypeToTypeName(static_cast<kes::kesEEnergyDeviceType>(type)));
        return names;
    }();
    return i_type >= 1 && static_cast<size_t>(i_type) <= NAMES.size() ? NAMES[i_type - 1].c_str() : "Unknown";
}

bool IsSerialAddress(const std::string& i_address)
{
    static const char KEY[] = "/dev/ttyusb";
    for (size_t i = 0; i + sizeof(KEY) - 1 <= i_address.size(); ++i)
        if (strncasecmp(i_address.c_str() + i, KEY, sizeof(KEY) - 1) == 0)
            return true;
    return false;
}

uint16_t PortOf(const std::string& i_address)
{
    size_t colon = i_address.rfind(':');
    if (colon == std::string::npos)
        return 0;
    long port = strtol(i_address.c_str() + colon + 1, nullptr, 10);
    return port > 0 && port < 65536 ? static_cast<uint16_t>(port) : 0;
}

bool SimConfig::Load(const std::string& i_path, std::string* o_error)
{
    lines.clear();
    davis.clear();
    TiXmlBase::SetCondenseWhiteSpace(true);
    TiXmlDocument document(i_path.c_str());
    if (!document.LoadFile()) {
        *o_error = std::string(document.ErrorDesc()) + " in file: " + i_path;
        return false;
    }
    TiXmlNode* root = document.FirstChild("energy");
    const TiXmlElement* energy = root ? root->ToElement() : nullptr;
    if (!energy) {
        *o_error = "Main energy node not found in file:" + i_path;
        return false;
    }
    for (const TiXmlNode* node = energy->FirstChild(); node; node = node->NextSibling()) {
        const TiXmlElement* element = node->ToElement();
        if (!element)
            continue;
        std::string name = element->Value();
        if (strcasecmp(name.c_str(), "davis") == 0) {
            davis = attribute(element, "adr");
            continue;
        }
        if (strcasecmp(name.c_str(), "line") != 0)
            continue;
        SimLine line;
        line.id = static_cast<unsigned int>(number(element, "id")) & 0xFFFF;
        line.address = attribute(element, "adr");
        line.serial = IsSerialAddress(line.address);
        for (const TiXmlNode* child = element->FirstChild(); child; child = child->NextSibling()) {
            const TiXmlElement* value = child->ToElement();
            if (!value)
                continue;
            int type = static_cast<int>(number(value, "type"));
            unsigned int mid = static_cast<unsigned int>(number(value, "mid"));
            if (type < 1 || type > 11 || mid == 0)
                continue; // the daemon polls nothing there either
            SimDevice* device = nullptr;
            for (SimDevice& known : line.devices)
                if (known.type == type && known.mid == mid)
                    device = &known;
            if (!device) {
                line.devices.push_back(SimDevice());
                device = &line.devices.back();
                device->type = type;
                device->mid = mid;
            }
            SimValue v;
            v.iid = static_cast<unsigned int>(strtoul(attribute(value, "iid").c_str(), nullptr, 10));
            v.fid = static_cast<unsigned int>(number(value, "fid")) & 0xFF;
            device->values.push_back(v);
        }
        if (!line.devices.empty())
            lines.push_back(line);
    }
    return true;
}

} // namespace kes_sim
