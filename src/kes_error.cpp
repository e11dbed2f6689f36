#include "kes_error.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <unistd.h>
#include <vector>

#include "kes_osutility.h"
#include "kes_time.h"

namespace kes {

unsigned int kesError::Level = kesErrorOutConsole;
unsigned int kesError::LogFileSize = 512000;
kesString kesError::LogFile = "kes_system.log";
unsigned int kesError::_current_log_filesize = 0;
void (*kesError::ShowErrorCallBack)(const kesError& error) = nullptr;

namespace {

// The counter and the file are shared by every thread that logs; a rebuild
// racing an append would drop a record.
std::mutex& log_file_lock()
{
    static std::mutex lock;
    return lock;
}

// The log file that the console was told can not be opened: it is told once,
// not at every record, until it opens again.
kesString& log_file_told()
{
    static kesString path;
    return path;
}

// The log file, a regular file only. The log can not report on itself, so a
// failure is printed on the console.
FILE* open_log_file(int flags, const char* mode)
{
    kesString why;
    const int fd = kesOsUtility::OpenRegular(kesError::LogFile.c_str(), flags, &why);
    FILE* file = fd < 0 ? nullptr : fdopen(fd, mode);
    if (!file && fd >= 0)
        close(fd);
    if (!file && log_file_told() != kesError::LogFile)
        printf("%s", kesBuildErrorLocation(kesErrorFailed,
                                           kesString("Log file ") + kesError::LogFile + why +
                                               "\nRecords go to the console only",
                                           __FILE__, __func__, __LINE__)
                         .GetDescription()
                         .c_str());
    log_file_told() = file ? kesString() : kesError::LogFile;
    return file;
}

// Keeps the newest half of the log. Returns 0, or the code of its own failure,
// which it prints itself since the log can not report on itself.
kesEError rebuild_log_file()
{
    // A file that does not open has been told about by open_log_file.
    FILE* file = open_log_file(O_RDONLY, "rb");
    if (!file)
        return kesErrorInvalidPointer;
    long size = 0;
    if (fseek(file, 0, SEEK_END) == 0)
        size = ftell(file);
    if (size < 0)
        size = 0;
    rewind(file);
    std::vector<char> buffer;
    try {
        buffer.resize(static_cast<size_t>(size));
    } catch (...) {
        fclose(file);
        printf("%s",
               kesBuildErrorLocation(kesErrorOutOfMemory, "Can not allocate buffer for to rebuild log error file.",
                                     __FILE__, __func__, __LINE__)
                   .GetDescription()
                   .c_str());
        return kesErrorOutOfMemory;
    }
    size_t got = size > 0 ? fread(buffer.data(), 1, buffer.size(), file) : 0;
    fclose(file);

    unsigned int half = kesError::LogFileSize >> 1;
    if (half <= 16000)
        return kesErrorOk;
    file = open_log_file(O_WRONLY | O_CREAT | O_TRUNC, "wb");
    if (!file)
        return kesErrorInvalidPointer;
    // A file cut short by someone else keeps all it has.
    size_t keep = got < half ? got : half;
    if (keep > 0)
        fwrite(buffer.data() + (got - keep), 1, keep, file);
    fclose(file);
    kesError::_current_log_filesize = static_cast<unsigned int>(keep);
    return kesErrorOk;
}

} // namespace

kesError::kesError(const kesEError& error, const kesString& message) : m_eError(error)
{
    m_sDescription = "[";
    m_sDescription += kesTime::GetDateTime();
    m_sDescription += "]\n";
    if (error == kesErrorOk) {
        m_sDescription += "Info : ";
    } else if (error == kesErrorWarning) {
        m_sDescription += "Warning : ";
    } else {
        m_sDescription.AddFormat(128, "kesError Number : %i\n", static_cast<int>(error));
        m_sDescription += kesErrorToString(error);
        m_sDescription += "\n";
    }
    m_sDescription += message;
    m_sDescription += "\n";
}

kesError kesBuildErrorLocation(kesEError error, const kesString& message, const char* file, const char* function,
                               int line)
{
    if (!file)
        file = "";
    if (!function)
        function = "";
    kesString text;
    if (static_cast<unsigned int>(error) >= kesErrorFailed) {
        text = "File ----------- : ";
        text += file;
        text += "\nFunction ------- : ";
        text += function;
        text += "\nLine Number ---- : ";
        text.AddFormat(64, "%i\n", line);
        text += "Custom Message - : ";
        text += message;
    } else {
        text = message;
        text.AddFormat(256, "[FILE:%s][FUNCTION:%s][LINE:%i]", file, function, line);
    }
    return kesError(error, text);
}

kesEError kesErrorLog(const kesError& error)
{
    const kesEError code = error.GetError();
    const kesString description = error.GetDescription();

    if (kesError::Level & kesErrorOutConsole) {
        int colour = code == kesErrorOk ? 37 : (code == kesErrorWarning ? 33 : 31);
        printf("%c[%dm", 27, colour);
        printf("%s", description.c_str());
        printf("%c[%dm", 27, 0);
    }

    if (kesError::Level & kesErrorOutFile) {
        std::lock_guard<std::mutex> guard(log_file_lock());
        kesError::_current_log_filesize += description.GetLength();
        if (kesError::_current_log_filesize > kesError::LogFileSize && kesError::LogFileSize != 0) {
            kesEError rebuilt = rebuild_log_file();
            if (rebuilt != kesErrorOk)
                return rebuilt;
        }
        FILE* file = open_log_file(O_RDWR | O_CREAT | O_APPEND, "a+");
        if (file) {
            fputs(description.c_str(), file);
            fclose(file);
        }
    }

    if (kesError::Level & kesErrorOutThrow)
        throw error;
    if ((kesError::Level & kesErrorOutCallBack) && kesError::ShowErrorCallBack)
        kesError::ShowErrorCallBack(error);
    return code;
}

kesString kesErrorToString(const kesEError& error)
{
    static const char* const texts[] = {
        "The operation completed succefully.",
        nullptr,
        "The operation failed.",
        "Standard Library kesError.",
        "Unknown error.",
        "Invalid Pointer.",
        "Out of memory.",
        "Invalid Argument.",
        "Out of Range.",
        "Division By Zero.",
        "Network communication error.",
    };
    unsigned int index = static_cast<unsigned int>(error);
    if (index < sizeof(texts) / sizeof(texts[0]) && texts[index])
        return texts[index];
    return "kesError description not found. Update kesErrorToString function.!";
}

kesString kesErrorStdToString(int error)
{
    if (error == -1)
        error = errno;
    if (error == 0)
        return "0 No error";
    char buffer[256];
    // The GNU strerror_r may return a static text instead of filling the buffer.
    const char* text = strerror_r(error, buffer, sizeof(buffer));
    kesString result = kesString::FromInt(error);
    result += " ";
    result += text;
    return result;
}

kesString kesWithStdError(const kesString& message, int error)
{
    kesString text(message);
    text += "\nStd Error ";
    text += kesErrorStdToString(error);
    return text;
}

} // namespace kes
