#ifndef KES_HISTORY_REFERENCE_H
#define KES_HISTORY_REFERENCE_H

#include "kes_string.h"

namespace kes_test {

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
