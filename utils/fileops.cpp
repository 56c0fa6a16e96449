#include "utils/fileops.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <glob.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>

namespace {

std::string folderOf(const std::string& path)
{
    const std::string::size_type slash = path.rfind('/');
    if (slash == std::string::npos)
        return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

// Asks the file system to put the folder's entries (creations, renames, deletions) on storage.
// Some file systems refuse fsync on a folder; the entries then reach storage at their own pace.
void syncFolder(const std::string& folder)
{
    const int fd = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0)
        return;
    fsync(fd);
    close(fd);
}

// The file a chain of symbolic links ends at, so that a link is written through as the truncating
// open always did, instead of being replaced by a regular file. A loop is returned as it stands,
// still a link: stat() then fails with ELOOP and the caller must not replace it.
std::string linkTarget(const std::string& path)
{
    std::string current = path;
    for (int hops = 0; hops < 40; ++hops) {
        struct stat st;
        if (lstat(current.c_str(), &st) != 0 || !S_ISLNK(st.st_mode))
            return current;
        char buffer[PATH_MAX];
        const ssize_t n = readlink(current.c_str(), buffer, sizeof buffer);
        if (n <= 0 || static_cast<size_t>(n) >= sizeof buffer)
            return current;
        const std::string target(buffer, static_cast<size_t>(n));
        current = target[0] == '/' ? target : folderOf(current) + "/" + target;
    }
    return current;
}

bool writeAll(int fd, const std::string& text)
{
    const char* data = text.data();
    size_t left = text.size();
    while (left > 0) {
        const ssize_t n = write(fd, data, left);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        data += n;
        left -= static_cast<size_t>(n);
    }
    return true;
}

// Truncates (or appends) and writes through the file's own name. A replaced file is flushed
// before the caller's next step: the starter must be stored before the phase file's removal even
// where it could not be renamed over.
bool writeInPlace(const std::string& path, const std::string& text, bool append, bool makeExecutable)
{
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | (append ? O_APPEND : O_TRUNC), 0666);
    if (fd < 0)
        return false;
    bool written = writeAll(fd, text);
    if (!append)
        fsync(fd);
    written = close(fd) == 0 && written;
    if (!append && makeExecutable)
        chmod(path.c_str(), 0774);
    // An append (the measurement file) reports a full disk: nothing may pass for stored. A file
    // rewritten in place answers true once it opened, a short write included, as it always did:
    // kept on purpose, the starter edit and the interfaces writer pass that answer on unchanged.
    return append ? written : true;
}

// The name every temporary of TARGET starts with, in TARGET's folder: ".NAME.new-".
std::string temporaryPrefix(const std::string& target)
{
    return "." + target.substr(target.rfind('/') + 1) + ".new-";
}

// What a cut between a temporary file's creation and its rename left beside the target: every
// temporary of this file whose writer is gone. One process writes a given file, so a temporary
// bearing this process's number is from an earlier boot's bench that had the same number.
void removeLeftovers(const std::string& target)
{
    const std::string folder = folderOf(target);
    const std::string prefix = temporaryPrefix(target);
    DIR* dir = opendir(folder.c_str());
    if (dir == nullptr)
        return;
    bool removed = false;
    // The 64-bit reader: the plain one of a 32-bit build gives up on an entry whose offset or
    // number does not fit in 32 bits (ext4's hashed offsets, seen from a 64-bit kernel).
    while (const struct dirent64* entry = readdir64(dir)) {
        const std::string name = entry->d_name;
        if (name.compare(0, prefix.size(), prefix) != 0)
            continue;
        const long pid = std::strtol(name.c_str() + prefix.size(), nullptr, 10);
        if (pid != getpid() && pid > 0 && (kill(static_cast<pid_t>(pid), 0) == 0 || errno != ESRCH))
            continue;
        removed = unlink((folder + "/" + name).c_str()) == 0 || removed;
    }
    closedir(dir);
    if (removed)
        syncFolder(folder);
}

// A new file beside the old one, created empty with the mode a new file gets (0666 less the umask).
int createTemporary(const std::string& target, std::string& temp)
{
    static std::atomic<unsigned> counter{0};
    const std::string stem = folderOf(target) + "/" + temporaryPrefix(target) + std::to_string(getpid()) + "-";
    for (int attempt = 0; attempt < 100; ++attempt) {
        temp = stem + std::to_string(counter++);
        const int fd = open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666);
        if (fd >= 0 || errno != EEXIST)
            return fd;
    }
    return -1;
}

// Whether the file must be written in place rather than replaced: what a rename would change for
// its other users, or what only the truncating open can judge.
bool keptInPlace(const std::string& target, struct stat& old, bool& exists)
{
    exists = stat(target.c_str(), &old) == 0;
    if (!exists)
        return errno != ENOENT; // a link loop, a folder one may not search: fails in place as before
    // A device or a pipe is written, not replaced; a folder fails as it always did. A file with
    // several names keeps them all: every name must see the new text.
    if (!S_ISREG(old.st_mode) || old.st_nlink > 1)
        return true;
    // A file the caller may not write stays refused, though the folder would take a new one.
    return faccessat(AT_FDCWD, target.c_str(), W_OK, AT_EACCESS) != 0;
}

// Writes the text to a new file beside the target, with the target's owner and mode, and renames
// it over the target. False, with nothing left behind, when any step fails: a target that is a
// mount point (EBUSY, EXDEV), a folder without room for a second copy, an owner one may not give.
bool renameOver(const std::string& target, const std::string& text, const struct stat* old,
                bool makeExecutable)
{
    std::string temp;
    const int fd = createTemporary(target, temp);
    if (fd < 0)
        return false;
    // Not root: the file may be writable here while a new one could not get its owner.
    bool stored = old == nullptr || fchown(fd, old->st_uid, old->st_gid) == 0;
    if (stored && makeExecutable)
        stored = fchmod(fd, 0774) == 0;
    else if (stored && old != nullptr)
        stored = fchmod(fd, old->st_mode & 07777) == 0;
    stored = stored && writeAll(fd, text) && fsync(fd) == 0;
    stored = close(fd) == 0 && stored;
    if (!stored || rename(temp.c_str(), target.c_str()) != 0) {
        unlink(temp.c_str());
        return false;
    }
    return true;
}

// Replaces the file so that a power cut at any instant leaves either the old content or the new,
// whole: the text goes to a temporary file beside it, which is given the old file's owner and
// mode, flushed, and renamed over it; then the folder is flushed, so that the rename is stored
// before the caller's next step (the phase file's deletion after the starter switch must not
// reach storage before it). Where the file cannot be replaced, it is truncated and written in
// place, as it always was, with the same outcome.
bool replaceFile(const std::string& path, const std::string& text, bool makeExecutable)
{
    const std::string target = linkTarget(path);
    removeLeftovers(target);
    struct stat old;
    bool exists = false;
    if (keptInPlace(target, old, exists) || !renameOver(target, text, exists ? &old : nullptr, makeExecutable))
        return writeInPlace(path, text, false, makeExecutable);
    syncFolder(folderOf(target));
    return true;
}

} // namespace

bool tovFileExist(const std::string& path)
{
    return access(path.c_str(), F_OK) == 0;
}

bool tovFileCopy(const std::string& src, const std::string& dst, int /*unused*/)
{
    std::ifstream in(src, std::ios::in | std::ios::binary);
    std::ofstream out(dst, std::ios::out | std::ios::binary | std::ios::trunc);
    if (!in.is_open() || !out.is_open())
        return false;
    out << in.rdbuf();
    return true;
}

bool tovFileRename(const std::string& oldPath, const std::string& newPath)
{
    if (!tovFileExist(oldPath))
        return false;
    return rename(oldPath.c_str(), newPath.c_str()) == 0;
}

bool tovFileDelete(const std::string& path)
{
    if (!tovFileExist(path))
        return false;
    // Stored before the caller goes on: the phase file deleted at the hand-over must not come back
    // after a cut beside the factory interfaces file written next, nor after a reset.
    if (remove(path.c_str()) == 0)
        syncFolder(folderOf(path));
    return !tovFileExist(path);
}

float tovFileSize(const std::string& path)
{
    std::ifstream in(path, std::ios::in | std::ios::binary);
    if (!in.is_open())
        return 0.0f;
    in.seekg(0, std::ios::end);
    const std::streamoff end = in.tellg();
    in.seekg(0, std::ios::beg);
    if (end < 0)
        return 0.0f;
    // Only the low 32 bits of the position count, as on the unit.
    const int32_t low = static_cast<int32_t>(static_cast<uint32_t>(end & 0xFFFFFFFF));
    return static_cast<float>(low / 1000000);
}

int tovFileLineNum(const std::string& path)
{
    std::ifstream in(path);
    if (!in.good())
        return 0;
    int count = 0;
    while (in.ignore(INT_MAX, '\n'))
        ++count;
    return count;
}

bool tovDirExist(const std::string& path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool tovDirCopy(const std::string& src, const std::string& dst)
{
    const std::string cmd = "cp -R " + src + " " + dst;
    return system(cmd.c_str()) == 0;
}

bool tovDirCreate(const std::string& path)
{
    return mkdir(path.c_str(), 0775) == 0;
}

bool tovDirRename(const std::string& oldPath, const std::string& newPath)
{
    if (!tovDirExist(oldPath))
        return false;
    return rename(oldPath.c_str(), newPath.c_str()) == 0;
}

bool tovDirDelete(const std::string& path)
{
    if (!tovDirExist(path))
        return false;
    // A non-empty directory stays but is still reported deleted: callers only ask "was it there".
    rmdir(path.c_str());
    return true;
}

bool writeToFile(const std::string& path, const std::string& text, bool append, bool makeExecutable)
{
    if (path.empty())
        return false;
    // Appending (the measurement file) stays a plain append: a cut loses at most its last lines.
    if (append)
        return writeInPlace(path, text, true, false);
    return replaceFile(path, text, makeExecutable);
}

bool readFile_All(const std::string& path, std::vector<std::string>& lines)
{
    if (path.empty())
        return false;
    std::ifstream in(path);
    if (!in.is_open())
        return false;
    std::string line;
    while (std::getline(in, line, '\n'))
        lines.push_back(line);
    return true;
}

bool readFile_LinesNum(const std::string& path, int n, std::vector<std::string>& lines)
{
    if (path.empty())
        return false;
    std::ifstream in(path);
    if (!in.is_open())
        return false;
    // Past the end getline leaves the buffer alone, so short files repeat their last entry: kept on
    // purpose, the phase file reader counts on getting exactly n entries.
    std::string line;
    for (int i = 0; i < n; ++i) {
        std::getline(in, line, '\n');
        lines.push_back(line);
    }
    return true;
}

std::vector<std::string> getDirFilesList(const std::string& pattern)
{
    std::vector<std::string> files;
    glob_t matches{};
    if (glob(pattern.c_str(), GLOB_TILDE | GLOB_MARK, nullptr, &matches) == 0) {
        for (size_t i = 0; i < matches.gl_pathc; ++i)
            files.emplace_back(matches.gl_pathv[i]);
    }
    globfree(&matches);
    return files;
}

std::string get_FileNameFromPath(const std::string& path)
{
    const std::string::size_type slash = path.rfind('/');
    if (slash == std::string::npos)
        return std::string();
    return path.substr(slash + 1);
}

std::string getFileNameFromPath(const std::string& path)
{
    return get_FileNameFromPath(path);
}
