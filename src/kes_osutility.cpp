#include "kes_osutility.h"

#include <sys/stat.h>
#include <cstdio>

namespace kes {
namespace kesOsUtility {

const kesString Separator = "/";

bool FileExist(const char* path)
{
    if (!path)
        return false;
    FILE* file = fopen(path, "r");
    if (!file)
        return false;
    fclose(file);
    return true;
}

bool FolderExist(const char* path)
{
    struct stat info;
    return path && stat(path, &info) == 0;
}

} // namespace kesOsUtility
} // namespace kes
