// The crash tail: this process's own, and the recovery of what dead processes left.
#include "VekLogTail.h"

#include <android-base/unique_fd.h>
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <inttypes.h>
#include <linux/magic.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/statfs.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <mutex>

#include "VekLogDiag.h"
#include "VekLogPlatform.h"
#include "VekLogStats.h"
#include "VekLogStorage.h"
#include "VekLogger.h"

namespace vek {
namespace {

constexpr size_t kTailFileSize = kTailHeaderSize + kTailCapacity;
// A device's RAM file system for crash tails, made by its init (not by the library). No link.
constexpr char kRamTailDir[] = "/mnt/vendor/vek";
// How often the writer checks that the tail's file is still whole and at its name, and, while
// another process under the name lives, whether it has died.
constexpr std::chrono::seconds kCheckEvery(2);
// A set-up that failed is tried again at the first batch this long after the failure, the wait
// doubling with each failure up to 64 s.
constexpr std::chrono::seconds kRetryFirst(1);
constexpr int kRetryDoublings = 6;

// This process's tail, of the first recorder to attach (the process's one; a recorder a test
// makes beside it gets none). Made when the library is loaded and never destroyed: a writer
// left behind at exit may still use it. The fields are guarded by the owner's mMutex: a
// hand-over writes the batch's start, the writer the file's and the schedule's fields, a set-up
// the mapping, each with the lock held.
struct alignas(64) Tail {
  // What every line reads, on one cache line, written only once a batch or a ring's worth: at
  // two threads, a line written under the lock moves between their cores with it. What lines
  // write, they write in the header.
  const VekLogRecorder* mOwner = nullptr;
  // Null: lines are not protected.
  TailHeader* mHeader VEK_GUARDED_BY(mOwner->mMutex) = nullptr;
  char* mRing VEK_GUARDED_BY(mOwner->mMutex) = nullptr;
  // The ring may be filled up to here: consumed mark + capacity.
  uint64_t mRoomEnd VEK_GUARDED_BY(mOwner->mMutex) = 0;
  // Where mBuffer's lines begin in the ring, and the header's mLostLogged then.
  uint64_t mBatchStart VEK_GUARDED_BY(mOwner->mMutex) = 0;
  uint64_t mBatchLostFrom VEK_GUARDED_BY(mOwner->mMutex) = 0;

  int mFd VEK_GUARDED_BY(mOwner->mMutex) = -1;
  std::string mPath VEK_GUARDED_BY(mOwner->mMutex);
  // Attached under a known name: the process is to have a tail.
  bool mWanted VEK_GUARDED_BY(mOwner->mMutex) = false;
  // A thread is setting one up, with mMutex released.
  bool mMaking VEK_GUARDED_BY(mOwner->mMutex) = false;
  // Set-ups failed (the first one says so), and no set-up is tried before mNextTry.
  int mFailures VEK_GUARDED_BY(mOwner->mMutex) = 0;
  std::chrono::steady_clock::time_point mNextTry VEK_GUARDED_BY(mOwner->mMutex);
  // The known process lines now go to.
  int mProcess VEK_GUARDED_BY(mOwner->mMutex) = -1;
  // Known processes whose dead tails the writer is to recover, and those with another
  // process's tail, living.
  unsigned mRecover VEK_GUARDED_BY(mOwner->mMutex) = 0;
  unsigned mWatch VEK_GUARDED_BY(mOwner->mMutex) = 0;
  // The file was lost: the next set-up says so.
  bool mRemade VEK_GUARDED_BY(mOwner->mMutex) = false;
  // The writer's next look (kCheckEvery).
  std::chrono::steady_clock::time_point mNextCheck VEK_GUARDED_BY(mOwner->mMutex);
};
Tail* const gTail = new Tail;

// Tells the analysis what the caller checked: the recorder whose mMutex it holds owns tail.
void ownerLocked([[maybe_unused]] const Tail& tail) VEK_ASSERT_CAPABILITY(tail.mOwner->mMutex) {}

// What a set-up makes, with mMutex released, before it is put in place.
struct MadeTail {
  TailHeader* mHeader = nullptr;
  char* mRing = nullptr;
  int mFd = -1;
  std::string mPath;
};

// Descriptors of tail files open in this process. A forked child shares each one's open file
// description, and with it the flock that marks a tail's process as living, so the child closes
// them all. Each is opened and registered with gFilesLock held, which fork waits for.
pthread_mutex_t gFilesLock = PTHREAD_MUTEX_INITIALIZER;
int gFiles[4] = {-1, -1, -1, -1};

// Replaces the tail's mapping with anonymous memory at the same place: a span still queued may
// write into it, and no page of a lost or cut file is touched again.
void retire(void* map) {
  // Should it fail, the file's mapping stays: lines still reach a removed file harmlessly.
  (void)mmap(map, kTailFileSize, PROT_READ | PROT_WRITE, MAP_FIXED | MAP_PRIVATE | MAP_ANONYMOUS,
             -1, 0);
}

// Notes that from the current batch on, lines go to process.
void retarget(Tail& tail, int process) VEK_REQUIRES(tail.mOwner->mMutex) {
  TailHeader& header = *tail.mHeader;
  uint32_t count = header.mTargetCount;
  if (count > 0 && header.mTargets[count - 1].mProcess == process) return;
  if (count == kTailTargets) {  // the oldest goes: lines that old are long written
    memmove(&header.mTargets[0], &header.mTargets[1], sizeof(TailTarget) * (kTailTargets - 1));
    --count;
  }
  header.mTargets[count] = TailTarget{tail.mBatchStart, process, 0};
  header.mTargetCount = count + 1;
}

// Makes ".<log file>.<time>-<pid>.tail" for process, whole and locked before it has its name,
// so that no recovery ever takes it for a dead one; the space is reserved first, so that a
// full disk can never fault a logging thread (SIGBUS).
bool makeTail(const VekLogRecorder& recorder, int process, MadeTail* tail) {
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  char suffix[64];
  snprintf(suffix, sizeof(suffix), ".%016" PRIx64 "-%d.tail",
           static_cast<uint64_t>(now.tv_sec) * 1000000000 + static_cast<uint64_t>(now.tv_nsec),
           getpid());
  LogTarget target = knownTarget(recorder, process);
  tail->mPath = privatePath(tailDir(target) + target.mProcessName + ".veklog", suffix);
  const std::string& path = tail->mPath;
  std::string fresh = path + ".new";
  TailFile fd(fresh, O_RDWR | O_CREAT | O_EXCL, 0640);
  void* map = MAP_FAILED;
  int reserved = EBADF;
  // posix_fallocate returns its error; a signal may interrupt a large reservation.
  if (fd.mFd != -1 && TEMP_FAILURE_RETRY(flock(fd.mFd, LOCK_EX | LOCK_NB)) == 0) {
    while ((reserved = posix_fallocate(fd.mFd, 0, kTailFileSize)) == EINTR) {
    }
  }
  // Resident but clean: populating a shared mapping reads its pages in without dirtying them,
  // so that only pages lines are written to are ever written back. Never inherited: a mapping
  // holds the file open, and with it the lock that marks this process as living, so a forked
  // child must not get it; fork waits for the lock of the tail files meanwhile.
  if (reserved == 0) {
    lockTailFiles();
    map =
        mmap(nullptr, kTailFileSize, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_POPULATE, fd.mFd, 0);
    if (map != MAP_FAILED && madvise(map, kTailFileSize, MADV_DONTFORK) != 0) {
      munmap(map, kTailFileSize);
      map = MAP_FAILED;
    }
    unlockTailFiles();
  }
  if (map != MAP_FAILED) {
    auto* header = new (map) TailHeader{};
    header->mCapacity = kTailCapacity;
    header->mTargets[0] = TailTarget{0, process, 0};
    header->mTargetCount = 1;
    memcpy(header->mMagic, kTailMagic, sizeof(kTailMagic));
    if (rename(fresh.c_str(), path.c_str()) == 0) {
      tail->mHeader = header;
      tail->mRing = static_cast<char*>(map) + kTailHeaderSize;
      tail->mFd = fd.release();
      return true;
    }
    munmap(map, kTailFileSize);
  }
  if (fd.mFd != -1) unlink(fresh.c_str());
  return false;
}

// Under mMutex: whether a set-up of the tail is due now, which the caller then makes.
bool beginSetUp(Tail& tail) VEK_REQUIRES(tail.mOwner->mMutex) {
  if (!tail.mWanted || tail.mHeader != nullptr || tail.mMaking ||
      std::chrono::steady_clock::now() < tail.mNextTry) {
    return false;
  }
  tail.mMaking = true;
  return true;
}

// Makes the tail (I/O with mMutex released) and puts it in place, with the lines mBuffer holds
// already; or notes when to try again.
void openTail(VekLogRecorder& recorder, int process) VEK_EXCLUDES(recorder.mMutex) {
  MadeTail made;
  bool ok = makeTail(recorder, process, &made);
  bool first = false;
  bool remade = false;
  {
    std::lock_guard<std::mutex> lock(recorder.mMutex);
    Tail& tail = *gTail;
    ownerLocked(tail);  // only the owner's attachment or writer makes its tail
    tail.mMaking = false;
    if (!ok) {
      noteFailure(kFailTail);
      first = tail.mFailures == 0 && !tail.mRemade;
      tail.mNextTry = std::chrono::steady_clock::now() +
                      kRetryFirst * (1 << std::min(tail.mFailures, kRetryDoublings));
      ++tail.mFailures;
    } else if (!recorder.mClosed) {
      remade = tail.mRemade;
      tail.mRemade = false;
      tail.mHeader = made.mHeader;
      tail.mRing = made.mRing;
      tail.mFd = made.mFd;
      tail.mPath = made.mPath;
      tail.mBatchStart = 0;
      tail.mRoomEnd = kTailCapacity;
      tail.mBatchLostFrom = 0;
      retarget(tail, tail.mProcess);
      if (!recorder.mBuffer.empty()) {
        tailAppend(recorder, recorder.mBuffer.data(), recorder.mBuffer.size());
      }
    }
  }
  // Once per process: a failure that lasts would otherwise say so at every try.
  if (first) {
    VEK_DIAG(WARNING) << "Failed to set up crash tail: " << made.mPath;
  }
  if (remade) {
    VEK_DIAG(WARNING) << "Crash tail was removed or cut, made again: " << made.mPath;
  }
}

// On the writer, with mMutex released, at an attachment and at most every kCheckEvery: a tail
// whose file is no longer at its name (removed, its directory moved or removed and made again)
// or was cut is given up for a new one. Only the writer closes fd while the tail is in place.
void checkFile(VekLogRecorder& recorder, TailHeader* header, int fd, const std::string& path)
    VEK_EXCLUDES(recorder.mMutex) {
  struct stat open;
  struct stat named;
  if (fstat(fd, &open) != 0) return;
  bool there = lstat(path.c_str(), &named) == 0 && named.st_dev == open.st_dev &&
               named.st_ino == open.st_ino;
  if (there && static_cast<uint64_t>(open.st_size) == kTailFileSize) return;
  if (there) unlink(path.c_str());  // cut: what it holds can no longer be trusted
  std::lock_guard<std::mutex> lock(recorder.mMutex);
  Tail& tail = *gTail;
  ownerLocked(tail);  // only the owner's writer checks its file
  if (tail.mHeader != header) return;
  retire(header);
  closeTailFile(fd);
  tail.mHeader = nullptr;
  tail.mRemade = true;
  tail.mNextTry = {};
}

}  // namespace

std::string tailDir(const LogTarget& target) {
  std::string ram = devicePath(kRamTailDir);
  struct stat st;
  struct statfs fs;
  bool usable = lstat(ram.c_str(), &st) == 0 && S_ISDIR(st.st_mode) &&
                statfs(ram.c_str(), &fs) == 0 && fs.f_type == TMPFS_MAGIC;
  return usable ? ram + "/" : target.mLogDir;
}

bool saveNotes(const TailSpan& span) {
  if (span.mFd == -1) return false;
  TEMP_FAILURE_RETRY(pwrite(span.mFd, span.mHeader, sizeof(TailHeader), 0));
  return true;
}

void tailAppend(const VekLogRecorder& recorder, const char* line, size_t size) {
  Tail& tail = *gTail;
  if (tail.mOwner != &recorder) return;
  ownerLocked(tail);
  TailHeader* header = tail.mHeader;
  if (header == nullptr) return;
  // Only logging threads write mHead and mLostLogged, under mMutex.
  uint64_t head = header->mHead.load(std::memory_order_relaxed);
  // The consumed mark, which the writer moves, is read only when the room seen last is used up.
  if (head + size > tail.mRoomEnd) {
    uint64_t roomEnd = header->mTail.load(std::memory_order_acquire) + kTailCapacity;
    if (roomEnd != tail.mRoomEnd) tail.mRoomEnd = roomEnd;
  }
  if (head + size > tail.mRoomEnd) {
    header->mLostLogged.store(header->mLostLogged.load(std::memory_order_relaxed) + size,
                              std::memory_order_relaxed);
    return;
  }
  size_t offset = static_cast<size_t>(head % kTailCapacity);
  size_t first = std::min(size, kTailCapacity - offset);
  memcpy(tail.mRing + offset, line, first);
  if (first < size) memcpy(tail.mRing, line + first, size - first);
  header->mHead.store(head + size, std::memory_order_release);
}

TailSpan takeTailSpan(const VekLogRecorder& recorder) {
  Tail& tail = *gTail;
  if (tail.mOwner != &recorder) return TailSpan();
  ownerLocked(tail);
  if (tail.mHeader == nullptr) return TailSpan();
  uint64_t lost = tail.mHeader->mLostLogged.load(std::memory_order_relaxed);
  TailSpan span{tail.mHeader, tail.mHeader->mHead.load(std::memory_order_relaxed),
                lost - tail.mBatchLostFrom};
  tail.mBatchStart = span.mEnd;
  tail.mBatchLostFrom = lost;
  return span;
}

void tailWriting(const TailSpan& span, const struct stat& st) {
  TailHeader* header = span.mHeader;
  if (header == nullptr) return;
  header->mFlightLost = span.mLost;
  header->mFlightDev = static_cast<uint64_t>(st.st_dev);
  header->mFlightIno = static_cast<uint64_t>(st.st_ino);
  header->mFlightOffset = st.st_size;
  header->mFlightEnd.store(span.mEnd, std::memory_order_release);
  saveNotes(span);
}

void tailDone(const TailSpan& span) {
  TailHeader* header = span.mHeader;
  if (header == nullptr) return;
  header->mTail.store(span.mEnd, std::memory_order_release);
  header->mLostDone.store(header->mLostDone.load(std::memory_order_relaxed) + span.mLost,
                          std::memory_order_relaxed);
  header->mFlightEnd.store(0, std::memory_order_release);
  saveNotes(span);
}

void attachTail(VekLogRecorder& recorder, int process) {
  if (recorder.mRecordLevel == 0) return;  // nothing is ever recorded
  bool make = false;
  {
    std::lock_guard<std::mutex> lock(recorder.mMutex);
    Tail& tail = *gTail;
    if (tail.mOwner == nullptr) tail.mOwner = &recorder;
    if (tail.mOwner != &recorder) return;
    ownerLocked(tail);
    tail.mProcess = process;
    if (tail.mHeader != nullptr) retarget(tail, process);
    tail.mWanted = crashTailWanted();
    make = beginSetUp(tail);
  }
  // What dead processes left under the name is recovered before this one's tail is added: a
  // process that dies at once, again and again, leaves one dead tail at a time, and loses
  // nothing. The writer is asked to look again only then: it takes the same locks.
  bool living = make && recoverTails(recorder, process);
  if (make) openTail(recorder, process);
  {
    std::lock_guard<std::mutex> lock(recorder.mMutex);
    ownerLocked(*gTail);  // checked above; the owner never changes
    if (living) gTail->mWatch |= 1u << process;
    gTail->mRecover |= 1u << process;
    gTail->mNextCheck = {};
  }
  recorder.mCondition.notify_one();
}

std::function<void()> takeTailWork(VekLogRecorder& recorder) {
  Tail& tail = *gTail;
  if (tail.mOwner != &recorder) return nullptr;
  ownerLocked(tail);
  auto now = std::chrono::steady_clock::now();
  // Another process under the name may have begun or died since: its tail is looked for too.
  // Only with a batch to write, or another process to watch: an idle writer does nothing.
  bool busy = !recorder.mTasks.empty() || tail.mWatch != 0;
  if (now >= tail.mNextCheck && busy && tail.mProcess >= 0) {
    tail.mNextCheck = now + kCheckEvery;
    tail.mRecover |= tail.mWatch | 1u << tail.mProcess;
    if (tail.mHeader != nullptr) {
      return [&recorder, header = tail.mHeader, fd = tail.mFd, path = tail.mPath] {
        checkFile(recorder, header, fd, path);
      };
    }
  }
  unsigned recover = tail.mRecover;
  tail.mRecover = 0;
  if (recover != 0) {
    return [&recorder, recover] {
      unsigned living = 0;
      for (int process = 0; recover >> process != 0; ++process) {
        if ((recover & (1u << process)) && recoverTails(recorder, process)) living |= 1u << process;
      }
      std::lock_guard<std::mutex> lock(recorder.mMutex);
      ownerLocked(*gTail);  // the owner's writer runs this
      gTail->mWatch = (gTail->mWatch & ~recover) | living;
    };
  }
  if (beginSetUp(tail)) {
    return [&recorder, process = tail.mProcess] { openTail(recorder, process); };
  }
  return nullptr;
}

std::optional<std::chrono::steady_clock::time_point> tailWakeAt(const VekLogRecorder& recorder) {
  const Tail& tail = *gTail;
  if (tail.mOwner != &recorder) return std::nullopt;
  ownerLocked(tail);
  if (tail.mWatch == 0) return std::nullopt;
  return tail.mNextCheck;
}

TailReport tailReport(const VekLogRecorder& recorder) {
  const Tail& tail = *gTail;
  TailReport report{};
  if (tail.mOwner != &recorder) return report;
  ownerLocked(tail);
  if (tail.mHeader == nullptr) return report;
  report.mMade = true;
  snprintf(report.mPath, sizeof(report.mPath), "%s", tail.mPath.c_str());
  report.mPending = tail.mHeader->mHead.load() - tail.mHeader->mTail.load();
  report.mLost = tail.mHeader->mLostLogged.load() - tail.mHeader->mLostDone.load();
  return report;
}

// Without mMutex: a writer left behind may never release it; only the mapping's removal waits
// for every thread to be out.
void closeTail(const VekLogRecorder& recorder, bool unmap) VEK_NO_THREAD_SAFETY_ANALYSIS {
  Tail& tail = *gTail;
  if (tail.mHeader == nullptr || tail.mOwner != &recorder) return;
  tail.mHeader->mClosed = 1;
  unlink(tail.mPath.c_str());
  if (unmap) {
    munmap(tail.mHeader, kTailFileSize);
    closeTailFile(tail.mFd);
  }
  tail.mHeader = nullptr;
}

// The child has one thread, and the tail's owner may be a recorder whose lock it never made anew.
void dropTailInChild() VEK_NO_THREAD_SAFETY_ANALYSIS {
  Tail& tail = *gTail;
  tail.mRecover = 0;
  tail.mWatch = 0;
  tail.mMaking = false;  // the thread that was making one stayed in the parent
  tail.mFailures = 0;
  tail.mNextTry = {};
  tail.mHeader = nullptr;  // never mapped in a child; its descriptor goes with the others
}

TailFile::TailFile(const std::string& path, int flags, mode_t mode) {
  pthread_mutex_lock(&gFilesLock);
  for (int& slot : gFiles) {
    if (slot != -1) continue;
    slot = mFd = openLogDirFile(path, flags, mode).release();
    break;
  }
  pthread_mutex_unlock(&gFilesLock);
}

TailFile::~TailFile() {
  if (mFd != -1) closeTailFile(mFd);
}

int TailFile::release() {
  int fd = mFd;
  mFd = -1;
  return fd;
}

void closeTailFile(int fd) {
  pthread_mutex_lock(&gFilesLock);
  for (int& slot : gFiles) {
    if (slot == fd) slot = -1;
  }
  close(fd);
  pthread_mutex_unlock(&gFilesLock);
}

void lockTailFiles() { pthread_mutex_lock(&gFilesLock); }

void unlockTailFiles() { pthread_mutex_unlock(&gFilesLock); }

void closeTailFilesInChild() {
  pthread_mutex_init(&gFilesLock, nullptr);
  for (int& slot : gFiles) {
    if (slot != -1) close(slot);
    slot = -1;
  }
}

}  // namespace vek
