#include "kes_history_reference.h"

#include "kes_energy_history_item.h"

namespace kes_test {

using kes::kesArray;
using kes::kesString;
using kes::Energy::kesEnergyHistoryRules;

void ReferenceMergeDay(kesString* io_text, const kesString& header, const kesArray<kesString>& rows)
{
    const size_t found = io_text->Find(header, 0, false, false);
    if (found == std::string::npos) {
        io_text->append(header);
        for (const kesString& row : rows)
            io_text->append(row + "\n");
        return;
    }
    size_t p = io_text->find('\n', found + header.size());
    for (const kesString& row : rows) {
        const kesString insert = "|" + row.substr(row.find('|') + 1);
        io_text->insert(p, insert);
        p = io_text->find('\n', p + insert.size() + 1);
    }
}

namespace {

const kesString EMPTY = kesString(kes::Energy::kesEnegyHistoryItem::EMPTY_CHAR);

// Every row of the UID anywhere in the source, searched from the last one found.
template <typename Rule>
void scan(const kesString& source, const kesString& uid, Rule rule)
{
    const kesString key = "\n" + uid + "|";
    size_t position = 0;
    for (;;) {
        const size_t found = source.find(key, position);
        if (found == std::string::npos)
            return;
        const size_t start = found + key.size();
        const size_t end = source.find('\n', start);
        if (end == std::string::npos) {
            rule(kesString());
            return;
        }
        rule(kesString(source.substr(start, end - start)));
        position = end + 1;
    }
}

} // namespace

void ReferenceAppendRows(kesString* io_text, const kesString& source, const kesEnergyHistoryRules& rules,
                         const kesArray<kesString>& energyUids, const kesArray<kesString>& valueUids,
                         const kesArray<kesString>& pulseUids,
                         const kes::Energy::kesEnergyHistoryPulseTotal& pulseTotal)
{
    for (const kesString& uid : energyUids) {
        double total = 0.0;
        scan(source, uid, [&](const kesString& rest) {
            if (rules.energy == kes::Energy::kesEnergyHistoryEnergyLastTotal) {
                kesArray<kesString> pieces;
                rest.GetSplit(&pieces, "|");
                if (pieces.size() > 3)
                    for (size_t i = 3; i < pieces.size(); i += 4)
                        if (!pieces[i].IsEqualNoCase(EMPTY))
                            total = kesString::AsDouble(pieces[i]);
            } else if (!rest.IsEqualNoCase(EMPTY)) {
                total += kesString::AsDouble(rest);
            }
        });
        io_text->append(uid + "|" + kesString::FromDouble(total, rules.energyPrecision) + "\n");
    }
    for (const kesString& uid : valueUids) {
        double sum = 0.0, count = 0.0, minimum = 1e308, maximum = -1e308;
        scan(source, uid, [&](const kesString& rest) {
            kesArray<kesString> pieces;
            rest.GetSplit(&pieces, "|");
            if (pieces.size() <= 2)
                return;
            for (size_t g = 0; g + 3 <= pieces.size(); g += 3) {
                // "takes it if it is not above": a NaN is not above anything
                if (pieces[g].IsEqualNoCase(EMPTY)) {
                    minimum = !(0.0 > minimum) ? 0.0 : minimum;
                    maximum = !(0.0 < maximum) ? 0.0 : maximum;
                } else {
                    sum += kesString::AsDouble(pieces[g]);
                    const double low = kesString::AsDouble(pieces[g + 1]);
                    const double high = kesString::AsDouble(pieces[g + 2]);
                    minimum = !(low > minimum) ? low : minimum;
                    maximum = !(high < maximum) ? high : maximum;
                }
                count += 1.0;
            }
        });
        if (count == 0.0)
            continue;
        io_text->append(uid + "|" + kesString::FromDouble(sum / count, 1) + "|" + kesString::FromDouble(minimum, 1) +
                        "|" + kesString::FromDouble(maximum, 1) + "\n");
    }
    for (const kesString& uid : pulseUids) {
        double figure = 0.0;
        scan(source, uid, [&](const kesString& rest) {
            kesString piece = rest;
            if (rules.pulse == kes::Energy::kesEnergyHistoryPulseLastPiece) {
                kesArray<kesString> pieces;
                rest.GetSplit(&pieces, "|");
                piece = pieces.back();
            }
            if (piece.IsEqualNoCase(EMPTY)) {
                double total = 0.0;
                if (pulseTotal && pulseTotal(kesString::AsULong(uid, 10), &total))
                    figure = total;
            } else {
                figure = kesString::AsDouble(piece);
            }
        });
        io_text->append(uid + "|" + kesString::FromDouble(figure, 1) + "\n");
    }
}

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
