#include "kes_energy_history_text.h"

#include <cstdlib>
#include <cstring>

#include "kes_energy_history_item.h"

namespace kes {
namespace Energy {

namespace {
const double POWERS_OF_TEN[] = {1e0, 1e1, 1e2, 1e3, 1e4, 1e5, 1e6, 1e7, 1e8, 1e9, 1e10, 1e11, 1e12, 1e13, 1e14, 1e15};
// Up to 15 digits the mantissa is exact in a double, and so is the power of ten:
// one correctly rounded division then gives what strtod gives.
const int MAX_EXACT_DIGITS = 15;

bool is_digit(char c)
{
    return c >= '0' && c <= '9';
}

bool is_empty_char(const char* i_begin, const char* i_end)
{
    return i_end - i_begin == 1 && (*i_begin == 'f' || *i_begin == 'F');
}

const char* last_piece(const char* i_begin, const char* i_end)
{
    for (const char* p = i_end; p != i_begin; --p)
        if (p[-1] == '|')
            return p;
    return i_begin;
}

void append_row(kesString* io_text, const kesString& i_uid, const kesString& i_fields)
{
    io_text->append(i_uid);
    io_text->push_back('|');
    io_text->append(i_fields);
    io_text->push_back('\n');
}

// Only the latest total of the day remains, so the rows are read from the back.
double energy_last_total(const std::vector<kesEnergyHistoryRowIndex::Rest>& i_rests)
{
    for (size_t r = i_rests.size(); r-- > 0;) {
        kesEnergyHistoryPieces pieces(i_rests[r].begin, i_rests[r].end);
        const char* latest = 0;
        const char* latestEnd = 0;
        const char* begin;
        const char* end;
        // The totals are the pieces 3, 7, 11 and so on.
        for (size_t i = 0; pieces.Next(&begin, &end); ++i)
            if (i % 4 == 3 && !is_empty_char(begin, end)) {
                latest = begin;
                latestEnd = end;
            }
        if (latest)
            return kesEnergyHistoryAsDouble(latest, latestEnd);
    }
    return 0.0;
}

double energy_sum(const std::vector<kesEnergyHistoryRowIndex::Rest>& i_rests)
{
    double sum = 0.0;
    for (const kesEnergyHistoryRowIndex::Rest& rest : i_rests)
        if (!is_empty_char(rest.begin, rest.end))
            sum += kesEnergyHistoryAsDouble(rest.begin, rest.end);
    return sum;
}

// Average of the groups' averages, smallest minimum, largest maximum; a group
// without a sample counts as 0. False if no group was found.
bool value_figures(const std::vector<kesEnergyHistoryRowIndex::Rest>& i_rests, double* o_average, double* o_minimum,
                   double* o_maximum)
{
    double sum = 0.0;
    double count = 0.0;
    double minimum = 1e308;
    double maximum = -1e308;
    for (const kesEnergyHistoryRowIndex::Rest& rest : i_rests) {
        kesEnergyHistoryPieces pieces(rest.begin, rest.end);
        const char* group[3][2];
        int taken = 0;
        // Groups of three from the first piece; one cut short by a hand edit
        // is never completed and so never read past.
        while (pieces.Next(&group[taken][0], &group[taken][1])) {
            if (++taken < 3)
                continue;
            taken = 0;
            if (is_empty_char(group[0][0], group[0][1])) {
                if (!(0.0 > minimum))
                    minimum = 0.0;
                if (!(0.0 < maximum))
                    maximum = 0.0;
            } else {
                sum += kesEnergyHistoryAsDouble(group[0][0], group[0][1]);
                const double low = kesEnergyHistoryAsDouble(group[1][0], group[1][1]);
                const double high = kesEnergyHistoryAsDouble(group[2][0], group[2][1]);
                if (!(low > minimum))
                    minimum = low;
                if (!(high < maximum))
                    maximum = high;
            }
            count += 1.0;
        }
    }
    if (count == 0.0)
        return false;
    *o_average = sum / count;
    *o_minimum = minimum;
    *o_maximum = maximum;
    return true;
}

double pulse_figure(const std::vector<kesEnergyHistoryRowIndex::Rest>& i_rests, kesEEnergyHistoryPulseRule i_rule,
                    const kesString& i_uid, const kesEnergyHistoryPulseTotal& i_pulseTotal)
{
    double figure = 0.0;
    for (const kesEnergyHistoryRowIndex::Rest& rest : i_rests) {
        const char* piece = i_rule == kesEnergyHistoryPulseLastPiece ? last_piece(rest.begin, rest.end) : rest.begin;
        if (is_empty_char(piece, rest.end)) {
            double total = 0.0;
            if (i_pulseTotal && i_pulseTotal(kesString::AsULong(i_uid, 10), &total))
                figure = total;
        } else
            figure = kesEnergyHistoryAsDouble(piece, rest.end);
    }
    return figure;
}
} // namespace

double kesEnergyHistoryAsDouble(const char* i_begin, const char* i_end)
{
    const char* s = i_begin;
    const bool negative = s != i_end && *s == '-';
    if (negative)
        ++s;
    unsigned long long mantissa = 0;
    int digits = 0;
    int decimals = 0;
    for (; s != i_end && is_digit(*s); ++s, ++digits)
        mantissa = mantissa * 10 + static_cast<unsigned int>(*s - '0');
    if (digits > 0 && s != i_end && *s == '.')
        for (++s; s != i_end && is_digit(*s); ++s, ++digits, ++decimals)
            mantissa = mantissa * 10 + static_cast<unsigned int>(*s - '0');
    // Anything else (exponents, hexadecimal, white space, long mantissas, text)
    // goes the long way, on a copy that ends where the piece ends.
    const bool plain = digits > 0 && digits <= MAX_EXACT_DIGITS &&
                       (s == i_end || (*s != 'e' && *s != 'E' && *s != 'x' && *s != 'X' && *s != 'p' && *s != 'P'));
    if (!plain) {
        const std::string piece(i_begin, i_end);
        return std::strtod(piece.c_str(), 0);
    }
    const double value = static_cast<double>(mantissa) / POWERS_OF_TEN[decimals];
    return negative ? -value : value;
}

void kesEnergyHistoryEndLines(kesString* io_text)
{
    if (!io_text->empty() && (*io_text)[io_text->size() - 1] != '\n')
        io_text->push_back('\n');
}

bool kesEnergyHistoryPieces::Next(const char** o_begin, const char** o_end)
{
    while (!m_bDone) {
        const char* bar = static_cast<const char*>(std::memchr(m_pNext, '|', static_cast<size_t>(m_pEnd - m_pNext)));
        if (!bar) {
            *o_begin = m_pNext;
            *o_end = m_pEnd;
            m_bDone = true;
            return true;
        }
        const char* begin = m_pNext;
        m_pNext = bar + 1;
        if (bar != begin) {
            *o_begin = begin;
            *o_end = bar;
            return true;
        }
    }
    return false;
}

kesEnergyHistoryRowIndex::kesEnergyHistoryRowIndex(const kesString& i_source) : m_source(i_source)
{
    const char* text = i_source.data();
    const size_t size = i_source.size();
    const unsigned int NONE = 0xFFFFFFFFu;
    size_t pos = 0;
    unsigned int lineNo = 0;
    while (pos < size) {
        const char* lf = static_cast<const char*>(std::memchr(text + pos, '\n', size - pos));
        const size_t end = lf ? static_cast<size_t>(lf - text) : size;
        if (lineNo > 0) {
            const char* bar = static_cast<const char*>(std::memchr(text + pos, '|', end - pos));
            if (bar) {
                std::string_view key(text + pos, static_cast<size_t>(bar - (text + pos)));
                auto inserted = m_chains.emplace(key, Chain{NONE, NONE, NONE});
                Chain& chain = inserted.first->second;
                if (inserted.second || chain.lastLine + 1 != lineNo) {
                    // Without a line feed behind it the rest of the row reads empty.
                    const unsigned int restBegin = static_cast<unsigned int>(bar + 1 - text);
                    const unsigned int restEnd = lf ? static_cast<unsigned int>(end) : restBegin;
                    m_lines.push_back(Line{restBegin, restEnd, NONE});
                    const unsigned int index = static_cast<unsigned int>(m_lines.size() - 1);
                    if (chain.head == NONE)
                        chain.head = index;
                    else
                        m_lines[chain.tail].next = index;
                    chain.tail = index;
                    chain.lastLine = lineNo;
                }
            }
        }
        pos = end + 1;
        ++lineNo;
    }
}

void kesEnergyHistoryRowIndex::Find(const kesString& i_uid, std::vector<Rest>* o_rests) const
{
    o_rests->clear();
    auto found = m_chains.find(std::string_view(i_uid.data(), i_uid.size()));
    if (found == m_chains.end())
        return;
    const char* text = m_source.data();
    static const char EMPTY[] = "";
    for (unsigned int i = found->second.head; i != 0xFFFFFFFFu; i = m_lines[i].next) {
        // An empty rest must not let a number parse run on into the text behind it.
        if (m_lines[i].begin == m_lines[i].end)
            o_rests->push_back(Rest{EMPTY, EMPTY});
        else
            o_rests->push_back(Rest{text + m_lines[i].begin, text + m_lines[i].end});
    }
}

void kesEnergyHistoryMergeDay(kesString* io_text, const kesString& i_header, const kesArray<kesString>& i_rows)
{
    kesEnergyHistoryEndLines(io_text);
    const size_t header = io_text->find(i_header);
    if (header == std::string::npos) {
        io_text->append(i_header);
        for (const kesString& row : i_rows) {
            io_text->append(row);
            io_text->push_back('\n');
        }
        return;
    }

    // Only the hour's block changes: it is rebuilt apart and put back in place,
    // so the rest of a large day is neither copied nor moved but for its tail.
    const kesString& text = *io_text;
    const size_t blockStart = header + i_header.size();
    size_t extra = 0;
    for (const kesString& row : i_rows)
        extra += row.size() + 1;
    kesString block;
    block.reserve(extra);
    size_t line = blockStart;
    size_t r = 0;
    // Rows extend the block's lines in order; a header or the end of the text ends the block.
    for (; r < i_rows.size(); ++r) {
        const size_t lf = line < text.size() && is_digit(text[line]) ? text.find('\n', line) : std::string::npos;
        if (lf == std::string::npos)
            break;
        block.append(text, line, lf - line);
        block.push_back('|');
        // The row behind its first bar; a row without one goes whole.
        block.append(i_rows[r], i_rows[r].find('|') + 1, std::string::npos);
        block.push_back('\n');
        line = lf + 1;
    }
    for (; r < i_rows.size(); ++r) {
        block.append(i_rows[r]);
        block.push_back('\n');
    }
    io_text->replace(blockStart, line - blockStart, block);
}

void kesEnergyHistoryAppendRows(kesString* io_text, const kesEnergyHistoryRowIndex& i_source,
                                const kesEnergyHistoryRules& i_rules, const kesArray<kesString>& i_energyUids,
                                const kesArray<kesString>& i_valueUids, const kesArray<kesString>& i_pulseUids,
                                const kesEnergyHistoryPulseTotal& i_pulseTotal)
{
    std::vector<kesEnergyHistoryRowIndex::Rest> rests;

    for (const kesString& uid : i_energyUids) {
        i_source.Find(uid, &rests);
        const double energy =
            i_rules.energy == kesEnergyHistoryEnergyLastTotal ? energy_last_total(rests) : energy_sum(rests);
        append_row(io_text, uid, kesString::FromDouble(energy, i_rules.energyPrecision));
    }

    for (const kesString& uid : i_valueUids) {
        i_source.Find(uid, &rests);
        double average = 0.0;
        double minimum = 0.0;
        double maximum = 0.0;
        if (!value_figures(rests, &average, &minimum, &maximum))
            continue;
        kesString fields = kesString::FromDouble(average, 1);
        fields.push_back('|');
        fields.append(kesString::FromDouble(minimum, 1));
        fields.push_back('|');
        fields.append(kesString::FromDouble(maximum, 1));
        append_row(io_text, uid, fields);
    }

    for (const kesString& uid : i_pulseUids) {
        i_source.Find(uid, &rests);
        append_row(io_text, uid, kesString::FromDouble(pulse_figure(rests, i_rules.pulse, uid, i_pulseTotal), 1));
    }
}

} // namespace Energy
} // namespace kes
