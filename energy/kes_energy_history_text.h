#ifndef KES_ENERGY_HISTORY_TEXT_H
#define KES_ENERGY_HISTORY_TEXT_H

// Text work of the history files. Every operation here is one pass over its
// texts: the rows of a source are indexed by UID once per tick, and a block is
// rebuilt by copying, never by inserting into the middle of a text.

#include <functional>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "kes_string.h"

namespace kes {
namespace Energy {

// strtod of the piece [i_begin, i_end) alone, with an exact shortcut for the
// plain decimals of the files. strtod skips white space, line feeds included,
// so it never sees more than the piece.
double kesEnergyHistoryAsDouble(const char* i_begin, const char* i_end);

// A text read back that lost its last line feed gets it again, so that every
// row stays a whole line and a header is never glued to a cut row.
void kesEnergyHistoryEndLines(kesString* io_text);

// Walks the pieces of one line split at "|", as kesString::GetSplit cuts them:
// empty pieces are dropped, except the one behind the last bar.
class kesEnergyHistoryPieces {
public:
    kesEnergyHistoryPieces(const char* i_begin, const char* i_end) : m_pNext(i_begin), m_pEnd(i_end), m_bDone(false) {}

    // The next piece; false after the last.
    bool Next(const char** o_begin, const char** o_end);

private:
    const char* m_pNext;
    const char* m_pEnd;
    bool m_bDone;
};

// The rows of a source text by UID. A row is found as the search for a line
// feed, the UID and "|" from the end of the previous row found would find it:
// in file order, never on the first line, and never on the line right behind a
// row of the same UID, whose line feed that search has already passed.
class kesEnergyHistoryRowIndex {
public:
    struct Rest {
        const char* begin;
        const char* end;
    };

    explicit kesEnergyHistoryRowIndex(const kesString& i_source);

    // The rest of each row behind "UID|", up to its line feed, in file order.
    void Find(const kesString& i_uid, std::vector<Rest>* o_rests) const;

private:
    struct Line {
        unsigned int begin;
        unsigned int end;
        unsigned int next;
    };
    struct Chain {
        unsigned int head;
        unsigned int tail;
        unsigned int lastLine;
    };

    const kesString& m_source;
    std::vector<Line> m_lines;
    std::unordered_map<std::string_view, Chain> m_chains;
};

// Extends the hour's block by one group per row, matched to the block's lines
// by position, or appends the block if its header is absent. Rows that find no
// line of their own in the block become new lines at its end, so a header is
// never extended.
void kesEnergyHistoryMergeDay(kesString* io_text, const kesString& i_header, const kesArray<kesString>& i_rows);

enum kesEEnergyHistoryEnergyRule {
    kesEnergyHistoryEnergyLastTotal, // latest group total of the day file rows
    kesEnergyHistoryEnergySum        // sum of the figures of the rows below
};

enum kesEEnergyHistoryPulseRule {
    kesEnergyHistoryPulseLastPiece, // last piece of the latest row
    kesEnergyHistoryPulseWholeRest  // the latest row's rest taken whole
};

struct kesEnergyHistoryRules {
    kesEEnergyHistoryEnergyRule energy;
    int energyPrecision;
    kesEEnergyHistoryPulseRule pulse;
};

// Gives the total of a pulse storage; false if the UID has none.
typedef std::function<bool(unsigned int uid, double* o_total)> kesEnergyHistoryPulseTotal;

// Appends the rows of one block of the month, year or begin file, condensed
// from the rows of the file below: energy rows, then value rows, then pulse rows.
void kesEnergyHistoryAppendRows(kesString* io_text, const kesEnergyHistoryRowIndex& i_source,
                                const kesEnergyHistoryRules& i_rules, const kesArray<kesString>& i_energyUids,
                                const kesArray<kesString>& i_valueUids, const kesArray<kesString>& i_pulseUids,
                                const kesEnergyHistoryPulseTotal& i_pulseTotal);

} // namespace Energy
} // namespace kes

#endif
