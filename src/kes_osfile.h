#ifndef KES_OSFILE_H
#define KES_OSFILE_H

#include <cstdio>

#include "kes_error.h"

namespace kes {

// Owner of one stdio stream.
class kesOsFile {
public:
    kesOsFile();
    kesOsFile(const kesString& path, const kesString& mode);
    virtual ~kesOsFile();
    kesOsFile(const kesOsFile&) = delete;
    kesOsFile& operator=(const kesOsFile&) = delete;

    kesEError Open(const kesString& path, const kesString& mode);
    kesEError Close();
    bool IsValid() const { return m_pFile != nullptr; }
    // What vfprintf returned, or the code of the report.
    int WriteText(const char* format, ...) __attribute__((format(printf, 2, 3)));
    // The stream, for the few callers that must flush it to the disk.
    FILE* GetHandle() const { return m_pFile; }

    static kesEError GetFileTextSource(const kesString& path, kesString* source);

private:
    FILE* m_pFile;
};

} // namespace kes

#endif
