#include "kes_energy_history_file.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "kes_energy_history_text.h"
#include "kes_osfile.h"

namespace kes
{
namespace Energy
{

namespace
{
kesEError report(const kesString& i_message, const char* i_function, int i_line)
{
    return kesErrorLog(kesBuildErrorLocation(kesErrorFailed, i_message, __FILE__, i_function, i_line));
}

kesString with_std_error(const kesString& i_message, int i_errno)
{
    kesString message(i_message);
    message.append("\nStd Error ");
    message.append(kesErrorStdToString(i_errno == 0 ? -1 : i_errno));
    return message;
}

// The rename is only durable once the folder itself has reached the disk.
void sync_folder(const kesString& i_path)
{
    const size_t slash = i_path.rfind('/');
    const kesString folder = slash == std::string::npos ? kesString(".") : kesString(i_path.substr(0, slash + 1));
    const int fd = open(folder.c_str(), O_RDONLY | O_DIRECTORY);
    if (fd < 0)
        return;
    fsync(fd);
    close(fd);
}
} // namespace

kesEError kesEnergyHistoryReplaceFile(const kesString& i_path, const kesString& i_text, bool i_bNew)
{
    kesString temp(i_path);
    temp.append(".tmp");

    FILE* file = std::fopen(temp.c_str(), "w");
    if (!file)
    {
        kesString message(i_bNew ? "Can not write file " : "Can not open file ");
        message.append(i_path);
        if (!i_bNew)
            message.append(" for write");
        return report(with_std_error(message, errno), "kesEnergyHistoryReplaceFile", __LINE__);
    }
    const size_t written = std::fwrite(i_text.data(), 1, i_text.size(), file);
    int failure = 0;
    if (std::fflush(file) != 0 || fsync(fileno(file)) != 0)
        failure = errno;
    if (std::fclose(file) != 0 && failure == 0)
        failure = errno;

    if (written != i_text.size())
    {
        std::remove(temp.c_str());
        kesString message("Can not write all data to file ");
        message.append(i_path);
        message.AddFormat(128, " request is %u but written are %u", static_cast<unsigned int>(i_text.size()),
                          static_cast<unsigned int>(written));
        return report(message, "kesEnergyHistoryReplaceFile", __LINE__);
    }
    if (failure != 0)
    {
        std::remove(temp.c_str());
        kesString message("Can not flush file ");
        message.append(i_path);
        return report(with_std_error(message, failure), "kesEnergyHistoryReplaceFile", __LINE__);
    }
    if (std::rename(temp.c_str(), i_path.c_str()) != 0)
    {
        failure = errno;
        std::remove(temp.c_str());
        kesString message("Can not replace file ");
        message.append(i_path);
        return report(with_std_error(message, failure), "kesEnergyHistoryReplaceFile", __LINE__);
    }
    sync_folder(i_path);
    return kesErrorOk;
}

kesEError kesEnergyHistoryReadFile(const kesString& i_path, kesString* o_text)
{
    // Room for the tick's growth, so the text is never moved to a larger buffer.
    struct stat info;
    if (stat(i_path.c_str(), &info) == 0 && info.st_size > 0)
        o_text->reserve(static_cast<size_t>(info.st_size) + static_cast<size_t>(info.st_size) / 8 + 65536);
    if (kesOsFile::GetFileTextSource(i_path, o_text) != kesErrorOk)
    {
        kesString message("Can not read file data ");
        message.append(i_path);
        return report(message, "kesEnergyHistoryReadFile", __LINE__);
    }
    kesEnergyHistoryEndLines(o_text);
    return kesErrorOk;
}

} // namespace Energy
} // namespace kes
