#include "kes_history_reference.h"

namespace kes_test {

using kes::kesArray;
using kes::kesString;

namespace {

class Figures {
public:
    // A tenth of a unit, as the files show them; now and then a missing sample.
    kesString Next(unsigned int range)
    {
        m_state = m_state * 1103515245u + 12345u;
        const unsigned int r = (m_state >> 8) % (range * 10 + 1);
        return kesString::FromDouble(r / 10.0, 1);
    }
    bool Missing()
    {
        m_state = m_state * 1103515245u + 12345u;
        return ((m_state >> 12) % 40) == 0;
    }

private:
    unsigned int m_state = 12345;
};

} // namespace

void GenerateHistory(unsigned int perClass, unsigned int hours, unsigned int groups, unsigned int lastGroups,
                     unsigned int days, unsigned int months, unsigned int years, GeneratedHistory* o_history)
{
    GeneratedHistory& h = *o_history;
    h = GeneratedHistory();
    for (unsigned int i = 0; i < perClass; ++i) {
        h.energyUids.AddBack(kesString::FromULong(100000 + i));
        h.valueUids.AddBack(kesString::FromULong(200000 + i));
        h.pulseUids.AddBack(kesString::FromULong(300000 + i));
    }
    Figures f;
    for (unsigned int hour = 0; hour <= hours && hour < 24; ++hour) {
        const unsigned int count = hour == hours ? lastGroups : groups;
        if (count == 0)
            break;
        h.day += "H|" + kesString::FromInt(static_cast<int>(hour)) + "\n";
        for (const kesString& uid : h.energyUids) {
            h.day += uid;
            for (unsigned int g = 0; g < count; ++g)
                h.day += f.Missing()
                             ? kesString("|f|f|f|") + f.Next(9000)
                             : "|" + f.Next(3000) + "|" + f.Next(3000) + "|" + f.Next(3000) + "|" + f.Next(9000);
            h.day += "\n";
        }
        for (const kesString& uid : h.valueUids) {
            h.day += uid;
            for (unsigned int g = 0; g < count; ++g)
                h.day += f.Missing() ? kesString("|f|f|f") : "|" + f.Next(400) + "|" + f.Next(400) + "|" + f.Next(400);
            h.day += "\n";
        }
        for (const kesString& uid : h.pulseUids) {
            h.day += uid;
            for (unsigned int g = 0; g < count; ++g)
                h.day += "|" + f.Next(50000);
            h.day += "\n";
        }
    }
    struct Level {
        kesString* text;
        const char* letter;
        unsigned int first;
        unsigned int count;
    } levels[] = {{&h.month, "D|", 1, days}, {&h.year, "M|", 1, months}, {&h.begin, "Y|", 2010, years}};
    for (const Level& level : levels)
        for (unsigned int n = level.first; n < level.first + level.count; ++n) {
            *level.text += level.letter + kesString::FromInt(static_cast<int>(n)) + "\n";
            for (const kesString& uid : h.energyUids)
                *level.text += uid + "|" + f.Next(90000) + "\n";
            for (const kesString& uid : h.valueUids)
                *level.text += uid + "|" + f.Next(400) + "|" + f.Next(400) + "|" + f.Next(400) + "\n";
            for (const kesString& uid : h.pulseUids)
                *level.text += uid + "|" + f.Next(50000) + "\n";
        }
}

} // namespace kes_test
