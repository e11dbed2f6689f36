#ifndef KES_HISTORY_REFERENCE_H
#define KES_HISTORY_REFERENCE_H

#include "kes_energy_history_text.h"

#include <initializer_list>

namespace kes_test {

inline kes::kesArray<kes::kesString> List(std::initializer_list<const char*> items)
{
    kes::kesArray<kes::kesString> list;
    for (const char* item : items)
        list.AddBack(item);
    return list;
}

// The history text updates done the direct way: a search of the whole source
// per UID, an insertion into the middle of the text per row. Quadratic, and
// only meant for well-formed texts; the measure of the one-pass versions.
void ReferenceMergeDay(kes::kesString* io_text, const kes::kesString& header,
                       const kes::kesArray<kes::kesString>& rows);
void ReferenceAppendRows(kes::kesString* io_text, const kes::kesString& source,
                         const kes::Energy::kesEnergyHistoryRules& rules,
                         const kes::kesArray<kes::kesString>& energyUids,
                         const kes::kesArray<kes::kesString>& valueUids, const kes::kesArray<kes::kesString>& pulseUids,
                         const kes::Energy::kesEnergyHistoryPulseTotal& pulseTotal);

// Full history texts for a set of parameters, with plausible figures.
struct GeneratedHistory {
    kes::kesArray<kes::kesString> energyUids, valueUids, pulseUids;
    kes::kesString day, month, year, begin;
};
// 'hours' complete hour blocks of 'groups' groups, then one block of 'lastGroups';
// 'days' month blocks, 'months' year blocks, 'years' begin blocks.
void GenerateHistory(unsigned int parametersPerClass, unsigned int hours, unsigned int groups, unsigned int lastGroups,
                     unsigned int days, unsigned int months, unsigned int years, GeneratedHistory* o_history);

} // namespace kes_test

#endif
