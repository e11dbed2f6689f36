#include "kes_commandlineparser.h"

namespace kes {

kesCommandLineParser::kesCommandLineParser(char* const* argv, int argc)
{
    for (int i = 0; argv && i < argc; ++i)
        m_aWords.AddBack(kesString(argv[i]));
}

bool kesCommandLineParser::GetArgument(const kesString& option, kesString* value) const
{
    if (value)
        value->Clear();
    for (size_t i = 0; i < m_aWords.size(); ++i) {
        if (!m_aWords[i].IsEqualNoCase(option))
            continue;
        if (value && i + 1 < m_aWords.size())
            *value = m_aWords[i + 1];
        return true;
    }
    return false;
}

} // namespace kes
