#ifndef KES_TEST_PROCESS_H
#define KES_TEST_PROCESS_H

#include <sys/types.h>

#include <string>
#include <vector>

namespace kes_test {

// A child process with its stdout and stderr captured; killed when the object goes.
class ChildProcess {
public:
    ChildProcess() = default;
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    bool Start(const std::vector<std::string>& argv, const std::string& workingDirectory = "");
    void Signal(int signal);
    // Exit status, 128 + signal for a killed child, -1 if it did not end in time.
    int Wait(unsigned int timeoutMs);
    // Everything the child wrote so far (reads what is pending without blocking).
    const std::string& Output();
    bool WaitForOutput(const std::string& text, unsigned int timeoutMs);
    pid_t Pid() const { return m_pid; }

private:
    void drain(int timeoutMs);
    pid_t m_pid = -1;
    int m_fd = -1;
    int m_status = -1;
    std::string m_output;
};

// A fresh folder below /tmp, removed with everything in it at the end.
class TempDir {
public:
    TempDir();
    ~TempDir();
    const std::string& Path() const { return m_path; }
    std::string File(const std::string& name) const { return m_path + "/" + name; }

private:
    std::string m_path;
};

std::string ReadFile(const std::string& path);
void WriteFile(const std::string& path, const std::string& text);
std::string BinPath(const std::string& program);

} // namespace kes_test

#endif
