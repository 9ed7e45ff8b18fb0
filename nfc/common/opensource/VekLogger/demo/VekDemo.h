// The host demonstration: four processes logging through the library until each has rotated,
// then a check of every file they left.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <string>

namespace vekdemo {

constexpr int kProcesses = 4;
constexpr int kMaxThreads = 16;  // twice the threads a process may have: one is restarted
extern const char* const kProcessNames[kProcesses];

struct Options {
  int mSeconds = 90;
  int mRotations = 2;
  int mThreads = 3;
  int mRate = 7000;  // messages per second per process, about 0.9 MiB/s of log text
  std::string mLevels = "55";
  std::string mRoot;
};

// What a process reports while it runs; lives in memory shared with the parent. The process
// the demo kills and restarts counts its threads on, from mThreads.
struct ProcessStats {
  std::atomic<pid_t> mPid;
  std::atomic<pid_t> mKilledPid;
  std::atomic<long> mRotations;
  std::atomic<long> mBytesWritten;
  std::atomic<long> mErrors;
  std::atomic<long> mKernelLines;
  std::atomic<long> mLogged[kMaxThreads];    // messages each thread has logged
  std::atomic<long> mRecorded[kMaxThreads];  // of those, the ones the record threshold passes
  std::atomic<bool> mFinished;
  char mFirstError[256];
};

struct Shared {
  std::atomic<bool> mStop;
  ProcessStats mProcesses[kProcesses];
};

inline double mebibytes(double bytes) { return bytes / (1024 * 1024); }

// The level of a thread's message number seq: info, debug, warning, error in turn.
int levelOf(long seq);

// Runs one demo process to its end, its threads numbered from firstThread; never returns.
[[noreturn]] void runProcess(int index, int firstThread, const Options& options, Shared& shared);

// Reads every archive and the active file of each process and checks them against the stats.
// Prints the per-process report; returns false when any check fails.
bool checkFiles(const Options& options, const Shared& shared);

}  // namespace vekdemo
