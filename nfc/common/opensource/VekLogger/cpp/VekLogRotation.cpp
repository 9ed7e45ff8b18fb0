// Size limit and rotation of the active log file, and retention of its archives.
//
//   before:  <dir>/nfc_process.veklog (would pass 15 MiB)   nfc_process_<older>.gz x0..5
//   prune:   delete the oldest nfc_process_*.gz while five or more remain
//   archive: gzip nfc_process.veklog -> <dir>//nfc_process_YYYYmmdd_HHMMSS.gz (or _1.gz, _2.gz
//            after the stamp when an older archive has that name); a failure removes it
//   remove:  nfc_process.veklog; the append that follows starts a new file
#include <dirent.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

#include "VekLogDiag.h"
#include "VekLogStorage.h"
#include "VekLogger.h"

namespace vek {
namespace {

constexpr size_t kArchivesKept = 5;

std::vector<std::string> listArchives(DIR* dir, const std::string& prefix) {
  std::vector<std::string> names;
  while (dirent* entry = readdir(dir)) {
    if (strncmp(entry->d_name, prefix.c_str(), prefix.size()) == 0)
      names.emplace_back(entry->d_name);
  }
  return names;
}

// The archive this process's last rotation made, and the second of real time it was named in.
// Only a rotation later in that same second, of this process, may replace it. Rotations run
// one at a time, on the writer. Made when the library is loaded and never destroyed, as the
// writer's lock file is.
struct LastArchive {
  std::string mPath;
  time_t mSecond = -1;
  pid_t mPid = 0;
};
LastArchive* const gLastArchive = new LastArchive;

std::string archiveName(const LogTarget& target, time_t now) {
  tm local;
  localtime_r(&now, &local);
  char stamp[32];
  strftime(stamp, sizeof(stamp), "%Y%m%d_%H%M%S", &local);
  return target.mLogDir + "/" + target.mProcessName + "_" + stamp + ".gz";
}

// The archive name for now. A rotation later in the same second takes the name of the one
// before it and replaces it. Any other entry with that name (an archive from before the clock
// went back, or one planted there) is kept: the first free of <stamp>_1.gz, <stamp>_2.gz, ...
// is taken instead. These sort right after the plain name ('.' < '_'), so byte order stays age
// order; with retention leaving four entries at most, the number stays one digit.
std::string archivePath(const LogTarget& target, const LastArchive& last, time_t now) {
  std::string plain = archiveName(target, now);
  bool sameSecond = now == last.mSecond && last.mPid == getpid();
  std::string path = plain;
  struct stat st;
  for (int n = 1; !(sameSecond && path == last.mPath) && lstat(path.c_str(), &st) == 0; ++n) {
    path = plain.substr(0, plain.size() - 3) + "_" + std::to_string(n) + ".gz";
  }
  return path;
}

// A cut archive is removed: kept, it would take a good archive's place at every retry. The
// name was free, or this process's own. An archive of its own that is still the same file of
// the same size was never opened for output (the input failed first), so it stays whole.
bool archiveLogFile(const LogTarget& target) {
  LastArchive& last = *gLastArchive;
  time_t now = time(nullptr);
  std::string archive = archivePath(target, last, now);
  struct stat before;
  bool existed = lstat(archive.c_str(), &before) == 0;
  if (compressGzip(target.mLogFilePath, archive)) {
    last.mPath = archive;
    last.mSecond = now;
    last.mPid = getpid();
    return true;
  }
  struct stat after;
  if (!existed || lstat(archive.c_str(), &after) != 0 || after.st_ino != before.st_ino ||
      after.st_size != before.st_size) {
    unlink(archive.c_str());
  }
  return false;
}

}  // namespace

bool checkLogFileExceed(const LogTarget& target, int size) {
  // The entry itself: a planted link's target is not the log.
  struct stat st;
  int64_t fileSize = lstat(target.mLogFilePath.c_str(), &st) == 0 ? st.st_size : 0;
  int64_t total = fileSize + static_cast<int64_t>(size);
  if (static_cast<uint64_t>(total) <= target.mMaxFileSize) return true;

  VEK_DIAG(INFO) << "fileSize is full: " << total;
  if (!manageCompressFiles(target)) {
    VEK_DIAG(ERROR) << android::base::StringPrintf("%s: Failed to manageCompressFiles!",
                                                   "checkLogFileExceed");
    return false;
  }
  if (!archiveLogFile(target)) {
    VEK_DIAG(ERROR) << android::base::StringPrintf("%s: Failed to compressGzip!",
                                                   "checkLogFileExceed");
    return false;
  }
  int ret = remove(target.mLogFilePath.c_str());
  if (ret != 0) {
    VEK_DIAG(ERROR) << android::base::StringPrintf("%s: Failed to remove file: %s, ret = %d",
                                                   "checkLogFileExceed",
                                                   target.mLogFilePath.c_str(), ret);
    return false;
  }
  return true;
}

std::string getCompressedLogFile(const LogTarget& target) {
  return archiveName(target, time(nullptr));
}

bool manageCompressFiles(const LogTarget& target) {
  DIR* dir = opendir(target.mLogDir.c_str());
  if (dir == nullptr) {
    VEK_DIAG(ERROR) << android::base::StringPrintf("%s: opendir %s failed.", "manageCompressFiles",
                                                   target.mLogDir.c_str());
    return false;
  }
  std::vector<std::string> names = listArchives(dir, target.mProcessName + "_");
  closedir(dir);

  // Names carry their time stamp, so byte order is age order, oldest first.
  std::sort(names.begin(), names.end());
  for (size_t oldest = 0; names.size() - oldest >= kArchivesKept; ++oldest) {
    std::string path = target.mLogDir + "/" + names[oldest];
    if (unlink(path.c_str()) != 0) {
      VEK_DIAG(ERROR) << android::base::StringPrintf("%s: Failed to delete old log file: %s",
                                                     "manageCompressFiles", path.c_str());
      return false;
    }
    VEK_DIAG(INFO) << android::base::StringPrintf("%s: Deleted old log file: %s",
                                                  "manageCompressFiles", path.c_str());
  }
  return true;
}

}  // namespace vek

bool VekLogRecorder::checkLogFileExceed(int size) {
  return vek::checkLogFileExceed(vek::currentTarget(*this), size);
}

std::string VekLogRecorder::getCompressedLogFile() {
  return vek::getCompressedLogFile(vek::currentTarget(*this));
}

bool VekLogRecorder::manageCompressFiles() {
  return vek::manageCompressFiles(vek::currentTarget(*this));
}
