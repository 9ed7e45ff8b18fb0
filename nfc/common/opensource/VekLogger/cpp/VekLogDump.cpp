// __vek_dump_state: the library's own state, for a HAL's dump(). It never waits for the writer,
// holds mMutex only to copy numbers and names, builds the report in a fixed buffer, and writes
// it with write(2), giving up on a descriptor that does not take it.
#include <dirent.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <mutex>

#include "VekLogLifecycle.h"
#include "VekLogStats.h"
#include "VekLogTail.h"
#include "VekLogger.h"

namespace {

constexpr const char* kFailureNames[vek::kFailures] = {
    "append", "rotation", "no writer", "crash tail set-up", "recovery", "flush time-out"};
constexpr const char* kStepNames[] = {"",         ", kernel log", ", size check", ", compression",
                                      ", append", ", crash tail"};

// What does not fit is cut.
struct Report {
  void add(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
  // "hh:mm:ss" of local time, or "never" for 0.
  const char* time(int64_t seconds) {
    if (seconds == 0) return "never";
    time_t at = static_cast<time_t>(seconds);
    tm local;
    strftime(mTime, sizeof(mTime), "%m-%d %H:%M:%S", localtime_r(&at, &local));
    return mTime;
  }

  char mText[8192];
  size_t mSize = 0;
  char mTime[32];
};

void Report::add(const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  int n = vsnprintf(mText + mSize, sizeof(mText) - mSize, fmt, args);
  va_end(args);
  if (n > 0) mSize = std::min(mSize + static_cast<size_t>(n), sizeof(mText) - 1);
}

// The recorder's numbers and names, copied under mMutex.
struct Snapshot {
  bool mAttached;
  char mProcess[64];
  char mLogFile[256];
  char mLogDir[256];
  size_t mQueued;
  size_t mBuffered;
  bool mRestartWriter;
  uint64_t mLines, mBatches, mBytes, mDroppedNoWriter, mFlushes;
  vek::TailReport mTail;
};

void copyName(char (&out)[64], const std::string& name) {
  snprintf(out, sizeof(out), "%s", name.c_str());
}

Snapshot snapshot(VekLogRecorder& recorder) {
  Snapshot s{};
  std::lock_guard<std::mutex> lock(recorder.mMutex);
  s.mAttached = recorder.mAttached;
  copyName(s.mProcess, recorder.mProcessName);
  snprintf(s.mLogFile, sizeof(s.mLogFile), "%s", recorder.mLogFilePath.c_str());
  snprintf(s.mLogDir, sizeof(s.mLogDir), "%s", recorder.mLogDir.c_str());
  s.mQueued = recorder.mTasks.size();
  s.mBuffered = recorder.mBuffer.size();
  s.mRestartWriter = recorder.mRestartWriter;
  const vek::Stats& stats = *vek::gStats;
  s.mLines = stats.mLinesRecorded;
  s.mBatches = stats.mBatchesHandedOver;
  s.mBytes = stats.mBytesHandedOver;
  s.mDroppedNoWriter = stats.mDroppedNoWriter;
  s.mFlushes = stats.mFlushes;
  s.mTail = vek::tailReport(recorder);
  return s;
}

// The log file's size and each archive of the process, by name.
void addFiles(Report& report, const Snapshot& s) {
  struct stat st;
  long long size = stat(s.mLogFile, &st) == 0 ? static_cast<long long>(st.st_size) : -1;
  report.add("log file: %s, %lld bytes%s\n", s.mLogFile, std::max(size, 0LL),
             size < 0 ? " (none)" : "");
  DIR* dir = opendir(s.mLogDir);
  size_t prefix = strlen(s.mProcess);
  while (dirent* entry = dir != nullptr ? readdir(dir) : nullptr) {
    if (strncmp(entry->d_name, s.mProcess, prefix) != 0 || entry->d_name[prefix] != '_') continue;
    char path[512];
    snprintf(path, sizeof(path), "%s%s", s.mLogDir, entry->d_name);
    if (stat(path, &st) == 0) {
      report.add("archive: %s, %lld bytes\n", entry->d_name, static_cast<long long>(st.st_size));
    }
  }
  if (dir != nullptr) closedir(dir);
}

void addWriter(Report& report, const VekLogRecorder& recorder, const Snapshot& s) {
  const vek::Stats& stats = *vek::gStats;
  const char* since = report.time(stats.mSince.load(std::memory_order_relaxed));
  switch (recorder.mWriterState.load()) {
    case vek::kWriterIdle:
      report.add("writer: idle since %s\n", since);
      break;
    case vek::kWriterInTask:
      report.add("writer: in a task%s since %s\n", kStepNames[stats.mStep.load()], since);
      break;
    case vek::kWriterLeftBehind:
      report.add("writer: left behind by exit, in a task%s since %s\n",
                 kStepNames[stats.mStep.load()], since);
      break;
    case vek::kWriterStarting:
      report.add("writer: starting\n");
      break;
    default:
      report.add("writer: not running%s\n", s.mRestartWriter ? " (cannot be started)" : "");
  }
}

}  // namespace

namespace vek {

// Constant-initialized, with a trivial destructor: valid before any constructor and after
// every destructor of the process.
Stats gStatsObject;
Stats* const gStats = &gStatsObject;

}  // namespace vek

extern "C" void __vek_dump_state(int fd) {
  VekLogRecorder& recorder = *VekLogRecorder::getInstance();
  const vek::Stats& stats = *vek::gStats;
  Report report;
  bool closed = recorder.mClosed;
  report.add("libvek_log_record, pid %d%s\n", getpid(),
             closed ? ", exit has begun: buffered and queued text is being discarded" : "");
  if (stats.mForkedFrom != 0) report.add("a forked child of pid %d\n", stats.mForkedFrom);
  report.add("level property \"%s\": print %d, record %d\n", stats.mLevelProperty,
             recorder.mPrintLevel, recorder.mRecordLevel);
  Snapshot s{};
  if (closed) report.add("(the recorder's own numbers are not read once exit has begun)\n");
  if (!closed) {
    s = snapshot(recorder);
    if (!s.mAttached) {
      report.add("not attached: nothing is recorded\n");
    } else {
      report.add("process: %s\n", s.mProcess);
      addFiles(report, s);
    }
    addWriter(report, recorder, s);
    report.add("queued: %zu batches, %llu bytes; buffered: %zu bytes\n", s.mQueued,
               static_cast<unsigned long long>(stats.mBytesQueued.load()), s.mBuffered);
    report.add("recorded: %llu lines; handed over: %llu batches, %llu bytes\n",
               static_cast<unsigned long long>(s.mLines),
               static_cast<unsigned long long>(s.mBatches),
               static_cast<unsigned long long>(s.mBytes));
    if (s.mTail.mMade) {
      report.add("crash tail: %s, %llu bytes pending, %llu bytes it had no room for\n",
                 s.mTail.mPath, static_cast<unsigned long long>(s.mTail.mPending),
                 static_cast<unsigned long long>(s.mTail.mLost));
    } else {
      report.add("crash tail: none\n");
    }
  }
  auto n = [](const std::atomic<uint64_t>& counter) {
    return static_cast<unsigned long long>(counter.load(std::memory_order_relaxed));
  };
  report.add("appended: %llu batches, %llu bytes\n", n(stats.mBatchesAppended),
             n(stats.mBytesAppended));
  report.add("dropped batches: %llu write failure, %llu no writer, %llu at exit\n",
             n(stats.mDroppedWrite), static_cast<unsigned long long>(s.mDroppedNoWriter),
             n(stats.mDroppedAtExit));
  report.add("rotations: %llu done, %llu failed\n", n(stats.mRotations), n(stats.mRotationsFailed));
  report.add("flushes: %llu, timed out: %llu\n", static_cast<unsigned long long>(s.mFlushes),
             n(stats.mFlushTimeouts));
  report.add(
      "recovered at attachment: %llu bytes from %llu dead processes; reported lost: "
      "%llu bytes\n",
      n(stats.mRecoveredBytes), n(stats.mRecoveredTails), n(stats.mLostReported));
  for (int kind = 0; kind < vek::kFailures; ++kind) {
    report.add("last failure, %s: %s\n", kFailureNames[kind],
               report.time(stats.mLastFailure[kind].load(std::memory_order_relaxed)));
  }
  const char* text = report.mText;
  for (size_t left = report.mSize; left > 0;) {
    ssize_t put = TEMP_FAILURE_RETRY(write(fd, text, left));
    if (put <= 0) return;  // closed, or full and non-blocking: the rest is dropped
    text += put;
    left -= static_cast<size_t>(put);
  }
}
