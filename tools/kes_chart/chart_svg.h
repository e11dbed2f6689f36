// SVG pictures of a day and of a month. Every plot carries its scale as
// data-map="X0 SX Y0 V0 SY": a time t stands at x = X0 + SX * t, a figure v at
// y = Y0 - SY * (v - V0), so what is drawn can be read back.
#ifndef KES_CHART_SVG_H
#define KES_CHART_SVG_H

#include <string>
#include <vector>

#include "chart_items.h"
#include "kes_string.h"

namespace kes_chart {

// Per item the average of each interval as a line over the hours, the band from
// minimum to maximum, the day's energy total; pulse counts per interval as bars.
kes::kesString ChartDaySvg(const std::string& i_heading, const ChartHistory& i_day,
                           const std::vector<ChartSection>& i_sections);

// One bar per day: the energy of the day, or the pulses counted that day.
kes::kesString ChartMonthSvg(const std::string& i_heading, const ChartHistory& i_month,
                             const std::vector<ChartSection>& i_sections, int i_days);

// A picture that only says why there is nothing to draw.
kes::kesString ChartMessageSvg(const std::string& i_heading, const std::string& i_message);

std::string ChartEscape(const std::string& i_text);

} // namespace kes_chart

#endif
