// Write tasks: a handed-over buffer, plus the kernel log in the HAL process, appended to the
// active log file on the writer thread.
#include <android-base/file.h>
#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <mutex>
#include <new>

#include "VekLogDiag.h"
#include "VekLogLifecycle.h"
#include "VekLogPlatform.h"
#include "VekLogStats.h"
#include "VekLogStorage.h"
#include "VekLogTail.h"
#include "VekLogger.h"

namespace vek {
namespace {

constexpr char kKernelLogProcess[] = "nfc_hal_process";
constexpr char kKernelLogNode[] = "/proc/vekdev/logger";
constexpr size_t kKernelLogChunk = 3072;

// Reads the driver's log until a read delivers nothing and appends it as read, NULs included.
void appendKernelLog(std::vector<char>& buff) {
  std::string node = devicePath(kKernelLogNode);
  android::base::unique_fd fd(TEMP_FAILURE_RETRY(open(node.c_str(), O_RDONLY | O_CLOEXEC)));
  if (fd == -1) {
    VEK_DIAG(WARNING) << "Error: Unable to open klog file";
    std::string line = std::string("Error: Unable to open klog file at ") + kKernelLogNode + "\n";
    buff.insert(buff.end(), line.begin(), line.end());
    return;
  }
  size_t before = buff.size();
  char chunk[kKernelLogChunk];
  ssize_t got;
  while ((got = TEMP_FAILURE_RETRY(read(fd, chunk, sizeof(chunk)))) > 0) {
    buff.insert(buff.end(), chunk, chunk + got);
  }
  VEK_DIAG(INFO) << "read klog buffer size: " << buff.size() - before;
}

// The lock file of the last log file written, kept open from one batch to the next. mMutex
// keeps the threads of this process apart (the writer, and an attachment that recovers), as
// the record lock keeps processes apart. Made when the library is loaded and never destroyed:
// a function-local static could be half made by the writer when another thread forks, and a
// writer left behind at exit may still use it.
struct LockFile {
  std::mutex mMutex;
  std::string mPath;
  android::base::unique_fd mFd;
  // The log file whose name was last synced in its directory.
  dev_t mNamedDev = 0;
  ino_t mNamedIno = 0;
};
LockFile* const gLockFile = new LockFile;

bool setLock(int fd, short type) {
  struct flock lock = {};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  return TEMP_FAILURE_RETRY(fcntl(fd, F_SETLKW, &lock)) == 0;
}

// Puts the log file's text on storage, and its name the first time after the file was made or
// moved to it: a sync of the file's data leaves its directory entry to writeback.
bool syncLogFile(const LogTarget& target, int fd, const struct stat& st) {
  LockFile& file = *gLockFile;
  bool named = st.st_dev == file.mNamedDev && st.st_ino == file.mNamedIno;
  if (!syncFile(fd, target.mLogFilePath) || !(named || syncDir(target.mLogDir))) {
    noteFailure(kFailAppend);
    return false;
  }
  file.mNamedDev = st.st_dev;
  file.mNamedIno = st.st_ino;
  return true;
}

}  // namespace

LogFileLock::LogFileLock(const std::string& logFile) {
  if (logFile.empty()) return;  // only unknown names attached: no directory to lock in
  LockFile* file = gLockFile;
  file->mMutex.lock();
  mHeld = true;
  for (int attempt = 0; attempt < 2 && mFd == -1; ++attempt) {
    if (file->mPath != logFile || file->mFd == -1) {
      file->mFd = openLogDirFile(privatePath(logFile, ".lock"), O_RDWR | O_CREAT, 0640);
      file->mPath = logFile;
    }
    struct stat st;
    if (file->mFd == -1 || !setLock(file->mFd, F_WRLCK)) return;
    if (fstat(file->mFd, &st) == 0 && st.st_nlink > 0) {
      mFd = file->mFd;
    } else {
      file->mFd.reset();  // removed since it was opened, which released the lock
    }
  }
}

LogFileLock::~LogFileLock() {
  if (mFd != -1) setLock(mFd, F_UNLCK);
  if (mHeld) gLockFile->mMutex.unlock();
}

void resetLogFileLockInChild() { new (&gLockFile->mMutex) std::mutex; }

bool appendBatch(const LogTarget& target, const std::vector<char>& buff, const TailSpan& span,
                 bool* written, bool* synced) {
  LogFileLock lock(target.mLogFilePath);
  noteStep(kStepSizeCheck);
  if (!checkLogFileExceed(target, static_cast<int>(buff.size()))) {
    VEK_DIAG(ERROR) << "check log file excedd failed!";
    return false;
  }
  struct stat st;
  android::base::unique_fd fd =
      openLogDirFile(target.mLogFilePath, O_WRONLY | O_APPEND | O_CREAT, 0640, &st);
  if (fd == -1) {
    noteFailure(kFailAppend);
    VEK_DIAG(ERROR) << "Failed to append file: " << target.mLogFilePath;
    return false;
  }
  // Empty: made, or cut, since its name was last synced; it may have a removed file's inode.
  if (st.st_size == 0) gLockFile->mNamedIno = 0;
  tailWriting(span, st);
  noteStep(kStepAppend);
  bool whole = android::base::WriteFully(fd, buff.data(), buff.size());
  if (!whole) noteFailure(kFailAppend);
  if (written != nullptr) *written = whole;
  if (synced != nullptr) *synced = whole && syncLogFile(target, fd, st);
  return true;
}

void runWriteTask(const LogTarget& target, std::vector<char>& buff,
                  const std::shared_ptr<std::promise<int>>& promise, const TailSpan& span) {
  if (target.mProcessName == kKernelLogProcess) {
    noteStep(kStepKernelLog);
    appendKernelLog(buff);
  }
  VEK_DIAG(INFO) << "writting buffer size: " << buff.size();
  // appendBatch has closed the file by now, so a woken waiter finds the text in it; one that
  // waits is told it is on storage.
  bool written = false;
  bool synced = true;
  bool* sync = promise && flushSyncWanted() ? &synced : nullptr;
  int completion = appendBatch(target, buff, span, &written, sync) ? 0 : 1;
  if (written && !synced) completion = 1;
  if (written) {
    count(gStats->mBatchesAppended);
    count(gStats->mBytesAppended, buff.size());
  } else {
    count(gStats->mDroppedWrite);
  }
  tailDone(span);
  if (promise) promise->set_value(completion);
}

bool handOver(VekLogRecorder& recorder, std::vector<char>&& buff,
              std::shared_ptr<std::promise<int>> promise, const std::shared_future<void>& announced,
              bool signal) {
  if (buff.empty()) {
    VEK_DIAG(WARNING) << "writting invalid buffer";
    return false;
  }
  if (recorder.mRestartWriter) recorder.mRestartWriter = !startWriter(recorder);
  // Only the recorder's own buffer has its lines in the crash tail.
  TailSpan span = &buff == &recorder.mBuffer ? takeTailSpan(recorder) : TailSpan();
  if (recorder.mRestartWriter) {
    // Dropped, so that memory stays bounded. Its lines stay in the crash tail until a writer
    // appends a later batch: a death meanwhile leaves them to the next process.
    ++gStats->mDroppedNoWriter;
    noteFailure(kFailNoWriter);
    buff.clear();
    if (promise) promise->set_value(1);
    return false;
  }
  ++gStats->mBatchesHandedOver;
  gStats->mBytesHandedOver += buff.size();
  count(gStats->mBytesQueued, buff.size());
  recorder.mTasks.emplace_back([target = currentTarget(recorder), text = std::move(buff),
                                promise = std::move(promise), announced, span]() mutable {
    gStats->mBytesQueued.fetch_sub(text.size(), std::memory_order_relaxed);
    if (announced.valid()) announced.wait();
    runWriteTask(target, text, promise, span);
  });
  if (signal) recorder.mCondition.notify_one();
  return true;
}

LogTarget currentTarget(const VekLogRecorder& recorder) {
  return LogTarget{recorder.mProcessName, recorder.mLogDir, recorder.mLogFilePath,
                   recorder.mMaxFileSize};
}

}  // namespace vek

bool VekLogRecorder::sendBuffToWorker(std::vector<char>&& buff,
                                      std::shared_ptr<std::promise<int>> promise) {
  return vek::handOver(*this, std::move(buff), std::move(promise), std::shared_future<void>());
}
