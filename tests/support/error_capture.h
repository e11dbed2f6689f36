#ifndef KES_TEST_ERROR_CAPTURE_H
#define KES_TEST_ERROR_CAPTURE_H

#include "kes_error.h"

#include <string>
#include <vector>

namespace kes_test {

// Routes every kesErrorLog record to a list for the lifetime of the object
// (console and file outputs are off meanwhile). Records logged on any thread
// are kept. One capture at a time.
class ErrorCapture {
public:
    ErrorCapture();
    ~ErrorCapture();

    std::vector<std::string> Records() const;
    std::vector<unsigned int> Codes() const;
    size_t Count() const;
    // number of records whose text holds i_text
    size_t CountContaining(const std::string& i_text) const;
    bool Contains(const std::string& i_text) const { return CountContaining(i_text) > 0; }
    void Clear();
    // all records joined, for failure messages
    std::string Dump() const;

private:
    // Each copy would put the saved outputs back once more.
    ErrorCapture(const ErrorCapture&) = delete;
    ErrorCapture& operator=(const ErrorCapture&) = delete;

    unsigned int m_uSavedLevel;
    void (*m_pSavedCallBack)(const kes::kesError&);
};

} // namespace kes_test

#endif
