#ifndef KES_ERROR_H
#define KES_ERROR_H

#include "kes_string.h"

namespace kes {

enum kesEError : unsigned int {
    kesErrorOk = 0,
    kesErrorWarning = 1,
    kesErrorFailed = 2,
    kesErrorStd = 3,
    kesErrorUnknown = 4,
    kesErrorInvalidPointer = 5,
    kesErrorOutOfMemory = 6,
    kesErrorInvalidArgument = 7,
    kesErrorOutOfRange = 8,
    kesErrorDivisionByZero = 9,
    kesErrorNetwork = 10,
};

// Bits of kesError::Level.
enum kesEErrorOut : unsigned int {
    kesErrorOutConsole = 1,
    kesErrorOutFile = 2,
    kesErrorOutThrow = 4,
    kesErrorOutCallBack = 8,
};

class kesError {
public:
    kesError(const kesEError& error, const kesString& message);

    kesEError GetError() const { return m_eError; }
    kesString GetDescription() const { return m_sDescription; }

    static unsigned int Level;
    static unsigned int LogFileSize;
    static kesString LogFile;
    static unsigned int _current_log_filesize;
    static void (*ShowErrorCallBack)(const kesError& error);

private:
    kesEError m_eError;
    kesString m_sDescription;
};

kesError kesBuildErrorLocation(kesEError error, const kesString& message, const char* file, const char* function,
                               int line);
kesEError kesErrorLog(const kesError& error);
kesString kesErrorToString(const kesEError& error);
kesString kesErrorStdToString(int error);
// The message of a failed libc or system call: the text, then "\nStd Error " and the
// text of the error number (-1: errno).
kesString kesWithStdError(const kesString& message, int error);

} // namespace kes

// The reporting idiom in one statement, with the bare name of the enclosing function.
#define KES_LOG(code, message) KES_LOG_IN((code), (message), __func__)

// The same in the name of another function: a helper that reports for its caller.
#define KES_LOG_IN(code, message, function) \
    ::kes::kesErrorLog(::kes::kesBuildErrorLocation((code), (message), __FILE__, (function), __LINE__))

// The same for a failed libc or system call: appends "\nStd Error " and errno's text.
#define KES_LOG_STD(code, message) KES_LOG((code), ::kes::kesWithStdError((message), -1))

#endif
