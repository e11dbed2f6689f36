// Footprint of the daemon polling 4 lines of 50 devices each on kes_bus_sim:
// its peak resident memory and its CPU time as a share of one core, beside a
// minimal poller made of pymodbus doing the same reads with the same pauses.
//
// usage: bench_footprint [seconds (60)]
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "datagram_receiver.h"
#include "test_gateway.h"
#include "test_process.h"

namespace {

// A field of /proc/PID/status in kB (VmRSS, VmHWM), -1 when it can not be read.
long StatusKb(pid_t pid, const char* field)
{
    std::string status = kes_test::ReadFile("/proc/" + std::to_string(pid) + "/status");
    size_t at = status.find(std::string(field) + ":");
    return at == std::string::npos ? -1 : strtol(status.c_str() + at + strlen(field) + 1, nullptr, 10);
}

const unsigned int LINES = 4;
const unsigned int DEVICES = 50;
// Types with a measurement read, and the registers of that read.
const struct {
    unsigned int type;
    unsigned int registers;
    unsigned int values; // values published, fid 0 upwards
} TYPES[] = {{1, 2, 2}, {2, 2, 3}, {10, 2, 3}, {6, 3, 5}, {11, 4, 7}, {7, 5, 9}, {5, 3, 2}, {8, 6, 4}, {9, 25, 10}};
const unsigned int TYPE_COUNT = sizeof(TYPES) / sizeof(TYPES[0]);
const double TARGET_MB = 6.0;
const double TARGET_CPU = 1.0;

struct Figures {
    double peakMb = 0;
    double cpuShare = 0; // percent of one core, after the start
    double readsPerSecond = 0;
};

typedef std::chrono::steady_clock Clock;

// User and system time of a process, in seconds.
double cpu_seconds(pid_t i_pid)
{
    std::string stat = kes_test::ReadFile("/proc/" + std::to_string(i_pid) + "/stat");
    size_t close = stat.rfind(')');
    if (close == std::string::npos)
        return 0;
    // fields after the name: state is the 3rd, utime the 14th, stime the 15th
    const char* p = stat.c_str() + close + 2;
    unsigned long utime = 0;
    unsigned long stime = 0;
    for (int field = 3; field <= 15 && *p; ++field) {
        if (field == 14)
            utime = strtoul(p, nullptr, 10);
        if (field == 15)
            stime = strtoul(p, nullptr, 10);
        p = strchr(p, ' ');
        if (!p)
            break;
        ++p;
    }
    return static_cast<double>(utime + stime) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

unsigned long served(kes_test::ChildProcess& io_sim)
{
    io_sim.Signal(SIGTERM);
    io_sim.Wait(15000);
    unsigned long total = 0;
    const std::string& out = io_sim.Output();
    for (size_t at = out.find(" served "); at != std::string::npos; at = out.find(" served ", at + 1))
        total += strtoul(out.c_str() + at + 8, nullptr, 10);
    return total;
}

// Runs the program for the time given, on a fresh simulator, and measures it
// from 2 s after its start (imports and configuration are not the steady cost).
bool measure(const std::string& i_conf, const std::vector<std::string>& i_argv, double i_seconds, Figures* o_figures)
{
    kes_test::ChildProcess sim;
    if (!sim.Start({kes_test::BinPath("kes_bus_sim"), "-conf", i_conf, "-hour", "12"}) ||
        !sim.WaitForOutput("ready", 5000)) {
        fprintf(stderr, "the simulator did not start:\n%s\n", sim.Output().c_str());
        return false;
    }
    kes_test::DatagramReceiver receiver(16549); // takes the daemon's datagrams, if the port is free
    kes_test::ChildProcess program;
    if (!program.Start(i_argv)) {
        fprintf(stderr, "can not start %s\n", i_argv[0].c_str());
        return false;
    }
    const double settle = 2;
    Clock::time_point start = Clock::now();
    double cpuStart = -1;
    std::string datagram;
    for (;;) {
        double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
        if (elapsed >= settle && cpuStart < 0)
            cpuStart = cpu_seconds(program.Pid());
        if (elapsed >= i_seconds)
            break;
        program.Output(); // keeps the pipe of its console from filling up
        if (program.Wait(0) != -1) {
            fprintf(stderr, "%s ended early:\n%s\n", i_argv[0].c_str(), program.Output().c_str());
            return false;
        }
        if (receiver.Port())
            while (receiver.Receive(&datagram, 0)) {
            }
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    double cpuEnd = cpu_seconds(program.Pid());
    double wall = std::chrono::duration<double>(Clock::now() - start).count();
    o_figures->peakMb = StatusKb(program.Pid(), "VmHWM") / 1024.0;
    o_figures->cpuShare = 100.0 * (cpuEnd - cpuStart) / (wall - settle);
    program.Signal(SIGTERM);
    program.Wait(5000);
    o_figures->readsPerSecond = served(sim) / wall;
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    double seconds = argc > 1 ? atof(argv[1]) : 60;
    if (seconds < 5) {
        fprintf(stderr, "usage: bench_footprint [seconds, at least 5 (60)]\n");
        return 2;
    }
    kes_test::TempDir dir;
    std::string conf = "<energy v=\"1\">";
    std::vector<std::string> pollerArgs = {
        "/usr/bin/python3", std::string(KES_SOURCE_DIR) + "/bench/footprint_poller.py", std::to_string(seconds + 30)};
    for (unsigned int line = 1; line <= LINES; ++line) {
        uint16_t port = kes_test::FreePort();
        conf += "<line id=\"" + std::to_string(line) + "\" adr=\"127.0.0.1:" + std::to_string(port) + "\">";
        std::string devices;
        for (unsigned int mid = 1; mid <= DEVICES; ++mid) {
            const auto& type = TYPES[(mid + line) % TYPE_COUNT];
            for (unsigned int fid = 0; fid < type.values; ++fid) {
                char value[128];
                snprintf(value, sizeof(value), "<v type=\"%u\" mid=\"%u\" iid=\"%u\" fid=\"%u\"/>", type.type, mid,
                         line * 100000 + mid * 100 + fid, fid);
                conf += value;
            }
            devices += (devices.empty() ? "" : ",") + std::to_string(type.type) + "/" + std::to_string(mid * 100) +
                       "/" + std::to_string(type.registers);
        }
        conf += "</line>";
        pollerArgs.push_back(std::to_string(port) + "=" + devices);
    }
    conf += "</energy>";
    kes_test::WriteFile(dir.File("conf.xml"), conf);

    printf("footprint over %.0f s: %u lines of %u devices on kes_bus_sim\n", seconds, LINES, DEVICES);
    Figures daemon;
    Figures python;
    if (!measure(
            dir.File("conf.xml"),
            {kes_test::BinPath("kes_energy"), "-conf", dir.File("conf.xml"), "-dir", dir.Path() + "/", "-history", "1"},
            seconds, &daemon))
        return 2;
    bool havePython = measure(dir.File("conf.xml"), pollerArgs, seconds, &python);

    printf("%-22s %16s %18s %10s\n", "", "peak resident", "CPU of one core", "reads/s");
    printf("%-22s %13.1f MB %16.2f %% %10.1f\n", "kes_energy", daemon.peakMb, daemon.cpuShare, daemon.readsPerSecond);
    if (havePython)
        printf("%-22s %13.1f MB %16.2f %% %10.1f\n", "python3-pymodbus", python.peakMb, python.cpuShare,
               python.readsPerSecond);
    else
        printf("%-22s %16s\n", "python3-pymodbus", "(did not run)");
    printf("%-22s %10s%.0f MB %15s%.0f %%\n", "target of kes_energy", "<= ", TARGET_MB, "<= ", TARGET_CPU);
    printf("kes_energy %s its targets\n",
           daemon.peakMb <= TARGET_MB && daemon.cpuShare <= TARGET_CPU ? "meets" : "MISSES");
    return 0;
}
