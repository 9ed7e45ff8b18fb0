// The recorder's lifecycle: its writer thread, its destruction while other threads still log,
// fork, and calls that come back into the library on the same thread.
#pragma once

#include <sys/syscall.h>
#include <unistd.h>

#include <string_view>

#include "VekLogger.h"

namespace vek {

// Marks a thread inside record, a flush's hand-over or attchProcess. When mEntered is false the
// destructor has begun, and the caller must leave without touching the recorder.
struct UserScope {
  explicit UserScope(VekLogRecorder& recorder) : mRecorder(recorder) {
    mRecorder.mUsers.fetch_add(1);
    mEntered = !mRecorder.mClosed;
  }
  ~UserScope() { mRecorder.mUsers.fetch_sub(1); }
  UserScope(const UserScope&) = delete;
  UserScope& operator=(const UserScope&) = delete;

  VekLogRecorder& mRecorder;
  bool mEntered;
};

// Values of mWriterState.
enum WriterState { kWriterStopped, kWriterStarting, kWriterIdle, kWriterInTask, kWriterLeftBehind };

// Starts the writer thread; false when the system refuses a thread. The caller holds mMutex,
// or is the constructor.
bool startWriter(VekLogRecorder& recorder);

// Starts thread running body(recorder): std::thread's way of reporting a failure, caught.
bool startThread(std::thread& thread, void (*body)(VekLogRecorder*), VekLogRecorder* recorder);

// Queues buff as a write task, as sendBuffToWorker does. A task with announced valid waits for
// it before it runs. The caller holds mMutex; with signal false, it signals mCondition once the
// lock is released, when the result is true.
bool handOver(VekLogRecorder& recorder, std::vector<char>&& buff,
              std::shared_ptr<std::promise<int>> promise, const std::shared_future<void>& announced,
              bool signal = true) VEK_REQUIRES(recorder.mMutex);

// The process and thread id of a line, read by system call for every line. Inline, and called
// as early in a log call as it can be: after a system call, each return into a frame made
// before it is mispredicted on some CPUs (about 6 ns a frame measured).
struct LineIds {
  long mPid;
  long mTid;
};
inline LineIds readIds() { return LineIds{syscall(SYS_getpid), syscall(SYS_gettid)}; }

// Records message as lines of level and tag: record() without copying the caller's text. ids
// are the first line's, read by the caller.
void recordText(VekLogRecorder& recorder, int level, std::string_view tag, std::string_view message,
                LineIds ids) VEK_EXCLUDES(recorder.mMutex);

// One line of level, tag and text in the log file's format, stamped now by this thread.
std::vector<char> formatLine(int level, std::string_view tag, std::string_view text);

// Registers the fork handlers that keep the process's recorder working in a child. Once.
void installForkHandlers();

}  // namespace vek
