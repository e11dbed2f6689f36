#ifndef KES_OSFILE_H
#define KES_OSFILE_H

#include <cstdio>

#include "kes_error.h"

namespace kes {

// Owner of one stdio stream, on a regular file only: anything else is
// refused with a record, and opening never blocks.
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
    // The whole file, from its start; i_spare more bytes are reserved for a
    // caller that lets the text grow.
    kesEError ReadAll(kesString* o_text, size_t i_spare = 0);

    static kesEError GetFileTextSource(const kesString& path, kesString* source, size_t spare = 0);

private:
    FILE* m_pFile;
    kesString m_sPath; // for the records
};

} // namespace kes

#endif
