// kes_chart run as a process on history files; what it draws is read back
// through the scale each plot declares.
#include <gtest/gtest.h>
#include <tinyxml.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <map>
#include <sstream>

#include "test_process.h"

namespace {

// Runs of points: time (minute of the day, or day + 0.5 in a month), figure.
typedef std::vector<std::vector<std::pair<double, double>>> Runs;

// As "x,y x,y | x,y", to a tenth: the coordinates carry two decimals of a pixel.
std::string text(const Runs& i_runs)
{
    std::ostringstream out;
    for (const auto& run : i_runs)
        for (size_t i = 0; i < run.size(); ++i)
            out << (out.tellp() > 0 ? i ? " " : " | " : "") << std::round(run[i].first * 10) / 10 + 0.0 << ","
                << std::round(run[i].second * 10) / 10 + 0.0;
    return out.str();
}

// The title, and the averages (joined runs), band (minimum,maximum of each
// interval) and bars (middle,height) of each plot of the picture by item
// number, as text; a picture that is no XML fails the test.
std::map<unsigned int, std::vector<std::string>> read_plots(const std::string& i_path)
{
    std::map<unsigned int, std::vector<std::string>> plots;
    TiXmlDocument document(i_path.c_str());
    EXPECT_TRUE(document.LoadFile()) << i_path << ": " << document.ErrorDesc();
    const TiXmlElement* svg = document.RootElement();
    for (const TiXmlElement* g = svg ? svg->FirstChildElement("g") : nullptr; g; g = g->NextSiblingElement("g")) {
        double x0, sx, y0, v0, sy;
        const char* map = g->Attribute("data-map");
        if (!map || sscanf(map, "%lf %lf %lf %lf %lf", &x0, &sx, &y0, &v0, &sy) != 5)
            continue;
        auto t = [&](double x) { return (x - x0) / sx; };
        auto v = [&](double y) { return v0 + (y0 - y) / sy; };
        std::string title;
        Runs averages, band = {{}}, bars = {{}};
        for (const TiXmlElement* e = g->FirstChildElement(); e; e = e->NextSiblingElement()) {
            const std::string name = e->Value(), kind = e->Attribute("class") ? e->Attribute("class") : "";
            auto at = [&](const char* i_name) { return atof(e->Attribute(i_name) ? e->Attribute(i_name) : "0"); };
            if (name == "text" && title.empty() && e->GetText())
                title = e->GetText();
            if (name == "circle")
                averages.push_back({{t(at("cx")), v(at("cy"))}});
            if (name == "rect" && kind == "bar")
                bars[0].emplace_back(t(at("x") + at("width") / 2), v(at("y")) - v(at("y") + at("height")));
            std::string points = name == "path" ? e->Attribute("d") : "";
            std::replace(points.begin(), points.end(), 'Z', ' '); // a band closes one run and opens the next at once
            std::istringstream d(points);
            Runs path;
            for (std::string word; d >> word;) {
                double x, y;
                if (word[0] == 'M')
                    path.emplace_back();
                if (sscanf(word.c_str() + 1, "%lf,%lf", &x, &y) == 2)
                    path.back().emplace_back(x, y);
            }
            for (const auto& run : path) {
                if (kind == "average")
                    averages.emplace_back();
                for (size_t i = 0; kind == "average" && i < run.size(); ++i)
                    averages.back().emplace_back(t(run[i].first), v(run[i].second));
                // The band runs along the maxima, two corners an interval, and back along the minima.
                for (size_t i = 0; kind == "band" && i < run.size() / 2; i += 2)
                    band[0].emplace_back(v(run[run.size() - 1 - i].second), v(run[i].second));
            }
        }
        std::sort(averages.begin(), averages.end());
        plots[atoi(g->Attribute("data-iid"))] = {g->Attribute("data-class"), title, text(averages), text(band),
                                                 text(bars)};
    }
    return plots;
}

std::pair<int, std::string> run_chart(std::vector<std::string> i_arguments)
{
    i_arguments.insert(i_arguments.begin(), kes_test::BinPath("kes_chart"));
    kes_test::ChildProcess child;
    const int status = child.Start(i_arguments) ? child.Wait(20000) : -1;
    return {status, child.Output()};
}

// The example day of the format: interval 30 min, no sample of 101 at 10:30.
const char* const DAY = "H|10\n101|512|480|540.5|256|f|f|f|256\n201|31.5|30.2|32|31.7|31|32.4\n301|1204.6|1204.9\n"
                        "H|11\n101|600|590|611.2|556\n201|32|31.9|32.1\n301|1205.3\n";
const char* const CONF =
    "<energy><line id=\"1\" adr=\"127.0.0.1:1\"><s type=\"6\" mid=\"4\" iid=\"101\" fid=\"2\"/>"
    "<p type=\"1\" mid=\"5\" iid=\"201\" fid=\"1\"/><m type=\"8\" mid=\"7\" iid=\"301\" fid=\"3\"/></line></energy>";

TEST(KesChart, DrawsWhatTheFilesHold)
{
    // plot: class, a part of the title, averages, band ("*": not checked), bars; output: a part of what the tool
    // says; a day, but for a name with "month"
    // clang-format off
    struct Expected { unsigned int iid; std::vector<std::string> plot; };
    const Expected day101 = {101, {"energy", "item 101 · power in W · day total 556 Wh", "585,512 | 645,600", "480,540.5 590,611.2", ""}};
    const Expected day201 = {201, {"value", "item 201", "585,31.5 615,31.7 645,32", "30.2,32 31,32.4 31.9,32.1", ""}};
    const Expected day301 = {301, {"pulse", "over the day 0.7", "", "", "615,0.3 645,0.4"}};
    struct Case { const char* name; const char* text; std::vector<std::string> options; const char* output; std::vector<Expected> plots; };
    const Case cases[] = {
        {"classes and interval as the blocks show them", DAY, {}, "", {day101, day201, day301}},
        {"titles by device with the configuration", DAY, {"-conf", "CONF"}, "",
         {{101, {"energy", "StringTwo 4 · power string 1 in W · item 101", "585,512 | 645,600", "*", ""}},
          {201, {"value", "Panel 5 · temperature in °C · item 201", "585,31.5 615,31.7 645,32", "*", ""}},
          {301, {"pulse", "PulseCounterTwo 7 · pulses channel 2 in thousands", "", "*", "615,0.3 645,0.4"}}}},
        {"edited and cut lines give gaps and notes",
         "hello\nH|10\n101|512|480|540.5|256|abc|1|2|300\n201|31.5|30.2|32|31.7|31|32.4\n301|1204.6|1204.9\n"
         "H|25\n101|1|1|1|1\nH|11\n101|600|590|611.2|556\n201|32|31", {}, "rows that end within a group",
         {day101, {201, {"value", "", "585,31.5 615,31.7", "*", ""}}, {301, {"pulse", "", "", "*", "615,0.3"}}}},
        {"pulse rows alone are told by their figures", "H|8\n301|5|5.2|5.6|6|6.3|6.4|6.8|7|7.1|7.3|7.5|7.9\n", {}, "",
         {{301, {"pulse", "over the day 2.9", "", "", "482.5,0.2 487.5,0.4 492.5,0.4 497.5,0.3 502.5,0.1 507.5,0.4 "
                                                      "512.5,0.2 517.5,0.1 522.5,0.2 527.5,0.2 532.5,0.4"}}}},
        {"energy rows alone; an hour begun late ends at its hour", "H|8\n101|100|90|110|8.3|200|190|210|25|f|f|f|25\nH|9\n101|300|290|310|50\n",
         {"-history", "5"}, "", {{101, {"energy", "day total 50 Wh", "522.5,100 527.5,200 | 537.5,300", "90,110 190,210 290,310", ""}}}},
        {"a month: energy of each day, rise of the pulse figure",
         "D|13\n101|300\n201|31|30|33\n301|1200\nD|14\n101|556\n201|31.7|30.2|32.4\n301|1205.3\n", {}, "",
         {{101, {"energy", "month total 856 Wh", "", "*", "13.5,300 14.5,556"}}, {301, {"pulse", "over the month 5.3", "", "*", "14.5,5.3"}}}},
        {"a month of one class: a figure that never falls counts pulses",
         "D|1\n101|300\n301|10\nD|2\n101|200\n301|12.5\nD|3\n101|250\n301|12.5\n", {}, "",
         {{101, {"energy", "", "", "*", "1.5,300 2.5,200 3.5,250"}}, {301, {"pulse", "", "", "*", "2.5,2.5 3.5,0"}}}},
        {"a day of no rows", "\x01garbage|||\n|\nH|\n", {}, "lines that are neither header nor row", {}},
        {"an empty month", "", {}, "", {}},
    };
    // clang-format on
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const bool day = std::string(c.name).find("month") == std::string::npos;
        kes_test::TempDir dir;
        kes_test::WriteFile(dir.File("history"), c.text);
        kes_test::WriteFile(dir.File("conf.xml"), CONF);
        std::vector<std::string> options = {day ? "-day" : "-month", dir.File("history"), "-out", dir.File("out")};
        for (const std::string& option : c.options)
            options.push_back(option == "CONF" ? dir.File("conf.xml") : option);
        const auto run = run_chart(options);
        EXPECT_EQ(0, run.first) << run.second;
        EXPECT_NE(std::string::npos, run.second.find(c.output)) << run.second;
        auto plots = read_plots(dir.File(day ? "out/day.svg" : "out/month.svg"));
        EXPECT_EQ(c.plots.size(), plots.size());
        for (const Expected& e : c.plots) {
            std::vector<std::string> drawn = plots[e.iid];
            ASSERT_EQ(5u, drawn.size()) << e.iid;
            EXPECT_NE(std::string::npos, drawn[1].find(e.plot[1])) << e.iid << ": " << drawn[1];
            drawn[1] = e.plot[1];
            drawn[3] = e.plot[3] == "*" ? "*" : drawn[3];
            EXPECT_EQ(e.plot, drawn) << e.iid;
        }
    }
}

TEST(KesChart, RefusesWhatItCanNotUse)
{
    kes_test::TempDir dir;
    const std::string out = dir.File("out"), data = dir.Path();
    // clang-format off
    const std::vector<std::string> rows[] = {{"-dir", data}, {"-out", out}, {"-out", out, "-dir", data, "-colour", "red"},
        {"-out", out, "-dir", data, "-history", "soon"}, {"-out", out, "-dir", data, "-conf", dir.File("none.xml")},
        {"-out", dir.File("none/out"), "-dir", data}};
    // clang-format on
    for (const std::vector<std::string>& row : rows)
        EXPECT_EQ(2, run_chart(row).first) << row.back();
    // Before the daemon's first tick there are no files: the pictures say so.
    EXPECT_EQ(0, run_chart({"-out", out, "-dir", data}).first);
    EXPECT_NE(std::string::npos, kes_test::ReadFile(dir.File("out/day.svg")).find("No history file"));
    EXPECT_NE(std::string::npos, kes_test::ReadFile(dir.File("out/index.html")).find("month.svg"));
}

} // namespace
