// Turning messages into log lines in mBuffer, and handing the buffer to the writer.
#include <stdio.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <chrono>

#include "VekLogDiag.h"
#include "VekLogger.h"

namespace {

constexpr std::chrono::seconds kFlushTimeout(2);
// Room for the line that takes a batch past the threshold, so that a batch is one allocation
// instead of a dozen doublings, and a queued batch holds little unused capacity.
constexpr size_t kBatchSlack = 1024;

const char* levelLetter(int level) {
  static const char* const kLetters[] = {"", "F", "E", "W", "I", "D", "V"};
  return level >= 1 && level <= 6 ? kLetters[level] : "";
}

// Appends "MM-DD hh:mm:ss.mmm pid tid L tag: text\n", stamped with the time of this call.
void appendLine(std::vector<char>& out, int level, const std::string& tag, const char* text,
                size_t length) {
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  int64_t micros = static_cast<int64_t>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
  time_t seconds = static_cast<time_t>(micros / 1000000);
  int millis = static_cast<int>((micros - static_cast<int64_t>(seconds) * 1000000) / 1000);
  tm local;
  localtime_r(&seconds, &local);

  char head[96];
  size_t used = strftime(head, sizeof(head), "%m-%d %H:%M:%S", &local);
  used += snprintf(head + used, sizeof(head) - used, ".%03d %ld %ld %s ", millis,
                   syscall(SYS_getpid), syscall(SYS_gettid), levelLetter(level));
  out.insert(out.end(), head, head + used);
  out.insert(out.end(), tag.begin(), tag.end());
  out.push_back(':');
  out.push_back(' ');
  out.insert(out.end(), text, text + length);
  out.push_back('\n');
}

}  // namespace

void VekLogRecorder::record(int level, const std::string& tag, const std::string& message) {
  std::lock_guard<std::mutex> lock(mMutex);
  // Threshold 0 means no writer thread: even a negative level must not queue a task then.
  if (level == 0 || !mAttached || mRecordLevel < level || mRecordLevel == 0) return;
  const std::string& lineTag = tag.empty() ? mProcessName : tag;
  size_t start = 0;
  while (start < message.size()) {
    size_t feed = message.find('\n', start);
    size_t stop = feed == std::string::npos ? message.size() : feed;
    if (mBuffer.capacity() == 0) mBuffer.reserve(mFlushThreshold + kBatchSlack);
    appendLine(mBuffer, level, lineTag, message.data() + start, stop - start);
    if (mBuffer.size() > mFlushThreshold) sendBuffToWorker(std::move(mBuffer), nullptr);
    start = stop + 1;
  }
}

bool VekLogRecorder::saveLogsToFile(bool wait) {
  auto promise = std::make_shared<std::promise<int>>();
  std::future<int> done = promise->get_future();
  bool queued;
  {
    std::lock_guard<std::mutex> lock(mMutex);
    VEK_DIAG(INFO) << "saveLogsToFile size: " << mBuffer.size();
    if (!mAttached) return false;
    if (mBuffer.empty()) return true;
    queued = sendBuffToWorker(std::move(mBuffer), promise);
  }
  if (!wait) return queued;
  if (done.wait_for(kFlushTimeout) != std::future_status::ready) {
    VEK_DIAG(ERROR) << "saving logs timeout!";
    return false;
  }
  return done.get() == 0;
}
