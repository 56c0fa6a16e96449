#include "utils/fileops.h"

#include <glob.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>

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
    remove(path.c_str());
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
    std::ofstream out(path, append ? (std::ios::out | std::ios::app) : (std::ios::out | std::ios::trunc));
    if (!out.is_open())
        return false;
    out.write(text.data(), static_cast<std::streamsize>(text.size()));
    out.close();
    // A full disk shows up here, not at open: report it so that nothing is taken as stored.
    if (out.fail())
        return false;
    if (!append && makeExecutable)
        chmod(path.c_str(), 0774);
    return true;
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
