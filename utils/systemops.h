// Shell commands, their captured output, system queries, time stamps and the starter script edit.
// getStdoutFromCommand and its users share one fixed capture file: call them from one thread at a
// time.
#ifndef TOV_UTILS_SYSTEMOPS_H
#define TOV_UTILS_SYSTEMOPS_H

#include <cstdint>
#include <string>

extern const char* const TOV_CAPTURE_FILE;  // "/ramdisk/_0tov"
extern const char* const TOV_STARTER_FILE;  // "/home/TOV/tov_starter"

int systemCommand(const std::string& command);
// Standard output of the command, unchanged (a trailing newline stays); "" when nothing came.
std::string getStdoutFromCommand(const std::string& command);

std::string read_KernelVersion();
// "DM9000-A", "DM9000-B" or "DM9000-X".
std::string read_DM9000_version();

int64_t getDISK_FreeSpace(const std::string& path);
int64_t getDISK_TotalSpace(const std::string& path);
// Mebibytes; a failed query gives 0, not an error value.
int32_t getFreeDiskSize(const std::string& path);
int32_t getTotalDiskSize(const std::string& path);
int32_t PrintSystemSpace(const std::string& path);
// Total and free MB of /home; returns the free MB.
int32_t getStorageInfoSize(int32_t* total, int32_t* free);

int32_t _getTimeStampInSecs();
// Whole seconds despite the name: callers must not expect milliseconds from it.
int32_t _getTimeStampInMSecs();
double _get_time_ms();
std::string _getSysDateTime_string();

bool modifyTOVstarterFile(const std::string& prefix, const std::string& replacement);

#endif
