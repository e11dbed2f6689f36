#ifndef KES_NET_TEST_SUPPORT_H
#define KES_NET_TEST_SUPPORT_H

// Helpers of the weather client and datagram tests: a log sent to a file of
// its own, and the datagram receiver on loopback.

#include "datagram_receiver.h"
#include "kes_error.h"
#include "test_process.h"

#include <string>

namespace kes_net_test {

// Sends the log to a file of its own, and nowhere else, for its lifetime.
class LogCapture {
public:
    LogCapture() : m_level(kes::kesError::Level), m_file(kes::kesError::LogFile), m_size(kes::kesError::LogFileSize)
    {
        m_path = m_folder.File("log");
        kes::kesError::LogFile = m_path.c_str();
        kes::kesError::LogFileSize = 0;
        kes::kesError::Level = kes::kesErrorOutFile;
    }
    ~LogCapture()
    {
        kes::kesError::Level = m_level;
        kes::kesError::LogFile = m_file;
        kes::kesError::LogFileSize = m_size;
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::string Text() const { return kes_test::ReadFile(m_path); }
    size_t Count(const std::string& what) const
    {
        std::string text = Text();
        size_t count = 0;
        for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
            ++count;
        return count;
    }

private:
    kes_test::TempDir m_folder;
    std::string m_path;
    unsigned int m_level;
    kes::kesString m_file;
    unsigned int m_size;
};

} // namespace kes_net_test

#endif
