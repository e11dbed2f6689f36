#include "error_capture.h"

#include <mutex>

namespace kes_test {

namespace {

std::mutex g_mutex;
std::vector<std::string> g_records;
std::vector<unsigned int> g_codes;

void on_error(const kes::kesError& i_error)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    g_records.push_back(i_error.GetDescription());
    g_codes.push_back((unsigned int)i_error.GetError());
}

} // namespace

ErrorCapture::ErrorCapture() : m_uSavedLevel(kes::kesError::Level), m_pSavedCallBack(kes::kesError::ShowErrorCallBack)
{
    Clear();
    kes::kesError::ShowErrorCallBack = on_error;
    kes::kesError::Level = kes::kesErrorOutCallBack;
}

ErrorCapture::~ErrorCapture()
{
    kes::kesError::Level = m_uSavedLevel;
    kes::kesError::ShowErrorCallBack = m_pSavedCallBack;
}

std::vector<std::string> ErrorCapture::Records() const
{
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_records;
}

std::vector<unsigned int> ErrorCapture::Codes() const
{
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_codes;
}

size_t ErrorCapture::Count() const
{
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_records.size();
}

size_t ErrorCapture::CountContaining(const std::string& i_text) const
{
    std::lock_guard<std::mutex> lock(g_mutex);
    size_t count = 0;
    for (const std::string& record : g_records)
        if (record.find(i_text) != std::string::npos)
            ++count;
    return count;
}

void ErrorCapture::Clear()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    g_records.clear();
    g_codes.clear();
}

std::string ErrorCapture::Dump() const
{
    std::lock_guard<std::mutex> lock(g_mutex);
    std::string text;
    for (const std::string& record : g_records)
        text += record + "\n----\n";
    return text;
}

} // namespace kes_test
