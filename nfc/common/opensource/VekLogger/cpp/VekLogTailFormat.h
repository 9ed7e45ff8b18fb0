// The crash tail's file, as its process writes it and a recovery or vek_tail reads it back:
// ".<log file>.<creation time>-<pid>.tail", 0640, a 4 KiB header, then a ring of kTailCapacity
// bytes.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <atomic>
#include <vector>

namespace vek {

// What the writer leaves pending while it compresses a full log file: about a second at level
// 9 on a phone's background priority, at 0.9 MiB/s (the demo's rate, the heaviest logging
// seen). The pages are a file's: resident while mapped, but written back and reclaimable.
constexpr uint32_t kTailCapacity = 1024 * 1024;
constexpr size_t kTailHeaderSize = 4096;
constexpr char kTailMagic[8] = {'V', 'E', 'K', 'T', 'A', 'I', 'L', '1'};
constexpr int kTailTargets = 8;
// The known processes, in the order attchProcess compares them: a tail's lines go to one.
constexpr int kKnownProcesses = 4;

// From ring position mFrom on, lines go to the log file of the known process mProcess.
struct TailTarget {
  uint64_t mFrom;
  int32_t mProcess;
  int32_t mUnused;
};

// Positions count bytes since the tail was made; the ring holds [mTail, mHead).
struct TailHeader {
  char mMagic[8];
  uint32_t mCapacity;
  uint32_t mTargetCount;
  std::atomic<uint64_t> mHead;        // bytes ever put in: logging threads, under mMutex
  std::atomic<uint64_t> mTail;        // bytes ever consumed (appended or dropped): the writer
  std::atomic<uint64_t> mLostLogged;  // bytes the ring had no room for: logging threads
  std::atomic<uint64_t> mLostDone;    // of those, the ones whose batch is done: the writer
  // The batch being appended, [mTail, mFlightEnd), and the file it goes to; 0: none.
  std::atomic<uint64_t> mFlightEnd;
  uint64_t mFlightLost;
  uint64_t mFlightDev;
  uint64_t mFlightIno;
  int64_t mFlightOffset;
  TailTarget mTargets[kTailTargets];
  std::atomic<uint32_t> mClosed;  // the destructor ran: exit discards what is pending
};
static_assert(sizeof(TailHeader) <= kTailHeaderSize, "the header fits its page");

// A tail file read back with pread, never mapped, so that nothing done to the file meanwhile
// (a truncation) can fault the reader. Every byte of it is untrusted: a power cut, a bad
// block, a full disk or another process may have left anything there.
struct TailImage {
  TailHeader& header() { return *reinterpret_cast<TailHeader*>(mHeader); }
  const TailHeader& header() const { return *reinterpret_cast<const TailHeader*>(mHeader); }

  alignas(TailHeader) unsigned char mHeader[sizeof(TailHeader)];
  std::vector<char> mText;  // the ring's [mTail, mHead)
};

// Reads the tail file fd; false when it is no tail this library could have written: a size,
// a position, a count or a target out of range, a batch in flight longer than the ring.
bool readTail(int fd, TailImage* image);

// Where the leading run of image's text ends that is whole lines as the library formats them,
// with no target or batch in flight beginning inside a line: the text a recovery may append.
uint64_t provenEnd(const TailImage& image);

// The known process the line at position at goes to (the first target's before it).
inline int targetAt(const TailHeader& header, uint64_t at) {
  int process = header.mTargets[0].mProcess;
  for (uint32_t i = 1; i < header.mTargetCount && i < kTailTargets; ++i) {
    if (header.mTargets[i].mFrom <= at) process = header.mTargets[i].mProcess;
  }
  return process;
}

}  // namespace vek
