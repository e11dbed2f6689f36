#include "test_process.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <future>
#include <sstream>
#include <thread>

#include "error_capture.h"
#include "test_gateway.h"

namespace kes_test {

namespace {
long long now_ms()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}
} // namespace

ChildProcess::~ChildProcess()
{
    if (m_pid > 0 && m_status < 0) {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
    }
    if (m_fd >= 0)
        close(m_fd);
}

bool ChildProcess::Start(const std::vector<std::string>& argv, const std::string& workingDirectory)
{
    int pipes[2];
    if (pipe(pipes) != 0)
        return false;
    m_pid = fork();
    if (m_pid < 0)
        return false;
    if (m_pid == 0) {
        dup2(pipes[1], 1);
        dup2(pipes[1], 2);
        close(pipes[0]);
        close(pipes[1]);
        if (!workingDirectory.empty() && chdir(workingDirectory.c_str()) != 0)
            _exit(126);
        std::vector<char*> args;
        for (const std::string& a : argv)
            args.push_back(const_cast<char*>(a.c_str()));
        args.push_back(nullptr);
        execv(args[0], args.data());
        _exit(127);
    }
    close(pipes[1]);
    m_fd = pipes[0];
    fcntl(m_fd, F_SETFL, O_NONBLOCK);
    return true;
}

void ChildProcess::Signal(int signal)
{
    if (m_pid > 0 && m_status < 0)
        kill(m_pid, signal);
}

void ChildProcess::drain(int timeoutMs)
{
    if (m_fd < 0)
        return;
    struct pollfd p = {m_fd, POLLIN, 0};
    if (poll(&p, 1, timeoutMs) <= 0)
        return;
    char buffer[4096];
    for (;;) {
        ssize_t n = read(m_fd, buffer, sizeof(buffer));
        if (n <= 0) {
            if (n == 0) {
                close(m_fd);
                m_fd = -1;
            }
            return;
        }
        m_output.append(buffer, static_cast<size_t>(n));
    }
}

const std::string& ChildProcess::Output()
{
    drain(0);
    return m_output;
}

bool ChildProcess::WaitForOutput(const std::string& text, unsigned int timeoutMs)
{
    long long end = now_ms() + timeoutMs;
    while (m_output.find(text) == std::string::npos) {
        long long left = end - now_ms();
        if (left <= 0 || m_fd < 0)
            return m_output.find(text) != std::string::npos;
        drain(static_cast<int>(left < 50 ? left : 50));
    }
    return true;
}

int ChildProcess::Wait(unsigned int timeoutMs)
{
    if (m_pid <= 0)
        return -1;
    long long end = now_ms() + timeoutMs;
    while (m_status < 0) {
        int status = 0;
        pid_t r = waitpid(m_pid, &status, WNOHANG);
        if (r == m_pid) {
            m_status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            break;
        }
        if (now_ms() >= end)
            return -1;
        drain(10);
    }
    // The pipe may hold the last words of the child.
    for (int i = 0; i < 100 && m_fd >= 0; ++i)
        drain(10);
    return m_status;
}

TempDir::TempDir()
{
    char pattern[] = "/tmp/kes_test_XXXXXX";
    const char* made = mkdtemp(pattern);
    m_path = made ? made : "/tmp";
}

TempDir::~TempDir()
{
    if (m_path.rfind("/tmp/kes_test_", 0) == 0) {
        std::string command = "rm -rf '" + m_path + "'";
        if (system(command.c_str()) != 0) {
        }
    }
}

const Intruder INTRUDERS[6] = {
    {"folder", " is a folder"},
    {"fifo", " is a FIFO"},
    {"socket", " is a socket"},
    {"device", " is a device"},
    {"dangling_link", " is a dangling link"},
    {"unreadable", " can not be opened"},
};

bool PlaceIntruder(const std::string& path, const Intruder& intruder)
{
    const std::string name = intruder.name;
    if (name == "folder")
        return mkdir(path.c_str(), 0755) == 0;
    if (name == "fifo")
        return mkfifo(path.c_str(), 0644) == 0;
    if (name == "device")
        return symlink("/dev/null", path.c_str()) == 0;
    if (name == "dangling_link")
        return symlink("unmounted_disk/file", path.c_str()) == 0;
    if (name == "socket") {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        if (path.size() >= sizeof(address.sun_path))
            return false;
        path.copy(address.sun_path, path.size());
        const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
        const bool bound = bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
        close(fd);
        return bound;
    }
    WriteFile(path, "x");
    return chmod(path.c_str(), 0) == 0 && geteuid() != 0;
}

bool EndsWithin(unsigned int ms, const std::string& path, const std::function<void()>& call)
{
    // A writer freed by an open that is closed at once meets a FIFO without reader.
    signal(SIGPIPE, SIG_IGN);
    std::promise<void> done;
    std::future<void> ended = done.get_future();
    std::thread runner([&] {
        call();
        done.set_value();
    });
    const bool inTime = ended.wait_for(std::chrono::milliseconds(ms)) == std::future_status::ready;
    for (int i = 0; i < 1000 && ended.wait_for(std::chrono::milliseconds(10)) != std::future_status::ready; ++i) {
        const int fd = open(path.c_str(), O_RDWR | O_NONBLOCK);
        if (fd >= 0)
            close(fd);
    }
    runner.join();
    return inTime;
}

bool RefusesIntruder(const std::string& path, const Intruder& intruder, const std::function<void()>& call)
{
    struct stat before = {}, after = {};
    if (!PlaceIntruder(path, intruder) || lstat(path.c_str(), &before) != 0)
        return false;
    ErrorCapture log;
    EXPECT_TRUE(EndsWithin(5000, path, call));
    EXPECT_TRUE(log.Contains(path + intruder.words)) << log.Dump();
    EXPECT_EQ(0, lstat(path.c_str(), &after));
    EXPECT_EQ(before.st_mode, after.st_mode);
    return true;
}

uint16_t FreePort()
{
    TestGateway probe;
    if (!probe.Start())
        return 0;
    uint16_t port = probe.GetPort();
    probe.Stop();
    return port;
}

bool CatchesSigterm(pid_t pid, unsigned int timeoutMs)
{
    auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        std::string status = ReadFile("/proc/" + std::to_string(pid) + "/status");
        size_t at = status.find("SigCgt:");
        if (at != std::string::npos && ((strtoull(status.c_str() + at + 7, nullptr, 16) >> (SIGTERM - 1)) & 1))
            return true;
        if (std::chrono::steady_clock::now() >= end)
            return false;
        std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
}

std::string ReadFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

void WriteFile(const std::string& path, const std::string& text)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
}

std::string BinPath(const std::string& program)
{
    return std::string(KES_BIN_DIR) + "/" + program;
}

} // namespace kes_test
