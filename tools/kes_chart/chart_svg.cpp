#include "chart_svg.h"

#include <algorithm>
#include <cmath>

namespace kes_chart {

namespace {

using kes::kesString;

const double WIDTH = 960;
const double LEFT = 60; // room for the figures of the scale
const double RIGHT = 20;
const double PLOT = 120;
const double TITLE = 24;
const double BELOW = 34; // time labels and the gap to the next plot
const double SECTION = 30;
const double MINUTES_OF_DAY = 1440;
const char* const COLOURS[] = {"#d9822b", "#2b6cb0", "#2f855a", "#666666"};
const char* const CLASS_NAMES[] = {"energy", "value", "pulse", "none"};
const char* const NO_RISE = "no count: it takes two figures";
const char* const FONT = "font-family=\"DejaVu Sans, sans-serif\"";

struct Plot {
    double top, t0, t1, v0, v1;
    double sx() const { return (WIDTH - LEFT - RIGHT) / (t1 - t0); }
    double sy() const { return PLOT / (v1 - v0); }
    double x(double t) const { return LEFT + (std::min(std::max(t, t0), t1) - t0) * sx(); }
    double y(double v) const { return top + PLOT - (v - v0) * sy(); }
};

struct Bar {
    double from, to, value;
};

// A scale of round steps (1, 2 or 5 times a power of ten) that holds lo to hi.
void round_scale(double lo, double hi, double* o_lo, double* o_hi, double* o_step)
{
    if (!(hi > lo))
        hi = lo + std::max(1.0, std::fabs(lo) * 0.1);
    const double raw = (hi - lo) / 4;
    const double power = std::pow(10.0, std::floor(std::log10(raw)));
    *o_step = 10 * power;
    for (double m : {1.0, 2.0, 5.0})
        if (m * power >= raw) {
            *o_step = m * power;
            break;
        }
    *o_lo = std::floor(lo / *o_step) * *o_step;
    *o_hi = std::ceil(hi / *o_step) * *o_step;
}

std::string figure_text(double i_value, int i_decimals = 1)
{
    return kesString::FromDouble(i_value, i_decimals);
}

// The count of an interval is the rise of the figure since the one before; the
// first figure has none, and a fall (an edited file) gives no bar.
std::vector<Bar> rises(const ChartItem& i_item, double* o_total)
{
    std::vector<Bar> bars;
    const ChartPoint* before = nullptr;
    *o_total = 0;
    for (const ChartPoint& point : i_item.points) {
        if (!point.hasFigure)
            continue;
        if (before && point.figure >= before->figure) {
            bars.push_back(Bar{point.at - point.span, point.at, point.figure - before->figure});
            *o_total += point.figure - before->figure;
        }
        before = &point;
    }
    return bars;
}

class Picture {
public:
    explicit Picture(const std::string& i_heading, const std::vector<std::string>& i_notes) : m_y(36)
    {
        text(20, m_y, 18, "#222222", i_heading);
        for (size_t n = 0; n < i_notes.size() && n < 4; ++n)
            text(20, m_y += 18, 12, "#b03030", i_notes[n]);
        m_y += 14;
    }

    void Section(const std::string& i_heading)
    {
        if (i_heading.empty())
            return;
        text(20, m_y += SECTION - 8, 15, "#222222", i_heading);
        m_y += 8;
    }

    // Title, frame, scale and time labels of one plot; the group stays open for the series.
    Plot Frame(const ChartEntry& i_entry, const std::string& i_summary, double i_t0, double i_t1, double i_lo,
               double i_hi, const char* i_empty)
    {
        Plot plot{m_y + TITLE, i_t0, i_t1, 0, 0};
        double step;
        round_scale(i_lo, i_hi, &plot.v0, &plot.v1, &step);
        m_body.AddFormat(256,
                         "<g class=\"plot\" data-iid=\"%u\" data-class=\"%s\" data-map=\"%.9g %.9g %.9g %.9g %.9g\">\n",
                         i_entry.item->iid, CLASS_NAMES[i_entry.item->kind], LEFT - i_t0 * plot.sx(), plot.sx(),
                         plot.top + PLOT, plot.v0, plot.sy());
        text(LEFT, m_y + 16, 13, "#222222", i_entry.title + i_summary);
        m_body.AddFormat(256,
                         "<rect class=\"frame\" x=\"%.2f\" y=\"%.2f\" width=\"%.2f\" height=\"%.2f\" "
                         "fill=\"#fafafa\" stroke=\"#999999\"/>\n",
                         LEFT, plot.top, WIDTH - LEFT - RIGHT, PLOT);
        for (double v = plot.v0; v <= plot.v1 + step / 2; v += step) {
            grid(LEFT, plot.y(v), WIDTH - RIGHT, plot.y(v));
            const int decimals = step >= 1 ? 0 : static_cast<int>(std::ceil(-std::log10(step) - 1e-9));
            text(LEFT - 6, plot.y(v) + 4, 11, "#444444", figure_text(v, decimals), "end");
        }
        const bool day = i_t1 - i_t0 > 100;
        for (double t = i_t0; t <= i_t1 + 0.01; t += day ? 180 : 1) {
            grid(plot.x(t), plot.top, plot.x(t), plot.top + PLOT);
            if (day)
                text(plot.x(t), plot.top + PLOT + 15, 11, "#444444", std::to_string(static_cast<int>(t) / 60) + ":00",
                     "middle");
            else if (t < i_t1)
                text(plot.x(t + 0.5), plot.top + PLOT + 15, 11, "#444444", std::to_string(static_cast<int>(t)),
                     "middle");
        }
        if (i_empty)
            text(LEFT + (WIDTH - LEFT - RIGHT) / 2, plot.top + PLOT / 2, 13, "#888888", i_empty, "middle");
        m_y = plot.top + PLOT + BELOW;
        return plot;
    }

    // The band from minimum to maximum over each interval, and the averages
    // joined within runs of intervals that follow one another.
    void Averages(const Plot& i_plot, const ChartItem& i_item)
    {
        std::vector<std::vector<const ChartPoint*>> segments;
        const ChartPoint* before = nullptr;
        for (const ChartPoint& point : i_item.points) {
            if (!point.present) {
                before = nullptr;
                continue;
            }
            if (!before || point.at - before->at > 1.5 * point.span)
                segments.emplace_back();
            segments.back().push_back(&point);
            before = &point;
        }
        kesString band, line, dots;
        const char* colour = COLOURS[i_item.kind];
        for (const std::vector<const ChartPoint*>& segment : segments) {
            const bool lone = segment.size() == 1;
            // A lone interval of a few pixels is widened, so that it can be seen.
            const double widen = lone ? std::max(0.0, 4 - segment[0]->span * i_plot.sx()) / 2 : 0;
            for (size_t i = 0; i < segment.size(); ++i)
                add_point(&band, i == 0, i_plot.x(segment[i]->at - segment[i]->span) - widen,
                          i_plot.y(segment[i]->maximum), i_plot.x(segment[i]->at) + widen,
                          i_plot.y(segment[i]->maximum));
            for (size_t i = segment.size(); i-- > 0;)
                add_point(&band, false, i_plot.x(segment[i]->at) + widen, i_plot.y(segment[i]->minimum),
                          i_plot.x(segment[i]->at - segment[i]->span) - widen, i_plot.y(segment[i]->minimum));
            band += " Z";
            for (size_t i = 0; i < segment.size(); ++i) {
                const double x = i_plot.x(segment[i]->at - segment[i]->span / 2);
                const double y = i_plot.y(segment[i]->average);
                if (lone)
                    dots.AddFormat(256, "<circle class=\"average\" cx=\"%.2f\" cy=\"%.2f\" r=\"3\" fill=\"%s\"/>\n", x,
                                   y, colour);
                else
                    line.AddFormat(64, i == 0 ? "M%.2f,%.2f" : " L%.2f,%.2f", x, y);
            }
        }
        if (!segments.empty())
            m_body.AddFormat(band.size() + 256,
                             "<path class=\"band\" d=\"%s\" fill=\"%s\" fill-opacity=\"0.25\" stroke=\"none\"/>\n",
                             band.c_str(), colour);
        if (!line.empty())
            m_body.AddFormat(line.size() + 256,
                             "<path class=\"average\" d=\"%s\" fill=\"none\" stroke=\"%s\" stroke-width=\"1.5\" "
                             "stroke-linejoin=\"round\"/>\n",
                             line.c_str(), colour);
        m_body += dots;
    }

    void Bars(const Plot& i_plot, const std::vector<Bar>& i_bars, ChartClass i_kind)
    {
        for (const Bar& bar : i_bars) {
            const double left = i_plot.x(bar.from);
            const double width = i_plot.x(bar.to) - left;
            const double gap = std::min(1.0, width * 0.15);
            const double top = std::min(i_plot.y(bar.value), i_plot.y(0));
            m_body.AddFormat(
                256, "<rect class=\"bar\" x=\"%.2f\" y=\"%.2f\" width=\"%.2f\" height=\"%.2f\" fill=\"%s\"/>\n",
                left + gap, top, width - 2 * gap, std::fabs(i_plot.y(bar.value) - i_plot.y(0)), COLOURS[i_kind]);
        }
    }

    void EndPlot() { m_body += "</g>\n"; }

    kesString Finish() const
    {
        kesString svg;
        svg.SetFormat(512,
                      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                      "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"%.0f\" height=\"%.0f\" "
                      "viewBox=\"0 0 %.0f %.0f\">\n<rect width=\"100%%\" height=\"100%%\" fill=\"#ffffff\"/>\n",
                      WIDTH, m_y + 10, WIDTH, m_y + 10);
        svg += m_body;
        svg += "</svg>\n";
        return svg;
    }

private:
    void text(double i_x, double i_y, int i_size, const char* i_colour, const std::string& i_text,
              const char* i_anchor = "start")
    {
        const std::string escaped = ChartEscape(i_text);
        m_body.AddFormat(escaped.size() + 256,
                         "<text x=\"%.2f\" y=\"%.2f\" font-size=\"%i\" %s fill=\"%s\" text-anchor=\"%s\">%s</text>\n",
                         i_x, i_y, i_size, FONT, i_colour, i_anchor, escaped.c_str());
    }

    void grid(double i_x1, double i_y1, double i_x2, double i_y2)
    {
        m_body.AddFormat(256, "<line x1=\"%.2f\" y1=\"%.2f\" x2=\"%.2f\" y2=\"%.2f\" stroke=\"#e2e2e2\"/>\n", i_x1,
                         i_y1, i_x2, i_y2);
    }

    static void add_point(kesString* io_path, bool i_first, double i_x1, double i_y1, double i_x2, double i_y2)
    {
        io_path->AddFormat(128, i_first ? "M%.2f,%.2f L%.2f,%.2f" : " L%.2f,%.2f L%.2f,%.2f", i_x1, i_y1, i_x2, i_y2);
    }

    kesString m_body;
    double m_y;
};

void day_plot(Picture* io_picture, const ChartEntry& i_entry)
{
    const ChartItem& item = *i_entry.item;
    if (item.kind == ChartPulse) {
        double total = 0;
        const std::vector<Bar> bars = rises(item, &total);
        double high = 0;
        for (const Bar& bar : bars)
            high = std::max(high, bar.value);
        const std::string summary = " · per interval, over the day " + figure_text(total);
        io_picture->Bars(
            io_picture->Frame(i_entry, summary, 0, MINUTES_OF_DAY, 0, high, bars.empty() ? NO_RISE : nullptr), bars,
            item.kind);
        io_picture->EndPlot();
        return;
    }
    // Power is drawn from 0; other values where they lie.
    double low = item.kind == ChartEnergy ? 0 : 1e300;
    double high = item.kind == ChartEnergy ? 0 : -1e300;
    bool any = false;
    std::string summary;
    for (const ChartPoint& point : item.points) {
        if (point.present) {
            low = std::min({low, point.minimum, point.average});
            high = std::max({high, point.maximum, point.average});
            any = true;
        }
        if (point.hasFigure)
            summary = " · day total " + figure_text(point.figure) + " Wh";
    }
    if (!any)
        low = high = 0;
    const Plot plot = io_picture->Frame(i_entry, summary, 0, MINUTES_OF_DAY, low, high, any ? nullptr : "no sample");
    io_picture->Averages(plot, item);
    io_picture->EndPlot();
}

void month_plot(Picture* io_picture, const ChartEntry& i_entry, int i_days)
{
    const ChartItem& item = *i_entry.item;
    double total = 0;
    std::vector<Bar> bars;
    if (item.kind == ChartPulse) {
        bars = rises(item, &total);
    } else {
        for (const ChartPoint& point : item.points)
            if (point.hasFigure) {
                bars.push_back(Bar{point.at - point.span, point.at, point.figure});
                total += point.figure;
            }
    }
    double low = 0, high = 0;
    for (const Bar& bar : bars) {
        low = std::min(low, bar.value);
        high = std::max(high, bar.value);
    }
    const std::string summary = item.kind == ChartPulse ? " · per day, over the month " + figure_text(total)
                                                        : " · per day, month total " + figure_text(total) + " Wh";
    const char* empty = bars.empty() ? (item.kind == ChartPulse ? NO_RISE : "no figure") : nullptr;
    io_picture->Bars(io_picture->Frame(i_entry, summary, 1, i_days + 1, low, high, empty), bars, item.kind);
    io_picture->EndPlot();
}

} // namespace

std::string ChartEscape(const std::string& i_text)
{
    std::string escaped;
    for (char c : i_text) {
        switch (c) {
        case '&':
            escaped += "&amp;";
            break;
        case '<':
            escaped += "&lt;";
            break;
        case '>':
            escaped += "&gt;";
            break;
        case '"':
            escaped += "&quot;";
            break;
        default:
            escaped += c;
        }
    }
    return escaped;
}

kesString ChartDaySvg(const std::string& i_heading, const ChartHistory& i_day,
                      const std::vector<ChartSection>& i_sections)
{
    Picture picture(i_heading, i_day.notes);
    for (const ChartSection& section : i_sections) {
        picture.Section(section.heading);
        for (const ChartEntry& entry : section.entries)
            day_plot(&picture, entry);
    }
    return picture.Finish();
}

kesString ChartMonthSvg(const std::string& i_heading, const ChartHistory& i_month,
                        const std::vector<ChartSection>& i_sections, int i_days)
{
    Picture picture(i_heading, i_month.notes);
    for (const ChartSection& section : i_sections) {
        picture.Section(section.heading);
        for (const ChartEntry& entry : section.entries)
            month_plot(&picture, entry, i_days);
    }
    return picture.Finish();
}

kesString ChartMessageSvg(const std::string& i_heading, const std::string& i_message)
{
    return Picture(i_heading, {i_message}).Finish();
}

} // namespace kes_chart
