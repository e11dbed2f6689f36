#include "chart_history.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "kes_energy_history_text.h"

namespace kes_chart {

namespace {

// Fields of one group of each class: energy, value, pulse.
const unsigned int DAY_FIELDS[3] = {4, 3, 1};
const unsigned int MONTH_FIELDS[3] = {1, 3, 1};
// Larger figures come from edits only, and would break the scales.
const double LARGEST = 1e12;
// The rise of a total, two figures at precision 1, against an average at
// precision 1 times at most one hour: three roundings of up to 0.05.
const double ROUNDING = 0.15 + 1e-6;

struct Row {
    unsigned int iid;
    unsigned int line;
    std::vector<std::string_view> pieces;
};

struct Block {
    int key; // the hour, or the day of the month
    std::vector<Row> rows;
};

// A run of rows of one class: the daemon writes a block's energy rows, then its
// value rows, then its pulse rows, each in ascending item number.
struct Run {
    size_t first;
    size_t end;
    size_t count; // fields of each row
};

// Problems of one kind are told once, with their count and first line.
class Notes {
public:
    void Add(const std::string& i_kind, unsigned int i_line)
    {
        auto inserted = m_kinds.emplace(i_kind, std::make_pair(0u, i_line));
        ++inserted.first->second.first;
    }
    void Flush(std::vector<std::string>* o_notes) const
    {
        for (const auto& kind : m_kinds)
            o_notes->push_back(kind.first + ": " + std::to_string(kind.second.first) + " (first on line " +
                               std::to_string(kind.second.second) + ")");
    }

private:
    std::map<std::string, std::pair<unsigned int, unsigned int>> m_kinds;
};

bool as_number(std::string_view i_piece, double* o_value)
{
    char buffer[48];
    if (i_piece.empty() || i_piece.size() >= sizeof(buffer))
        return false;
    memcpy(buffer, i_piece.data(), i_piece.size());
    buffer[i_piece.size()] = '\0';
    char* end = nullptr;
    const double value = strtod(buffer, &end);
    if (end != buffer + i_piece.size() || !(std::fabs(value) <= LARGEST))
        return false;
    *o_value = value;
    return true;
}

bool as_whole(std::string_view i_text, unsigned long i_max, unsigned long* o_value)
{
    if (i_text.empty() || i_text.size() > 10 || i_text.find_first_not_of("0123456789") != std::string_view::npos)
        return false;
    *o_value = strtoul(std::string(i_text).c_str(), nullptr, 10);
    return *o_value <= i_max;
}

// Blocks under the headers "<letter>|n"; lines of other shapes, rows outside a
// block and blocks of a number out of range are noted and left out.
std::vector<Block> read_blocks(const kes::kesString& i_text, char i_letter, unsigned long i_highest, Notes* io_notes)
{
    std::vector<Block> blocks;
    bool inBlock = false;
    unsigned int line = 0;
    for (size_t pos = 0; pos < i_text.size();) {
        size_t lf = i_text.find('\n', pos);
        if (lf == std::string::npos)
            lf = i_text.size();
        const std::string_view text(i_text.data() + pos, lf - pos);
        pos = lf + 1;
        ++line;
        const size_t bar = text.find('|');
        unsigned long number = 0;
        if (bar == 1 && text[0] == i_letter) {
            inBlock = as_whole(text.substr(2), i_highest, &number) && (i_letter == 'H' || number > 0);
            if (inBlock)
                blocks.push_back(Block{static_cast<int>(number), {}});
            else
                io_notes->Add(std::string("headers of no ") + (i_letter == 'H' ? "hour" : "day"), line);
        } else if (bar != std::string::npos && as_whole(text.substr(0, bar), 0xFFFFFFFFul, &number)) {
            if (!inBlock) {
                io_notes->Add("rows outside a block", line);
                continue;
            }
            Row row{static_cast<unsigned int>(number), line, {}};
            // Split as the daemon splits: empty pieces are dropped.
            kes::Energy::kesEnergyHistoryPieces pieces(text.data() + bar + 1, text.data() + text.size());
            const char* begin;
            const char* end;
            while (pieces.Next(&begin, &end))
                row.pieces.emplace_back(begin, static_cast<size_t>(end - begin));
            blocks.back().rows.push_back(row);
        } else {
            io_notes->Add("lines that are neither header nor row", line);
        }
    }
    return blocks;
}

std::vector<Run> runs_of(const Block& i_block)
{
    std::vector<Run> runs;
    for (size_t r = 0; r < i_block.rows.size(); ++r) {
        const size_t count = i_block.rows[r].pieces.size();
        if (runs.empty() || runs.back().count != count || i_block.rows[r - 1].iid >= i_block.rows[r].iid)
            runs.push_back(Run{r, r, count});
        runs.back().end = r + 1;
    }
    return runs;
}

// The classes of the runs, when their field counts fit exactly one order of
// classes; with i_freeGroups the groups per row follow from the first run.
bool fit_runs(const std::vector<Run>& i_runs, const unsigned int i_fields[3], bool i_freeGroups,
              std::vector<ChartClass>* o_classes, size_t* o_groups)
{
    int fits = 0;
    for (unsigned int mask = 1; mask < 8; ++mask) {
        std::vector<ChartClass> classes;
        for (int c = 0; c < 3; ++c)
            if ((mask >> c) & 1u)
                classes.push_back(static_cast<ChartClass>(c));
        if (classes.size() != i_runs.size())
            continue;
        const size_t groups = i_freeGroups ? i_runs[0].count / i_fields[classes[0]] : 1;
        bool fit = groups > 0;
        for (size_t r = 0; fit && r < i_runs.size(); ++r)
            fit = i_runs[r].count == i_fields[classes[r]] * groups;
        if (fit) {
            ++fits;
            *o_classes = classes;
            *o_groups = groups;
        }
    }
    return fits == 1;
}

// Each block whose runs tell the classes votes for the class of its items; a
// single short run at its end is taken for a row cut off and left out of it.
// Gives the most groups a told block holds.
size_t vote(const std::vector<Block>& i_blocks, const unsigned int i_fields[3], bool i_freeGroups,
            std::map<unsigned int, std::array<unsigned int, 3>>* o_votes)
{
    size_t most = 0;
    for (const Block& block : i_blocks) {
        std::vector<Run> runs = runs_of(block);
        std::vector<ChartClass> classes;
        size_t groups = 0;
        bool told = !runs.empty() && fit_runs(runs, i_fields, i_freeGroups, &classes, &groups);
        if (!told && runs.size() > 1 && runs.back().end - runs.back().first == 1) {
            runs.pop_back();
            told = fit_runs(runs, i_fields, i_freeGroups, &classes, &groups);
        }
        if (!told)
            continue;
        most = std::max(most, groups);
        for (size_t r = 0; r < runs.size(); ++r)
            for (size_t i = runs[r].first; i < runs[r].end; ++i)
                ++(*o_votes)[block.rows[i].iid][classes[r]];
    }
    return most;
}

// Whether each group with a sample added its average over one interval of
// i_minutes (0: any divisor of the hour) to the running total: pairs of average
// and rise of the total.
bool totals_fit(const std::vector<std::pair<double, double>>& i_rises, unsigned int i_minutes)
{
    for (unsigned int n = 1; n <= 60; ++n) {
        bool fit = 60 % n == 0 && (i_minutes == 0 || n == i_minutes);
        for (size_t i = 0; fit && i < i_rises.size(); ++i)
            fit = std::fabs(i_rises[i].second - i_rises[i].first * n / 60) <= ROUNDING;
        if (fit)
            return true;
    }
    return false;
}

// Whether every row of an item can be a day row of the class, within i_bound
// groups (0: any). A figure of a pulse row and the last field of an energy group,
// the day's running total, are numbers that never fall.
bool day_rows_fit(const std::vector<const Row*>& i_rows, ChartClass i_class, size_t i_bound, unsigned int i_minutes)
{
    const size_t k = DAY_FIELDS[i_class];
    bool haveTotal = false;
    double total = 0;
    std::vector<std::pair<double, double>> rises;
    for (const Row* row : i_rows) {
        const std::vector<std::string_view>& p = row->pieces;
        if (p.size() % k != 0 || (i_bound && p.size() / k > i_bound))
            return false;
        for (size_t g = 0; g < p.size(); g += k) {
            double f[4];
            int numbers = 0;
            for (size_t i = 0; i < std::min<size_t>(k, 3); ++i)
                numbers += as_number(p[g + i], &f[i]) ? 1 : 0;
            if (i_class == ChartPulse && numbers == 0)
                return false;
            // The daemon never writes an average above the maximum.
            if (i_class != ChartPulse && numbers != 0 && (numbers != 3 || f[1] > f[2] || f[0] > f[2]))
                return false;
            if (i_class == ChartValue)
                continue;
            const size_t last = i_class == ChartPulse ? 0 : 3;
            if (!as_number(p[g + last], &f[last]) || (haveTotal && f[last] < total))
                return false;
            if (i_class == ChartEnergy && haveTotal && numbers == 3)
                rises.emplace_back(f[0], f[3] - total);
            haveTotal = true;
            total = f[last];
        }
    }
    return totals_fit(rises, i_minutes);
}

// A month row of one field is a pulse figure when the figures never fall over
// two days or more, else the energy of the day.
bool month_rows_rise(const std::vector<const Row*>& i_rows)
{
    double last = -LARGEST;
    for (const Row* row : i_rows) {
        double figure;
        if (row->pieces.size() != 1 || !as_number(row->pieces[0], &figure) || figure < last)
            return false;
        last = figure;
    }
    return i_rows.size() > 1;
}

// Every item's class: as known, else as most of its told blocks say, else by the
// shape of its rows. Items that fit no class are noted and left out.
ChartClasses classify(const std::vector<Block>& i_blocks, const ChartClasses& i_known, bool i_day,
                      unsigned int i_minutes, Notes* io_notes)
{
    std::map<unsigned int, std::array<unsigned int, 3>> votes;
    const size_t most = vote(i_blocks, i_day ? DAY_FIELDS : MONTH_FIELDS, i_day, &votes);
    const size_t bound = i_minutes ? 60 / i_minutes : most;
    std::map<unsigned int, std::vector<const Row*>> rows;
    for (const Block& block : i_blocks)
        for (const Row& row : block.rows)
            rows[row.iid].push_back(&row);
    ChartClasses classes;
    for (const auto& item : rows) {
        ChartClass kind = ChartNone;
        auto known = i_known.find(item.first);
        auto voted = votes.find(item.first);
        if (known != i_known.end() && known->second != ChartNone) {
            kind = known->second;
        } else if (voted != votes.end()) {
            const std::array<unsigned int, 3>& v = voted->second;
            kind = static_cast<ChartClass>(std::max_element(v.begin(), v.end()) - v.begin());
        } else if (!i_day) {
            kind = month_rows_rise(item.second) ? ChartPulse : ChartEnergy;
        } else {
            for (ChartClass c : {ChartEnergy, ChartPulse, ChartValue})
                if (kind == ChartNone && day_rows_fit(item.second, c, bound, i_minutes))
                    kind = c;
        }
        if (kind == ChartNone)
            io_notes->Add("rows of item " + std::to_string(item.first) + ", which fit no class, left out",
                          item.second[0]->line);
        classes[item.first] = kind;
    }
    return classes;
}

// One group of a row; a field that is neither a number nor "f" is noted.
ChartPoint make_point(const Row& i_row, size_t i_first, ChartClass i_class, bool i_day, Notes* io_notes)
{
    ChartPoint point;
    double f[4] = {0, 0, 0, 0};
    const size_t k = (i_day ? DAY_FIELDS : MONTH_FIELDS)[i_class];
    bool numbers[4] = {false, false, false, false};
    for (size_t i = 0; i < k; ++i) {
        const std::string_view piece = i_row.pieces[i_first + i];
        numbers[i] = as_number(piece, &f[i]);
        if (!numbers[i] && !(piece.size() == 1 && (piece[0] == 'f' || piece[0] == 'F')))
            io_notes->Add("fields that are neither a number nor f, drawn as gaps", i_row.line);
    }
    if (k == 1) {
        point.hasFigure = numbers[0];
        point.figure = f[0];
        return point;
    }
    point.present = numbers[0] && numbers[1] && numbers[2];
    point.average = f[0];
    point.minimum = f[1];
    point.maximum = f[2];
    point.hasFigure = k == 4 && numbers[3];
    point.figure = f[3];
    return point;
}

// The groups of every row at their time: group j of hour h ends at h:00 plus j
// intervals. A short block is placed from the start of its hour, but where the
// daemon began that hour (no block of the hour before, a later block behind)
// towards its end; a block of more groups than an hour holds is squeezed into it.
void place_day(const std::vector<Block>& i_blocks, const ChartClasses& i_classes, unsigned int i_minutes,
               std::map<unsigned int, ChartItem>* io_items, Notes* io_notes)
{
    const size_t hour = 60 / i_minutes;
    for (size_t b = 0; b < i_blocks.size(); ++b) {
        const Block& block = i_blocks[b];
        size_t groups = 0;
        for (const Row& row : block.rows)
            if (i_classes.at(row.iid) != ChartNone)
                groups = std::max(groups, row.pieces.size() / DAY_FIELDS[i_classes.at(row.iid)]);
        const bool began = (b == 0 || i_blocks[b - 1].key != block.key - 1) && b + 1 < i_blocks.size();
        const size_t offset = groups < hour && began ? hour - groups : 0;
        const double width = groups > hour ? 60.0 / static_cast<double>(groups) : i_minutes;
        for (const Row& row : block.rows) {
            const ChartClass kind = i_classes.at(row.iid);
            if (kind == ChartNone)
                continue;
            const size_t k = DAY_FIELDS[kind];
            if (row.pieces.size() % k != 0)
                io_notes->Add("rows that end within a group, drawn up to their last whole group", row.line);
            ChartItem& item = (*io_items)[row.iid];
            for (size_t j = 0; j < row.pieces.size() / k; ++j) {
                ChartPoint point = make_point(row, j * k, kind, true, io_notes);
                point.at = block.key * 60.0 + static_cast<double>(offset + j) * width;
                point.span = width;
                item.points.push_back(point);
            }
        }
    }
}

void collect(std::map<unsigned int, ChartItem>& io_items, const ChartClasses& i_classes, const Notes& i_notes,
             ChartHistory* o_history)
{
    for (auto& entry : io_items) {
        ChartItem& item = entry.second;
        item.iid = entry.first;
        item.kind = i_classes.at(entry.first);
        std::stable_sort(item.points.begin(), item.points.end(),
                         [](const ChartPoint& a, const ChartPoint& b) { return a.at < b.at; });
        o_history->items.push_back(item);
    }
    i_notes.Flush(&o_history->notes);
}

} // namespace

void ChartReadDay(const kes::kesString& i_text, const ChartClasses& i_known, unsigned int i_minutes,
                  ChartHistory* o_day)
{
    Notes notes;
    const std::vector<Block> blocks = read_blocks(i_text, 'H', 23, &notes);
    const ChartClasses classes = classify(blocks, i_known, true, i_minutes, &notes);
    if (!i_minutes) {
        // The most groups of any hour, up to a divisor of the hour.
        size_t most = 1;
        for (const Block& block : blocks)
            for (const Row& row : block.rows)
                if (classes.at(row.iid) != ChartNone)
                    most = std::max(most, row.pieces.size() / DAY_FIELDS[classes.at(row.iid)]);
        size_t groups = std::min<size_t>(most, 60);
        while (60 % groups != 0)
            ++groups;
        i_minutes = static_cast<unsigned int>(60 / groups);
    }
    o_day->minutes = i_minutes;
    std::map<unsigned int, ChartItem> items;
    place_day(blocks, classes, i_minutes, &items, &notes);
    collect(items, classes, notes, o_day);
}

void ChartReadMonth(const kes::kesString& i_text, const ChartClasses& i_known, ChartHistory* o_month)
{
    Notes notes;
    const std::vector<Block> blocks = read_blocks(i_text, 'D', 31, &notes);
    const ChartClasses classes = classify(blocks, i_known, false, 0, &notes);
    std::map<unsigned int, ChartItem> items;
    for (const Block& block : blocks)
        for (const Row& row : block.rows) {
            const ChartClass kind = classes.at(row.iid);
            if (kind == ChartNone)
                continue;
            if (row.pieces.size() != MONTH_FIELDS[kind]) {
                notes.Add("rows of another length than their class, left out", row.line);
                continue;
            }
            ChartPoint point = make_point(row, 0, kind, false, &notes);
            point.at = block.key + 1.0;
            point.span = 1.0;
            items[row.iid].points.push_back(point);
        }
    collect(items, classes, notes, o_month);
}

} // namespace kes_chart
