#ifndef KES_OSUTILITY_H
#define KES_OSUTILITY_H

#include "kes_string.h"

namespace kes {
namespace kesOsUtility {

extern const kesString Separator;

// Whether the path opens for reading: a folder counts, an unreadable file does not. Silent.
// Anything but a regular file counts without being opened, so the test never blocks.
bool FileExist(const char* path);
// Whether stat succeeds on the path, whatever its type. Silent.
bool FolderExist(const char* path);
// Whether anything stands at the path, a dangling link too. Silent.
bool PathExist(const char* path);

// Why the path can not be taken as a regular file, as words to follow the path
// in a record (" is a FIFO, not a regular file"); empty for a regular file and
// for a path where nothing stands. Silent.
kesString NonRegularFile(const char* path);

// Opens a regular file with the flags of open(2), and never blocks: a folder,
// FIFO, socket, device or dangling link is refused before the open and again
// on the descriptor. A new file gets 0666 less the umask. Silent: -1 on
// failure, and o_why holds the words to follow the path in a record.
int OpenRegular(const char* path, int flags, kesString* o_why);

// An IPv4 socket of the type (SOCK_STREAM, SOCK_DGRAM) closed on exec, never
// on descriptor 0, which would read as "no socket". Silent: -1 with errno.
int OpenSocket(int type, int protocol);

} // namespace kesOsUtility
} // namespace kes

#endif
