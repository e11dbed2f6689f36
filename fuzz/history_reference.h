// The history text updates done the direct way: a search of the whole source
// per UID, an insertion into the middle of the text per row. Quadratic, and
// only meant for well-formed texts; the measure of the one-pass versions.
#ifndef KES_HISTORY_REFERENCE_SCAN_H
#define KES_HISTORY_REFERENCE_SCAN_H

#include <initializer_list>

#include "kes_energy_history_item.h"
#include "kes_energy_history_text.h"

namespace kes_test {

inline kes::kesArray<kes::kesString> List(std::initializer_list<const char*> items)
{
    kes::kesArray<kes::kesString> list;
    for (const char* item : items)
        list.AddBack(item);
    return list;
}

using kes::kesArray;
using kes::kesString;
using kes::Energy::kesEnergyHistoryRules;

inline void ReferenceMergeDay(kesString* io_text, const kesString& header, const kesArray<kesString>& rows)
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

inline void ReferenceAppendRows(kesString* io_text, const kesString& source, const kesEnergyHistoryRules& rules,
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

} // namespace kes_test

#endif
