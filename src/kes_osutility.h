#ifndef KES_OSUTILITY_H
#define KES_OSUTILITY_H

#include "kes_string.h"

namespace kes {
namespace kesOsUtility {

extern const kesString Separator;

// Whether the path opens for reading: a folder counts, an unreadable file does not. Silent.
bool FileExist(const char* path);
// Whether stat succeeds on the path, whatever its type. Silent.
bool FolderExist(const char* path);

} // namespace kesOsUtility
} // namespace kes

#endif
