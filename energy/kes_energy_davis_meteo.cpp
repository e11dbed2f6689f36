#include "kes_energy_davis_meteo.h"

#include "kes_osfile.h"
#include "kes_osutility.h"
#include "kes_time.h"

#include <new>

namespace kes {
namespace Energy {

namespace {

const char* const CURRENT_FILE = "meteo_c";
const char* const LOG_FILE = "meteo";

// A record of the station is exactly this many fields; anything else is lost.
const unsigned int RECORD_FIELD_COUNT = 13;

// The columns of both weather files, in file order, with the field of the
// record each one is copied from.
struct kesDavisColumn {
    const char* name;
    unsigned int field;
};

const kesDavisColumn DAVIS_COLUMNS[] = {
    {"wind_direction", 2},   {"wind_speed", 3},          {"outside_temperature", 4},
    {"outside_humidity", 5}, {"uv_radiation", 6},        {"solar_radiation", 7},
    {"last_minute_rain", 8}, {"inside_temperature", 11}, {"pressure", 12},
};

} // namespace

kesEnergyDavisMeteo::kesEnergyDavisMeteo(unsigned int i_uBytePause)
    : m_uFlags(0), m_pThread(nullptr), m_usPort(0), m_uBytePause(i_uBytePause)
{
}

kesEnergyDavisMeteo::~kesEnergyDavisMeteo()
{
    // The thread holds a pointer to this object: it must be gone first.
    term_threads();
}

void kesEnergyDavisMeteo::SetAddress(const kesString& i_address, unsigned short i_port)
{
    kesSOsMutex lock(&m_oMutex);
    if (m_uFlags & FLAG_RUNNING) {
        KES_LOG(kesErrorFailed, "You must stop the line before to reset the address");
        return;
    }
    m_sAddress = i_address;
    m_usPort = i_port;
}

void kesEnergyDavisMeteo::SetHistoryFolder(const kesString& i_folder)
{
    kesSOsMutex lock(&m_oMutex);
    kesString separator(kesOsUtility::Separator);
    m_sHistoryFolder = i_folder;
    m_sHistoryFolder.SetShrink(separator, false);
    m_sHistoryFolder.append(separator);
}

kesEError kesEnergyDavisMeteo::Start()
{
    // A second Start must not reopen the socket under a reading thread.
    term_threads();

    kesString address;
    unsigned short port;
    {
        kesSOsMutex lock(&m_oMutex);
        address = m_sAddress;
        port = m_usPort;
    }

    if (m_oSocket.Open(address, port) != kesErrorOk)
        return KES_LOG(kesErrorFailed, "Can not open socket for davis meteo");
    if (!m_oSocket.SetReceiveTimeOut(RECEIVE_TIMEOUT_MS))
        return KES_LOG(kesErrorFailed, "Can not set receive timeout");
    if (start_threads() != kesErrorOk)
        return KES_LOG(kesErrorFailed, "Can not start all davis threads");
    return kesErrorOk;
}

kesEError kesEnergyDavisMeteo::Stop()
{
    term_threads();
    return kesErrorOk;
}

kesEError kesEnergyDavisMeteo::start_threads()
{
    term_threads();

    m_pThread = kesOsThread::Launch(thread_proc, this, THREAD_STACK_SIZE, __func__);
    if (!m_pThread)
        return kesErrorFailed;

    kesSOsMutex lock(&m_oMutex);
    m_uFlags |= FLAG_RUNNING;
    return kesErrorOk;
}

void kesEnergyDavisMeteo::term_threads()
{
    {
        kesSOsMutex lock(&m_oMutex);
        m_uFlags |= FLAG_STOP_REQUESTED;
    }
    if (m_pThread != nullptr) {
        m_pThread->Stop();
        delete m_pThread;
        m_pThread = nullptr;
    }
    kesSOsMutex lock(&m_oMutex);
    m_uFlags &= ~(FLAG_RUNNING | FLAG_STOP_REQUESTED);
}

bool kesEnergyDavisMeteo::is_exit()
{
    kesSOsMutex lock(&m_oMutex);
    return (m_uFlags & FLAG_STOP_REQUESTED) != 0;
}

void kesEnergyDavisMeteo::thread_proc(kesOsThread* i_pThread, void* i_pClient)
{
    kesEnergyDavisMeteo* client = static_cast<kesEnergyDavisMeteo*>(i_pClient);
    kesString record;
    bool inRecord = false;

    // A lost connection is not reopened: Receive fails on every pass and the
    // loop idles on its pause until the owner stops it.
    do {
        char byte = 0;
        if (client->m_oSocket.Receive(&byte, 1, nullptr) != 1)
            continue;
        if (byte == '<') {
            inRecord = true;
        } else if (byte == '>') {
            record.FindAndReplaceAll(",", "|", false);
            client->OnData(record);
            record.clear();
            inRecord = false;
        } else if (inRecord) {
            // A station record is about a hundred bytes: a "<" never closed must
            // not grow the buffer for the rest of the daemon's life.
            if (record.size() >= MAX_RECORD_SIZE) {
                KES_LOG(kesErrorWarning, "Weather record without end dropped");
                record.clear();
                inRecord = false;
            } else {
                record.push_back(byte);
            }
        }
        // No pause means none: WaitContinue(0) would wait for the stop itself.
    } while (client->m_uBytePause == 0 ? !client->is_exit() : i_pThread->WaitContinue(client->m_uBytePause));
}

void kesEnergyDavisMeteo::OnData(const kesString& i_data)
{
    kesTime::kesDateTime now;
    kesTime::GetDateTime(&now);

    kesArray<kesString> fields;
    i_data.GetSplit(&fields, "|");

    kesString folder;
    {
        // SetHistoryFolder may come from another thread at any time.
        kesSOsMutex lock(&m_oMutex);
        folder = m_sHistoryFolder;
    }

    // "meteo_c" is emptied before the record is looked at, so a bad record
    // leaves no stale weather behind.
    kesString currentPath = folder + CURRENT_FILE;
    kesOsFile current(currentPath, "w");
    if (!current.IsValid()) {
        KES_LOG(kesErrorStd, kesString("Can not open file ") + currentPath);
        return;
    }
    kesString logPath = folder + LOG_FILE;
    kesOsFile log(logPath, "a");
    if (!log.IsValid()) {
        KES_LOG(kesErrorStd, kesString("Can not open file ") + logPath);
        return;
    }
    if (fields.size() != RECORD_FIELD_COUNT)
        return;

    kesString stamp;
    stamp.SetFormat(16, "%.4i%.2i%.2i%.2i%.2i%.2i", now.year, now.month, now.day, now.hour, now.minute, now.second);

    // The station's texts go out unchanged: no escaping, no trimming.
    kesString json = kesString("{\"timestamp\":\"") + stamp + "\"";
    kesString line = stamp;
    for (const kesDavisColumn& column : DAVIS_COLUMNS) {
        // A field ends at a zero byte, as a "%s" of the files' formats does: a
        // zero byte in the files would break the JSON and make grep call them binary.
        const kesString value(fields[column.field].c_str());
        json.append(",\"").append(column.name).append("\":\"").append(value).append("\"");
        line.append("|").append(value);
    }
    json.append("}");
    line.append("\n");

    current.WriteText("%s", json.c_str());
    log.WriteText("%s", line.c_str());
}

} // namespace Energy
} // namespace kes
