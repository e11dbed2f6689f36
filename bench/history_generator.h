#ifndef KES_BENCH_HISTORY_GENERATOR_H
#define KES_BENCH_HISTORY_GENERATOR_H

#include "kes_string.h"

namespace kes_test {

// Full history texts for a set of parameters, with plausible figures.
struct GeneratedHistory {
    kes::kesArray<kes::kesString> energyUids, valueUids, pulseUids;
    kes::kesString day, month, year, begin;
};

using kes::kesString;

namespace {

// Figures from a fixed sequence: a tenth of a unit, as the files show them, and
// now and then a missing sample.
struct Figures {
    unsigned int state = 12345;
    unsigned int Step(int shift)
    {
        state = state * 1103515245u + 12345u;
        return state >> shift;
    }
    kesString Next(unsigned int range) { return kesString::FromDouble(Step(8) % (range * 10 + 1) / 10.0, 1); }
    bool Missing() { return Step(12) % 40 == 0; }
    kesString Three(unsigned int range) { return Next(range) + "|" + Next(range) + "|" + Next(range); }
};

} // namespace

// 'hours' complete hour blocks of 'groups' groups, then one block of 'lastGroups';
// 'days' month blocks, 'months' year blocks, 'years' begin blocks.
inline void GenerateHistory(unsigned int perClass, unsigned int hours, unsigned int groups, unsigned int lastGroups,
                            unsigned int days, unsigned int months, unsigned int years, GeneratedHistory* o_history)
{
    GeneratedHistory& h = *o_history;
    h = GeneratedHistory();
    kes::kesArray<kesString>* uids[] = {&h.energyUids, &h.valueUids, &h.pulseUids};
    for (unsigned int i = 0; i < perClass; ++i)
        for (unsigned int kind = 0; kind < 3; ++kind)
            uids[kind]->AddBack(kesString::FromULong(100000 * (kind + 1) + i));
    Figures f;
    for (unsigned int hour = 0; hour <= hours && hour < 24; ++hour) {
        const unsigned int count = hour == hours ? lastGroups : groups;
        if (count == 0)
            break;
        h.day += "H|" + kesString::FromInt(static_cast<int>(hour)) + "\n";
        for (unsigned int kind = 0; kind < 3; ++kind)
            for (const kesString& uid : *uids[kind]) {
                h.day += uid;
                for (unsigned int g = 0; g < count; ++g) {
                    const bool missing = kind < 2 && f.Missing();
                    h.day += kind == 2   ? "|" + f.Next(50000)
                             : missing   ? kesString(kind == 0 ? "|f|f|f|" + f.Next(9000) : "|f|f|f")
                             : kind == 0 ? "|" + f.Three(3000) + "|" + f.Next(9000)
                                         : "|" + f.Three(400);
                }
                h.day += "\n";
            }
    }
    const struct {
        kesString* text;
        const char* letter;
        unsigned int first, count;
    } levels[] = {{&h.month, "D|", 1, days}, {&h.year, "M|", 1, months}, {&h.begin, "Y|", 2010, years}};
    for (const auto& level : levels)
        for (unsigned int n = level.first; n < level.first + level.count; ++n) {
            *level.text += level.letter + kesString::FromInt(static_cast<int>(n)) + "\n";
            for (const kesString& uid : h.energyUids)
                *level.text += uid + "|" + f.Next(90000) + "\n";
            for (const kesString& uid : h.valueUids)
                *level.text += uid + "|" + f.Three(400) + "\n";
            for (const kesString& uid : h.pulseUids)
                *level.text += uid + "|" + f.Next(50000) + "\n";
        }
}

} // namespace kes_test

#endif
