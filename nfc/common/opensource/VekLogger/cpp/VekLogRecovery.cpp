// Recovery, at every attachment, of what dead processes left in their crash tails.
//
// A tail's name says how far its recovery got; the name changes before the file is read:
//   .tail      none begun        -> .tail.1, recovered, removed
//   .tail.1    one begun, cut    -> .tail.2, resumed where the notes in its header say
//   .tail.2    the resume cut    -> .tail.bad unread
//   .tail.bad  set aside         -> kept for vek_tail, never read here; the newest one kept
//   .tail.new  being made        -> removed once the process named in it is dead
// So a tail that kills whoever reads it, by a fault nobody has found yet, costs the start that
// met it and the one resume; a death for an ordinary reason (init's kill) loses nothing.
#include <android-base/unique_fd.h>
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>

#include "VekLogDiag.h"
#include "VekLogLifecycle.h"
#include "VekLogStats.h"
#include "VekLogStorage.h"
#include "VekLogTail.h"

namespace vek {
namespace {

constexpr char kTail[] = ".tail";
constexpr char kSetAside[] = ".tail.bad";
constexpr char kHalfMade[] = ".tail.new";
constexpr size_t kSetAsideKept = 1;

enum Outcome { kDone, kFailed, kDamaged };

bool endsWith(const std::string& name, const std::string& suffix) {
  return name.size() >= suffix.size() &&
         name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0;
}

// A tail file: its name, and the directory it is in.
struct TailName {
  std::string mName;
  std::string mDir;
  bool operator<(const TailName& other) const { return mName < other.mName; }
};

// process's tail files with the given suffix, wherever a tail of it may be (the log directory,
// the RAM directory), oldest first: names carry their creation time.
std::vector<TailName> tailNames(const LogTarget& target, const std::string& suffix) {
  std::string prefix = "." + target.mProcessName + ".veklog.";
  std::vector<TailName> names;
  std::vector<std::string> dirs = {target.mLogDir, tailDir(target)};
  if (dirs[1] == dirs[0]) dirs.pop_back();  // no RAM directory
  for (const std::string& path : dirs) {
    DIR* dir = opendir(path.c_str());
    if (dir == nullptr) continue;
    while (dirent* entry = readdir(dir)) {
      std::string name = entry->d_name;
      if (name.compare(0, prefix.size(), prefix) == 0 && endsWith(name, suffix)) {
        names.push_back({name, path});
      }
    }
    closedir(dir);
  }
  std::sort(names.begin(), names.end());
  return names;
}

// Keeps a tail that is not to be read again for vek_tail, as base + ".bad", with the newest
// kSetAsideKept of them, and says why.
void setAside(const LogTarget& target, const std::string& path, const std::string& base,
              const char* why) {
  std::string kept = base + ".bad";
  rename(path.c_str(), kept.c_str());
  std::vector<TailName> names = tailNames(target, kSetAside);
  for (size_t i = 0; i + kSetAsideKept < names.size(); ++i) {
    unlink((names[i].mDir + names[i].mName).c_str());
  }
  VEK_DIAG(WARNING) << android::base::StringPrintf("%s: crash tail set aside, %s: %s",
                                                   "recoverTails", why, kept.c_str());
}

// A half-made tail is unlocked for a moment after it is created: it is left alone while the
// process named in it may live (this one included).
bool madeByLivingProcess(const std::string& name) {
  size_t dash = name.rfind('-');
  long pid = dash == std::string::npos ? 0 : strtol(name.c_str() + dash + 1, nullptr, 10);
  return pid > 0 && pid <= INT32_MAX && (kill(static_cast<pid_t>(pid), 0) == 0 || errno != ESRCH);
}

// How much of the batch a death cut short, the first size bytes of text, is in its file: a
// batch is written with one write, which a fatal signal can cut between pages. A file gone or
// replaced since was archived after the write. With lines of the batch the ring lacked, only
// whether the write began can be told.
size_t writtenOfFlight(const TailHeader& header, const std::vector<char>& text, size_t size,
                       const LogTarget& target) {
  struct stat st;
  android::base::unique_fd fd = openLogDirFile(target.mLogFilePath, O_RDONLY, 0, &st);
  if (fd == -1 || static_cast<uint64_t>(st.st_dev) != header.mFlightDev ||
      static_cast<uint64_t>(st.st_ino) != header.mFlightIno) {
    return size;
  }
  if (header.mFlightLost != 0) return st.st_size > header.mFlightOffset ? size : 0;
  char chunk[4096];
  size_t same = 0;
  while (same < size) {
    ssize_t got = TEMP_FAILURE_RETRY(pread(fd, chunk, std::min(sizeof(chunk), size - same),
                                           header.mFlightOffset + static_cast<off_t>(same)));
    for (ssize_t i = 0; i < got; ++i, ++same) {
      if (chunk[i] != text[same]) return same;
    }
    if (got <= 0) break;
  }
  return same;
}

// Appends text to the log file of process and syncs it: only then may the tail, whose file
// kept the text through a power cut, let go of it. True once it is on storage.
bool appendSynced(VekLogRecorder& recorder, const std::vector<char>& text, int process,
                  const TailSpan& span) {
  bool written = false;
  bool synced = false;
  return appendBatch(knownTarget(recorder, process), text, span, &written, &synced) && synced;
}

// Appends text[from - base, to - base) to the log file of process; with span, noted in the
// tail's file before it is written, as the writer notes its batches.
bool appendRun(VekLogRecorder& recorder, const std::vector<char>& text, uint64_t base,
               uint64_t from, uint64_t to, int process, const TailSpan& span) {
  std::vector<char> run(text.begin() + static_cast<ptrdiff_t>(from - base),
                        text.begin() + static_cast<ptrdiff_t>(to - base));
  if (!appendSynced(recorder, run, process, span)) return false;
  count(gStats->mRecoveredBytes, run.size());
  return true;
}

// Appends the proven part of a dead process's text to the log files its lines were meant for,
// one target's run at a time: first the rest of a batch its death cut in its write, then the
// runs, then a line that says how much the ring could not hold. The header's notes are written
// back after each step, so that a recovery cut short by a death goes on where it stopped.
Outcome replay(VekLogRecorder& recorder, int fd, TailImage& image) {
  TailHeader& header = image.header();
  const uint64_t base = header.mTail;
  const uint64_t end = provenEnd(image);
  TailSpan notes{&header, 0, 0, fd};
  if (header.mFlightEnd != 0) {
    uint64_t flightEnd = std::min<uint64_t>(header.mFlightEnd, end);
    int process = targetAt(header, base);
    size_t size = static_cast<size_t>(flightEnd - base);
    uint64_t written =
        base + writtenOfFlight(header, image.mText, size, knownTarget(recorder, process));
    // Not noted: should this write be cut too, the next attempt compares the batch again.
    if (written < flightEnd &&
        !appendRun(recorder, image.mText, base, written, flightEnd, process, TailSpan())) {
      return kFailed;
    }
    header.mTail = flightEnd;
    header.mLostDone = header.mLostDone + header.mFlightLost;
    header.mFlightEnd = 0;
    saveNotes(notes);
  }
  while (header.mTail < end) {
    uint64_t from = header.mTail;
    uint64_t to = end;
    for (uint32_t i = 0; i < header.mTargetCount; ++i) {
      if (header.mTargets[i].mFrom > from) to = std::min<uint64_t>(to, header.mTargets[i].mFrom);
    }
    TailSpan span{&header, to, 0, fd};
    if (!appendRun(recorder, image.mText, base, from, to, targetAt(header, from), span)) {
      return kFailed;
    }
    tailDone(span);
  }
  if (end != header.mHead) return kDamaged;
  uint64_t lost = header.mLostLogged - header.mLostDone;
  if (lost == 0) return kDone;
  VEK_DIAG(WARNING) << "crash tail: " << lost << " bytes logged before a death were lost";
  int process = targetAt(header, header.mTail);
  std::string note = std::to_string(lost) + " bytes logged before a death were lost";
  std::vector<char> line = formatLine(VEK_LEVEL_WARNING, knownName(process), note);
  if (!appendSynced(recorder, line, process, TailSpan())) return kFailed;
  header.mLostDone = header.mLostLogged.load();
  saveNotes(notes);
  count(gStats->mLostReported, lost);
  return kDone;
}

// Whether the tail file fd is open and now locked here: its process is dead (a living one holds
// the lock). The descriptor is registered, so that a child forked meanwhile never keeps it.
bool lockDead(const TailFile& fd) {
  return fd.mFd != -1 && TEMP_FAILURE_RETRY(flock(fd.mFd, LOCK_EX | LOCK_NB)) == 0;
}

// Recovers the tail file; false when its process lives.
bool recoverFile(VekLogRecorder& recorder, const LogTarget& target, const TailName& file) {
  const std::string& name = file.mName;
  std::string path = file.mDir + name;
  TailFile fd(path, O_RDWR);
  if (!lockDead(fd)) return fd.mFd == -1;
  if (endsWith(name, kHalfMade)) {
    unlink(path.c_str());
    return true;
  }
  std::string base = file.mDir + name.substr(0, name.rfind(kTail) + sizeof(kTail) - 1);
  if (endsWith(name, ".2")) {
    setAside(target, path, base, "two recoveries did not finish");
    return true;
  }
  std::string marked = base + (endsWith(name, kTail) ? ".1" : ".2");
  if (rename(path.c_str(), marked.c_str()) != 0) return true;  // unmarked, it is not read
  TailImage image;
  if (!readTail(fd.mFd, &image)) {
    setAside(target, marked, base, "damaged");
    return true;
  }
  // Closed: its process exited, which discards what is pending.
  Outcome outcome = image.header().mClosed ? kDone : replay(recorder, fd.mFd, image);
  if (outcome == kDone) {
    count(gStats->mRecoveredTails);
    unlink(marked.c_str());
  } else if (outcome == kDamaged) {
    setAside(target, marked, base, "damaged after its whole lines");
  } else {
    rename(marked.c_str(), path.c_str());  // no death: tried again at the next attachment
    noteFailure(kFailRecovery);
    VEK_DIAG(ERROR) << android::base::StringPrintf("%s: Failed to recover crash tail, kept: %s",
                                                   "recoverTails", path.c_str());
  }
  return true;
}

// Whether name is a tail a recovery reads: one of a dead process's stages, or a half-made one
// of a process that is dead.
bool recoverable(const std::string& name) {
  bool stage = endsWith(name, kTail) || endsWith(name, ".tail.1") || endsWith(name, ".tail.2");
  return stage || (endsWith(name, kHalfMade) && !madeByLivingProcess(name));
}

// This process's own tails carry its pid.
bool ownTail(const std::string& name) {
  return name.find("-" + std::to_string(getpid()) + ".tail") != std::string::npos;
}

}  // namespace

bool recoverTails(VekLogRecorder& recorder, int process) {
  LogTarget target = knownTarget(recorder, process);
  {
    LogFileLock lock(target.mLogFilePath);
    if (!repairRotation(target)) {
      VEK_DIAG(ERROR) << android::base::StringPrintf("%s: Failed to repairRotation!",
                                                     "recoverTails");
    }
  }
  bool living = false;
  for (const TailName& file : tailNames(target, "")) {
    if (recoverable(file.mName) && !ownTail(file.mName)) {
      living |= !recoverFile(recorder, target, file);
    }
  }
  return living;
}

}  // namespace vek
