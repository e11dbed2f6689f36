#include "kes_osutility.h"

#include <cerrno>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "kes_error.h"

namespace kes {
namespace kesOsUtility {

const kesString Separator = "/";

namespace {

kesString kind_words(mode_t mode)
{
    const char* kind = "special file";
    if (S_ISDIR(mode))
        kind = "folder";
    else if (S_ISFIFO(mode))
        kind = "FIFO";
    else if (S_ISSOCK(mode))
        kind = "socket";
    else if (S_ISCHR(mode) || S_ISBLK(mode))
        kind = "device";
    return kesString(" is a ") + kind + ", not a regular file";
}

} // namespace

bool FileExist(const char* path)
{
    struct stat info;
    if (!path || stat(path, &info) != 0)
        return false;
    if (!S_ISREG(info.st_mode))
        return true;
    int fd = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        return false;
    close(fd);
    return true;
}

bool FolderExist(const char* path)
{
    struct stat info;
    return path && stat(path, &info) == 0;
}

bool PathExist(const char* path)
{
    struct stat info;
    return path && lstat(path, &info) == 0;
}

kesString NonRegularFile(const char* path)
{
    struct stat info;
    if (stat(path, &info) == 0)
        return S_ISREG(info.st_mode) ? kesString() : kind_words(info.st_mode);
    // A new file made through a link to nothing would land where the link
    // points, such as the mount point of a disk that is not there.
    if (lstat(path, &info) == 0 && S_ISLNK(info.st_mode))
        return " is a dangling link";
    return kesString();
}

int OpenRegular(const char* path, int flags, kesString* o_why)
{
    // Looked at before the open: a FIFO blocks it, a device may act on it.
    kesString why = NonRegularFile(path);
    int fd = -1;
    struct stat info;
    if (!why.empty()) {
    } else if ((fd = open(path, flags | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0666)) < 0 || fstat(fd, &info) != 0) {
        why = kesWithStdError(" can not be opened", -1);
    } else if (!S_ISREG(info.st_mode)) {
        why = kind_words(info.st_mode); // swapped in between the two looks
    } else {
        fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
    }
    if (!why.empty() && fd >= 0) {
        close(fd);
        fd = -1;
    }
    if (o_why)
        *o_why = why;
    return fd;
}

int OpenSocket(int type, int protocol)
{
    int handle = socket(AF_INET, type | SOCK_CLOEXEC, protocol);
    if (handle == 0) {
        const int moved = fcntl(handle, F_DUPFD_CLOEXEC, 1);
        const int saved = errno;
        close(handle);
        errno = saved;
        handle = moved;
    }
    return handle;
}

} // namespace kesOsUtility
} // namespace kes
