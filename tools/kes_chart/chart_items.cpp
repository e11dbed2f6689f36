#include "chart_items.h"

#include <map>

#include "kes_energy_device_types.h"

namespace kes_chart {

namespace Energy = kes::Energy;

namespace {

struct Quantity {
    ChartClass kind;
    std::string name;
    std::string unit;
};

// What a class is without a configuration; a month holds the energy of each day.
Quantity plain_quantity(ChartClass i_kind, bool i_month)
{
    static const Quantity PLAIN[] = {{ChartEnergy, "power", "W"},
                                     {ChartValue, "value", ""},
                                     {ChartPulse, "pulses", "thousands"},
                                     {ChartNone, "", ""}};
    if (i_month && i_kind == ChartEnergy)
        return Quantity{ChartEnergy, "energy", "Wh"};
    return PLAIN[i_kind];
}

Quantity quantity_of(int i_type, unsigned int i_fid, bool i_month)
{
    const Energy::EHistoryClass stored = Energy::HistoryClassOf(i_type, i_fid);
    const Energy::ValueField* field = Energy::FindValueField(i_type, i_fid);
    if (stored == Energy::HistoryValue) {
        if (field && field->kind == Energy::KIND_VOLT)
            return Quantity{ChartValue, "voltage", "V"};
        if (field && field->kind == Energy::KIND_TEMPERATURE)
            return Quantity{ChartValue, "temperature", "°C"};
        return Quantity{ChartValue, "field " + std::to_string(i_fid), ""};
    }
    if (!field || (stored != Energy::HistoryEnergy && stored != Energy::HistoryPulse))
        return plain_quantity(ChartNone, i_month);
    const ChartClass kind = stored == Energy::HistoryEnergy ? ChartEnergy : ChartPulse;
    Quantity quantity = plain_quantity(kind, i_month);
    const Energy::DeviceType& row = *Energy::FindDeviceType(i_type);
    unsigned int channels = 0;
    for (unsigned int fid = 0; fid < row.fieldCount; ++fid)
        channels += row.fields[fid].history == stored ? 1 : 0;
    if (channels > 1)
        quantity.name += (kind == ChartEnergy ? " string " : " channel ") + std::to_string(field->channel + 1);
    return quantity;
}

std::string quantity_text(const Quantity& i_quantity)
{
    return i_quantity.unit.empty() ? i_quantity.name : i_quantity.name + " in " + i_quantity.unit;
}

} // namespace

ChartClasses ChartConfiguredClasses(const kes_sim::SimConfig& i_config)
{
    ChartClasses classes;
    for (const kes_sim::SimLine& line : i_config.lines)
        for (const kes_sim::SimDevice& device : line.devices)
            for (const kes_sim::SimValue& value : device.values)
                classes[value.iid] = quantity_of(device.type, value.fid, false).kind;
    return classes;
}

std::vector<ChartSection> ChartSections(const ChartHistory& i_history, const kes_sim::SimConfig* i_config, bool i_month)
{
    std::map<unsigned int, const ChartItem*> left;
    for (const ChartItem& item : i_history.items)
        if (!i_month || item.kind == ChartEnergy || item.kind == ChartPulse)
            left[item.iid] = &item;
    std::vector<ChartSection> sections;
    for (const kes_sim::SimLine& line : i_config ? i_config->lines : std::vector<kes_sim::SimLine>())
        for (const kes_sim::SimDevice& device : line.devices) {
            const std::string name = std::string(kes_sim::TypeName(device.type)) + " " + std::to_string(device.mid);
            ChartSection section{name + ", line " + std::to_string(line.id), {}};
            for (const kes_sim::SimValue& value : device.values) {
                auto found = left.find(value.iid);
                if (found == left.end())
                    continue;
                section.entries.push_back(ChartEntry{
                    found->second, name + " · " + quantity_text(quantity_of(device.type, value.fid, i_month)) +
                                       " · item " + std::to_string(value.iid)});
                left.erase(found);
            }
            if (!section.entries.empty())
                sections.push_back(section);
        }
    ChartSection rest{i_config ? "Items the configuration does not name" : "", {}};
    for (const auto& entry : left) {
        rest.entries.push_back(
            ChartEntry{entry.second, "item " + std::to_string(entry.first) + " · " +
                                         quantity_text(plain_quantity(entry.second->kind, i_month))});
    }
    if (!rest.entries.empty())
        sections.push_back(rest);
    return sections;
}

} // namespace kes_chart
