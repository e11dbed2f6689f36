// kes_chart run as a process on history files; what it draws is read back
// through the scale each plot declares.
#include <gtest/gtest.h>
#include <tinyxml.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <string>
#include <unistd.h>
#include <vector>

#include "kes_history_reference.h"
#include "test_process.h"

using kes_test::BinPath;
using kes_test::ChildProcess;
using kes_test::TempDir;
using kes_test::WriteFile;

namespace {

typedef std::pair<double, double> Point; // time (minute of the day, or day + 0.5 in a month), figure
typedef std::vector<std::vector<Point>> Runs;

struct Plot {
    std::string kind, title;
    Runs averages;    // runs of joined averages
    Runs band = {{}}; // minimum and maximum of each interval
    Runs bars = {{}}; // middle and height
    double sy = 1;
};

std::pair<int, std::string> run_chart(std::vector<std::string> i_arguments)
{
    i_arguments.insert(i_arguments.begin(), BinPath("kes_chart"));
    ChildProcess child;
    const int status = child.Start(i_arguments) ? child.Wait(20000) : -1;
    return {status, child.Output()};
}

// "x,y x,y | x,y" and the d of a path ("Mx,y Lx,y Z Mx,y"): runs of points.
Runs runs(const char* i_text)
{
    Runs runs;
    char command;
    double x, y;
    int used = 0;
    for (const char* p = i_text; sscanf(p, " %c%n", &command, &used) == 1; p += used) {
        if (runs.empty() || command == 'M' || command == '|')
            runs.emplace_back();
        if (command != 'Z' && command != '|' &&
            sscanf(p += command == 'M' || command == 'L' ? used : 0, "%lf,%lf%n", &x, &y, &used) == 2)
            runs.back().emplace_back(x, y);
        else if (command != 'Z' && command != '|')
            break;
    }
    return runs;
}

// Every plot of the picture by item number; a picture that is no XML fails the test.
std::map<unsigned int, Plot> read_plots(const std::string& i_path)
{
    std::map<unsigned int, Plot> plots;
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
        Plot& plot = plots[static_cast<unsigned int>(atoi(g->Attribute("data-iid")))];
        plot.kind = g->Attribute("data-class");
        plot.sy = sy;
        for (const TiXmlElement* e = g->FirstChildElement(); e; e = e->NextSiblingElement()) {
            const std::string name = e->Value(), kind = e->Attribute("class") ? e->Attribute("class") : "";
            auto at = [&](const char* i_name) {
                double number = 0;
                e->QueryDoubleAttribute(i_name, &number);
                return number;
            };
            if (name == "text" && plot.title.empty() && e->GetText())
                plot.title = e->GetText();
            if (name == "circle")
                plot.averages.push_back({{t(at("cx")), v(at("cy"))}});
            if (name == "rect" && kind == "bar")
                plot.bars[0].emplace_back(t(at("x") + at("width") / 2), v(at("y")) - v(at("y") + at("height")));
            for (const auto& path : name == "path" ? runs(e->Attribute("d")) : Runs()) {
                if (kind == "average")
                    plot.averages.emplace_back();
                for (size_t i = 0; kind == "average" && i < path.size(); ++i)
                    plot.averages.back().emplace_back(t(path[i].first), v(path[i].second));
                // The band runs along the maxima, two corners an interval, and back along the minima.
                for (size_t i = 0; kind == "band" && i < path.size() / 2; i += 2)
                    plot.band[0].emplace_back(v(path[path.size() - 1 - i].second), v(path[i].second));
            }
        }
        std::sort(plot.averages.begin(), plot.averages.end());
    }
    return plots;
}

void expect_runs(const char* i_expected, const Runs& i_drawn, double i_tolerance, const std::string& i_what)
{
    Runs expected = runs(i_expected);
    if (expected.empty() && i_drawn.size() == 1)
        expected.emplace_back();
    ASSERT_EQ(expected.size(), i_drawn.size()) << i_what;
    for (size_t r = 0; r < expected.size(); ++r) {
        ASSERT_EQ(expected[r].size(), i_drawn[r].size()) << i_what << " run " << r;
        for (size_t i = 0; i < expected[r].size(); ++i) {
            EXPECT_NEAR(expected[r][i].first, i_drawn[r][i].first, 0.01) << i_what << " point " << i;
            EXPECT_NEAR(expected[r][i].second, i_drawn[r][i].second, i_tolerance) << i_what << " point " << i;
        }
    }
}

struct Expected {
    unsigned int iid;
    const char* kind;
    const char* title;    // a part of it
    const char* averages; // runs of joined points
    const char* band;     // minimum,maximum of each interval; "" when not checked
    const char* bars;     // middle,height
};

// The example day of the format: interval 30 min, no sample of 101 at 10:30.
const char* const DAY = "H|10\n101|512|480|540.5|256|f|f|f|256\n201|31.5|30.2|32|31.7|31|32.4\n301|1204.6|1204.9\n"
                        "H|11\n101|600|590|611.2|556\n201|32|31.9|32.1\n301|1205.3\n";
const char* const CONF =
    "<energy><line id=\"1\" adr=\"127.0.0.1:1\"><s type=\"6\" mid=\"4\" iid=\"101\" fid=\"2\"/>"
    "<p type=\"1\" mid=\"5\" iid=\"201\" fid=\"1\"/><m type=\"8\" mid=\"7\" iid=\"301\" fid=\"3\"/>"
    "</line></energy>";

TEST(KesChart, DrawsWhatTheFilesHold)
{
    const Expected day101 = {
        101, "energy", "item 101 · power in W · day total 556 Wh", "585,512 | 645,600", "480,540.5 590,611.2", ""};
    const Expected day201 = {201, "value", "item 201", "585,31.5 615,31.7 645,32", "30.2,32 31,32.4 31.9,32.1", ""};
    const Expected day301 = {301, "pulse", "over the day 0.7", "", "", "615,0.3 645,0.4"};
    struct Case {
        const char* name;
        bool day;
        const char* text;
        std::vector<std::string> options;
        const char* output; // a part of what the tool says, "" for nothing
        std::vector<Expected> plots;
    };
    const Case cases[] = {
        {"classes and interval as the blocks show them", true, DAY, {}, "", {day101, day201, day301}},
        {"titles by device with the configuration",
         true,
         DAY,
         {"-conf", "CONF"},
         "",
         {{101, "energy", "StringTwo 4 · power string 1 in W · item 101", "585,512 | 645,600", "", ""},
          {201, "value", "Panel 5 · temperature in °C · item 201", "585,31.5 615,31.7 645,32", "", ""},
          {301, "pulse", "PulseCounterTwo 7 · pulses channel 2 in thousands", "", "", "615,0.3 645,0.4"}}},
        {"edited and cut lines give gaps and notes",
         true,
         "hello\nH|10\n101|512|480|540.5|256|abc|1|2|300\n201|31.5|30.2|32|31.7|31|32.4\n301|1204.6|1204.9\n"
         "H|25\n101|1|1|1|1\nH|11\n101|600|590|611.2|556\n201|32|31",
         {},
         "rows that end within a group",
         {day101, {201, "value", "", "585,31.5 615,31.7", "", ""}, {301, "pulse", "", "", "", "615,0.3"}}},
        {"pulse rows alone are told by their figures",
         true,
         "H|8\n301|5|5.2|5.6|6|6.3|6.4|6.8|7|7.1|7.3|7.5|7.9\n",
         {},
         "",
         {{301, "pulse", "over the day 2.9", "", "",
           "482.5,0.2 487.5,0.4 492.5,0.4 497.5,0.3 502.5,0.1 507.5,0.4 512.5,0.2 517.5,0.1 522.5,0.2 527.5,0.2 "
           "532.5,0.4"}}},
        {"energy rows alone; an hour begun late ends at its hour",
         true,
         "H|8\n101|100|90|110|8.3|200|190|210|25|f|f|f|25\nH|9\n101|300|290|310|50\n",
         {"-history", "5"},
         "",
         {{101, "energy", "day total 50 Wh", "522.5,100 527.5,200 | 537.5,300", "90,110 190,210 290,310", ""}}},
        {"a month: energy of each day, rise of the pulse figure",
         false,
         "D|13\n101|300\n201|31|30|33\n301|1200\nD|14\n101|556\n201|31.7|30.2|32.4\n301|1205.3\n",
         {},
         "",
         {{101, "energy", "month total 856 Wh", "", "", "13.5,300 14.5,556"},
          {301, "pulse", "over the month 5.3", "", "", "14.5,5.3"}}},
        {"a month of one class: a figure that never falls counts pulses",
         false,
         "D|1\n101|300\n301|10\nD|2\n101|200\n301|12.5\nD|3\n101|250\n301|12.5\n",
         {},
         "",
         {{101, "energy", "", "", "", "1.5,300 2.5,200 3.5,250"}, {301, "pulse", "", "", "", "2.5,2.5 3.5,0"}}},
        {"a day of no rows", true, "\x01garbage|||\n|\nH|\n", {}, "lines that are neither header nor row", {}},
        {"an empty month", false, "", {}, "", {}},
    };
    for (const Case& c : cases) {
        TempDir dir;
        WriteFile(dir.File(c.day ? "d" : "m"), c.text);
        WriteFile(dir.File("conf.xml"), CONF);
        std::vector<std::string> options = {c.day ? "-day" : "-month", dir.File(c.day ? "d" : "m"), "-out",
                                            dir.File("out")};
        for (const std::string& option : c.options)
            options.push_back(option == "CONF" ? dir.File("conf.xml") : option);
        const auto run = run_chart(options);
        EXPECT_EQ(0, run.first) << c.name << "\n" << run.second;
        EXPECT_NE(std::string::npos, run.second.find(c.output)) << c.name << "\n" << run.second;
        const std::map<unsigned int, Plot> plots = read_plots(dir.File(c.day ? "out/day.svg" : "out/month.svg"));
        EXPECT_EQ(c.plots.size(), plots.size()) << c.name;
        for (const Expected& e : c.plots) {
            const std::string what = std::string(c.name) + ", item " + std::to_string(e.iid);
            auto found = plots.find(e.iid);
            ASSERT_NE(plots.end(), found) << what;
            const Plot& p = found->second;
            const double tolerance = 0.01 / p.sy + 1e-9; // coordinates carry two decimals
            EXPECT_EQ(e.kind, p.kind) << what;
            EXPECT_NE(std::string::npos, p.title.find(e.title)) << what << ": " << p.title;
            expect_runs(e.averages, p.averages, tolerance, what + " averages");
            if (*e.band)
                expect_runs(e.band, p.band, tolerance, what + " band");
            expect_runs(e.bars, p.bars, tolerance, what + " bars");
        }
    }
}

TEST(KesChart, RefusesWhatItCanNotUse)
{
    TempDir dir;
    const std::vector<std::string> rows[] = {
        {"-dir", dir.Path()},
        {"-out", dir.File("out")},
        {"-out", dir.File("out"), "-dir", dir.Path(), "-colour", "red"},
        {"-out", dir.File("out"), "-dir", dir.Path(), "-history", "soon"},
        {"-out", dir.File("out"), "-dir", dir.Path(), "-conf", dir.File("none.xml")},
        {"-out", dir.File("none/out"), "-dir", dir.Path()},
    };
    for (const std::vector<std::string>& row : rows)
        EXPECT_EQ(2, run_chart(row).first) << row.back();
    // Before the daemon's first tick there are no files: the pictures say so.
    EXPECT_EQ(0, run_chart({"-out", dir.File("out"), "-dir", dir.Path()}).first);
    EXPECT_NE(std::string::npos, kes_test::ReadFile(dir.File("out/day.svg")).find("No history file"));
    EXPECT_NE(std::string::npos, kes_test::ReadFile(dir.File("out/index.html")).find("month.svg"));
}

// A full day and month, rendered by Debian's rsvg-convert, leave ink on the picture.
TEST(KesChart, PicturesRenderNotBlank)
{
    const char* const RSVG = "/usr/bin/rsvg-convert";
    if (access(RSVG, X_OK) != 0)
        GTEST_SKIP() << "rsvg-convert is missing (package librsvg2-bin)";
    TempDir dir;
    kes_test::GeneratedHistory history;
    kes_test::GenerateHistory(2, 23, 12, 12, 28, 0, 0, &history);
    WriteFile(dir.File("d"), history.day);
    WriteFile(dir.File("m"), history.month);
    ASSERT_EQ(0, run_chart({"-dir", dir.Path(), "-out", dir.File("out")}).first);
    for (const char* picture : {"day", "month"}) {
        const std::string svg = dir.File(std::string("out/") + picture + ".svg");
        const std::string png = dir.File(std::string(picture) + ".png");
        ChildProcess render, measure;
        ASSERT_TRUE(render.Start({RSVG, "-w", "200", "-o", png, svg}));
        ASSERT_EQ(0, render.Wait(60000)) << render.Output();
        ASSERT_TRUE(
            measure.Start({"/usr/bin/python3", std::string(KES_SOURCE_DIR) + "/tests/support/png_ink.py", png}));
        ASSERT_EQ(0, measure.Wait(60000)) << measure.Output();
        const double ink = atof(measure.Output().c_str());
        EXPECT_GT(ink, 0.03) << picture;
        EXPECT_LT(ink, 0.6) << picture;
    }
}

} // namespace
