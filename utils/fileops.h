// File and directory helpers used across the bench. None of them throws or prints; each reports
// success through its result.
#ifndef TOV_UTILS_FILEOPS_H
#define TOV_UTILS_FILEOPS_H

#include <string>
#include <vector>

bool tovFileExist(const std::string& path);
// The third argument is accepted for compatibility and ignored.
bool tovFileCopy(const std::string& src, const std::string& dst, int unused);
bool tovFileRename(const std::string& oldPath, const std::string& newPath);
bool tovFileDelete(const std::string& path);
// Whole decimal megabytes (1,000,000 bytes), no fraction: 999999 bytes gives 0.0.
float tovFileSize(const std::string& path);
// Number of '\n' plus one: an empty file counts 1, a missing file 0. Callers rely on this rule.
int tovFileLineNum(const std::string& path);

bool tovDirExist(const std::string& path);
bool tovDirCopy(const std::string& src, const std::string& dst);
bool tovDirCreate(const std::string& path);
bool tovDirRename(const std::string& oldPath, const std::string& newPath);
// True whenever the directory existed, even if rmdir left a non-empty one in place.
bool tovDirDelete(const std::string& path);

// Without append the file is replaced whole: a power cut leaves the old text or the new one, never
// an empty or partial file, and the old file's owner and mode stay (0774 with makeExecutable). A
// symbolic link is written through to its file. Where it cannot be replaced, the file is truncated
// and written in place instead, as it always was: a device, a mount point, a file with several
// names, one the caller may not write, a folder one may not create in or without room for a
// second copy; a link loop fails. Written in place, the file is flushed and the answer is true once
// it opened, even when the text came up short. Temporary files a power cut left beside the file
// are removed at its next write.
bool writeToFile(const std::string& path, const std::string& text, bool append, bool makeExecutable);
bool readFile_All(const std::string& path, std::vector<std::string>& lines);
// Always appends exactly n entries when the file opens, whatever its length.
bool readFile_LinesNum(const std::string& path, int n, std::vector<std::string>& lines);
std::vector<std::string> getDirFilesList(const std::string& pattern);

// The part after the last '/'; a path without any '/' gives "".
std::string get_FileNameFromPath(const std::string& path);
std::string getFileNameFromPath(const std::string& path);

#endif
