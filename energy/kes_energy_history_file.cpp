#include "kes_energy_history_file.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "kes_energy_history_text.h"
#include "kes_osfile.h"
#include "kes_osutility.h"

namespace kes {
namespace Energy {

namespace {
const char* const TEMPORARY_SUFFIX = ".tmp";

// The rename is only durable once the folder itself has reached the disk.
void sync_folder(const kesString& i_path)
{
    const size_t slash = i_path.rfind('/');
    const kesString folder = slash == std::string::npos ? kesString(".") : kesString(i_path.substr(0, slash + 1));
    const int fd = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0)
        return;
    fsync(fd);
    close(fd);
}

// The file a linked path leads to; the path itself when it is no link.
kesString link_target(const kesString& i_path)
{
    char* resolved = realpath(i_path.c_str(), nullptr);
    if (!resolved)
        return i_path;
    kesString target(resolved);
    std::free(resolved);
    return target;
}

// Where the replacement goes, and the file it replaces if one stands there.
// Anything but a regular file, or a link to one, is refused.
kesEError replacement_target(const kesString& i_path, kesString* o_target, struct stat* o_old, bool* o_bOld)
{
    *o_target = i_path;
    *o_bOld = lstat(i_path.c_str(), o_old) == 0;
    if (!*o_bOld || S_ISREG(o_old->st_mode))
        return kesErrorOk;
    const kesString why = kesOsUtility::NonRegularFile(i_path.c_str());
    if (why.empty() && S_ISLNK(o_old->st_mode)) {
        *o_target = link_target(i_path);
        if (stat(o_target->c_str(), o_old) == 0)
            return kesErrorOk;
    }
    kesString message("File ");
    message.append(i_path);
    message.append(why.empty() ? kesString(" can not be replaced") : why);
    return KES_LOG(kesErrorFailed, message);
}

// Writes the whole text and flushes it to the disk; 0 or the errno of the failure.
int write_all(int i_fd, const kesString& i_text, size_t* o_written)
{
    size_t& done = *o_written;
    done = 0;
    while (done < i_text.size()) {
        const ssize_t n = write(i_fd, i_text.data() + done, i_text.size() - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return n < 0 ? errno : EIO;
        done += static_cast<size_t>(n);
    }
    return fsync(i_fd) != 0 ? errno : 0;
}

kesString open_failure(const kesString& i_path, const kesString& i_temp, bool i_bNew)
{
    kesString message(i_bNew ? "Can not write file " : "Can not open file ");
    message.append(i_path);
    if (!i_bNew)
        message.append(" for write");
    message.append(" (temporary file ");
    message.append(i_temp);
    message.append(")");
    return message;
}

// The owner first, since a change of owner clears the set-user-ID bit. A
// daemon that is not root may not give a file away: the file then stays its
// own, and such bits are not handed to it.
void take_over_owner(int i_fd, const struct stat& i_old)
{
    const bool owned = fchown(i_fd, i_old.st_uid, i_old.st_gid) == 0;
    fchmod(i_fd, i_old.st_mode & (owned ? 07777 : 0777));
}

// Why the written temporary file may not replace the old one; empty when it may.
kesString write_failure(const kesString& i_path, const kesString& i_text, size_t i_written, int i_failure)
{
    kesString message;
    if (i_written != i_text.size()) {
        message = "Can not write all data to file ";
        message.append(i_path);
        message.AddFormat(128, " request is %u but written are %u", static_cast<unsigned int>(i_text.size()),
                          static_cast<unsigned int>(i_written));
    } else if (i_failure != 0) {
        message = "Can not flush file ";
        message.append(i_path);
    }
    return message;
}
} // namespace

kesEError kesEnergyHistoryReplaceFile(const kesString& i_path, const kesString& i_text, bool i_bNew,
                                      const kesString& i_like)
{
    kesString target;
    struct stat old;
    bool hasOld = false;
    if (replacement_target(i_path, &target, &old, &hasOld) != kesErrorOk)
        return kesErrorFailed;
    if (!hasOld && !i_like.empty())
        hasOld = stat(i_like.c_str(), &old) == 0 && S_ISREG(old.st_mode);
    kesString temp(target);
    temp.append(TEMPORARY_SUFFIX);

    // A left-over of a killed run goes first; O_EXCL then makes sure that no
    // FIFO, link or folder stands at the temporary name.
    unlink(temp.c_str());
    const int fd = open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (fd < 0)
        return KES_LOG_STD(kesErrorFailed, open_failure(i_path, temp, i_bNew));
    if (hasOld)
        take_over_owner(fd, old);
    size_t written = 0;
    int failure = write_all(fd, i_text, &written);
    if (close(fd) != 0 && failure == 0)
        failure = errno;

    kesString why = write_failure(i_path, i_text, written, failure);
    if (why.empty() && std::rename(temp.c_str(), target.c_str()) != 0) {
        failure = errno;
        why = kesString("Can not replace file ") + target;
    }
    if (!why.empty()) {
        unlink(temp.c_str());
        return KES_LOG(kesErrorFailed, kesWithStdError(why, failure));
    }
    sync_folder(target);
    return kesErrorOk;
}

kesEError kesEnergyHistoryReadFile(const kesString& i_path, kesString* o_text)
{
    // Room for the tick's growth, so the text is never moved to a larger buffer.
    struct stat info;
    if (stat(i_path.c_str(), &info) == 0 && S_ISREG(info.st_mode) && info.st_size > 0)
        o_text->reserve(static_cast<size_t>(info.st_size) + static_cast<size_t>(info.st_size) / 8 + 65536);
    if (kesOsFile::GetFileTextSource(i_path, o_text) != kesErrorOk) {
        kesString message("Can not read file data ");
        message.append(i_path);
        return KES_LOG(kesErrorFailed, message);
    }
    kesEnergyHistoryEndLines(o_text);
    return kesErrorOk;
}

kesEError kesEnergyHistoryRollFile(const kesString& i_path, const kesString& i_dated)
{
    struct stat info;
    if (lstat(i_path.c_str(), &info) == 0 && S_ISLNK(info.st_mode)) {
        kesString text;
        if (kesEnergyHistoryReadFile(i_path, &text) != kesErrorOk)
            return kesErrorFailed;
        return kesEnergyHistoryReplaceFile(i_dated, text, false);
    }
    const kesString why = kesOsUtility::NonRegularFile(i_path.c_str());
    if (!why.empty())
        return KES_LOG(kesErrorFailed, kesString("File ") + i_path + why);
    if (std::rename(i_path.c_str(), i_dated.c_str()) != 0)
        return KES_LOG_STD(kesErrorFailed, kesString("Can not rename ") + i_path + " to " + i_dated);
    return kesErrorOk;
}

void kesEnergyHistoryRemoveTemporaries(const kesString& i_folder, bool (*i_pIsReplaced)(const kesString& i_name))
{
    DIR* dir = opendir(i_folder.c_str());
    if (!dir)
        return;
    const size_t suffix = std::strlen(TEMPORARY_SUFFIX);
    while (struct dirent* entry = readdir(dir)) {
        // Both "d.tmp" and "d" lead here: the first when "d" is not there yet,
        // the second when "d" is a link.
        kesString name(entry->d_name);
        if (name.size() > suffix && name.compare(name.size() - suffix, suffix, TEMPORARY_SUFFIX) == 0)
            name.resize(name.size() - suffix);
        if (!i_pIsReplaced(name))
            continue;
        const kesString path = i_folder + name;
        for (const kesString& beside : {path, link_target(path)}) {
            const kesString temp = beside + TEMPORARY_SUFFIX;
            struct stat info;
            if (lstat(temp.c_str(), &info) == 0 && unlink(temp.c_str()) == 0)
                KES_LOG(kesErrorOk, kesString("Left-over temporary file removed: ") + temp);
        }
    }
    closedir(dir);
}

} // namespace Energy
} // namespace kes
