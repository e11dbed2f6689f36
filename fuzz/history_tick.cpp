// One tick of the history store over arbitrary file texts. The first byte
// picks the moment of the tick (an ordinary one, midnight, a new month, a new
// year); the rest holds the texts of "d", "m", "y", "b", "offset_energy_day"
// and "offset_pulse", in that order, cut at each 0xFF byte. A file whose text
// is missing from the input does not exist. The store starts on the offset
// files, takes a few samples and runs its tick: the day merge and the month,
// year and begin updates read and rewrite the texts in a temporary folder.
#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>

#include "kes_error.h"
#include "kes_history_fake.h"

namespace {

using kes::kesEnergyDevicePanel;
using kes::kesEnergyDevicePulseCounter;
using kes::kesEnergyDevicePulseCounterTwo;
using kes::kesEnergyDeviceString;
using kes::kesEnergyDeviceStringTwo;
using kes_test::LocalMs;

const char* const FILES[] = {"d", "m", "y", "b", "offset_energy_day", "offset_pulse"};
const size_t FILE_COUNT = sizeof(FILES) / sizeof(FILES[0]);
const unsigned int MINUTES = 15;

int remove_entry(const char* i_path, const struct stat*, int, struct FTW*)
{
    return remove(i_path);
}

struct Folder {
    Folder()
    {
        // fsync on every file replaced: a folder in memory keeps that cheap.
        char memory[] = "/dev/shm/kes_fuzz_history_XXXXXX";
        char disk[] = "/tmp/kes_fuzz_history_XXXXXX";
        const char* made = mkdtemp(memory);
        if (!made)
            made = mkdtemp(disk);
        if (!made)
            abort();
        path = made;
    }
    ~Folder() { nftw(path.c_str(), remove_entry, 8, FTW_DEPTH | FTW_PHYS); }
    // Empties the folder but keeps it.
    void Clear() const { nftw(path.c_str(), remove_inside, 8, FTW_DEPTH | FTW_PHYS); }
    static int remove_inside(const char* i_path, const struct stat*, int i_flag, struct FTW* i_ftw)
    {
        if (i_ftw->level > 0 || i_flag != FTW_DP)
            return remove(i_path);
        return 0;
    }
    std::string path;
};

bool write_file(const std::string& i_path, const uint8_t* i_data, size_t i_size)
{
    FILE* file = fopen(i_path.c_str(), "wb");
    if (!file)
        return false;
    const bool written = fwrite(i_data, 1, i_size, file) == i_size;
    return fclose(file) == 0 && written;
}

std::string read_file(const std::string& i_path)
{
    std::string text;
    FILE* file = fopen(i_path.c_str(), "rb");
    if (!file)
        return text;
    char buffer[4096];
    size_t got;
    while ((got = fread(buffer, 1, sizeof(buffer), file)) > 0)
        text.append(buffer, got);
    fclose(file);
    return text;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static Folder folder;
    // Dates and hours as the files show them, whatever the machine's zone:
    // from here on local time is UTC.
    static const int utc = (setenv("TZ", "UTC0", 1), tzset(), 0);
    (void)utc;
    // KES_FUZZ_LOG=1 shows the records of one input, to see how far it got.
    static const unsigned int level = getenv("KES_FUZZ_LOG") ? kes::kesErrorOutConsole : 0;
    kes::kesError::Level = level;
    if (size == 0)
        return 0;

    // Ticks at a boundary, one interval after the one before.
    static const unsigned long long MOMENTS[] = {LocalMs(2026, 3, 14, 10, 15), LocalMs(2026, 3, 15, 0, 0),
                                                 LocalMs(2026, 4, 1, 0, 0), LocalMs(2027, 1, 1, 0, 0)};
    const unsigned long long tick = MOMENTS[data[0] % 4];
    const unsigned long long start = tick - MINUTES * 60000ull;
    ++data;
    --size;

    folder.Clear();
    size_t at = 0;
    for (size_t f = 0; f < FILE_COUNT && at <= size; ++f) {
        size_t cut = at;
        while (cut < size && data[cut] != 0xFF)
            ++cut;
        if (!write_file(folder.path + "/" + FILES[f], data + at, cut - at))
            abort();
        at = cut + 1;
    }
    const std::string day = read_file(folder.path + "/d");

    // Its timer thread waits far longer than one input lasts, and would not
    // tick anyway: the harness runs the tick.
    kes_test::FakeClockHistory history;
    history.SetClock(start);
    history.Init(MINUTES);
    history.SetHistoryFolder(folder.path.c_str());
    history.RegisterParameterDouble(11, kesEnergyDevicePanel, 0);
    history.RegisterParameterDouble(12, kesEnergyDeviceString, 2);
    history.RegisterParameterDouble(13, kesEnergyDevicePulseCounter, 1);
    history.RegisterParameterDouble(14, kesEnergyDeviceStringTwo, 4);
    history.RegisterParameterDouble(15, kesEnergyDevicePanel, 1);
    history.RegisterParameterDouble(16, kesEnergyDevicePulseCounterTwo, 3);
    history.Start();
    history.SetClock(start + 60000);
    history.SetValueAsDouble(11, 231.5);
    history.SetValueAsDouble(12, 4.25);
    history.SetValueAsDouble(13, 1500.0);
    history.SetValueAsDouble(15, 38.5);
    history.SetClock(tick);
    history.Tick();

    // Away from midnight the merge only extends the day: it never gets shorter.
    if (tick == MOMENTS[0] && read_file(folder.path + "/d").size() < day.size())
        abort();
    return 0;
}
