// kes_chart -out FOLDER [-dir DATA] [-day FILE] [-month FILE] [-conf FILE] [-history MINUTES]
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>

#include "chart_svg.h"
#include "kes_energy.h"
#include "kes_energy_history_file.h"
#include "kes_error.h"
#include "kes_osutility.h"

namespace {

using kes::kesString;
using namespace kes_chart;

const char* const HELP = "\n"
                         "Kes. Chart Command Help\n"
                         "kes_chart -out FOLDER [-dir DATA] [-day FILE] [-month FILE] [-conf FILE] [-history MINUTES]\n"
                         "-out pictures folder ---------- [gets day.svg, month.svg and index.html; made if missing]\n"
                         "-dir data directory ----------- [the daemon's -dir: its day file d and month file m]\n"
                         "-day day file ----------------- [d or a dated copy YYYY_MM_DD, in place of DATA/d]\n"
                         "-month month file ------------- [m or a dated copy YYYY_MM, in place of DATA/m]\n"
                         "-conf configuration file ------ [the daemon's: items titled and grouped by device]\n"
                         "-history minutes -------------- [the daemon's interval; default: as the day file shows]\n"
                         "-h this help\n"
                         "Exit status 0 when the pictures are written, 2 otherwise.\n";

struct Options {
    std::string out, dir, day, month, conf;
    unsigned int minutes = 0;
};

int usage_error(const std::string& i_error)
{
    fprintf(stderr, "kes_chart: %s\n", i_error.c_str());
    fputs(HELP, stderr);
    return 2;
}

bool parse_options(int argc, char** argv, Options* o_options, std::string* o_error)
{
    std::string* const FIELDS[] = {&o_options->out, &o_options->dir, &o_options->day, &o_options->month,
                                   &o_options->conf};
    const char* const NAMES[] = {"-out", "-dir", "-day", "-month", "-conf"};
    for (int i = 1; i < argc; ++i) {
        const kesString word(argv[i]);
        if (i + 1 >= argc) {
            *o_error = word.empty() || word[0] != '-' ? "Unexpected word " + word : "Option " + word + " needs a value";
            return false;
        }
        const std::string value = argv[++i];
        bool known = false;
        for (size_t n = 0; n < 5; ++n)
            if (word.IsEqualNoCase(NAMES[n])) {
                *FIELDS[n] = value;
                known = true;
            }
        if (word.IsEqualNoCase("-history")) {
            if (value.empty() || value.size() > 4 || value.find_first_not_of("0123456789") != std::string::npos) {
                *o_error = "Option -history takes a number of minutes: \"" + value + "\"";
                return false;
            }
            // Rounded as the daemon rounds it.
            o_options->minutes = kes::Energy::kesHistoryTimeFromValue(strtoul(value.c_str(), nullptr, 10));
        } else if (!known) {
            *o_error = "Unknown option " + word;
            return false;
        }
    }
    if (o_options->out.empty())
        *o_error = "-out FOLDER is required";
    else if (o_options->dir.empty() && o_options->day.empty() && o_options->month.empty())
        *o_error = "-dir, -day or -month is required";
    return o_error->empty();
}

// The date a file stands for: its dated name, else the day it was last written.
// Gives the text and, in o_year and o_month, the month.
std::string file_date(const std::string& i_path, bool i_day, int* o_year, int* o_month)
{
    const size_t slash = i_path.rfind('/');
    const std::string name = slash == std::string::npos ? i_path : i_path.substr(slash + 1);
    int day = 0;
    char rest = 0;
    const int fields = i_day ? sscanf(name.c_str(), "%4d_%2d_%2d%c", o_year, o_month, &day, &rest)
                             : sscanf(name.c_str(), "%4d_%2d%c", o_year, o_month, &rest);
    char text[64];
    if (fields == (i_day ? 3 : 2) && name.size() == (i_day ? 10u : 7u)) {
        snprintf(text, sizeof(text), i_day ? "%.4i-%.2i-%.2i" : "%.4i-%.2i", *o_year, *o_month, day);
        return text;
    }
    struct stat info;
    struct tm local;
    const time_t written = stat(i_path.c_str(), &info) == 0 ? info.st_mtime : time(nullptr);
    localtime_r(&written, &local);
    *o_year = local.tm_year + 1900;
    *o_month = local.tm_mon + 1;
    strftime(text, sizeof(text), i_day ? "%Y-%m-%d, written %H:%M" : "%Y-%m, written %Y-%m-%d %H:%M", &local);
    return text;
}

int days_of_month(int i_year, int i_month)
{
    static const int DAYS[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    if (i_month < 1 || i_month > 12)
        return 31;
    const bool leap = (i_year % 4 == 0 && i_year % 100 != 0) || i_year % 400 == 0;
    return DAYS[i_month - 1] + (i_month == 2 && leap ? 1 : 0);
}

// Reads one history file; false, with the reason drawn in o_svg, when there is nothing to draw.
bool read_source(const std::string& i_path, const std::string& i_heading, kesString* o_text, kesString* o_svg)
{
    if (!kes::kesOsUtility::FileExist(i_path.c_str())) {
        KES_LOG(kes::kesErrorWarning, kesString("No history file ") + i_path);
        *o_svg = ChartMessageSvg(i_heading, "No history file " + i_path + " (yet)");
        return false;
    }
    if (kes::Energy::kesEnergyHistoryReadFile(i_path, o_text) != kes::kesErrorOk) {
        *o_svg = ChartMessageSvg(i_heading, "Can not read " + i_path);
        return false;
    }
    return true;
}

void log_notes(const std::string& i_path, const ChartHistory& i_history)
{
    for (const std::string& note : i_history.notes)
        KES_LOG(kes::kesErrorWarning, kesString(i_path + ": " + note));
}

// The day picture; the classes the day file shows join io_known for the month.
kesString day_picture(const std::string& i_path, const Options& i_options, const kes_sim::SimConfig* i_config,
                      ChartClasses* io_known)
{
    int year = 0, month = 0;
    std::string heading = "Day " + file_date(i_path, true, &year, &month) + " · " + i_path;
    kesString text, svg;
    if (!read_source(i_path, heading, &text, &svg))
        return svg;
    ChartHistory day;
    ChartReadDay(text, *io_known, i_options.minutes, &day);
    log_notes(i_path, day);
    for (const ChartItem& item : day.items)
        io_known->emplace(item.iid, item.kind);
    heading +=
        " · interval " + std::to_string(day.minutes) + " min" + (i_options.minutes ? "" : " (as the file shows)");
    if (day.items.empty())
        return ChartMessageSvg(heading, "No item in " + i_path);
    return ChartDaySvg(heading, day, ChartSections(day, i_config, false));
}

kesString month_picture(const std::string& i_path, const kes_sim::SimConfig* i_config, const ChartClasses& i_known)
{
    int year = 0, month = 0;
    const std::string heading = "Month " + file_date(i_path, false, &year, &month) + " · " + i_path;
    kesString text, svg;
    if (!read_source(i_path, heading, &text, &svg))
        return svg;
    ChartHistory history;
    ChartReadMonth(text, i_known, &history);
    log_notes(i_path, history);
    const std::vector<ChartSection> sections = ChartSections(history, i_config, true);
    if (sections.empty())
        return ChartMessageSvg(heading, "No energy or pulse item in " + i_path);
    return ChartMonthSvg(heading, history, sections, days_of_month(year, month));
}

kesString index_page(bool i_day, bool i_month)
{
    kesString page("<!DOCTYPE html>\n<html><head><meta charset=\"utf-8\"><title>kes_energy pictures</title>\n"
                   "<style>body{font-family:sans-serif;margin:16px}img{max-width:100%}</style></head>\n<body>\n");
    if (i_day)
        page += "<h2>Day</h2>\n<p><img src=\"day.svg\" alt=\"the day\"></p>\n";
    if (i_month)
        page += "<h2>Month</h2>\n<p><img src=\"month.svg\" alt=\"the month\"></p>\n";
    page += "</body></html>\n";
    return page;
}

} // namespace

int main(int argc, char** argv)
{
    setvbuf(stdout, nullptr, _IOLBF, 0);
    Options options;
    std::string error;
    for (int i = 1; i < argc; ++i)
        if (kesString(argv[i]).IsEqualNoCase("-h")) {
            fputs(HELP, stdout);
            return 0;
        }
    if (!parse_options(argc, argv, &options, &error))
        return usage_error(error);
    if (options.day.empty() && !options.dir.empty())
        options.day = options.dir + "/d";
    if (options.month.empty() && !options.dir.empty())
        options.month = options.dir + "/m";

    kes_sim::SimConfig config;
    if (!options.conf.empty() && !config.Load(options.conf, &error)) {
        KES_LOG(kes::kesErrorFailed, kesString("Can not read the configuration: ") + error);
        return 2;
    }
    const kes_sim::SimConfig* configured = options.conf.empty() ? nullptr : &config;
    if (mkdir(options.out.c_str(), 0755) != 0 && errno != EEXIST) {
        KES_LOG_STD(kes::kesErrorFailed, kesString("Can not make folder ") + options.out);
        return 2;
    }

    ChartClasses known = configured ? ChartConfiguredClasses(config) : ChartClasses();
    bool written = true;
    const std::string out = options.out + "/";
    if (!options.day.empty())
        written &= kes::Energy::kesEnergyHistoryReplaceFile(
                       out + "day.svg", day_picture(options.day, options, configured, &known), true) == kes::kesErrorOk;
    if (!options.month.empty())
        written &= kes::Energy::kesEnergyHistoryReplaceFile(
                       out + "month.svg", month_picture(options.month, configured, known), true) == kes::kesErrorOk;
    written &= kes::Energy::kesEnergyHistoryReplaceFile(out + "index.html",
                                                        index_page(!options.day.empty(), !options.month.empty()),
                                                        true) == kes::kesErrorOk;
    if (!written)
        return 2;
    printf("Pictures in %sindex.html\n", out.c_str());
    return 0;
}
