#include "kes_osfile.h"

#include <cstdarg>

namespace kes {

kesOsFile::kesOsFile() : m_pFile(nullptr) {}

kesOsFile::kesOsFile(const kesString& path, const kesString& mode) : m_pFile(nullptr)
{
    Open(path, mode);
}

kesOsFile::~kesOsFile()
{
    if (m_pFile && fclose(m_pFile) != 0)
        KES_LOG(kesErrorFailed, "can not close the file handle");
    m_pFile = nullptr;
}

kesEError kesOsFile::Open(const kesString& path, const kesString& mode)
{
    if (Close() != kesErrorOk)
        return KES_LOG(kesErrorFailed, "can not close the file handle");
    m_pFile = fopen(path.c_str(), mode.c_str());
    if (!m_pFile)
        return KES_LOG_STD(kesErrorFailed, "ileFile handle is invalid, == 0");
    return kesErrorOk;
}

kesEError kesOsFile::Close()
{
    if (!m_pFile)
        return kesErrorOk;
    if (fclose(m_pFile) != 0) {
        // fclose releases the stream even when it fails; keeping it would close it twice.
        m_pFile = nullptr;
        return KES_LOG(kesErrorFailed, "Can not close file handle");
    }
    m_pFile = nullptr;
    return kesErrorOk;
}

int kesOsFile::WriteText(const char* format, ...)
{
    if (!m_pFile)
        return KES_LOG_STD(kesErrorFailed, "ileFile handle is invalid, == 0");
    va_list args;
    va_start(args, format);
    int result = vfprintf(m_pFile, format, args);
    va_end(args);
    if (result < 0)
        KES_LOG_STD(kesErrorFailed, "can no write data to file");
    return result;
}

kesEError kesOsFile::GetFileTextSource(const kesString& path, kesString* source)
{
    if (!source)
        return KES_LOG(kesErrorInvalidArgument, "io_source pointer == 0");
    source->Clear();
    kesOsFile file;
    if (file.Open(path, "rb") != kesErrorOk)
        return KES_LOG(kesErrorFailed, "Invalid file");
    if (fseek(file.m_pFile, 0, SEEK_END) != 0)
        return KES_LOG_STD(kesErrorFailed, kesString("Can not seek file : ") + path);
    long size = ftell(file.m_pFile);
    rewind(file.m_pFile);
    if (size <= 0)
        return kesErrorOk;
    source->resize(static_cast<size_t>(size));
    size_t got = fread(&(*source)[0], 1, static_cast<size_t>(size), file.m_pFile);
    if (got != static_cast<size_t>(size)) {
        kesString message;
        message.SetFormat(64, "result(%zu) != iLen(%ld) Reading data from file : ", got, size);
        message += path;
        return KES_LOG_STD(kesErrorFailed, message);
    }
    return kesErrorOk;
}

} // namespace kes
