// Storage work of the writer thread: write tasks, rotation, gzip archives and their retention.
// Every function here runs on the writer thread only, one at a time, and takes no lock.
#pragma once

#include <android-base/unique_fd.h>
#include <stdint.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <future>
#include <memory>
#include <string>
#include <vector>

class VekLogRecorder;

namespace vek {

// The attachment a task writes for, copied when it is queued, so that a later attchProcess
// never changes what a queued or running task works on.
struct LogTarget {
  std::string mProcessName;
  std::string mLogDir;       // ends in "/"
  std::string mLogFilePath;  // mLogDir + mProcessName + ".veklog"
  uint32_t mMaxFileSize;
};

// Appends buff (plus the kernel log in "nfc_hal_process") to the target's log file, rotating
// it first when needed, and sets 0 (appended) or 1 (dropped) on promise when there is one.
// The recorder's attachment as it stands; the caller keeps it from changing meanwhile.
LogTarget currentTarget(const VekLogRecorder& recorder);

void runWriteTask(const LogTarget& target, std::vector<char>& buff,
                  const std::shared_ptr<std::promise<int>>& promise);

bool checkLogFileExceed(const LogTarget& target, int size);
// Completes a rotation that a process's death cut short (see VekLogRotation.cpp). The caller
// holds the log file's lock.
void repairRotation(const LogTarget& target);
std::string getCompressedLogFile(const LogTarget& target);
bool manageCompressFiles(const LogTarget& target);
bool compressGzip(const std::string& in, const std::string& out);
// compressGzip's two halves: opens out for a new gzip file (made or replaced), then compresses
// the open file input into it, syncs and closes it. Each reports its failures as compressGzip.
android::base::unique_fd openGzipOutput(const std::string& out);
bool writeGzip(int input, android::base::unique_fd output);

// Opens path, an entry of a log directory that another process shares, with flags plus
// O_NOFOLLOW, O_NONBLOCK, O_NOCTTY and O_CLOEXEC, and keeps it only when it is a regular file
// or a directory: a link, FIFO or device planted there is never followed, waited on, read or
// written.
// st, when given, receives the file's status.
android::base::unique_fd openLogDirFile(const std::string& path, int flags, mode_t mode = 0,
                                        struct stat* st = nullptr);

}  // namespace vek
