// Write tasks: a handed-over buffer, plus the kernel log in the HAL process, appended to the
// active log file on the writer thread.
#include <android-base/file.h>
#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <unistd.h>

#include "VekLogDiag.h"
#include "VekLogLifecycle.h"
#include "VekLogPlatform.h"
#include "VekLogStorage.h"
#include "VekLogger.h"

namespace vek {
namespace {

constexpr char kKernelLogProcess[] = "nfc_hal_process";
constexpr char kKernelLogNode[] = "/proc/vekdev/logger";
constexpr size_t kKernelLogChunk = 3072;

// Reads the driver's log until a read delivers nothing and appends it as read, NULs included.
void appendKernelLog(std::vector<char>& buff) {
  std::string node = devicePath(kKernelLogNode);
  android::base::unique_fd fd(TEMP_FAILURE_RETRY(open(node.c_str(), O_RDONLY | O_CLOEXEC)));
  if (fd == -1) {
    VEK_DIAG(WARNING) << "Error: Unable to open klog file";
    std::string line = std::string("Error: Unable to open klog file at ") + kKernelLogNode + "\n";
    buff.insert(buff.end(), line.begin(), line.end());
    return;
  }
  size_t before = buff.size();
  char chunk[kKernelLogChunk];
  ssize_t got;
  while ((got = TEMP_FAILURE_RETRY(read(fd, chunk, sizeof(chunk)))) > 0) {
    buff.insert(buff.end(), chunk, chunk + got);
  }
  VEK_DIAG(INFO) << "read klog buffer size: " << buff.size() - before;
}

bool appendToLogFile(const LogTarget& target, const std::vector<char>& buff) {
  if (!checkLogFileExceed(target, static_cast<int>(buff.size()))) {
    VEK_DIAG(ERROR) << "check log file excedd failed!";
    return false;
  }
  android::base::unique_fd fd =
      openLogDirFile(target.mLogFilePath, O_WRONLY | O_APPEND | O_CREAT, 0640);
  if (fd == -1) {
    VEK_DIAG(ERROR) << "Failed to append file: " << target.mLogFilePath;
    return false;
  }
  android::base::WriteFully(fd, buff.data(), buff.size());
  return true;
}

}  // namespace

void runWriteTask(const LogTarget& target, std::vector<char>& buff,
                  const std::shared_ptr<std::promise<int>>& promise) {
  if (target.mProcessName == kKernelLogProcess) appendKernelLog(buff);
  VEK_DIAG(INFO) << "writting buffer size: " << buff.size();
  // appendToLogFile has closed the file by now, so a woken waiter finds the text in it.
  int completion = appendToLogFile(target, buff) ? 0 : 1;
  if (promise) promise->set_value(completion);
}

bool handOver(VekLogRecorder& recorder, std::vector<char>&& buff,
              std::shared_ptr<std::promise<int>> promise, std::shared_future<void> announced) {
  if (buff.empty()) {
    VEK_DIAG(WARNING) << "writting invalid buffer";
    return false;
  }
  if (recorder.mRestartWriter) {
    recorder.mRestartWriter = false;
    startWriter(recorder);
  }
  recorder.mTasks.emplace_back([target = currentTarget(recorder), text = std::move(buff),
                                promise = std::move(promise), announced]() mutable {
    if (announced.valid()) announced.wait();
    runWriteTask(target, text, promise);
  });
  recorder.mCondition.notify_one();
  return true;
}

LogTarget currentTarget(const VekLogRecorder& recorder) {
  return LogTarget{recorder.mProcessName, recorder.mLogDir, recorder.mLogFilePath,
                   recorder.mMaxFileSize};
}

}  // namespace vek

bool VekLogRecorder::sendBuffToWorker(std::vector<char>&& buff,
                                      std::shared_ptr<std::promise<int>> promise) {
  return vek::handOver(*this, std::move(buff), std::move(promise), std::shared_future<void>());
}
