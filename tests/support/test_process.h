#ifndef KES_TEST_PROCESS_H
#define KES_TEST_PROCESS_H

#include <sys/types.h>

#include <cstdint>

#include <functional>
#include <ostream>
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

// What a test puts where a file belongs, with the words that follow the path
// in the record refusing it.
struct Intruder {
    const char* name;
    const char* words;
};
extern const Intruder INTRUDERS[6];
// Puts the intruder at the path; false when this user can not make it what
// it should be (root reads every file).
bool PlaceIntruder(const std::string& path, const Intruder& intruder);
// Whether the call ends within the time. A call blocked on a FIFO at the path
// is freed afterwards, as often as it blocks again, so the test ends either way.
bool EndsWithin(unsigned int ms, const std::string& path, const std::function<void()>& call);
// Puts the intruder at the path and runs the call, which must end in time,
// name the path in a record with the intruder's words, and leave the intruder
// as it was. False, without running the call, when the intruder can not be made.
bool RefusesIntruder(const std::string& path, const Intruder& intruder, const std::function<void()>& call);

// A port of 127.0.0.1 that was free a moment ago; 0 when none could be had.
uint16_t FreePort();
// Whether the process has a handler for SIGTERM, polled for at most timeoutMs.
bool CatchesSigterm(pid_t pid, unsigned int timeoutMs);

std::string ReadFile(const std::string& path);
void WriteFile(const std::string& path, const std::string& text);
std::string BinPath(const std::string& program);

} // namespace kes_test

#endif
