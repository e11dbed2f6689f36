#include <gtest/gtest.h>

#include <dirent.h>
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

using kes::kesString;
using kes_test::FakeClockHistory;
using kes_test::LocalMs;

namespace {

const unsigned int PER_CLASS = 300;
const unsigned int ENERGY_BASE = 10000, VALUE_BASE = 20000, PULSE_BASE = 30000;

// Ticks every 5 minutes of its clock, as fast as the disk lets it, until killed.
[[noreturn]] void RunWriter(const std::string& folder, unsigned long long start, unsigned int seed)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    kes::kesError::Level = 0;
    {
        FakeClockHistory history;
        for (unsigned int i = 0; i < PER_CLASS; ++i) {
            history.RegisterParameterDouble(ENERGY_BASE + i, kes::kesEnergyDeviceString, 2);
            history.RegisterParameterDouble(VALUE_BASE + i, kes::kesEnergyDevicePanel, 0);
            history.RegisterParameterDouble(PULSE_BASE + i, kes::kesEnergyDevicePulseCounter, 1);
        }
        history.SetClock(start);
        history.Init(5);
        history.SetHistoryFolder(folder);
        history.Start();
        std::mt19937 random(seed);
        unsigned long long now = start;
        // Bounded: the test kills the writer long before.
        for (int tick = 0; tick < 2000; ++tick) {
            for (unsigned int i = 0; i < PER_CLASS; ++i) {
                if (random() % 10 != 0)
                    history.SetValueAsDouble(ENERGY_BASE + i, random() % 3000);
                if (random() % 10 != 0)
                    history.SetValueAsDouble(VALUE_BASE + i, (random() % 4000) / 10.0);
                history.SetValueAsDouble(PULSE_BASE + i, 1000.0 * tick + i);
            }
            now += 300000;
            history.SetClock(now);
            history.Tick();
        }
    }
    _exit(0);
}

std::vector<std::string> Lines(const std::string& text)
{
    std::vector<std::string> lines;
    size_t start = 0;
    for (size_t lf; (lf = text.find('\n', start)) != std::string::npos; start = lf + 1)
        lines.push_back(text.substr(start, lf - start));
    return lines;
}

size_t Fields(const std::string& row)
{
    return static_cast<size_t>(std::count(row.begin(), row.end(), '|')) + 1;
}

std::string Uid(const std::string& row)
{
    return row.substr(0, row.find('|'));
}

// The rows that every block must hold, in order, with the fields of one group.
struct Expected {
    std::string uid;
    size_t groupFields;
};

std::vector<Expected> BlockRows(bool day)
{
    std::vector<Expected> rows;
    for (unsigned int base : {ENERGY_BASE, VALUE_BASE, PULSE_BASE})
        for (unsigned int i = 0; i < PER_CLASS; ++i)
            rows.push_back({std::to_string(base + i), base == ENERGY_BASE  ? (day ? 4u : 1u)
                                                      : base == VALUE_BASE ? 3u
                                                                           : 1u});
    return rows;
}

// Empty when the text is a whole history file, else what is wrong with it.
std::string CheckBlocks(const std::string& text, char letter, bool day)
{
    if (text.empty())
        return "empty";
    if (text.back() != '\n')
        return "no line feed at the end";
    const std::vector<Expected> rows = BlockRows(day);
    const std::vector<std::string> lines = Lines(text);
    size_t i = 0;
    while (i < lines.size()) {
        if (lines[i].size() < 3 || lines[i][0] != letter || lines[i][1] != '|')
            return "no header at line " + std::to_string(i);
        ++i;
        size_t groups = 0;
        for (size_t r = 0; r < rows.size(); ++r, ++i) {
            if (i >= lines.size())
                return "block cut at line " + std::to_string(i);
            if (Uid(lines[i]) != rows[r].uid)
                return "row " + lines[i] + " where " + rows[r].uid + " belongs";
            const size_t fields = Fields(lines[i]) - 1;
            if (fields == 0 || fields % rows[r].groupFields != 0)
                return "cut row " + lines[i];
            if (day && r > 0 && fields / rows[r].groupFields != groups)
                return "row " + lines[i] + " has another number of groups";
            groups = fields / rows[r].groupFields;
        }
    }
    return "";
}

std::string CheckOffsets(const std::string& text, unsigned int base, bool dayLine)
{
    if (text.empty() || text.back() != '\n')
        return "cut";
    std::vector<std::string> lines = Lines(text);
    if (dayLine) {
        if (lines.empty() || lines[0].empty() || lines[0].find('|') != std::string::npos)
            return "no day line";
        lines.erase(lines.begin());
    }
    unsigned int next = base;
    for (const std::string& line : lines) {
        if (Fields(line) != 2 || line.find('.') == std::string::npos)
            return "bad line " + line;
        if (Uid(line) == std::to_string(next))
            ++next;
    }
    return next == base + PER_CLASS ? "" : "missing lines";
}

bool Digits(const std::string& name, const std::vector<size_t>& widths)
{
    size_t at = 0;
    for (size_t w = 0; w < widths.size(); ++w) {
        if (w > 0 && (at >= name.size() || name[at++] != '_'))
            return false;
        for (size_t k = 0; k < widths[w]; ++k, ++at)
            if (at >= name.size() || !isdigit(static_cast<unsigned char>(name[at])))
                return false;
    }
    return at == name.size();
}

// Every file of the folder, checked by its kind; the count of files checked.
int CheckFolder(const std::string& folder)
{
    int checked = 0;
    DIR* dir = opendir(folder.c_str());
    if (!dir)
        return -1;
    while (struct dirent* entry = readdir(dir)) {
        const std::string name = entry->d_name;
        if (name == "." || name == ".." || name.find(".tmp") != std::string::npos)
            continue;
        const std::string text = kes_test::ReadFile(folder + "/" + name);
        std::string problem;
        if (name == "d" || Digits(name, {4, 2, 2}))
            problem = CheckBlocks(text, 'H', true);
        else if (name == "m" || Digits(name, {4, 2}))
            problem = CheckBlocks(text, 'D', false);
        else if (name == "y" || Digits(name, {4}))
            problem = CheckBlocks(text, 'M', false);
        else if (name == "b")
            problem = CheckBlocks(text, 'Y', false);
        else if (name == "offset_energy_day")
            problem = CheckOffsets(text, ENERGY_BASE, true);
        else if (name == "offset_pulse")
            problem = CheckOffsets(text, PULSE_BASE, false);
        else
            problem = "unexpected file";
        EXPECT_EQ("", problem) << name;
        ++checked;
    }
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
    const unsigned long long first = LocalMs(2015, 12, 31, 22, 0);
    const int ROUNDS = 16;
    int checked = 0;
    for (int round = 0; round < ROUNDS; ++round) {
        const pid_t child = fork();
        ASSERT_NE(-1, child);
        if (child == 0)
            RunWriter(folder.Path(), first + static_cast<unsigned long long>(round) * 55 * 60000, random());

        std::this_thread::sleep_for(std::chrono::milliseconds(30 + random() % 400));
        kill(child, SIGKILL);
        int status = 0;
        ASSERT_EQ(child, waitpid(child, &status, 0));
        ASSERT_TRUE(WIFSIGNALED(status)) << "the writer ended by itself";

        checked += CheckFolder(folder.Path());
        if (HasFailure())
            break;
    }
    // The writers got far enough to leave the files of every level.
    EXPECT_GT(checked, ROUNDS * 4);
    for (const char* name : {"d", "m", "y", "b", "offset_energy_day", "offset_pulse"})
        EXPECT_EQ(0, access((folder.Path() + "/" + name).c_str(), F_OK)) << name;
}
