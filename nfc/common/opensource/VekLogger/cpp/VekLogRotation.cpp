// Size limit and rotation of the active log file, and retention of its archives.
//
//   before:  <dir>/nfc_process.veklog (would pass 15 MiB)   nfc_process_<older>.gz x0..5
//   prune:   delete the oldest nfc_process_*.gz while five or more remain
//   part:    .nfc_process.veklog.gz.part made empty
//   move:    nfc_process.veklog synced, renamed nfc_process.veklog.rotating: no batch reaches
//            it now
//   archive: gzip .rotating into the part, synced, renamed <dir>//nfc_process_YYYYmmdd_HHMMSS.gz
//            (or _1.gz, _2.gz after the stamp when an older archive has that name), the
//            directory synced
//   remove:  nfc_process.veklog.rotating; the append that follows starts a new file
//
// A process may die at any step. What it leaves, the next rotation or attachment completes
// (repairRotation): part and .rotating both: the part is named when it is a whole archive of
// the text, else the compression was cut and the text goes back or into an archive again;
// part alone: nothing had begun; .rotating alone: its archive is made. So no text is lost or
// archived twice, and no cut archive is ever named as one. Until a repair succeeds no rotation
// begins, so nothing ever replaces a .rotating file.
//
// Another process shares the directory. Whatever else stands at the part file's or the
// .rotating file's name is removed; a non-empty directory at the part file's name is stepped
// around: the archive is then written under its own name, in one step, the log file in place.
#include <android-base/unique_fd.h>
#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

#include "VekLogDiag.h"
#include "VekLogStats.h"
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

// The archive name for now. A rotation of the log file (mayReplace) later in the same second
// takes the name of the one before it and replaces it. Any other entry with that name (an
// archive from before the clock went back, or one planted there) is kept: the first free of
// <stamp>_1.gz, <stamp>_2.gz, ... is taken instead. These sort right after the plain name
// ('.' < '_'), so byte order stays age order; with retention leaving four entries at most, the
// number stays one digit.
std::string archivePath(const LogTarget& target, time_t now, bool mayReplace) {
  const LastArchive& last = *gLastArchive;
  std::string plain = archiveName(target, now);
  bool sameSecond = mayReplace && now == last.mSecond && last.mPid == getpid();
  std::string path = plain;
  struct stat st;
  for (int n = 1; !(sameSecond && path == last.mPath) && lstat(path.c_str(), &st) == 0; ++n) {
    path = plain.substr(0, plain.size() - 3) + "_" + std::to_string(n) + ".gz";
  }
  return path;
}

std::string partPath(const LogTarget& target) {
  return privatePath(target.mLogFilePath, ".gz.part");
}

std::string rotatingPath(const LogTarget& target) { return target.mLogFilePath + ".rotating"; }

// Removes the entry at one of the library's own names, whatever it is; false when something
// stays there (a non-empty directory). With regularToo false, a regular file stays.
bool clearEntry(const std::string& path, bool regularToo) {
  struct stat st;
  if (lstat(path.c_str(), &st) != 0 || (S_ISREG(st.st_mode) && !regularToo)) return true;
  return (S_ISDIR(st.st_mode) ? rmdir(path.c_str()) : unlink(path.c_str())) == 0;
}

bool clearForeign(const std::string& path) { return clearEntry(path, false); }

enum Published { kNamed, kUnnamed, kUnsynced };

// Names the compressed file written (the part file, or the archive itself) as the archive,
// named for the time the rotation began. Only the rotation of the log file itself counts as
// this process's last archive, which a rotation later in the same second replaces. The name
// must reach storage before the text leaves the log file: when it cannot, the part file is
// named back (kUnsynced), and the next repair finds the text archived but not named.
Published publishArchive(const LogTarget& target, const std::string& written,
                         const std::string& archive, time_t began, bool isLast) {
  if (written != archive && rename(written.c_str(), archive.c_str()) != 0) {
    VEK_DIAG(ERROR) << android::base::StringPrintf("%s: Failed to name archive: %s", "compressGzip",
                                                   archive.c_str());
    return kUnnamed;
  }
  if (!syncDir(target.mLogDir)) {
    if (written != archive) rename(archive.c_str(), written.c_str());
    return kUnsynced;
  }
  if (isLast) *gLastArchive = LastArchive{archive, began, getpid()};
  return kNamed;
}

// Compresses input, the open file at path, into a new archive by the steps above; path is
// moved out of the way first when it is the log file (a directory there is only read, and
// fails at its first read). On success *left is where its text still is, for the caller to
// remove; on failure it is back where it was.
bool archiveFile(const LogTarget& target, int input, const std::string& path, bool isLog,
                 std::string* left) {
  time_t began = time(nullptr);
  std::string archive = archivePath(target, began, isLog);
  bool staged = clearForeign(partPath(target));
  std::string written = staged ? partPath(target) : archive;
  android::base::unique_fd output = openGzipOutput(written, archive);
  if (output == -1) return false;
  *left = path;
  struct stat st;
  // Synced before it moves: a power cut then leaves a whole .rotating file to the repair, never
  // one without its last seconds. Unsynced, it is compressed where it is.
  if (staged && isLog && fstat(input, &st) == 0 && S_ISREG(st.st_mode) && syncFile(input, path) &&
      clearForeign(rotatingPath(target)) &&
      rename(path.c_str(), rotatingPath(target).c_str()) == 0) {
    *left = rotatingPath(target);
  }
  if (writeGzip(input, std::move(output))) {
    Published published = publishArchive(target, written, archive, began, isLog);
    if (published != kUnnamed) return published == kNamed;
  }
  // A cut archive of the log file is removed, so that failing again and again (a full disk)
  // costs nothing more; a repair's part file stays, marking its text as still to be archived.
  if (*left != path) rename(left->c_str(), path.c_str());
  if (isLog) unlink(written.c_str());
  return false;
}

bool archiveLogFile(const LogTarget& target, std::string* left) {
  android::base::unique_fd input = openLogDirFile(target.mLogFilePath, O_RDONLY);
  if (input == -1) {
    VEK_DIAG(ERROR) << android::base::StringPrintf("%s: Failed to open input file: %s",
                                                   "compressGzip", target.mLogFilePath.c_str());
    return false;
  }
  return archiveFile(target, input, target.mLogFilePath, true, left);
}

// The rotation of checkLogFileExceed, once the file would pass the limit.
bool rotate(const LogTarget& target) {
  if (!repairRotation(target)) {
    VEK_DIAG(ERROR) << android::base::StringPrintf("%s: Failed to repairRotation!",
                                                   "checkLogFileExceed");
    return false;
  }
  if (!manageCompressFiles(target)) {
    VEK_DIAG(ERROR) << android::base::StringPrintf("%s: Failed to manageCompressFiles!",
                                                   "checkLogFileExceed");
    return false;
  }
  std::string left;
  if (!archiveLogFile(target, &left)) {
    VEK_DIAG(ERROR) << android::base::StringPrintf("%s: Failed to compressGzip!",
                                                   "checkLogFileExceed");
    return false;
  }
  int ret = remove(left.c_str());
  if (ret != 0) {
    rename(left.c_str(), target.mLogFilePath.c_str());  // the log file stays, archived
    VEK_DIAG(ERROR) << android::base::StringPrintf("%s: Failed to remove file: %s, ret = %d",
                                                   "checkLogFileExceed",
                                                   target.mLogFilePath.c_str(), ret);
    return false;
  }
  return true;
}

}  // namespace

bool checkLogFileExceed(const LogTarget& target, int size) {
  // The entry itself: a planted link's target is not the log.
  struct stat st;
  int64_t fileSize = lstat(target.mLogFilePath.c_str(), &st) == 0 ? st.st_size : 0;
  int64_t total = fileSize + static_cast<int64_t>(size);
  if (static_cast<uint64_t>(total) <= target.mMaxFileSize) return true;

  VEK_DIAG(INFO) << "fileSize is full: " << total;
  noteStep(kStepCompression);
  bool rotated = rotate(target);
  count(rotated ? gStats->mRotations : gStats->mRotationsFailed);
  if (!rotated) noteFailure(kFailRotation);
  return rotated;
}

bool repairRotation(const LogTarget& target) {
  struct stat st;
  std::string part = partPath(target);
  std::string rotating = rotatingPath(target);
  // Anything at the part file's name marks a cut compression: at worst its text is archived
  // twice, never lost.
  bool cut = lstat(part.c_str(), &st) == 0;
  if (!clearForeign(rotating) || lstat(rotating.c_str(), &st) != 0) {
    if (cut) clearEntry(part, true);  // nothing had begun
    return true;
  }
  if (!cut) {
    unlink(rotating.c_str());  // its archive was made
    return true;
  }
  // Only the naming was cut: the whole archive is named, never replaced by shorter text.
  if (isWholeArchive(part, static_cast<uint64_t>(st.st_size))) {
    if (!manageCompressFiles(target) ||
        publishArchive(target, part, archivePath(target, time(nullptr), false), 0, false) !=
            kNamed) {
      return false;
    }
    unlink(rotating.c_str());
    return true;
  }
  // The compression was cut. The text goes back to the log file, or into an archive of its own
  // (pruned for, as a rotation's) when a new log file has begun meanwhile; should that fail,
  // both files stay for the next repair. The part file goes last: alone, the rotating one
  // would count as archived.
  if (lstat(target.mLogFilePath.c_str(), &st) != 0 &&
      rename(rotating.c_str(), target.mLogFilePath.c_str()) == 0) {
    clearEntry(part, true);
    return true;
  }
  android::base::unique_fd input = openLogDirFile(rotating, O_RDONLY);
  std::string left;
  if (input == -1) {
    VEK_DIAG(ERROR) << android::base::StringPrintf("%s: Failed to open input file: %s",
                                                   "compressGzip", rotating.c_str());
    return false;
  }
  if (!manageCompressFiles(target) || !archiveFile(target, input, rotating, false, &left)) {
    return false;
  }
  unlink(rotating.c_str());
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

namespace {

// The public calls copy the attachment under mMutex: attchProcess may change it meanwhile.
LogTarget lockedTarget(VekLogRecorder& recorder) VEK_EXCLUDES(recorder.mMutex) {
  std::lock_guard<std::mutex> lock(recorder.mMutex);
  return currentTarget(recorder);
}

}  // namespace
}  // namespace vek

bool VekLogRecorder::checkLogFileExceed(int size) {
  return vek::checkLogFileExceed(vek::lockedTarget(*this), size);
}

std::string VekLogRecorder::getCompressedLogFile() {
  return vek::getCompressedLogFile(vek::lockedTarget(*this));
}

bool VekLogRecorder::manageCompressFiles() {
  return vek::manageCompressFiles(vek::lockedTarget(*this));
}
