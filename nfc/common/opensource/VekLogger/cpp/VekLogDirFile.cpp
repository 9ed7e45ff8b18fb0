// How every file in a log directory is opened: the directory is shared with another process,
// so whatever stands at a name may have been planted there.
#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "VekLogDiag.h"
#include "VekLogStorage.h"

namespace vek {

android::base::unique_fd openLogDirFile(const std::string& path, int flags, mode_t mode,
                                        struct stat* st) {
  // O_NONBLOCK keeps a FIFO or device from holding up the open; on the regular file that is
  // kept it changes nothing.
  android::base::unique_fd fd(TEMP_FAILURE_RETRY(
      open(path.c_str(), flags | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, mode)));
  // A directory is kept: opened for writing it fails as an ordinary failure does, and read it
  // fails at its first read. Only a FIFO or a device could hold up a reader or writer.
  struct stat own;
  if (st == nullptr) st = &own;
  if (fd != -1 && (fstat(fd, st) != 0 || !(S_ISREG(st->st_mode) || S_ISDIR(st->st_mode)))) {
    fd.reset();
  }
  return fd;
}

bool syncFile(int fd, const std::string& path) {
  if (fdatasync(fd) == 0) return true;
  VEK_DIAG(ERROR) << "Failed to sync file: " << path;
  return false;
}

bool syncDir(const std::string& dir) {
  android::base::unique_fd fd(
      TEMP_FAILURE_RETRY(open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)));
  if (fd != -1 && fsync(fd) == 0) return true;
  VEK_DIAG(ERROR) << "Failed to sync directory: " << dir;
  return false;
}

std::string privatePath(const std::string& logFile, const char* suffix) {
  size_t name = logFile.rfind('/') + 1;  // npos + 1 is 0: no directory
  return logFile.substr(0, name) + "." + logFile.substr(name) + suffix;
}

}  // namespace vek
