// The crash tail of a living process: a copy of every recorded line not yet in its log file, in
// a file mapped MAP_SHARED (format: VekLogTailFormat.h), so that it outlives a death without
// the destructor. Logging threads copy lines in under mMutex; the writer notes each batch before
// it writes it and consumes it once done; the next process under the name recovers the rest
// (VekLogRecovery.cpp).
#pragma once

#include <stdint.h>
#include <string.h>
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "VekLogStorage.h"
#include "VekLogTailFormat.h"
#include "VekLogger.h"

namespace vek {

// Logging threads, under mMutex: a whole line goes into the ring, or counts as lost when the
// ring has no room; at a hand-over of mBuffer, the batch takes what the ring holds of it.
void tailAppend(const VekLogRecorder& recorder, const char* line, size_t size)
    VEK_REQUIRES(recorder.mMutex);
TailSpan takeTailSpan(const VekLogRecorder& recorder) VEK_REQUIRES(recorder.mMutex);

// The writer, for a batch it appends to the file st describes (its end is where the batch
// goes), and once the batch is done, appended or dropped.
void tailWriting(const TailSpan& span, const struct stat& st);
void tailDone(const TailSpan& span);
// Writes the header of a tail read back to its file; false for a span of a mapped tail.
bool saveNotes(const TailSpan& span);

// Where target's process makes its crash tail: the RAM directory a device may provide for
// tails, "/mnt/vendor/vek/", when it is a directory on tmpfs, whose pages are never written
// back to flash; else the log directory. A recovery looks in both.
std::string tailDir(const LogTarget& target);

// attchProcess, with mMutex released, for one of the known processes: the first attachment
// makes this process's tail; each has the writer recover what dead processes left under
// that name before its next task.
void attachTail(VekLogRecorder& recorder, int process) VEK_EXCLUDES(recorder.mMutex);
// The writer: completes a rotation of process's log file that a death cut short, then
// recovers every dead tail of process (VekLogRecovery.cpp). True when another living process
// under the name has a tail, whose death the writer then watches for.
bool recoverTails(VekLogRecorder& recorder, int process) VEK_EXCLUDES(recorder.mMutex);

// Under mMutex: the writer's tail work (a recovery, a set-up of this process's tail), if any.
std::function<void()> takeTailWork(VekLogRecorder& recorder) VEK_REQUIRES(recorder.mMutex);
// Under mMutex: when the writer, idle, is to look again for work on the tail (another process
// under the name lives, whose death it watches for); none: it waits for a batch.
std::optional<std::chrono::steady_clock::time_point> tailWakeAt(const VekLogRecorder& recorder)
    VEK_REQUIRES(recorder.mMutex);

// Under mMutex: this process's tail, for a dump.
struct TailReport {
  bool mMade;
  char mPath[256];
  uint64_t mPending;  // bytes whose batch is not yet appended
  uint64_t mLost;     // bytes the ring had no room for, not yet reported
};
TailReport tailReport(const VekLogRecorder& recorder) VEK_REQUIRES(recorder.mMutex);

// The destructor: nothing is left to recover. The mapping goes only when nothing can use it.
void closeTail(const VekLogRecorder& recorder, bool unmap);
// A forked child never writes into its parent's tail; its writer makes one of its own.
void dropTailInChild();

// A descriptor of a tail file, opened as openLogDirFile does and registered, so that a forked
// child closes it: the child shares its flock, which marks a tail's process as living. -1 when
// it could not be opened.
struct TailFile {
  TailFile(const std::string& path, int flags, mode_t mode = 0);
  ~TailFile();
  TailFile(const TailFile&) = delete;
  TailFile& operator=(const TailFile&) = delete;
  int release();  // kept open past the object, closed with closeTailFile

  int mFd = -1;
};
void closeTailFile(int fd);
// Fork's handlers: no tail file is opened meanwhile, and the child closes every one.
void lockTailFiles();
void unlockTailFiles();
void closeTailFilesInChild();

}  // namespace vek
