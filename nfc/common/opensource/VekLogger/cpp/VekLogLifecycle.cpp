// The recorder's lifecycle: the writer loop, a destructor that no late caller and no busy
// writer can trip over, and fork handlers.
#include "VekLogLifecycle.h"

#include <android-base/thread_annotations.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <new>
#include <thread>

#include "VekLogDiag.h"
#include "VekLogPlatform.h"
#include "VekLogReentry.h"
#include "VekLogStats.h"
#include "VekLogStorage.h"
#include "VekLogTail.h"

namespace vek {
namespace {

// How long the destructor waits for threads inside a hand-over, and for a busy writer.
constexpr std::chrono::seconds kExitWait(2);
// Android's background priority (ANDROID_PRIORITY_BACKGROUND), for work no one waits on.
constexpr int kWriterNice = 10;
// Once it has worked and then had nothing to do for this long, the writer gives what the
// batches of a burst and a rotation took back to the system: an idle process stays small.
constexpr std::chrono::seconds kIdleBeforeRelease(1);

template <typename Done>
bool waitUntil(Done done) {
  auto deadline = std::chrono::steady_clock::now() + kExitWait;
  while (!done()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

// Takes the next task, or returns false once the writer is to stop. Work on the crash tail (a
// recovery, which must come before anything newer) goes before the queue.
bool takeTask(VekLogRecorder* recorder, std::function<void()>* task, bool* worked) {
  std::unique_lock<std::mutex> lock(recorder->mMutex);
  android::base::ScopedLockAssertion held(recorder->mMutex);  // std::unique_lock is not annotated
  // Tail work taken by one wait is kept through the next.
  auto ready = [recorder, task] {
    android::base::ScopedLockAssertion held(recorder->mMutex);  // called with lock held
    if (!*task) *task = takeTailWork(*recorder);
    return recorder->mStopWriter || *task || !recorder->mTasks.empty();
  };
  if (*worked && !recorder->mCondition.wait_for(lock, kIdleBeforeRelease, ready)) {
    lock.unlock();
    releaseFreeMemory();
    lock.lock();
  }
  *worked = true;
  while (!ready()) {
    if (auto wake = tailWakeAt(*recorder)) {
      recorder->mCondition.wait_until(lock, *wake);
    } else {
      recorder->mCondition.wait(lock);
    }
  }
  if (recorder->mStopWriter) return false;
  if (!*task) {
    *task = std::move(recorder->mTasks.front());
    recorder->mTasks.pop_front();
  }
  recorder->mWriterState = kWriterInTask;
  noteStep(kStepNone);
  return true;
}

// Moves the writer from one state to the next, unless the destructor has left it behind.
bool advance(VekLogRecorder* recorder, int from, int to) {
  return recorder->mWriterState.compare_exchange_strong(from, to);
}

// Runs queued tasks one at a time, in order, with mMutex released while a task runs. A writer
// that the destructor has left behind (still starting, or in a task) finds out when it comes
// to the recorder next, and touches nothing more.
void writerLoop(VekLogRecorder* recorder) {
  // Compression competes with the threads that log for the same cores; they come first.
  setpriority(PRIO_PROCESS, static_cast<id_t>(syscall(SYS_gettid)), kWriterNice);
  VEK_DIAG(INFO) << "write buffer thread start!";
  if (!advance(recorder, kWriterStarting, kWriterIdle)) return;
  std::function<void()> task;
  bool worked = false;
  while (takeTask(recorder, &task, &worked)) {
    task();
    task = nullptr;
    if (!advance(recorder, kWriterInTask, kWriterIdle)) return;
    noteStep(kStepNone);
  }
  recorder->mWriterState = kWriterStopped;
}

// Waits for the writer to stop; one still starting or in a task after the wait is left behind.
// True when it stopped.
bool stopWriter(VekLogRecorder& recorder) {
  {
    std::lock_guard<std::mutex> lock(recorder.mMutex);
    recorder.mStopWriter = true;
  }
  recorder.mCondition.notify_one();
  bool stopped = waitUntil([&] { return recorder.mWriterState == kWriterStopped; });
  if (!stopped && (advance(&recorder, kWriterStarting, kWriterLeftBehind) ||
                   advance(&recorder, kWriterInTask, kWriterLeftBehind))) {
    recorder.mWorker.detach();
    return false;
  }
  recorder.mWorker.join();
  return true;
}

pthread_rwlock_t gLibbaseLines = PTHREAD_RWLOCK_INITIALIZER;
// Whether lockForFork took mMutex: the destructor may close the recorder meanwhile, and the
// lock must still be released.
bool gForkLocked = false;

// The parent keeps mMutex across fork, so the child's copy of the buffer and queue is whole,
// and lets no line of the library be half written through libbase. In that order: a line may
// come back through a platform logger into record, which takes mMutex.
// The analysis cannot follow a lock taken in one fork handler and released in another.
void lockForFork() VEK_NO_THREAD_SAFETY_ANALYSIS {
  pthread_rwlock_wrlock(&gLibbaseLines);
  VekLogRecorder* recorder = VekLogRecorder::getInstance();
  gForkLocked = !recorder->mClosed;
  if (gForkLocked) recorder->mMutex.lock();
  lockTailFiles();
}

void unlockInParent() VEK_NO_THREAD_SAFETY_ANALYSIS {
  unlockTailFiles();
  if (gForkLocked) VekLogRecorder::getInstance()->mMutex.unlock();
  pthread_rwlock_unlock(&gLibbaseLines);
}

// The child has one thread. The lock and condition variable are made anew (the parent's
// writer is counted among the old one's waiters), the parent's text is left to the parent,
// and a writer of the child's own starts with its first hand-over.
void resetInChild() {
  pthread_rwlock_init(&gLibbaseLines, nullptr);
  closeTailFilesInChild();
  resetLogFileLockInChild();
  gStats->mForkedFrom = getppid();
  VekLogRecorder* recorder = VekLogRecorder::getInstance();
  if (!gForkLocked) return;
  new (&recorder->mMutex) std::mutex;
  new (&recorder->mCondition) std::condition_variable;
  std::lock_guard<std::mutex> lock(recorder->mMutex);  // a fresh one, free in the only thread
  recorder->mTasks.clear();
  recorder->mBuffer.clear();
  recorder->mRestartWriter = recorder->mRestartWriter || recorder->mWorker.joinable();
  new (&recorder->mWorker) std::thread;
  dropTailInChild();
  recorder->mUsers = 0;
  recorder->mWriterState = kWriterStopped;
}

}  // namespace

__thread Inside tInside = Inside::kNothing;

LibbaseLine::LibbaseLine() { pthread_rwlock_rdlock(&gLibbaseLines); }

LibbaseLine::~LibbaseLine() { pthread_rwlock_unlock(&gLibbaseLines); }

bool startWriter(VekLogRecorder& recorder) {
  recorder.mWriterState = kWriterStarting;
  if (startThread(recorder.mWorker, writerLoop, &recorder)) return true;
  recorder.mWriterState = kWriterStopped;
  return false;
}

void installForkHandlers() { pthread_atfork(lockForFork, unlockInParent, resetInChild); }

}  // namespace vek

VekLogRecorder::~VekLogRecorder() {
  mClosed = true;
  bool idle = vek::waitUntil([this] { return mUsers == 0; });
  bool stopped = !mWorker.joinable() || vek::stopWriter(*this);
  // The writer no longer takes tasks: what is left is discarded.
  vek::count(vek::gStats->mDroppedAtExit, mTasks.size() + (mBuffer.empty() ? 0 : 1));
  vek::closeTail(*this, idle && stopped);
}
