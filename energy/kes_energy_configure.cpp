// Reading the configuration file into lines, the weather client, history
// registrations and the data-address map.
#include <tinyxml.h>

#include <cstdio>
#include <new>
#include <strings.h>

#include "kes_energy.h"
#include "kes_energy_configure.h"
#include "kes_energy_davis_meteo.h"
#include "kes_energy_device_types.h"
#include "kes_energy_line.h"
#include "kes_enerysystem.h"
#include "kes_osfile.h"

namespace kes {
namespace Energy {

namespace {

kesString attribute(const TiXmlElement* element, const char* name)
{
    return kesString(element->Attribute(name));
}

// Registers one value as its device type asks: an alarm status is an integer,
// all other values are doubles, Ambient and unknown types nothing.
kesEError register_value(kesEnergyHistorySystem& history, int type, unsigned int iid, unsigned char fid)
{
    const DeviceType* row = FindDeviceType(type);
    if (!row || row->recordSize == 0)
        return kesErrorOk;
    if (HistoryClassOf(type, fid) == HistoryInteger)
        return history.RegisterParameterInteger(iid, row->type, fid);
    return history.RegisterParameterDouble(iid, row->type, fid);
}

// The readings of each type with a read, in the order of the cycle, then the
// two events of the line.
void add_listeners(kesEnergyLine* line)
{
    for (const DeviceType& row : DEVICE_TYPES)
        if (row.recordSize != 0)
            line->AddListener(static_cast<int>(row.type), kesEnergy::on_event);
    line->AddListener(kesEnergyEventAlarmStatus, kesEnergy::on_event);
    line->AddListener(kesEnergyEventCommunicationError, kesEnergy::on_event);
}

// Whether the text is well-formed UTF-8 (ASCII included). TinyXML, reading
// UTF-8, trusts the length a lead byte announces and reads past the end of a
// cut sequence.
bool is_utf8(const kesString& text, kesString* o_where)
{
    unsigned int expected = 0; // continuation bytes still due
    size_t at = 0;
    for (; at < text.size(); ++at) {
        const unsigned char c = static_cast<unsigned char>(text[at]);
        if (expected > 0) {
            if ((c & 0xC0) != 0x80)
                break;
            --expected;
        } else if (c >= 0xC2 && c <= 0xDF) {
            expected = 1;
        } else if (c >= 0xE0 && c <= 0xEF) {
            expected = 2;
        } else if (c >= 0xF0 && c <= 0xF4) {
            expected = 3;
        } else if (c >= 0x80) {
            break;
        }
    }
    if (at == text.size() && expected == 0)
        return true;
    o_where->SetFormat(64, " at byte %zu", at);
    return false;
}

// Whether TinyXML reads the text as UTF-8: after a byte order mark, or once
// the first declaration it meets names UTF-8 or no encoding. Before that
// declaration it reads byte by byte, as with any other encoding, so a parse
// byte by byte finds the same declaration.
bool read_as_utf8(const kesString& text)
{
    if (text.compare(0, 3, "\xEF\xBB\xBF") == 0)
        return true;
    TiXmlDocument probe;
    probe.Parse(text.c_str(), nullptr, TIXML_ENCODING_LEGACY);
    for (const TiXmlNode* node = probe.FirstChild(); node; node = node->NextSibling()) {
        if (const TiXmlDeclaration* declaration = node->ToDeclaration()) {
            // TinyXML compares only the start, without regard to case.
            const char* encoding = declaration->Encoding();
            return !*encoding || strncasecmp(encoding, "UTF-8", 5) == 0 || strncasecmp(encoding, "UTF8", 4) == 0;
        }
    }
    return false;
}

} // namespace

bool kesEnergyIsSafeXmlText(const kesString& text, kesString* o_where)
{
    kesString where;
    if (!read_as_utf8(text) || is_utf8(text, &where))
        return true;
    if (o_where)
        *o_where = where;
    return false;
}

bool kesEnergyIsUtf8File(const kesString& path, kesString* o_where)
{
    kesOsFile file;
    kesString text;
    // a file that can not be read is reported by whoever loads it next
    if (file.Open(path, "rb") != kesErrorOk || file.ReadAll(&text) != kesErrorOk)
        return true;
    return kesEnergyIsSafeXmlText(text, o_where);
}

kesEError kesEnergy::Configure(const kesString& path)
{
    m_sConfigurationPath = path;
    return configure_system();
}

kesEError kesEnergy::configure_system()
{
    // Opened once, as a regular file only: the check and the parser read the same file.
    kesOsFile file;
    kesString text;
    if (file.Open(m_sConfigurationPath, "rb") != kesErrorOk || file.ReadAll(&text) != kesErrorOk)
        return KES_LOG(kesErrorFailed, kesString("Can not read configuration file: ") + m_sConfigurationPath);
    kesString where;
    if (!kesEnergyIsSafeXmlText(text, &where))
        return KES_LOG(kesErrorFailed, kesString("Configuration file is not valid UTF-8") + where +
                                           " in file: " + m_sConfigurationPath +
                                           "\nA file in another encoding names it in its declaration, as in "
                                           "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?>");
    TiXmlBase::SetCondenseWhiteSpace(true);
    TiXmlDocument document(m_sConfigurationPath.c_str());
    rewind(file.GetHandle());
    if (!document.LoadFile(file.GetHandle()) && document.Error()) {
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
                KES_LOG(kesErrorWarning, kesString("Text inside line ") + kesString::FromInt(id) +
                                             " ignored: " + kesString(node->Value()));
            continue;
        }
        const int type = kesString::AsInt(attribute(value, "type"), 10);
        const unsigned int mid = kesString::AsULong(attribute(value, "mid"), 10);
        const unsigned int iid = kesString::AsULong(attribute(value, "iid"), 10);
        const unsigned char fid = static_cast<unsigned char>(kesString::AsULong(attribute(value, "fid"), 10));
        const unsigned short address = static_cast<unsigned short>(mid * 100u);
        const unsigned int key = (static_cast<unsigned int>(address) << 16) | id;
        const kesEnergyLine* owner = m_mKeyLine.GetKeyValue(key);
        if (owner && owner != line) {
            KES_LOG(kesErrorFailed, kesString("Module ") + kesString::FromULong(mid) +
                                        " is already on another line of id " + kesString::FromInt(id) + ", value " +
                                        kesString::FromULong(iid) + " skipped");
            continue;
        }

        if (iid != 0 && address != 0) {
            DataAddress* record = new (std::nothrow) DataAddress;
            if (!record) {
                delete line;
                return KES_LOG(kesErrorOutOfMemory, "Can not create DataAddress");
            }
            record->fid = fid;
            record->key = key;
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
        if (line->AddDevice(type, address) == kesErrorOk)
            m_mKeyLine[key] = line;
    }

    if (line->GetDeviceCount() == 0) {
        delete line;
        return kesErrorOk;
    }
    add_listeners(line);
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
        for (kesMap<unsigned int, DataAddress*>::iterator it = m_mDataAddress.begin(); it != m_mDataAddress.end(); ++it)
            for (DataAddress* item = it->second; item; item = item->next)
                records.AddBack(item);
        m_mDataAddress.clear();
    }
    for (size_t i = 0; i < records.size(); ++i)
        delete records[i];
}

} // namespace Energy
} // namespace kes
