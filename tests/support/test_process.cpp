#include "test_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <sstream>

namespace kes_test {

namespace {
long long now_ms()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
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
