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

#include "VekLogTailFormat.h"
#include "VekLogger.h"

namespace vek {

// The attachment a task writes for, copied when it is queued, so that a later attchProcess
// never changes what a queued or running task works on.
struct LogTarget {
  std::string mProcessName;
  std::string mLogDir;       // ends in "/"
  std::string mLogFilePath;  // mLogDir + mProcessName + ".veklog"
  uint32_t mMaxFileSize;
};

// A batch's place in the crash tail, consumed when the batch is done. No header: the batch is
// not protected.
struct TailSpan {
  TailHeader* mHeader = nullptr;
  uint64_t mEnd = 0;
  uint64_t mLost = 0;  // bytes of the batch the ring had no room for
  int mFd = -1;        // a dead process's tail read back: the notes are written to its file
};

// The recorder's attachment as it stands.
LogTarget currentTarget(const VekLogRecorder& recorder) VEK_REQUIRES(recorder.mMutex);

// The known processes (kKnownProcesses), and the log file of each.
int knownProcess(const std::string& name);  // -1 for any other name
const char* knownName(int process);
LogTarget knownTarget(const VekLogRecorder& recorder, int process);

// Appends buff (plus the kernel log in "nfc_hal_process") to the target's log file, rotating
// it first when needed, and sets 0 (appended) or 1 (dropped) on promise when there is one.
// The batch's lines are then done in the crash tail, appended or dropped.
void runWriteTask(const LogTarget& target, std::vector<char>& buff,
                  const std::shared_ptr<std::promise<int>>& promise, const TailSpan& span);

// Appends buff to the target's log file, rotating it first when needed, with the log file's
// lock held, and notes the write in the crash tail of span. False, reported, when it could not
// open the file or make room; *written, when given, tells whether the write itself succeeded;
// *synced, when given, whether the text then reached storage (fdatasync, and the directory's
// sync for a file new at its name), reported when it did not.
bool appendBatch(const LogTarget& target, const std::vector<char>& buff, const TailSpan& span,
                 bool* written = nullptr, bool* synced = nullptr);

// Puts the data of fd, the file at path, on storage; syncDir, the names made, moved or removed
// in the directory dir. False, reported, when it could not.
bool syncFile(int fd, const std::string& path);
bool syncDir(const std::string& dir);

// Whether path is a whole gzip archive of at least size bytes of text: its stream ends and its
// check values match. Reads at most a little more than size bytes of text, in chunks.
bool isWholeArchive(const std::string& path, uint64_t size);

// Another process may log under the same name at once: a forked child, or a restart while the
// old one still dies. The size check, the rotation and the append of a batch hold a write lock
// on ".<log file>.lock", so that each full file rotates once and no process removes a file
// another has just begun. A POSIX record lock belongs to the process: a forked child's copy of
// the descriptor never shares its parent's lock. The file stays open from one batch to the
// next: locking costs two system calls and a check that the file is still the one at that
// name. Without a usable lock file (a missing directory, no known name attached) only the
// threads of this process are kept apart, and the batch meets the failure it would meet
// anyway. The writer, or an attachment recovering what dead processes left.
struct LogFileLock {
  explicit LogFileLock(const std::string& logFile);
  ~LogFileLock();
  LogFileLock(const LogFileLock&) = delete;
  LogFileLock& operator=(const LogFileLock&) = delete;

  int mFd = -1;
  bool mHeld = false;  // the lock between this process's threads
};
// A forked child has one thread: whoever held the lock between threads stayed in the parent.
void resetLogFileLockInChild();

bool checkLogFileExceed(const LogTarget& target, int size);
// Completes a rotation that a process's death cut short (see VekLogRotation.cpp); false,
// reported, when it could not, and the text it would move stays where it is. The caller holds
// the log file's lock.
bool repairRotation(const LogTarget& target);
std::string getCompressedLogFile(const LogTarget& target);
bool manageCompressFiles(const LogTarget& target);
bool compressGzip(const std::string& in, const std::string& out);
// compressGzip's two halves: opens out for a new gzip file (made or replaced), to become the
// file archive, then compresses the open file input into it, syncs and closes it. Each
// reports its failures as compressGzip, naming archive.
android::base::unique_fd openGzipOutput(const std::string& out, const std::string& archive);
bool writeGzip(int input, android::base::unique_fd output);

// The library's own file beside a log file: its name with a dot in front and suffix after,
// so that whoever reads the directory's logs (lnav given the directory) passes it by.
std::string privatePath(const std::string& logFile, const char* suffix);

// Opens path, an entry of a log directory that another process shares, with flags plus
// O_NOFOLLOW, O_NONBLOCK, O_NOCTTY and O_CLOEXEC, and keeps it only when it is a regular file
// or a directory: a link, FIFO or device planted there is never followed, waited on, read or
// written. st, when given, receives the file's status.
android::base::unique_fd openLogDirFile(const std::string& path, int flags, mode_t mode = 0,
                                        struct stat* st = nullptr);

}  // namespace vek
