#ifndef KES_COMMANDLINEPARSER_H
#define KES_COMMANDLINEPARSER_H

#include "kes_string.h"

namespace kes {

// Keeps the words of the command line; an option's value is the word after it.
class kesCommandLineParser {
public:
    kesCommandLineParser(char* const* argv, int argc);

    bool GetArgument(const kesString& option, kesString* value) const;

private:
    kesArray<kesString> m_aWords;
};

} // namespace kes

#endif
