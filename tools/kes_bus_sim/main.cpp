// kes_bus_sim: serves a whole installation on loopback from the daemon's own
// configuration file, or listens to the daemon's datagrams.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "sim_config.h"
#include "sim_model.h"
#include "sim_servers.h"

using namespace kes_sim;

namespace {

const char* const HELP = "\n"
                         "Kes. Bus Simulator Help\n"
                         "kes_bus_sim -conf FILE [options]     serve the installation of FILE\n"
                         "kes_bus_sim -listen [-conf FILE]     print the datagrams of the daemon\n"
                         "\n"
                         "-conf configuration file ------ [the daemon's own XML file]\n"
                         "-listen ----------------------- listen on 127.0.0.1:16549 and print item,\n"
                         "                                text and, with -conf, the meaning of the item\n"
                         "-time seconds to run ---------- [default: until SIGINT or SIGTERM]\n"
                         "-hour simulated hour at start - [0 to 24, default: the local time of day]\n"
                         "-speed simulated time factor -- [default 1; 60 makes a minute of an hour]\n"
                         "-weather record period -------- [milliseconds, default 10000]\n"
                         "-seed random seed ------------- [default 1]\n"
                         "-fault KIND:LINE[:MID[:PERCENT[:VALUE]]]   (repeatable)\n"
                         "      spoil the replies of one device (MID) or of a whole line (MID * or 0)\n"
                         "      in PERCENT of the cases (default 100). KIND is one of\n"
                         "        silent     no reply at all\n"
                         "        crc        the reply with a bad CRC\n"
                         "        unit       the reply from another unit\n"
                         "        exception  a 5-byte exception reply (illegal data address)\n"
                         "        late       the reply after VALUE ms [default 700]\n"
                         "        garbage    VALUE random bytes [default: the length of the reply]\n"
                         "-drop LINE:EVERY:FOR[:TIMES]              (repeatable)\n"
                         "      every EVERY seconds the line's gateway goes away for FOR seconds\n"
                         "      (connections closed, port refused); a serial line's adapter is\n"
                         "      unplugged (terminal closed, link removed). TIMES bounds the count\n"
                         "      [default 0: no bound]. Seconds may have decimals.\n"
                         "-h this help\n"
                         "\n"
                         "Every line with a TCP address host:port is served on 127.0.0.1:port.\n"
                         "A line whose address holds \"/dev/ttyUSB\" gets a pseudo-terminal that echoes\n"
                         "every byte like an RS-485 adapter; its path becomes a link to the terminal\n"
                         "(the folder must exist and be writable, e.g. ./run/dev/ttyUSB0), removed at\n"
                         "the end. A davis element gets a weather record stream on its port.\n"
                         "Devices answer measurement reads with values that follow a daylight curve,\n"
                         "rising pulse counts, alarm check cycles, identity texts and the bus's own\n"
                         "discovery, mute and addressing frames.\n"
                         "Exit status 0 on a clean stop, 2 on a failure.\n";

volatile sig_atomic_t g_stop = 0;

void on_signal(int)
{
    g_stop = 1;
}

int usage_error(const std::string& i_error)
{
    fprintf(stderr, "kes_bus_sim: %s\n", i_error.c_str());
    fputs(HELP, stderr);
    return 2;
}

struct Drop {
    unsigned int line = 0;
    double every = 0;
    double length = 0;
    unsigned int times = 0;
};

bool parse_seconds(const std::string& i_text, double* o_value)
{
    char* end = nullptr;
    double value = strtod(i_text.c_str(), &end);
    if (i_text.empty() || *end || !(value >= 0) || value > 86400)
        return false;
    *o_value = value;
    return true;
}

bool parse_drop(const std::string& i_text, Drop* o_drop)
{
    std::vector<std::string> parts;
    size_t from = 0;
    for (size_t colon; (colon = i_text.find(':', from)) != std::string::npos; from = colon + 1)
        parts.push_back(i_text.substr(from, colon - from));
    parts.push_back(i_text.substr(from));
    if (parts.size() < 3 || parts.size() > 4)
        return false;
    double line = 0;
    double times = 0;
    if (!parse_seconds(parts[0], &line) || !parse_seconds(parts[1], &o_drop->every) ||
        !parse_seconds(parts[2], &o_drop->length) || (parts.size() == 4 && !parse_seconds(parts[3], &times)))
        return false;
    o_drop->line = static_cast<unsigned int>(line);
    o_drop->times = static_cast<unsigned int>(times);
    return o_drop->every > o_drop->length && o_drop->length > 0;
}

bool wait_or_stop(double i_seconds)
{
    auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(i_seconds);
    while (!g_stop && std::chrono::steady_clock::now() < end)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    return !g_stop;
}

// One served line: its bus and whichever peer carries it.
struct Served {
    std::unique_ptr<SimBus> bus;
    std::unique_ptr<SimSerialPort> serial;
    uint16_t port = 0;
    bool up = false;
    const Drop* drop = nullptr;
    unsigned int drops = 0;
    double nextChange = 0; // simulated-free real seconds since start

    bool Up(std::string* o_error)
    {
        up = serial ? serial->Plug(o_error) : bus->Start(port);
        if (!up && !serial && o_error->empty())
            *o_error = "can not listen on 127.0.0.1:" + std::to_string(port) + ": " + strerror(errno);
        return up;
    }
    void Down()
    {
        if (serial)
            serial->Unplug();
        else
            bus->Stop();
        up = false;
    }
};

int listen_mode(const SimConfig& i_config, double i_seconds)
{
    struct Meaning {
        int type;
        unsigned int mid;
        unsigned int fid;
        unsigned int line;
    };
    std::map<unsigned int, Meaning> meanings;
    for (const SimLine& line : i_config.lines)
        for (const SimDevice& device : line.devices)
            for (const SimValue& value : device.values)
                meanings[value.iid] = Meaning{device.type, device.mid, value.fid, line.id};

    int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(16549);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        fprintf(stderr, "kes_bus_sim: can not listen on 127.0.0.1:16549: %s\n", strerror(errno));
        if (fd >= 0)
            ::close(fd);
        return 2;
    }
    printf("kes_bus_sim: listening on 127.0.0.1:16549\n");
    printf("%10s  %-8s  %s\n", "item", "text", "meaning");
    auto start = std::chrono::steady_clock::now();
    while (!g_stop) {
        if (i_seconds > 0 &&
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count() >= i_seconds)
            break;
        pollfd waiting{fd, POLLIN, 0};
        if (::poll(&waiting, 1, 100) != 1)
            continue;
        unsigned char buffer[512];
        ssize_t size = ::recv(fd, buffer, sizeof(buffer), 0);
        if (size < 5) {
            if (size >= 0)
                printf("(a datagram of %zd bytes, too short)\n", size);
            continue;
        }
        uint32_t iid;
        memcpy(&iid, buffer, 4);
        size_t length = buffer[4];
        std::string text(reinterpret_cast<char*>(buffer) + 5, std::min(length, static_cast<size_t>(size) - 5));
        auto it = meanings.find(iid);
        if (it == meanings.end())
            printf("%10u  %-8s  %s\n", iid, text.c_str(), i_config.lines.empty() ? "" : "(not in the configuration)");
        else
            printf("%10u  %-8s  %s mid %u fid %u, line %u%s\n", iid, text.c_str(), TypeName(it->second.type),
                   it->second.mid, it->second.fid, it->second.line, text == "f" ? "  (read failed)" : "");
    }
    ::close(fd);
    return 0;
}

struct Options {
    std::string confPath;
    bool listen = false;
    double seconds = 0;
    double hour = -1;
    double speed = 1;
    double weatherMs = 10000;
    double seed = 1;
    std::vector<SimFault> faults;
    std::vector<Drop> drops;
};

// One option with its value; 0 when it is good, otherwise the exit status.
int parse_option(const std::string& i_word, const std::string& i_value, Options* io_options)
{
    std::string error;
    if (i_word == "-conf") {
        io_options->confPath = i_value;
    } else if (i_word == "-fault") {
        SimFault fault;
        if (!ParseFault(i_value, &fault, &error))
            return usage_error(error);
        io_options->faults.push_back(fault);
    } else if (i_word == "-drop") {
        Drop drop;
        if (!parse_drop(i_value, &drop))
            return usage_error("bad drop \"" + i_value + "\": LINE:EVERY:FOR[:TIMES] with EVERY > FOR > 0");
        io_options->drops.push_back(drop);
    } else if (i_word == "-time" || i_word == "-hour" || i_word == "-speed" || i_word == "-weather" ||
               i_word == "-seed") {
        double* target = i_word == "-time"      ? &io_options->seconds
                         : i_word == "-hour"    ? &io_options->hour
                         : i_word == "-speed"   ? &io_options->speed
                         : i_word == "-weather" ? &io_options->weatherMs
                                                : &io_options->seed;
        if (!parse_seconds(i_value, target) || (i_word == "-hour" && io_options->hour > 24) ||
            (i_word == "-speed" && io_options->speed <= 0) || (i_word == "-weather" && io_options->weatherMs < 10))
            return usage_error("Option " + i_word + " takes a number in its range: \"" + i_value + "\"");
    } else {
        return usage_error("Unknown option " + i_word);
    }
    return 0;
}

// False when the program ends here, with *o_status.
bool parse_options(int argc, char** argv, Options* o_options, int* o_status)
{
    for (int i = 1; i < argc; ++i) {
        std::string word = argv[i];
        if (word == "-h" || word == "-help" || word == "--help") {
            fputs(HELP, stdout);
            *o_status = 0;
            return false;
        }
        if (word == "-listen") {
            o_options->listen = true;
            continue;
        }
        if (i + 1 >= argc) {
            *o_status = usage_error("Option " + word + " needs a value");
            return false;
        }
        *o_status = parse_option(word, argv[++i], o_options);
        if (*o_status != 0)
            return false;
    }
    return true;
}

void catch_signals()
{
    struct sigaction action;
    memset(&action, 0, sizeof(action));
    action.sa_handler = on_signal;
    // An INT ignored by the parent (a background job of a script) stays
    // ignored, so that Ctrl-C in a demo leaves the order of stopping to it.
    struct sigaction previous;
    if (sigaction(SIGINT, nullptr, &previous) != 0 || previous.sa_handler != SIG_IGN)
        sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    signal(SIGPIPE, SIG_IGN);
}

// The line served on its port or pseudo-terminal; null, told on stderr, when it can not be.
std::unique_ptr<Served> serve_line(const SimLine& i_line, SimClock& io_clock, const Options& i_options)
{
    std::unique_ptr<Served> s(new Served());
    s->bus.reset(new SimBus(i_line, io_clock, i_options.faults, static_cast<unsigned int>(i_options.seed)));
    if (i_line.serial) {
        s->serial.reset(new SimSerialPort(*s->bus));
    } else {
        s->port = PortOf(i_line.address);
        if (s->port == 0) {
            fprintf(stderr, "kes_bus_sim: line %u: no port in \"%s\"\n", i_line.id, i_line.address.c_str());
            return nullptr;
        }
        std::string host = i_line.address.substr(0, i_line.address.rfind(':'));
        if (host != "127.0.0.1" && host != "localhost")
            printf("kes_bus_sim: line %u: served on 127.0.0.1 instead of %s\n", i_line.id, host.c_str());
    }
    for (const Drop& drop : i_options.drops)
        if (drop.line == i_line.id)
            s->drop = &drop;
    std::string error;
    if (!s->Up(&error)) {
        fprintf(stderr, "kes_bus_sim: line %u: %s\n", i_line.id, error.c_str());
        return nullptr;
    }
    if (s->drop)
        s->nextChange = s->drop->every - s->drop->length;
    printf("kes_bus_sim: line %u on %s%s, %zu devices\n", i_line.id,
           s->serial ? i_line.address.c_str() : ("127.0.0.1:" + std::to_string(s->port)).c_str(),
           s->serial ? " (pseudo-terminal)" : "", i_line.devices.size());
    return s;
}

// 0, or 2 when the station's port can not be served.
int serve_weather(const SimConfig& i_config, SimClock& io_clock, const Options& i_options,
                  std::unique_ptr<SimWeather>* o_weather)
{
    std::string error;
    o_weather->reset(new SimWeather(io_clock, static_cast<unsigned int>(i_options.weatherMs)));
    if (!(*o_weather)->Start(PortOf(i_config.davis), &error)) {
        fprintf(stderr, "kes_bus_sim: %s\n", error.c_str());
        return 2;
    }
    printf("kes_bus_sim: weather station on 127.0.0.1:%u\n", PortOf(i_config.davis));
    return 0;
}

// Takes the line down or brings it back when its drop schedule says so.
void follow_drop(Served& io_served, double i_now)
{
    if (!io_served.drop || i_now < io_served.nextChange ||
        (io_served.up && io_served.drop->times && io_served.drops >= io_served.drop->times))
        return;
    if (io_served.up) {
        io_served.Down();
        ++io_served.drops;
        io_served.nextChange = i_now + io_served.drop->length;
        printf("kes_bus_sim: line %u dropped (%u)\n", io_served.bus->Line().id, io_served.drops);
        return;
    }
    std::string error;
    // a port still in TIME_WAIT or a busy link: try again shortly
    if (!io_served.Up(&error)) {
        io_served.nextChange = i_now + 0.1;
        return;
    }
    io_served.nextChange = i_now + io_served.drop->every - io_served.drop->length;
    printf("kes_bus_sim: line %u back (%u)\n", io_served.bus->Line().id, io_served.drops);
}

void run(std::vector<std::unique_ptr<Served>>& io_served, double i_seconds)
{
    printf("kes_bus_sim: ready\n");
    auto start = std::chrono::steady_clock::now();
    while (!g_stop) {
        double now = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        if (i_seconds > 0 && now >= i_seconds)
            break;
        for (auto& s : io_served)
            follow_drop(*s, now);
        wait_or_stop(0.02);
    }
}

} // namespace

int main(int argc, char** argv)
{
    setvbuf(stdout, nullptr, _IOLBF, 0);
    Options options;
    int status = 0;
    if (!parse_options(argc, argv, &options, &status))
        return status;
    catch_signals();

    SimConfig config;
    if (!options.confPath.empty()) {
        std::string error;
        if (!config.Load(options.confPath, &error)) {
            fprintf(stderr, "kes_bus_sim: %s\n", error.c_str());
            return 2;
        }
    }
    if (options.listen)
        return listen_mode(config, options.seconds);
    if (options.confPath.empty())
        return usage_error("-conf FILE is required");

    SimClock clock(options.hour, options.speed);
    std::vector<std::unique_ptr<Served>> served;
    for (const SimLine& line : config.lines) {
        std::unique_ptr<Served> s = serve_line(line, clock, options);
        if (!s) {
            status = 2;
            break;
        }
        served.push_back(std::move(s));
    }
    std::unique_ptr<SimWeather> weather;
    if (status == 0 && !config.davis.empty())
        status = serve_weather(config, clock, options, &weather);
    for (const SimFault& fault : options.faults)
        printf("kes_bus_sim: fault %s on line %u, %s%s, %u%%\n", FaultName(fault.kind), fault.line,
               fault.mid ? "mid " : "every device", fault.mid ? std::to_string(fault.mid).c_str() : "", fault.percent);

    if (status == 0)
        run(served, options.seconds);
    for (auto& s : served)
        printf("kes_bus_sim: line %u served %lu requests\n", s->bus->Line().id, s->bus->Requests());
    if (weather)
        weather->Stop();
    for (auto& s : served)
        s->Down();
    printf("kes_bus_sim: stopped\n");
    return status;
}
