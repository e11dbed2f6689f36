#include "kes_bus_conf.h"

#include <sys/stat.h>
#include <tinyxml.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>
#include <vector>

#include "kes_bus_tool.h"
#include "kes_energy_configure.h"
#include "kes_energy_device_types.h"

namespace kes {

namespace {

struct kesQuantity {
    const char* name;
    const char* unit; // empty for a plain number
};

// By Energy::ValueKind.
const kesQuantity QUANTITIES[] = {{"", ""},
                                  {"voltage", "V"},
                                  {"current", "A"},
                                  {"power", "W"},
                                  {"temperature", "°C"},
                                  {"pulse rate", "pulses/h"},
                                  {"pulse count", "pulses"},
                                  {"alarm status", ""}};

unsigned int field_count(kesEEnergyDeviceType i_type)
{
    const Energy::DeviceType* row = Energy::FindDeviceType(i_type);
    return row ? row->fieldCount : 0;
}

// " current 2, A ": the channel is named only on devices that have several.
std::string value_comment(kesEEnergyDeviceType i_type, unsigned int i_fid)
{
    const Energy::DeviceType& row = *Energy::FindDeviceType(i_type);
    bool channels = false;
    for (unsigned int fid = 0; fid < row.fieldCount; ++fid)
        channels = channels || row.fields[fid].channel > 0;
    const Energy::ValueField& field = row.fields[i_fid];
    const kesQuantity& quantity = QUANTITIES[field.kind];
    std::string text = std::string(" ") + quantity.name;
    if (channels && field.kind != Energy::KIND_VOLT)
        text += " " + std::to_string(field.channel + 1);
    if (*quantity.unit)
        text += std::string(", ") + quantity.unit;
    return text + " ";
}

// The daemon tells the devices of a line apart by module number alone: 0
// reaches nothing, and a shared number mixes the values of the devices.
// Ambient devices get no value and do not count.
bool check_modules(const kesArray<kesEnergyDevice>& i_devices, std::string* o_text)
{
    for (size_t i = 0; i < i_devices.size(); ++i) {
        if (i_devices[i].Type == kesEnergyDeviceAmbient)
            continue;
        if (i_devices[i].Address == 0) {
            *o_text = kesBusDeviceLine(i_devices[i]) + " has no module number";
            return false;
        }
        for (size_t j = 0; j < i; ++j) {
            if (i_devices[j].Type != kesEnergyDeviceAmbient && i_devices[j].Address == i_devices[i].Address) {
                *o_text = kesBusDeviceLine(i_devices[j]) + " and " + kesBusDeviceLine(i_devices[i]) +
                          " share a module number";
                return false;
            }
        }
    }
    return true;
}

// The file as it stands, or a new one as the demo writes it when there is none.
bool load(const std::string& i_path, TiXmlDocument* o_document, TiXmlElement** o_energy, std::string* o_text)
{
    struct stat status;
    bool exists = stat(i_path.c_str(), &status) == 0;
    if (!exists && errno != ENOENT) {
        *o_text = "Can not read " + i_path + ": " + strerror(errno);
        return false;
    }
    if (!exists || status.st_size == 0) {
        TiXmlElement energy("energy");
        energy.SetAttribute("v", "1");
        *o_energy = o_document->InsertEndChild(energy)->ToElement();
        return true;
    }
    kesString where;
    if (!Energy::kesEnergyIsUtf8File(i_path, &where)) {
        *o_text = i_path + " is not valid UTF-8" + where;
        return false;
    }
    TiXmlBase::SetCondenseWhiteSpace(true);
    if (!o_document->LoadFile(i_path.c_str())) {
        *o_text = i_path + ": " + o_document->ErrorDesc() + " at row " + std::to_string(o_document->ErrorRow());
        return false;
    }
    TiXmlNode* root = o_document->FirstChild("energy");
    *o_energy = root ? root->ToElement() : nullptr;
    if (!*o_energy)
        *o_text = "No energy element in " + i_path;
    return *o_energy != nullptr;
}

unsigned int number(const TiXmlElement* i_element, const char* i_name)
{
    return static_cast<unsigned int>(kesString::AsULong(kesString(i_element->Attribute(i_name)), 10));
}

// The line of the address, and what the other lines of the file take.
struct kesConfLines {
    TiXmlElement* own = nullptr;
    std::map<unsigned int, std::string> ids; // id -> address
    std::set<unsigned int> items;
};

kesConfLines survey(TiXmlElement* i_energy, const std::string& i_address)
{
    kesConfLines lines;
    for (TiXmlElement* line = i_energy->FirstChildElement(); line; line = line->NextSiblingElement()) {
        if (!kesString(line->Value()).IsEqualNoCase("line"))
            continue;
        const char* address = line->Attribute("adr");
        if (!lines.own && address && i_address == address) {
            lines.own = line;
            continue;
        }
        lines.ids[number(line, "id") & 0xFFFF] = address ? address : "";
        for (const TiXmlElement* value = line->FirstChildElement(); value; value = value->NextSiblingElement())
            lines.items.insert(number(value, "iid"));
    }
    return lines;
}

// The id to write: one no other line has, small enough for its item numbers.
bool line_id(const kesConfLines& i_lines, unsigned int i_wanted, const std::string& i_path, unsigned int* o_id,
             std::string* o_text)
{
    unsigned int id = i_wanted;
    if (id == KES_BUS_LINE_ID_OF_FILE)
        id = i_lines.own ? number(i_lines.own, "id") & 0xFFFF : 1;
    if (id > KES_BUS_MAX_LINE_ID) {
        *o_text = "Line id " + std::to_string(id) + " would take item numbers past 32 bits (at most " +
                  std::to_string(KES_BUS_MAX_LINE_ID) + "); choose one with -id";
        return false;
    }
    std::map<unsigned int, std::string>::const_iterator other = i_lines.ids.find(id);
    if (other != i_lines.ids.end()) {
        *o_text = "Line id " + std::to_string(id) + " is the id of the line at " + other->second + " in " + i_path +
                  "; choose another with -id";
        return false;
    }
    *o_id = id;
    return true;
}

TiXmlElement build_line(const std::string& i_address, unsigned int i_id, const kesArray<kesEnergyDevice>& i_devices,
                        std::vector<unsigned int>* o_items)
{
    TiXmlElement line("line");
    line.SetAttribute("id", static_cast<int>(i_id));
    line.SetAttribute("adr", i_address.c_str());
    line.InsertEndChild(TiXmlComment(" written by kes_bus: iid = 100000 x id + 100 x mid + fid "));
    for (const kesEnergyDevice& device : i_devices) {
        std::string name = " " + kesBusDeviceLine(device);
        line.InsertEndChild(
            TiXmlComment((name + (device.Type == kesEnergyDeviceAmbient ? ": never read, no value " : " ")).c_str()));
        for (unsigned int fid = 0; fid < field_count(device.Type); ++fid) {
            const unsigned int iid = kesBusItemNumber(i_id, device.Address, fid);
            line.InsertEndChild(TiXmlComment(value_comment(device.Type, fid).c_str()));
            TiXmlElement value("value");
            value.SetAttribute("type", static_cast<int>(device.Type));
            value.SetAttribute("mid", static_cast<int>(device.Address));
            value.SetAttribute("iid", std::to_string(iid).c_str());
            value.SetAttribute("fid", static_cast<int>(fid));
            line.InsertEndChild(value);
            o_items->push_back(iid);
        }
    }
    return line;
}

// Through a temporary file beside the target and a rename, so that the file
// is whole at every moment; it keeps its mode and owner.
bool save(const TiXmlDocument& i_document, const std::string& i_path, std::string* o_text)
{
    char resolved[PATH_MAX];
    const std::string target = realpath(i_path.c_str(), resolved) ? resolved : i_path; // a link stays a link
    std::string temporary = target + ".XXXXXX";
    const int fd = mkstemp(&temporary[0]);
    if (fd < 0) {
        *o_text = "Can not write beside " + target + ": " + strerror(errno);
        return false;
    }
    struct stat status;
    if (stat(target.c_str(), &status) == 0) {
        if (fchown(fd, status.st_uid, status.st_gid) != 0) {
            // only root gives a file away; the mode is kept all the same
        }
        fchmod(fd, status.st_mode & 07777);
    } else {
        const mode_t mask = umask(0);
        umask(mask);
        fchmod(fd, 0666 & ~mask);
    }
    FILE* file = fdopen(fd, "w");
    bool written = file && i_document.SaveFile(file) && fflush(file) == 0 && fsync(fd) == 0;
    const int error = errno;
    written = (file ? fclose(file) == 0 : close(fd) == 0) && written;
    if (!written || rename(temporary.c_str(), target.c_str()) != 0) {
        *o_text = "Can not write " + target + ": " + strerror(written ? errno : error) + "; it is as it was";
        unlink(temporary.c_str());
        return false;
    }
    return true;
}

} // namespace

unsigned int kesBusItemNumber(unsigned int i_lineId, unsigned int i_mid, unsigned int i_fid)
{
    return i_lineId * 100000u + i_mid * 100u + i_fid;
}

bool kesBusWriteConfiguration(const std::string& i_path, const std::string& i_address, unsigned int i_lineId,
                              const kesArray<kesEnergyDevice>& i_devices, std::string* o_text)
{
    size_t values = 0;
    for (const kesEnergyDevice& device : i_devices)
        values += field_count(device.Type);
    if (values == 0) {
        // a bus that did not answer this time must not empty a line that works
        *o_text = "No device with a value to read was found; " + i_path + " is left as it was";
        return false;
    }
    if (!check_modules(i_devices, o_text)) {
        *o_text += "; give each device its own with: kes_bus -adr " + i_address + " number 1 -conf " + i_path;
        return false;
    }
    TiXmlDocument document;
    TiXmlElement* energy = nullptr;
    if (!load(i_path, &document, &energy, o_text))
        return false;
    const kesConfLines lines = survey(energy, i_address);
    unsigned int id = 0;
    if (!line_id(lines, i_lineId, i_path, &id, o_text))
        return false;
    std::vector<unsigned int> items;
    const TiXmlElement line = build_line(i_address, id, i_devices, &items);
    for (unsigned int iid : items) {
        if (lines.items.count(iid)) {
            *o_text = "Item number " + std::to_string(iid) + " is taken by another line of " + i_path +
                      "; choose another line id with -id";
            return false;
        }
    }
    if (lines.own)
        energy->ReplaceChild(lines.own, line);
    else
        energy->InsertEndChild(line);
    if (!save(document, i_path, o_text))
        return false;
    *o_text = "Line " + std::to_string(id) + " at " + i_address + " written to " + i_path + ": " +
              std::to_string(i_devices.size()) + " device(s), " + std::to_string(items.size()) + " value(s)";
    return true;
}

} // namespace kes
