// The history text updates fed with arbitrary file texts: the day merge must
// keep every header line whole, and the month, year and begin rows must be what
// the direct whole-text scan gives, whatever the source holds.
#include <cstdint>
#include <cstdio>
#include <string>

#include "kes_energy_history_text.h"
// The direct scan is the measure.
#include "history_reference.h"

using kes::kesArray;
using kes::kesString;
using kes_test::List;
using namespace kes::Energy;

namespace {

bool PulseTotal(unsigned int uid, double* total)
{
    *total = uid * 1000.0;
    return uid % 2 == 1;
}

void Require(bool condition)
{
    if (!condition)
        __builtin_trap();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 2)
        return 0;
    const unsigned int hour = data[1] % 24;
    const kesString text(reinterpret_cast<const char*>(data) + 2, size - 2);

    if (data[0] % 2 == 0) {
        kesString day = text;
        const kesString header = "H|" + kesString::FromInt(static_cast<int>(hour)) + "\n";
        kesEnergyHistoryMergeDay(&day, header, List({"1|5|4|6|7", "10|f|f|f", "101|2.5", "7"}));
        Require(!day.empty() && day.back() == '\n');
        Require(day.find(header) != std::string::npos);
        // Every header line of the old text stands whole in the new one.
        size_t start = 0;
        kesString old = text;
        kesEnergyHistoryEndLines(&old);
        for (size_t lf; (lf = old.find('\n', start)) != std::string::npos; start = lf + 1)
            if (lf > start && old[start] == 'H')
                Require(day.find(old.substr(start, lf - start + 1)) != std::string::npos);
        return 0;
    }

    static const kesEnergyHistoryRules RULES[] = {{kesEnergyHistoryEnergyLastTotal, 1, kesEnergyHistoryPulseLastPiece},
                                                  {kesEnergyHistoryEnergySum, 3, kesEnergyHistoryPulseWholeRest},
                                                  {kesEnergyHistoryEnergySum, 2, kesEnergyHistoryPulseWholeRest}};
    const kesEnergyHistoryRules& rules = RULES[hour % 3];
    const kesArray<kesString> energy = List({"1", "10", "101"});
    const kesArray<kesString> value = List({"1", "2", "20"});
    const kesArray<kesString> pulse = List({"1", "3", "4"});
    kesString fast, direct;
    const kesEnergyHistoryRowIndex index(text);
    kesEnergyHistoryAppendRows(&fast, index, rules, energy, value, pulse, PulseTotal);
    kes_test::ReferenceAppendRows(&direct, text, rules, energy, value, pulse, PulseTotal);
    if (fast != direct)
        std::fprintf(stderr, "one pass:\n%s\ndirect scan:\n%s\n", fast.c_str(), direct.c_str());
    Require(fast == direct);
    return 0;
}
