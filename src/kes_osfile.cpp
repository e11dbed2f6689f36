#include "kes_osfile.h"

#include <cstdarg>
#include <exception>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "kes_osutility.h"

namespace kes {

namespace {

// The open(2) flags of a stdio mode; -1 for a mode that is none.
int open_flags(const kesString& mode)
{
    const bool both = mode.find('+') != std::string::npos;
    switch (mode.empty() ? 0 : mode[0]) {
    case 'r':
        return both ? O_RDWR : O_RDONLY;
    case 'w':
        return (both ? O_RDWR : O_WRONLY) | O_CREAT | O_TRUNC;
    case 'a':
        return (both ? O_RDWR : O_WRONLY) | O_CREAT | O_APPEND;
    default:
        return -1;
    }
}

} // namespace

kesOsFile::kesOsFile() : m_pFile(nullptr)
{
}

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
    m_sPath = path;
    const int flags = open_flags(mode);
    if (flags < 0)
        return KES_LOG(kesErrorInvalidArgument, kesString("Invalid mode ") + mode + " for file " + path);
    kesString why;
    const int fd = kesOsUtility::OpenRegular(path.c_str(), flags, &why);
    if (fd < 0)
        return KES_LOG(kesErrorFailed, kesString("File ") + path + why);
    m_pFile = fdopen(fd, mode.c_str());
    if (!m_pFile) {
        close(fd);
        return KES_LOG_STD(kesErrorFailed, kesString("Can not make a stream of file ") + path);
    }
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

kesEError kesOsFile::ReadAll(kesString* o_text, size_t i_spare)
{
    if (!o_text)
        return KES_LOG(kesErrorInvalidArgument, "o_text pointer == 0");
    o_text->Clear();
    struct stat info;
    if (!m_pFile || fstat(fileno(m_pFile), &info) != 0 || fseek(m_pFile, 0, SEEK_SET) != 0)
        return KES_LOG_STD(kesErrorFailed, kesString("Can not read file : ") + m_sPath);
    if (info.st_size <= 0)
        return kesErrorOk;
    const size_t size = static_cast<size_t>(info.st_size);
    try {
        o_text->reserve(size + i_spare);
        o_text->resize(size);
    } catch (const std::exception&) {
        return KES_LOG(kesErrorOutOfMemory, kesString("Can not hold the whole file in memory: ") + m_sPath);
    }
    size_t got = fread(&(*o_text)[0], 1, size, m_pFile);
    if (got != size) {
        kesString message;
        message.SetFormat(64, "result(%zu) != iLen(%zu) Reading data from file : ", got, size);
        message += m_sPath;
        return KES_LOG_STD(kesErrorFailed, message);
    }
    return kesErrorOk;
}

kesEError kesOsFile::GetFileTextSource(const kesString& path, kesString* source, size_t spare)
{
    if (!source)
        return KES_LOG(kesErrorInvalidArgument, "io_source pointer == 0");
    source->Clear();
    kesOsFile file;
    if (file.Open(path, "rb") != kesErrorOk)
        return KES_LOG(kesErrorFailed, "Invalid file");
    return file.ReadAll(source, spare);
}

} // namespace kes
