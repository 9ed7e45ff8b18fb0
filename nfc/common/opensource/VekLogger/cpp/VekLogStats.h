// What the library counts about itself, for __vek_dump_state: the fate of the lines, and what
// the writer is doing. Counting is free on the logging path: fields of mMutex's are plain and
// updated where the lock is held already; the others are atomics, relaxed, written by the
// writer (or by a flush or the destructor), which a dump reads without waiting for anyone.
#pragma once

#include <stdint.h>
#include <time.h>

#include <atomic>

namespace vek {

enum Failure {
  kFailAppend,    // a batch's log file could not be opened or written
  kFailRotation,  // a rotation, or the repair of one, failed
  kFailNoWriter,  // a batch was dropped for want of a writer
  kFailTail,      // the crash tail could not be set up
  kFailRecovery,  // a dead process's tail could not be appended
  kFailFlush,     // a flush timed out
  kFailures
};

// What the writer is doing in a task.
enum Step { kStepNone, kStepKernelLog, kStepSizeCheck, kStepCompression, kStepAppend, kStepTail };

struct Stats {
  // Guarded by mMutex.
  uint64_t mLinesRecorded = 0;
  uint64_t mBatchesHandedOver = 0;
  uint64_t mBytesHandedOver = 0;
  uint64_t mDroppedNoWriter = 0;
  uint64_t mFlushes = 0;
  std::atomic<uint64_t> mBytesQueued{0};  // added at a hand-over, taken off as its task starts
  // The writer's, on cache lines of their own: logging threads never wait for them.
  alignas(64) std::atomic<uint64_t> mBatchesAppended{0};
  std::atomic<uint64_t> mBytesAppended{0};
  std::atomic<uint64_t> mDroppedWrite{0};
  std::atomic<uint64_t> mRotations{0};
  std::atomic<uint64_t> mRotationsFailed{0};
  std::atomic<uint64_t> mRecoveredBytes{0};
  std::atomic<uint64_t> mRecoveredTails{0};
  std::atomic<uint64_t> mLostReported{0};
  std::atomic<int> mStep{kStepNone};
  std::atomic<int64_t> mSince{0};  // when the writer's state or step last changed
  // Any thread's.
  std::atomic<uint64_t> mFlushTimeouts{0};
  std::atomic<uint64_t> mDroppedAtExit{0};
  std::atomic<int64_t> mLastFailure[kFailures] = {};  // real time, seconds; 0: never
  char mLevelProperty[92] = {};  // as read at construction, before any other thread
  int mForkedFrom = 0;           // a forked child's parent, set in the child
};

// Made when the library is loaded and never destroyed: a dump may come at any moment of exit.
extern Stats* const gStats;

inline void count(std::atomic<uint64_t>& counter, uint64_t by = 1) {
  counter.fetch_add(by, std::memory_order_relaxed);
}

inline void noteFailure(Failure kind) {
  gStats->mLastFailure[kind].store(time(nullptr), std::memory_order_relaxed);
}

// The writer: it is at step now.
inline void noteStep(Step step) {
  gStats->mStep.store(step, std::memory_order_relaxed);
  gStats->mSince.store(time(nullptr), std::memory_order_relaxed);
}

}  // namespace vek
