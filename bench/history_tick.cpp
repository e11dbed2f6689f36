// The cost of one history tick at its largest: 3,000 parameters, N 5, the tick
// at 23:55 on the last day of a month and of a year, with full day, month, year
// and begin files. Printed beside the time to read and write the same bytes,
// and beside the direct whole-text-scan version run on the same data.

#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "history_generator.h"
#include "kes_energy_history_file.h"
#include "kes_error.h"
#include "kes_history_fake.h"
// The direct scan lives with the fuzz target that compares against it.
#include "../fuzz/history_reference.h"
#include "kes_osfile.h"
#include "test_process.h"

using kes::kesArray;
using kes::kesOsFile;
using kes::kesString;
using namespace kes::Energy;

namespace {

const unsigned int PER_CLASS = 1000;
const int REPEATS = 3;

double Seconds(std::chrono::steady_clock::time_point since)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

double Median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

size_t FileSize(const std::string& path)
{
    struct stat info;
    return stat(path.c_str(), &info) == 0 ? static_cast<size_t>(info.st_size) : 0;
}

struct Inputs {
    kes_test::GeneratedHistory history;
    kesString offsets;
};

void Restore(const kes_test::TempDir& dir, const Inputs& in)
{
    const char* names[] = {"d", "m", "y", "b", "2015_12_31", "2015_12", "2015"};
    const kesString* texts[] = {&in.history.day, &in.history.month, &in.history.year, &in.history.begin,
                                &in.history.day, &in.history.month, &in.history.year};
    for (size_t i = 0; i < 7; ++i)
        kes_test::WriteFile(dir.File(names[i]), *texts[i]);
    kes_test::WriteFile(dir.File("offset_energy_day"), in.offsets);
    kes_test::WriteFile(dir.File("offset_pulse"), "");
}

// The rows the tick at 23:55 hands down, as the direct version gets them.
void TickRows(const Inputs& in, kesArray<kesString>* rows)
{
    for (const kesString& uid : in.history.energyUids)
        rows->AddBack(uid + "|1200|1100|1300.5|100");
    for (const kesString& uid : in.history.valueUids)
        rows->AddBack(uid + "|231.5|229|233.1");
    for (const kesString& uid : in.history.pulseUids)
        rows->AddBack(uid + "|1204.6");
}

const kesEnergyHistoryRules RULES[] = {{kesEnergyHistoryEnergyLastTotal, 1, kesEnergyHistoryPulseLastPiece},
                                       {kesEnergyHistoryEnergySum, 3, kesEnergyHistoryPulseWholeRest},
                                       {kesEnergyHistoryEnergySum, 2, kesEnergyHistoryPulseWholeRest}};

// One tick the direct way: the same reads and writes, the reference text work.
void DirectTick(const kes_test::TempDir& dir, const Inputs& in, const kesArray<kesString>& rows)
{
    kesString day;
    kesOsFile::GetFileTextSource(dir.File("d"), &day);
    kes_test::ReferenceMergeDay(&day, "H|23\n", rows);
    kesEnergyHistoryReplaceFile(dir.File("d"), day, false);
    kesEnergyHistoryReplaceFile(dir.File("2015_12_31"), day, false);

    const char* names[] = {"m", "y", "b"};
    const char* dated[] = {"2015_12", "2015", nullptr};
    const char* headers[] = {"D|31\n", "M|12\n", "Y|2015\n"};
    kesString source = day;
    for (int level = 0; level < 3; ++level) {
        kesString text;
        kesOsFile::GetFileTextSource(dir.File(names[level]), &text);
        const size_t at = text.find(headers[level]);
        if (at != std::string::npos)
            text.erase(at + std::string(headers[level]).size());
        else
            text += headers[level];
        kes_test::ReferenceAppendRows(&text, source, RULES[level], in.history.energyUids, in.history.valueUids,
                                      in.history.pulseUids, nullptr);
        kesEnergyHistoryReplaceFile(dir.File(names[level]), text, false);
        if (dated[level])
            kesEnergyHistoryReplaceFile(dir.File(dated[level]), text, false);
        source = text;
    }
}

} // namespace

int main(int argc, char** argv)
{
    // "--tick-only" leaves out the slow direct version, for profiling the tick.
    const bool tickOnly = argc > 1 && std::string(argv[1]) == "--tick-only";
    kes::kesError::Level = 0;
    kes_test::TempDir dir;
    Inputs in;
    kes_test::GenerateHistory(PER_CLASS, 23, 12, 11, 31, 12, 6, &in.history);
    in.offsets = "31\n";
    for (const kesString& uid : in.history.energyUids)
        in.offsets += uid + "|12345.60\n";

    // The tick of the store itself.
    std::vector<double> tickTimes;
    size_t readBytes = 0, writtenBytes = 0;
    std::vector<std::string> written = {"d", "2015_12_31",        "m",           "2015_12", "y", "2015",
                                        "b", "offset_energy_day", "offset_pulse"};
    for (int r = 0; r < REPEATS; ++r) {
        Restore(dir, in);
        readBytes = 0;
        for (const char* name : {"d", "m", "y", "b", "offset_energy_day", "offset_pulse"})
            readBytes += FileSize(dir.File(name));
        std::unique_ptr<kes_test::FakeClockHistory> history(new kes_test::FakeClockHistory());
        for (unsigned int i = 0; i < PER_CLASS; ++i) {
            history->RegisterParameterDouble(100000 + i, kes::kesEnergyDeviceString, 2);
            history->RegisterParameterDouble(200000 + i, kes::kesEnergyDevicePanel, 0);
            history->RegisterParameterDouble(300000 + i, kes::kesEnergyDevicePulseCounter, 1);
        }
        history->SetLocal(2015, 12, 31, 23, 50);
        history->Init(5);
        history->SetHistoryFolder(dir.Path());
        history->Start();
        for (unsigned int i = 0; i < PER_CLASS; ++i) {
            history->SetValueAsDouble(100000 + i, 1200);
            history->SetValueAsDouble(200000 + i, 231.5);
            history->SetValueAsDouble(300000 + i, 1204600 + i);
        }
        history->SetLocal(2015, 12, 31, 23, 55);
        const auto start = std::chrono::steady_clock::now();
        history->Tick();
        tickTimes.push_back(Seconds(start));
        writtenBytes = 0;
        for (const std::string& name : written)
            writtenBytes += FileSize(dir.File(name));
    }
    std::vector<kesString> outputs;
    for (const std::string& name : written)
        outputs.push_back(kes_test::ReadFile(dir.File(name)));

    // Reading and writing the same bytes, the same way, with no text work.
    std::vector<double> ioTimes;
    for (int r = 0; r < REPEATS; ++r) {
        Restore(dir, in);
        const auto start = std::chrono::steady_clock::now();
        for (const char* name : {"d", "m", "y", "b", "offset_energy_day", "offset_pulse"}) {
            kesString text;
            kesOsFile::GetFileTextSource(dir.File(name), &text);
        }
        for (size_t i = 0; i < written.size(); ++i)
            kesEnergyHistoryReplaceFile(dir.File(written[i]), outputs[i], false);
        ioTimes.push_back(Seconds(start));
    }

    // The direct whole-text-scan version on the same data.
    kesArray<kesString> rows;
    TickRows(in, &rows);
    std::vector<double> directTimes;
    for (int r = 0; r < (tickOnly ? 0 : REPEATS); ++r) {
        Restore(dir, in);
        const auto start = std::chrono::steady_clock::now();
        DirectTick(dir, in, rows);
        directTimes.push_back(Seconds(start));
    }

    // Both versions' texts for the same rows, compared.
    bool same = true;
    if (!tickOnly) {
        kesString fastDay = in.history.day, slowDay = in.history.day;
        kesEnergyHistoryMergeDay(&fastDay, "H|23\n", rows);
        kes_test::ReferenceMergeDay(&slowDay, "H|23\n", rows);
        same = fastDay == slowDay;
        const kesString* sources[] = {&fastDay, &in.history.month, &in.history.year};
        for (int level = 0; level < 3; ++level) {
            kesString fast, slow;
            const kesEnergyHistoryRowIndex index(*sources[level]);
            kesEnergyHistoryAppendRows(&fast, index, RULES[level], in.history.energyUids, in.history.valueUids,
                                       in.history.pulseUids, nullptr);
            kes_test::ReferenceAppendRows(&slow, *sources[level], RULES[level], in.history.energyUids,
                                          in.history.valueUids, in.history.pulseUids, nullptr);
            same = same && fast == slow;
        }
    }

    if (directTimes.empty())
        directTimes.push_back(0.0);
    const double tick = Median(tickTimes), io = Median(ioTimes), direct = Median(directTimes);
    std::printf("history tick: %u parameters (%u energy, %u value, %u pulse), N 5, 23:55 on 31 December\n",
                3 * PER_CLASS, PER_CLASS, PER_CLASS, PER_CLASS);
    std::printf("  files read %.1f MB, written %.1f MB (temporary file, fsync, rename each)\n", readBytes / 1e6,
                writtenBytes / 1e6);
    std::printf("  tick                          %8.1f ms (median of %d)\n", tick * 1e3, REPEATS);
    std::printf("  read and write the same bytes %8.1f ms\n", io * 1e3);
    std::printf("  ratio tick / io               %8.2f (target at most 3)\n", tick / io);
    std::printf("  direct whole-text scan        %8.1f ms, ratio to io %.2f, %.1f times the tick\n", direct * 1e3,
                direct / io, direct / tick);
    std::printf("  texts of both versions equal  %s\n", tickOnly ? "not compared" : same ? "yes" : "NO");
    return same ? 0 : 1;
}
