#include "kes_energy_history.h"

#include <cctype>
#include <cstdio>
#include <ctime>
#include <dirent.h>
#include <new>
#include <sys/time.h>

#include "kes_energy_device_types.h"
#include "kes_energy_history_file.h"
#include "kes_energy_history_text.h"
#include "kes_osfile.h"
#include "kes_osutility.h"

namespace kes {
namespace Energy {

namespace {
kesString words(const char* first, const kesString& second, const char* third = "")
{
    kesString text(first);
    text.append(second);
    text.append(third);
    return text;
}

const unsigned int MAX_MINUTES = 60;
const char* const OFFSET_ENERGY_DAY = "offset_energy_day";
const char* const OFFSET_PULSE = "offset_pulse";

// Which file rows a parameter gets; an integer reaches no file.
EHistoryClass file_class(kesEEnergyDeviceType type, unsigned char fid)
{
    const EHistoryClass storedAs = HistoryClassOf(type, fid);
    return storedAs == HistoryInteger ? HistoryNone : storedAs;
}

kesString day_name(const kesTime::kesDateTime& date)
{
    kesString name;
    name.SetFormat(64, "%.4i_%.2i_%.2i", date.year, date.month, date.day);
    return name;
}

kesString month_name(const kesTime::kesDateTime& date)
{
    kesString name;
    name.SetFormat(64, "%.4i_%.2i", date.year, date.month);
    return name;
}

kesString year_name(const kesTime::kesDateTime& date)
{
    kesString name;
    name.SetFormat(64, "%.4i", date.year);
    return name;
}

// The names of the files this store replaces: live, offset and dated ones.
bool is_history_name(const kesString& name)
{
    for (const char* fixed : {"d", "m", "y", "b", OFFSET_ENERGY_DAY, OFFSET_PULSE})
        if (name == fixed)
            return true;
    if (name.size() != 4 && name.size() != 7 && name.size() != 10)
        return false;
    for (size_t i = 0; i < name.size(); ++i)
        if (i == 4 || i == 7 ? name[i] != '_' : !std::isdigit(static_cast<unsigned char>(name[i])))
            return false;
    return true;
}

unsigned int next_divisor_of_hour(unsigned int minutes)
{
    // 0 stands for no interval at all: the default hour, as at the command line.
    if (minutes > MAX_MINUTES || minutes == 0)
        return MAX_MINUTES;
    unsigned int n = minutes;
    while (MAX_MINUTES % n != 0)
        ++n;
    return n;
}
} // namespace

// The day, month, year and begin files differ only in these constants.
struct kesEnergyHistoryLevel {
    const char* fileName;
    const char* updateWords;
    const char* nullWords;
    const char* renameWords; // null: the file never rolls over
    const char* headerLetter;
    int (*headerNumber)(const kesTime::kesDateTime& now);
    bool (*rollover)(const kesTime::kesDateTime& now);
    kesString (*datedName)(const kesTime::kesDateTime& lastDate); // null: no dated copy
    kesEnergyHistoryRules rules;                                  // unused by the day, which merges its rows
    const char* functionName;
};

// Where the file of a level stands this tick.
struct kesEnergyHistoryPlace {
    kesString path;
    kesString dated; // empty: the level keeps no dated copy
    bool wanted;     // the tick is at the level's boundary
    bool exists;
    bool rollover;
};

// The rows of one tick, by the way their parameters are stored.
struct kesEnergyHistoryRows {
    kesArray<kesString> energyUids, energyRows, valueUids, valueRows, pulseUids, pulseRows;
};

namespace {
bool day_rollover(const kesTime::kesDateTime& now)
{
    return now.hour == 0 && now.minute == 0;
}

bool month_rollover(const kesTime::kesDateTime& now)
{
    return now.day == 1 && day_rollover(now);
}

bool year_rollover(const kesTime::kesDateTime& now)
{
    return now.month == 1 && month_rollover(now);
}

const kesEnergyHistoryLevel DAY_LEVEL = {"d",
                                         "Can not update day file ",
                                         "io_strSourceDay == 0",
                                         "Can not rename day to ",
                                         "H|",
                                         [](const kesTime::kesDateTime& now) { return now.hour; },
                                         day_rollover,
                                         day_name,
                                         {},
                                         "update_day_file"};

const kesEnergyHistoryLevel MONTH_LEVEL = {"m",
                                           "Can not update month file ",
                                           "io_strSourceMonth == 0",
                                           "Can not rename month to ",
                                           "D|",
                                           [](const kesTime::kesDateTime& now) { return now.day; },
                                           month_rollover,
                                           month_name,
                                           {kesEnergyHistoryEnergyLastTotal, 1, kesEnergyHistoryPulseLastPiece},
                                           "update_month_file"};

const kesEnergyHistoryLevel YEAR_LEVEL = {"y",
                                          "Can not update year file ",
                                          "io_strSourceYear == 0",
                                          "Can not rename year to ",
                                          "M|",
                                          [](const kesTime::kesDateTime& now) { return now.month; },
                                          year_rollover,
                                          year_name,
                                          {kesEnergyHistoryEnergySum, 3, kesEnergyHistoryPulseWholeRest},
                                          "update_year_file"};

const kesEnergyHistoryLevel BEGIN_LEVEL = {"b",
                                           "Can not update year file ",
                                           "io_strSourceYear == 0",
                                           0,
                                           "Y|",
                                           [](const kesTime::kesDateTime& now) { return now.year; },
                                           0,
                                           0,
                                           {kesEnergyHistoryEnergySum, 2, kesEnergyHistoryPulseWholeRest},
                                           "update_begin_file"};

kesString level_header(const kesEnergyHistoryLevel& level, const kesTime::kesDateTime& now)
{
    kesString header(level.headerLetter);
    header.append(kesString::FromInt(level.headerNumber(now)));
    header.push_back('\n');
    return header;
}

// Writes the file of a level and, but at a rollover, its dated copy.
kesEError write_level_file(const kesEnergyHistoryPlace& place, const kesString& text)
{
    kesEError written =
        kesEnergyHistoryReplaceFile(place.path, text, !place.exists, place.rollover ? place.dated : kesString());
    // The new period's date is not in last date yet; its copy begins at the next tick.
    if (written != kesErrorOk || place.rollover || place.dated.empty())
        return written;
    // A rollover tick that found no file must not overwrite the old period's copy.
    if (place.wanted && kesOsUtility::PathExist(place.dated.c_str()))
        return kesErrorOk;
    return kesEnergyHistoryReplaceFile(place.dated, text, false);
}
} // namespace

kesEnergyHistorySystem::kesEnergyHistorySystem() : m_uiFlags(0), m_uiMinutes(MAX_MINUTES)
{
    get_date(&m_lastDate);
    Init(MAX_MINUTES);
}

kesEnergyHistorySystem::~kesEnergyHistorySystem()
{
    Stop();
    // The timer's thread must be gone before the members it reaches.
    kesTimer::Stop();
    clear_history_map();
}

unsigned long long kesEnergyHistorySystem::get_clock_ms() const
{
    struct timeval now;
    gettimeofday(&now, 0);
    return static_cast<unsigned long long>(now.tv_sec) * 1000ull +
           static_cast<unsigned long long>(now.tv_usec) / 1000ull;
}

unsigned int kesEnergyHistorySystem::get_time() const
{
    return static_cast<unsigned int>(get_clock_ms());
}

void kesEnergyHistorySystem::get_date(kesTime::kesDateTime* o_date) const
{
    const time_t now = static_cast<time_t>(get_clock_ms() / 1000ull);
    struct tm local;
    localtime_r(&now, &local);
    o_date->year = local.tm_year + 1900;
    o_date->day_of_year = local.tm_yday + 1;
    o_date->month = local.tm_mon + 1;
    o_date->day = local.tm_mday;
    o_date->day_of_week = local.tm_wday + 1;
    o_date->hour = local.tm_hour;
    o_date->minute = local.tm_min;
    o_date->second = local.tm_sec;
}

kesString kesEnergyHistorySystem::get_folder()
{
    kesSOsMutex lock(&m_mutex);
    return m_strFolder;
}

kesEError kesEnergyHistorySystem::Init(const unsigned int& minutes)
{
    if (Stop() != kesErrorOk)
        return KES_LOG(kesErrorFailed, "Can not stop system hystory");

    m_uiMinutes = next_divisor_of_hour(minutes);
    if (m_uiMinutes != minutes) {
        kesString notice("History Time set to ");
        notice.append(kesString::FromULong(m_uiMinutes));
        notice.append(" minutes");
        KES_LOG(kesErrorOk, notice);
    }
    SetCount(0);
    SetExpiredTime(m_uiMinutes * 60000);
    SetResolutionTime(m_uiMinutes * 60000);
    get_date(&m_lastDate);
    return kesErrorOk;
}

void kesEnergyHistorySystem::SetHistoryFolder(const kesString& folder)
{
    kesSOsMutex lock(&m_mutex);
    m_strFolder = folder;
    m_strFolder.SetShrink(kesString(kesOsUtility::Separator), false);
    m_strFolder.append(kesString(kesOsUtility::Separator));
}

kesEError kesEnergyHistorySystem::RegisterParameterDouble(unsigned int uid, const kesEEnergyDeviceType& type,
                                                          unsigned char fid)
{
    {
        kesSOsMutex lock(&m_mutex);
        if (m_uiFlags & STATE_RUNNING)
            return KES_LOG(kesErrorFailed, "You must stop the system before to register a parameter");
    }
    if (m_mapDouble.GetKeyValue(uid))
        return KES_LOG(kesErrorFailed, words("UID already exist ", kesString::FromULong(uid)));

    kesEnegyHistoryDouble* parameter = new (std::nothrow) kesEnegyHistoryDouble(fid, type);
    if (!parameter)
        return KES_LOG(kesErrorOutOfMemory, "Can not create parameter");
    m_mapDouble[uid] = parameter;

    // Energy and pulse devices keep a total for every value, not only those of the files.
    const EHistoryClass totals = TotalsOf(type);
    if (totals == HistoryEnergy)
        m_mapEnergy.emplace(uid, 0.0);
    else if (totals == HistoryPulse && !m_mapPulse.GetKeyValue(uid)) {
        PulseCounterStorage* storage = new (std::nothrow) PulseCounterStorage();
        if (!storage)
            return KES_LOG(kesErrorOutOfMemory, "Can not create pulse storage");
        m_mapPulse[uid] = storage;
    }
    return kesErrorOk;
}

kesEError kesEnergyHistorySystem::RegisterParameterInteger(unsigned int uid, const kesEEnergyDeviceType& type,
                                                           unsigned char fid)
{
    {
        kesSOsMutex lock(&m_mutex);
        if (m_uiFlags & STATE_RUNNING)
            return KES_LOG(kesErrorFailed, "You must stop the system before to register a parameter");
    }
    if (m_mapInteger.GetKeyValue(uid))
        return KES_LOG(kesErrorFailed, words("UID already exist ", kesString::FromULong(uid)));

    kesEnegyHistoryInteger* parameter = new (std::nothrow) kesEnegyHistoryInteger(fid, type);
    if (!parameter)
        return KES_LOG(kesErrorOutOfMemory, "Can not create parameter");
    m_mapInteger[uid] = parameter;
    return kesErrorOk;
}

kesEError kesEnergyHistorySystem::Start()
{
    Stop();

    kesSOsMutex lock(&m_mutex);
    if (m_uiFlags & STATE_RUNNING)
        return kesErrorOk;

    unsigned int msTime = 0;
    compute_time(&msTime);
    kesEnegyHistoryItem::MS_TIME = msTime;
    SetExpiredTime(msTime);
    SetResolutionTime(msTime);
    get_date(&m_lastDate);

    kesEnergyHistoryRemoveTemporaries(m_strFolder, is_history_name);
    const kesEError started = kesTimer::Start(0);
    if (started != kesErrorOk)
        return KES_LOG(kesErrorFailed, "Can not start timer");

    // A first run has no offsets yet: the failure is logged and the start goes on.
    load_offset_file();

    for (auto& entry : m_mapDouble)
        entry.second->Reset();
    for (auto& entry : m_mapInteger)
        entry.second->Reset();

    m_uiFlags |= STATE_RUNNING;
    return kesErrorOk;
}

kesEError kesEnergyHistorySystem::Stop()
{
    {
        kesSOsMutex lock(&m_mutex);
        if (!(m_uiFlags & STATE_RUNNING))
            return kesErrorOk;
        m_uiFlags &= ~static_cast<unsigned int>(STATE_RUNNING);
    }
    // A running tick takes the lock, so its end is awaited outside of it.
    if (kesTimer::Stop() != kesErrorOk) {
        kesSOsMutex lock(&m_mutex);
        m_uiFlags |= STATE_RUNNING;
        return KES_LOG(kesErrorFailed, "Can not stop timer");
    }
    clear_history_map();
    return kesErrorOk;
}

void kesEnergyHistorySystem::clear_history_map()
{
    kesSOsMutex lock(&m_mutex);
    for (auto& entry : m_mapDouble)
        delete entry.second;
    for (auto& entry : m_mapInteger)
        delete entry.second;
    for (auto& entry : m_mapPulse)
        delete entry.second;
    m_mapDouble.clear();
    m_mapInteger.clear();
    m_mapEnergy.clear();
    m_mapPulse.clear();
}

kesEError kesEnergyHistorySystem::compute_time(unsigned int* io_msTime)
{
    if (!io_msTime)
        return KES_LOG(kesErrorInvalidArgument, "io_msTime == 0");

    const time_t now = static_cast<time_t>(get_clock_ms() / 1000ull);
    struct tm local;
    localtime_r(&now, &local);
    time_t t = local.tm_sec != 0 ? now + 60 - local.tm_sec : now;
    // At most an hour of whole minutes lies before the next boundary.
    for (unsigned int step = 0; step < 60; ++step) {
        localtime_r(&t, &local);
        if (local.tm_min % static_cast<int>(m_uiMinutes) == 0)
            break;
        t += 60;
    }
    *io_msTime = static_cast<unsigned int>(t - now) * 1000u;
    if (*io_msTime == 0)
        *io_msTime = m_uiMinutes * 60000;
    return kesErrorOk;
}

void kesEnergyHistorySystem::SetValueAsDouble(unsigned int uid, const double& value)
{
    kesSOsMutex lock(&m_mutex);
    if (!(m_uiFlags & STATE_RUNNING))
        return;
    kesEnegyHistoryDouble* parameter = m_mapDouble.GetKeyValue(uid);
    if (parameter)
        parameter->Add(value, get_time());
}

void kesEnergyHistorySystem::SetValueAsInt(unsigned int uid, const int& value)
{
    kesSOsMutex lock(&m_mutex);
    if (!(m_uiFlags & STATE_RUNNING))
        return;
    kesEnegyHistoryInteger* parameter = m_mapInteger.GetKeyValue(uid);
    if (parameter)
        parameter->Set(value);
}

void kesEnergyHistorySystem::OnTimer()
{
    kesEnergyHistoryRows rows;
    collect_rows(&rows);
    schedule_next_tick();

    kesTime::kesDateTime now;
    get_date(&now);
    if (update_files(rows, now) != kesErrorOk)
        return;
    save_offset_file();

    kesTime::kesDateTime lastDate;
    get_date(&lastDate);
    kesSOsMutex lock(&m_mutex);
    m_lastDate = lastDate;
}

void kesEnergyHistorySystem::collect_rows(kesEnergyHistoryRows* o_rows)
{
    const kesString noData = kesString(kesEnegyHistoryItem::EMPTY_CHAR);

    // The maps do not change while the system runs; the lock is held per parameter only.
    for (auto& entry : m_mapDouble) {
        kesEnegyHistoryFigures figures;
        {
            kesSOsMutex lock(&m_mutex);
            figures = entry.second->Close(get_time(), kesEnegyHistoryItem::MS_TIME);
        }
        const EHistoryClass storedAs = file_class(entry.second->m_eType, entry.second->m_ucFid);
        if (storedAs == HistoryNone)
            continue;

        const kesString uid = kesString::FromULong(entry.first);
        kesString row(uid);
        if (storedAs == HistoryValue || storedAs == HistoryEnergy) {
            for (double figure : {figures.average, figures.minimum, figures.maximum}) {
                row.push_back('|');
                row.append(figures.noData ? noData : kesString::FromDouble(figure, 1));
            }
        }
        kesArray<kesString>* uids = &o_rows->valueUids;
        kesArray<kesString>* texts = &o_rows->valueRows;
        if (storedAs != HistoryValue) {
            const bool energy = storedAs == HistoryEnergy;
            const double total = energy ? add_energy(entry.first, figures) : add_pulse(entry.first, figures);
            row.push_back('|');
            row.append(kesString::FromDouble(total, 1));
            uids = energy ? &o_rows->energyUids : &o_rows->pulseUids;
            texts = energy ? &o_rows->energyRows : &o_rows->pulseRows;
        }
        uids->AddBack(uid);
        texts->AddBack(row);
    }
}

// The energy of the interval, added to the day's total; without data the total itself.
double kesEnergyHistorySystem::add_energy(unsigned int uid, const kesEnegyHistoryFigures& figures)
{
    kesSOsMutex lock(&m_mutex);
    if (figures.noData)
        return m_mapEnergy[uid];
    // Always the configured N, also for the shorter first interval.
    const double last = m_uiMinutes / 60.0 * figures.average;
    m_mapEnergy[uid] += last;
    return last;
}

// The counter's total in kWh, after the last power of the interval.
double kesEnergyHistorySystem::add_pulse(unsigned int uid, const kesEnegyHistoryFigures& figures)
{
    kesSOsMutex lock(&m_mutex);
    PulseCounterStorage* storage = m_mapPulse.GetKeyValue(uid);
    if (!storage)
        return 0.0;
    if (!figures.noData)
        storage->SetPower(figures.last);
    return storage->m_dTotal / 1000.0;
}

// Measured from the start of this tick, so the next one lands on the boundary.
void kesEnergyHistorySystem::schedule_next_tick()
{
    unsigned int msTime = 0;
    compute_time(&msTime);
    {
        kesSOsMutex lock(&m_mutex);
        kesEnegyHistoryItem::MS_TIME = msTime;
    }
    SetExpiredTime(msTime);
    SetResolutionTime(msTime);
}

// Each level is built from the text of the one below it.
kesEError kesEnergyHistorySystem::update_files(const kesEnergyHistoryRows& rows, const kesTime::kesDateTime& now)
{
    const kesString folder = get_folder();
    kesString below;
    for (const kesEnergyHistoryLevel* level : {&DAY_LEVEL, &MONTH_LEVEL, &YEAR_LEVEL, &BEGIN_LEVEL}) {
        kesString text;
        const kesEError updated = level == &DAY_LEVEL ? update_day_file(rows, now, &text)
                                                      : update_level_file(*level, rows, now, below, &text);
        if (updated != kesErrorOk)
            return KES_LOG_IN(kesErrorFailed, words(level->updateWords, folder, level->fileName), "OnTimer");
        below = text;
    }
    return kesErrorOk;
}

kesString kesEnergyHistorySystem::make_energy_row_final(const kesString& row)
{
    kesString final(row.substr(0, row.rfind('|') + 1));
    const unsigned int uid = kesString::AsULong(kesString(row.substr(0, row.find('|'))), 10);
    kesSOsMutex lock(&m_mutex);
    final.append(kesString::FromDouble(m_mapEnergy[uid], 1));
    return final;
}

bool kesEnergyHistorySystem::get_pulse_total(unsigned int uid, double* o_total)
{
    kesSOsMutex lock(&m_mutex);
    PulseCounterStorage* storage = m_mapPulse.GetKeyValue(uid);
    if (!storage)
        return false;
    *o_total = storage->m_dTotal;
    return true;
}

kesEError kesEnergyHistorySystem::open_level_file(const kesEnergyHistoryLevel& level, const kesTime::kesDateTime& now,
                                                  kesEnergyHistoryPlace* o_place, kesString* io_strText)
{
    if (!io_strText)
        return KES_LOG_IN(kesErrorInvalidArgument, level.nullWords, level.functionName);

    kesString folder;
    kesTime::kesDateTime lastDate;
    {
        kesSOsMutex lock(&m_mutex);
        folder = m_strFolder;
        lastDate = m_lastDate;
    }
    o_place->path = words("", folder, level.fileName);
    o_place->dated = level.datedName ? words("", folder, level.datedName(lastDate).c_str()) : kesString();
    o_place->wanted = level.rollover && level.rollover(now);
    // Whatever stands there is read, so that anything but a regular file is
    // refused aloud rather than replaced.
    o_place->exists = kesOsUtility::PathExist(o_place->path.c_str());
    // Without a file there is nothing to roll over: the tick is an ordinary one.
    o_place->rollover = o_place->wanted && o_place->exists;

    io_strText->Clear();
    if (o_place->rollover) {
        if (kesEnergyHistoryRollFile(o_place->path, o_place->dated) != kesErrorOk)
            return KES_LOG_IN(kesErrorFailed, words(level.renameWords, o_place->dated), level.functionName);
    } else if (o_place->exists && kesEnergyHistoryReadFile(o_place->path, io_strText) != kesErrorOk)
        return kesErrorFailed;
    return kesErrorOk;
}

kesEError kesEnergyHistorySystem::update_day_file(const kesEnergyHistoryRows& rows, const kesTime::kesDateTime& now,
                                                  kesString* io_strSourceDay)
{
    kesEnergyHistoryPlace place;
    const kesEError opened = open_level_file(DAY_LEVEL, now, &place, io_strSourceDay);
    if (opened != kesErrorOk)
        return opened;

    if (place.rollover)
        for (const kesString& uid : rows.energyUids) {
            kesSOsMutex lock(&m_mutex);
            m_mapEnergy[kesString::AsULong(uid, 10)] = 0.0;
        }

    kesArray<kesString> dayRows;
    for (const kesString& row : rows.energyRows)
        dayRows.AddBack(make_energy_row_final(row));
    for (const kesString& row : rows.valueRows)
        dayRows.AddBack(row);
    for (const kesString& row : rows.pulseRows)
        dayRows.AddBack(row);
    kesEnergyHistoryMergeDay(io_strSourceDay, level_header(DAY_LEVEL, now), dayRows);
    return write_level_file(place, *io_strSourceDay);
}

kesEError kesEnergyHistorySystem::update_level_file(const kesEnergyHistoryLevel& level,
                                                    const kesEnergyHistoryRows& rows, const kesTime::kesDateTime& now,
                                                    const kesString& source, kesString* io_strText)
{
    kesEnergyHistoryPlace place;
    const kesEError opened = open_level_file(level, now, &place, io_strText);
    if (opened != kesErrorOk)
        return opened;

    // The block of this period is rebuilt whole: what stood behind its header goes.
    const kesString header = level_header(level, now);
    const size_t at = io_strText->find(header);
    if (at != std::string::npos)
        io_strText->erase(at + header.size());
    else
        io_strText->append(header);

    const kesEnergyHistoryRowIndex index(source);
    kesEnergyHistoryAppendRows(io_strText, index, level.rules, rows.energyUids, rows.valueUids, rows.pulseUids,
                               [this](unsigned int uid, double* o_total) { return get_pulse_total(uid, o_total); });
    return write_level_file(place, *io_strText);
}

kesEError kesEnergyHistorySystem::save_offset_file()
{
    kesString folder;
    kesString energy;
    kesString pulse;
    kesTime::kesDateTime today;
    get_date(&today);
    {
        // The texts are taken under the lock; the disk work needs no lock, since
        // only this thread writes these files.
        kesSOsMutex lock(&m_mutex);
        folder = m_strFolder;
        char line[512];
        std::snprintf(line, sizeof(line), "%i\n", today.day);
        energy.append(line);
        for (const auto& entry : m_mapEnergy) {
            std::snprintf(line, sizeof(line), "%u|%.2f\n", entry.first, entry.second);
            energy.append(line);
        }
        for (const auto& entry : m_mapPulse)
            if (entry.second) {
                std::snprintf(line, sizeof(line), "%u|%.2f\n", entry.first, entry.second->m_dTotal);
                pulse.append(line);
            }
    }

    if (kesEnergyHistoryReplaceFile(words("", folder, OFFSET_ENERGY_DAY), energy, false) != kesErrorOk)
        return KES_LOG(kesErrorFailed, words("Can not update offset file ", folder, OFFSET_ENERGY_DAY));
    if (kesEnergyHistoryReplaceFile(words("", folder, OFFSET_PULSE), pulse, false) != kesErrorOk)
        return KES_LOG(kesErrorFailed, words("Can not update offset file ", folder, OFFSET_PULSE));
    return kesErrorOk;
}

kesEError kesEnergyHistorySystem::load_offset_file()
{
    kesSOsMutex lock(&m_mutex);
    kesTime::kesDateTime today;
    get_date(&today);

    kesString text;
    if (kesOsFile::GetFileTextSource(words("", m_strFolder, OFFSET_ENERGY_DAY), &text) != kesErrorOk)
        return KES_LOG(kesErrorFailed, words("Can not read offset file ", m_strFolder, OFFSET_ENERGY_DAY));

    kesArray<kesString> lines;
    text.GetSplit(&lines, "\n");
    // Only the day of the month tells whether the totals are today's.
    if (!lines.empty() && kesString::AsInt(lines[0], 10) == today.day)
        for (size_t i = 1; i < lines.size(); ++i) {
            kesArray<kesString> fields;
            lines[i].GetSplit(&fields, "|");
            if (fields.size() == 1)
                m_mapEnergy[kesString::AsULong(fields[0], 10)] = 0.0;
            else if (fields.size() == 2)
                m_mapEnergy[kesString::AsULong(fields[0], 10)] = kesString::AsDouble(fields[1]);
        }

    if (kesOsFile::GetFileTextSource(words("", m_strFolder, OFFSET_PULSE), &text) != kesErrorOk)
        return KES_LOG(kesErrorFailed, words("Can not read offset file ", m_strFolder, OFFSET_PULSE));

    lines.clear();
    text.GetSplit(&lines, "\n");
    for (const kesString& line : lines) {
        kesArray<kesString> fields;
        line.GetSplit(&fields, "|");
        if (fields.size() != 2)
            continue;
        PulseCounterStorage* storage = m_mapPulse.GetKeyValue(kesString::AsULong(fields[0], 10));
        if (storage)
            storage->m_dBase = kesString::AsDouble(fields[1]);
    }
    return kesErrorOk;
}

kesEError kesEnergyHistorySystem::UpdateAlarmStatusFile(const unsigned int& uid, unsigned char status)
{
    const kesString path = words("", get_folder(), "a");
    kesOsFile file;
    if (file.Open(path, "a") != kesErrorOk)
        return KES_LOG(kesErrorFailed, words("Can not append file ", path));

    kesTime::kesDateTime now;
    get_date(&now);
    kesString line;
    line.SetFormat(256, "%.4i%.2i%.2i%.2i%.2i|%lu|%i\n", now.year, now.month, now.day, now.hour, now.minute,
                   static_cast<unsigned long>(uid), static_cast<int>(status));
    const int written = file.WriteText("%s", line.c_str());
    if (written != static_cast<int>(line.GetLength())) {
        kesString message = words("Can not write all data to file ", path);
        message.AddFormat(128, " request is %u but written are %i", line.GetLength(), written);
        return KES_LOG(kesErrorFailed, message);
    }
    return kesErrorOk;
}

kesEError kesEnergyHistorySystem::build_history_files()
{
    const kesString folder = get_folder();
    DIR* dir = opendir(folder.c_str());
    if (!dir)
        return KES_LOG(kesErrorFailed, words("Can not get folder ", folder));
    bool first = true;
    while (struct dirent* entry = readdir(dir)) {
        if (first)
            std::printf("Name %s\n", entry->d_name);
        else
            std::printf("Name %s Type %s\n", entry->d_name, entry->d_type == DT_DIR ? "Dir" : "File");
        first = false;
    }
    closedir(dir);
    return kesErrorOk;
}

} // namespace Energy
} // namespace kes
