// The day and month files read back into series per item, for the pictures.
#ifndef KES_CHART_HISTORY_H
#define KES_CHART_HISTORY_H

#include <map>
#include <string>
#include <vector>

#include "kes_string.h"

namespace kes_chart {

enum ChartClass { ChartEnergy = 0, ChartValue = 1, ChartPulse = 2, ChartNone = 3 };

// One group of a day row, or one row of a month block.
struct ChartPoint {
    double at = 0;        // end of the interval: minute of the day, or day of the month plus 1
    double span = 0;      // length of the interval in the same unit
    bool present = false; // average, minimum and maximum are numbers
    double average = 0, minimum = 0, maximum = 0;
    bool hasFigure = false; // energy total, pulse figure or month figure is a number
    double figure = 0;
};

struct ChartItem {
    unsigned int iid = 0;
    ChartClass kind = ChartNone;
    std::vector<ChartPoint> points; // in time order
};

struct ChartHistory {
    unsigned int minutes = 0;       // interval of a day file, as given or as the file shows it
    std::vector<ChartItem> items;   // ascending item number
    std::vector<std::string> notes; // what could not be read as the daemon writes it
};

typedef std::map<unsigned int, ChartClass> ChartClasses;

// i_known: classes already known by item number (configuration, day file);
// i_minutes: the interval, 0 to take it from the groups of the file.
void ChartReadDay(const kes::kesString& i_text, const ChartClasses& i_known, unsigned int i_minutes,
                  ChartHistory* o_day);
void ChartReadMonth(const kes::kesString& i_text, const ChartClasses& i_known, ChartHistory* o_month);

} // namespace kes_chart

#endif
