// What each item is, from the daemon's configuration: title, quantity, unit,
// and the device it belongs to.
#ifndef KES_CHART_ITEMS_H
#define KES_CHART_ITEMS_H

#include <string>
#include <vector>

#include "chart_history.h"
#include "sim_config.h"

namespace kes_chart {

struct ChartEntry {
    const ChartItem* item;
    std::string title; // device, quantity with its unit, item number
};

// The items of one device, or all items of no known device.
struct ChartSection {
    std::string heading;
    std::vector<ChartEntry> entries;
};

// The classes of the configured items that go to the history files.
ChartClasses ChartConfiguredClasses(const kes_sim::SimConfig& i_config);

// One section per configured device, in the order of the file, then the items
// the configuration does not know, by number; i_config may be null. A month
// takes its energy and pulse items only.
std::vector<ChartSection> ChartSections(const ChartHistory& i_history, const kes_sim::SimConfig* i_config,
                                        bool i_month);

} // namespace kes_chart

#endif
