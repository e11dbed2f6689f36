#include <gtest/gtest.h>

#include <dirent.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "kes_error.h"
#include "kes_history_fake.h"
#include "test_process.h"

using kes_test::FakeClockHistory;
using kes_test::LocalMs;

namespace {

const unsigned int PER_CLASS = 100;
const unsigned int BASES[] = {10000, 20000, 30000}; // energy, value, pulse

// Ticks every 5 minutes of its clock, as fast as the disk lets it, until killed;
// a byte on 'ticked' after each tick.
[[noreturn]] void RunWriter(const std::string& folder, unsigned long long start, unsigned int seed, int ticked)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    kes::kesError::Level = 0;
    FakeClockHistory history;
    for (unsigned int i = 0; i < PER_CLASS; ++i) {
        history.RegisterParameterDouble(BASES[0] + i, kes::kesEnergyDeviceString, 2);
        history.RegisterParameterDouble(BASES[1] + i, kes::kesEnergyDevicePanel, 0);
        history.RegisterParameterDouble(BASES[2] + i, kes::kesEnergyDevicePulseCounter, 1);
    }
    history.SetClock(start);
    history.Init(5);
    history.SetHistoryFolder(folder);
    history.Start();
    std::mt19937 random(seed);
    // Bounded: the test kills the writer long before.
    for (int tick = 1; tick < 2000; ++tick) {
        for (unsigned int i = 0; i < PER_CLASS; ++i) {
            if (random() % 10 != 0)
                history.SetValueAsDouble(BASES[0] + i, random() % 3000);
            if (random() % 10 != 0)
                history.SetValueAsDouble(BASES[1] + i, (random() % 4000) / 10.0);
            history.SetValueAsDouble(BASES[2] + i, 1000.0 * tick + i);
        }
        history.SetClock(start + tick * 300000ull);
        history.Tick();
        if (write(ticked, "t", 1) != 1)
            break;
    }
    _exit(0);
}

// Empty when the file is whole: it ends with a line feed, and blocks of a
// header (the level's letter) and 3 * PER_CLASS rows fill it exactly; the offset
// files hold a line per total.
std::string Problem(const std::string& name, const std::string& text)
{
    if (text.empty() || text.back() != '\n')
        return "cut at the end";
    if (name.compare(0, 7, "offset_") == 0)
        return std::count(text.begin(), text.end(), '\n') >= long(PER_CLASS) ? "" : "lines missing";
    // Dated copies by the length of their date: 2015_12_31, 2015_12, 2015.
    const size_t level = name == "d" || name.size() == 10  ? 0
                         : name == "m" || name.size() == 7 ? 1
                         : name == "y" || name.size() == 4 ? 2
                         : name == "b"                     ? 3
                                                           : 4;
    if (level == 4)
        return "unexpected file";
    const size_t lines = 1 + 3 * PER_CLASS;
    size_t count = 0;
    for (size_t at = 0; at < text.size(); at = text.find('\n', at) + 1, ++count)
        if ((count % lines == 0) != (text[at] == "HDMY"[level]))
            return "line " + std::to_string(count) + " begins wrong";
    return count % lines == 0 ? "" : "a block is cut";
}

// Checks every file of the folder; the count of files checked.
int CheckFolder(const std::string& folder)
{
    int checked = 0;
    DIR* dir = opendir(folder.c_str());
    while (struct dirent* entry = dir ? readdir(dir) : nullptr) {
        const std::string name = entry->d_name;
        if (name[0] != '.' && name.find(".tmp") == std::string::npos && ++checked) {
            EXPECT_EQ("", Problem(name, kes_test::ReadFile(folder + "/" + name))) << name;
        }
    }
    if (dir)
        closedir(dir);
    return checked;
}

} // namespace

TEST(HistoryCrash, AWriterKilledAtAnyMomentLeavesWholeFiles)
{
    kes_test::TempDir folder;
    std::mt19937 random(20151231);
    // Each writer starts later on the clock, so the rounds cross a midnight, a
    // month end and a year end.
    const unsigned long long first = LocalMs(2015, 12, 31, 23, 0);
    const int ROUNDS = 16;
    int checked = 0;
    for (int round = 0; round < ROUNDS && !HasFailure(); ++round) {
        int ticked[2];
        ASSERT_EQ(0, pipe(ticked));
        const pid_t child = fork();
        ASSERT_NE(-1, child);
        if (child == 0)
            RunWriter(folder.Path(), first + round * 25 * 60000ull, random(), ticked[1]);
        // The kill lands within the ticks, not in the registration before them.
        pollfd first_tick = {ticked[0], POLLIN, 0};
        EXPECT_EQ(1, poll(&first_tick, 1, 10000));
        std::this_thread::sleep_for(std::chrono::milliseconds(random() % 40));
        kill(child, SIGKILL);
        int status = 0;
        ASSERT_EQ(child, waitpid(child, &status, 0));
        close(ticked[0]);
        close(ticked[1]);
        ASSERT_TRUE(WIFSIGNALED(status)) << "the writer ended by itself";
        checked += CheckFolder(folder.Path());
    }
    // The writers got far enough to leave the files of every level.
    EXPECT_GT(checked, ROUNDS * 4);
    for (const char* name : {"d", "m", "y", "b", "offset_energy_day", "offset_pulse"})
        EXPECT_EQ(0, access((folder.Path() + "/" + name).c_str(), F_OK)) << name;
}
