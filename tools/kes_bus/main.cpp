// kes_bus -adr ADDRESS [options] COMMAND [ARGUMENTS]
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "kes_bus_tool.h"
#include "kes_string.h"

namespace {

const char* const HELP = "\n"
                         "Kes. Bus Command Help\n"
                         "kes_bus -adr ADDRESS [options] COMMAND [ARGUMENTS]\n"
                         "-adr bus address -------------- [e.g - \"10.0.0.5:502\" or \"/dev/ttyUSB0\"]\n"
                         "-timeout receive time-out ----- [milliseconds, default 500, at least 50]\n"
                         "-answer pause after answer ---- [milliseconds, default 100, at least 5]\n"
                         "-failure pause after failure -- [milliseconds, default 100, at least 30]\n"
                         "-attempts tries per exchange -- [1 to 255, default 2]\n"
                         "-wait alarm cycle wait -------- [milliseconds, default 10000]\n"
                         "-conf FILE -------------------- [scan, number: write the devices found into\n"
                         "                                 FILE, the daemon's configuration file]\n"
                         "-id line id in FILE ----------- [0 to 42949, default: as in FILE, else 1]\n"
                         "-h this help\n"
                         "\n"
                         "Commands:\n"
                         "read TYPE MID ----------------- one measurement read of a device\n"
                         "info TYPE MID ----------------- everything the device can tell\n"
                         "scan -------------------------- find all devices, muting each one found\n"
                         "scan-nomute ------------------- find all devices of a bus that cannot mute\n"
                         "scan-fine [COUNT] ------------- ask the fine keys 0 to COUNT-1 [default 10000]\n"
                         "find SERIAL ------------------- look for one device by its hardware serial\n"
                         "enable ------------------------ let all devices answer searches again\n"
                         "mute SERIAL ------------------- keep one device out of searches\n"
                         "set-address SERIAL MID -------- give a device its module number [1 to 100]\n"
                         "number OFFSET ----------------- find all devices, number them from OFFSET\n"
                         "alarm MID T1 T2 T3 [-wait MS] - run an alarm check and wait for its end\n"
                         "alarm-status MID -------------- the outcome of the last alarm check\n"
                         "\n"
                         "TYPE is 1 to 11 or a name in any case: Panel, String, Alarm, Ambient,\n"
                         "PulseCounter, StringTwo, StringFour, PulseCounterTwo, PulseCounterFive,\n"
                         "StringOne, StringThree. MID is a module number, SERIAL a hardware serial\n"
                         "number in decimal or 0x hexadecimal. Exit status 0 on success, 2 on failure.\n";

struct NumberOption {
    const char* name;
    unsigned int kes::kesBusOptions::*field;
    unsigned long min;
    unsigned long max;
};

const NumberOption NUMBER_OPTIONS[] = {
    {"-timeout", &kes::kesBusOptions::receiveTimeOut, 1, 3600000},
    {"-answer", &kes::kesBusOptions::answerPause, 0, 3600000},
    {"-failure", &kes::kesBusOptions::failurePause, 0, 3600000},
    {"-attempts", &kes::kesBusOptions::attempts, 1, 255},
    {"-wait", &kes::kesBusOptions::wait, 0, 3600000},
    {"-id", &kes::kesBusOptions::lineId, 0, kes::KES_BUS_MAX_LINE_ID},
};

int usage_error(const std::string& i_error)
{
    fprintf(stderr, "kes_bus: %s\n", i_error.c_str());
    fputs(HELP, stderr);
    return 2;
}

bool parse_number(const std::string& i_text, unsigned long i_min, unsigned long i_max, unsigned int* o_value)
{
    if (i_text.empty() || i_text.find_first_not_of("0123456789") != std::string::npos || i_text.size() > 9)
        return false;
    unsigned long value = strtoul(i_text.c_str(), nullptr, 10);
    if (value < i_min || value > i_max)
        return false;
    *o_value = static_cast<unsigned int>(value);
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    setvbuf(stdout, nullptr, _IOLBF, 0);
    kes::kesBusOptions options;
    std::vector<std::string> command;
    bool haveAddress = false;
    for (int i = 1; i < argc; ++i) {
        kes::kesString word(argv[i]);
        if (word.IsEqualNoCase("-h")) {
            fputs(HELP, stdout);
            return 0;
        }
        if (word.empty() || word[0] != '-') {
            command.push_back(word);
            continue;
        }
        if (i + 1 >= argc)
            return usage_error("Option " + word + " needs a value");
        std::string value = argv[++i];
        if (word.IsEqualNoCase("-adr")) {
            options.address = value;
            haveAddress = !value.empty();
            continue;
        }
        if (word.IsEqualNoCase("-conf")) {
            options.conf = value;
            continue;
        }
        const NumberOption* option = nullptr;
        for (const NumberOption& candidate : NUMBER_OPTIONS)
            if (word.IsEqualNoCase(candidate.name))
                option = &candidate;
        if (!option)
            return usage_error("Unknown option " + word);
        if (!parse_number(value, option->min, option->max, &(options.*option->field)))
            return usage_error("Option " + word + " takes a number from " + std::to_string(option->min) + " to " +
                               std::to_string(option->max) + ": \"" + value + "\"");
    }
    if (!haveAddress)
        return usage_error("-adr ADDRESS is required");

    std::string error;
    switch (kes::kesBusRun(options, command, &error)) {
    case kes::kesBusOk:
        return 0;
    case kes::kesBusBadArguments:
        return usage_error(error);
    default:
        return 2;
    }
}
