// Reading the configuration file into lines, the weather client, history
// registrations and the data-address map.
#include <tinyxml.h>

#include <new>

#include "kes_energy.h"
#include "kes_energy_configure.h"
#include "kes_energy_davis_meteo.h"
#include "kes_energy_line.h"
#include "kes_enerysystem.h"

namespace kes {
namespace Energy {

namespace {

// The event codes routed to on_event, in the order they are registered; no
// listener for Ambient, which is never raised.
const int ROUTED_CODES[] = {1, 2, 10, 6, 11, 7, 3, 5, 8, 9, 65534, 65535};

kesString attribute(const TiXmlElement* element, const char* name)
{
    return kesString(element->Attribute(name));
}

// Registers one value as its device type asks: an alarm status is an integer,
// all other values are doubles, Ambient and unknown types nothing.
kesEError register_value(kesEnergyHistorySystem& history, int type, unsigned int iid, unsigned char fid)
{
    if (type < static_cast<int>(kesEnergyDevicePanel) || type > static_cast<int>(kesEnergyDeviceStringThree) ||
        type == static_cast<int>(kesEnergyDeviceAmbient))
        return kesErrorOk;
    const kesEEnergyDeviceType deviceType = static_cast<kesEEnergyDeviceType>(type);
    if (deviceType == kesEnergyDeviceAlarm && fid == 3)
        return history.RegisterParameterInteger(iid, deviceType, fid);
    return history.RegisterParameterDouble(iid, deviceType, fid);
}

} // namespace

bool kesEnergyIsUtf8File(const kesString& path, kesString* o_where)
{
    FILE* file = fopen(path.c_str(), "rb");
    if (!file)
        return true; // TinyXML reports a file it can not open
    unsigned char buffer[4096];
    unsigned int expected = 0; // continuation bytes still due
    unsigned long offset = 0;
    bool valid = true;
    size_t got;
    while (valid && (got = fread(buffer, 1, sizeof(buffer), file)) > 0) {
        for (size_t i = 0; i < got; ++i, ++offset) {
            unsigned char c = buffer[i];
            if (expected > 0) {
                if ((c & 0xC0) != 0x80) {
                    valid = false;
                    break;
                }
                --expected;
            } else if (c >= 0xC2 && c <= 0xDF) {
                expected = 1;
            } else if (c >= 0xE0 && c <= 0xEF) {
                expected = 2;
            } else if (c >= 0xF0 && c <= 0xF4) {
                expected = 3;
            } else if (c >= 0x80) {
                valid = false;
                break;
            }
        }
    }
    fclose(file);
    if (valid && expected > 0)
        valid = false;
    if (!valid && o_where)
        o_where->SetFormat(64, " at byte %lu", offset);
    return valid;
}

kesEError kesEnergy::Configure(const kesString& path)
{
    m_sConfigurationPath = path;
    return configure_system();
}

kesEError kesEnergy::configure_system()
{
    kesString where;
    if (!kesEnergyIsUtf8File(m_sConfigurationPath, &where))
        return KES_LOG(kesErrorFailed, kesString("Configuration file is not valid UTF-8") + where + " in file: " +
                                           m_sConfigurationPath);
    TiXmlBase::SetCondenseWhiteSpace(true);
    TiXmlDocument document(m_sConfigurationPath.c_str());
    if (!document.LoadFile() && document.Error()) {
        kesString message(document.ErrorDesc());
        message.AddFormat(128, " (row %i, column %i) in file: ", document.ErrorRow(), document.ErrorCol());
        message += m_sConfigurationPath;
        return KES_LOG(kesErrorFailed, message);
    }
    TiXmlNode* root = document.FirstChild("energy");
    const TiXmlElement* energy = root ? root->ToElement() : nullptr;
    if (!energy)
        return KES_LOG(kesErrorFailed, kesString("Main energy node not found in file:") + m_sConfigurationPath);
    kesString version = attribute(energy, "v");
    (void)version; // the file's own version text changes nothing

    for (const TiXmlNode* node = energy->FirstChild(); node; node = node->NextSibling()) {
        const TiXmlElement* element = node->ToElement();
        if (!element)
            continue;
        kesString name(element->Value());
        if (name.IsEqualNoCase("line")) {
            kesEError result = configure_line(element);
            if (result != kesErrorOk)
                return result;
        } else if (name.IsEqualNoCase("davis")) {
            // The last davis element wins.
            delete m_pDavisMeteo;
            m_pDavisMeteo = new (std::nothrow) kesEnergyDavisMeteo();
            if (!m_pDavisMeteo)
                return KES_LOG(kesErrorOutOfMemory, "m_pDavisMeteo == 0");
            m_pDavisMeteo->SetAddress(attribute(element, "adr"), 0);
        }
    }
    return kesErrorOk;
}

kesEError kesEnergy::configure_line(const TiXmlElement* element)
{
    const unsigned short id = static_cast<unsigned short>(kesString::AsULong(attribute(element, "id"), 10));
    kesEnergyLine* line = new (std::nothrow) kesEnergyLine(id);
    if (!line)
        return KES_LOG(kesErrorOutOfMemory, kesString("Can not create line ") + kesString::FromInt(id));
    line->SetAddress(attribute(element, "adr"), 0);

    for (const TiXmlNode* node = element->FirstChild(); node; node = node->NextSibling()) {
        const TiXmlElement* value = node->ToElement();
        if (!value) {
            // Comments are the file's own notes; stray text is worth a word.
            if (node->ToText())
                KES_LOG(kesErrorWarning, kesString("Text inside line ") + kesString::FromInt(id) + " ignored: " +
                                             kesString(node->Value()));
            continue;
        }
        const int type = kesString::AsInt(attribute(value, "type"), 10);
        const unsigned int mid = kesString::AsULong(attribute(value, "mid"), 10);
        const unsigned int iid = kesString::AsULong(attribute(value, "iid"), 10);
        const unsigned char fid = static_cast<unsigned char>(kesString::AsULong(attribute(value, "fid"), 10));
        const unsigned short address = static_cast<unsigned short>(mid * 100u);

        if (iid != 0 && address != 0) {
            DataAddress* record = new (std::nothrow) DataAddress;
            if (!record) {
                delete line;
                return KES_LOG(kesErrorOutOfMemory, "Can not create DataAddress");
            }
            record->fid = fid;
            record->key = (static_cast<unsigned int>(address) << 16) | id;
            record->iid = iid;
            record->next = nullptr;
            if (!add_to_dataaddress_map(record)) {
                KES_LOG(kesErrorFailed, "kesEnergy::DataAddress already exist with same setting, skip...");
                delete record;
            }
        }
        if (register_value(m_History, type, iid, fid) != kesErrorOk) {
            // Lines built so far stay in the list; this one was never handed over.
            delete line;
            return KES_LOG(kesErrorFailed, kesString("Can not register parameter ") + kesString::FromULong(iid));
        }
        line->AddDevice(type, address);
    }

    if (line->GetDeviceCount() == 0) {
        delete line;
        return kesErrorOk;
    }
    for (int code : ROUTED_CODES)
        line->AddListener(code, on_event);
    add_to_line_list(line);
    return kesErrorOk;
}

bool kesEnergy::add_to_dataaddress_map(DataAddress* record)
{
    kesSOsMutex lock(&m_mMutex);
    DataAddress* first = m_mDataAddress.GetKeyValue(record->key);
    if (!first) {
        m_mDataAddress[record->key] = record;
        return true;
    }
    DataAddress* last = first;
    for (DataAddress* item = first; item; item = item->next) {
        if (item->iid == record->iid || item->fid == record->fid)
            return false;
        last = item;
    }
    last->next = record;
    return true;
}

void kesEnergy::clear_dataaddress_map()
{
    kesArray<DataAddress*> records;
    {
        kesSOsMutex lock(&m_mMutex);
        for (kesMap<unsigned int, DataAddress*>::iterator it = m_mDataAddress.begin(); it != m_mDataAddress.end();
             ++it)
            for (DataAddress* item = it->second; item; item = item->next)
                records.AddBack(item);
        m_mDataAddress.clear();
    }
    for (size_t i = 0; i < records.size(); ++i)
        delete records[i];
}

} // namespace Energy
} // namespace kes
