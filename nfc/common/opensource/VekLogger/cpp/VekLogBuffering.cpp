// Turning messages into log lines in mBuffer, and handing the buffer to the writer.
#include <string.h>
#include <time.h>

#include <chrono>

#include "VekLogDiag.h"
#include "VekLogFormat.h"
#include "VekLogLifecycle.h"
#include "VekLogStats.h"
#include "VekLogTail.h"
#include "VekLogger.h"

namespace {

constexpr std::chrono::seconds kFlushTimeout(2);
// Room for the line that takes a batch past the threshold, so that a batch is one allocation
// instead of a dozen doublings, and a queued batch holds little unused capacity.
constexpr size_t kBatchSlack = 1024;
constexpr int kLockSpins = 200;

char levelLetter(int level) {
  static const char kLetters[] = {'\0', 'F', 'E', 'W', 'I', 'D', 'V'};
  return level >= 1 && level <= 6 ? kLetters[level] : '\0';
}

char* twoDigits(char* out, int value) {
  out[0] = static_cast<char>('0' + value / 10);
  out[1] = static_cast<char>('0' + value % 10);
  return out + 2;
}

// Two digits a step, straight into out: the ids of a line are some ten digits, and each step
// costs a multiply; digits put together elsewhere and copied would be read back before their
// stores complete.
char* decimal(char* out, unsigned long value) {
  static const char kPairs[] =
      "00010203040506070809101112131415161718192021222324252627282930313233343536373839"
      "40414243444546474849505152535455565758596061626364656667686970717273747576777879"
      "8081828384858687888990919293949596979899";
  int count = 1;
  for (unsigned long rest = value; rest >= 10; rest /= 10) ++count;
  char* at = out + count;
  for (; value >= 100; value /= 100) {
    at -= 2;
    memcpy(at, &kPairs[value % 100 * 2], 2);
  }
  if (value >= 10) {
    memcpy(at - 2, &kPairs[value * 2], 2);
  } else {
    at[-1] = static_cast<char>('0' + value);
  }
  return out + count;
}

// The realtime clock in microseconds since the epoch.
int64_t microsNow() {
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
}

// The local time of one second, worked out ahead by a thread that waits for mMutex: localtime_r
// is the longest step of a line's header, and the lock is then held the shorter.
struct LocalSecond {
  bool mValid = false;
  time_t mSecond;
  tm mLocal;
};

LocalSecond localSecond() {
  LocalSecond second;
  second.mSecond = static_cast<time_t>(microsNow() / 1000000);
  second.mValid = localtime_r(&second.mSecond, &second.mLocal) != nullptr;
  return second;
}

// Writes "MM-DD hh:mm:ss.mmm pid tid L " for the time of this call; returns its end. Formatted
// by hand: strftime and snprintf would cost more than the system calls a line must make.
char* formatHeader(char* out, int level, const vek::LineIds& ids, const LocalSecond& early) {
  int64_t micros = microsNow();
  time_t seconds = static_cast<time_t>(micros / 1000000);
  int millis = static_cast<int>((micros - static_cast<int64_t>(seconds) * 1000000) / 1000);
  tm local;
  if (early.mValid && early.mSecond == seconds) {
    local = early.mLocal;
  } else {
    localtime_r(&seconds, &local);
  }

  out = twoDigits(out, local.tm_mon + 1);
  *out++ = '-';
  out = twoDigits(out, local.tm_mday);
  *out++ = ' ';
  out = twoDigits(out, local.tm_hour);
  *out++ = ':';
  out = twoDigits(out, local.tm_min);
  *out++ = ':';
  out = twoDigits(out, local.tm_sec);
  *out++ = '.';
  *out++ = static_cast<char>('0' + millis / 100);
  out = twoDigits(out, millis % 100);
  *out++ = ' ';
  out = decimal(out, static_cast<unsigned long>(ids.mPid));
  *out++ = ' ';
  out = decimal(out, static_cast<unsigned long>(ids.mTid));
  *out++ = ' ';
  if (char letter = levelLetter(level)) *out++ = letter;
  *out++ = ' ';
  return out;
}

// Appends one whole line: header, tag, ": ", text and a line feed. A line of ordinary length
// is put together on the stack and appended with one copy.
void appendLine(std::vector<char>& buffer, int level, const vek::LineIds& ids,
                const LocalSecond& early, std::string_view tag, const char* text, size_t length) {
  char line[512];
  char* out = formatHeader(line, level, ids, early);
  if (static_cast<size_t>(out - line) + tag.size() + 2 + length + 1 > sizeof(line)) {
    buffer.insert(buffer.end(), line, out);
    buffer.insert(buffer.end(), tag.begin(), tag.end());
    buffer.insert(buffer.end(), {':', ' '});
    buffer.insert(buffer.end(), text, text + length);
    buffer.push_back('\n');
    return;
  }
  out = vek::copyShort(out, tag.data(), tag.size());
  *out++ = ':';
  *out++ = ' ';
  out = vek::copyShort(out, text, length);
  *out++ = '\n';
  buffer.insert(buffer.end(), line, out);
}

// Takes mutex. When another thread holds it, works out the local time of this second
// meanwhile (*early), then spins a little: a logging thread holds it for well under a
// microsecond, while sleeping and being woken costs several.
void lockSoon(std::mutex& mutex, LocalSecond* early) VEK_ACQUIRE(mutex) {
  if (mutex.try_lock()) return;
  *early = localSecond();
  for (int spin = 0; spin < kLockSpins; ++spin) {
    if (mutex.try_lock()) return;
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__) || defined(__arm__)
    asm volatile("yield");
#endif
  }
  mutex.lock();
}

}  // namespace

namespace vek {

void recordText(VekLogRecorder& recorder, int level, std::string_view tag, std::string_view message,
                LineIds ids) {
  // The thresholds never change after construction, so they are checked before the lock.
  // Threshold 0 means no writer thread: even a negative level must not queue a task then.
  int threshold = recorder.mRecordLevel;
  if (level == 0 || threshold < level || threshold == 0 || message.empty()) return;
  UserScope user(recorder);
  if (!user.mEntered) return;
  // The first line's ids come read, and, when another thread holds the lock, the local time of
  // this second is worked out while waiting; the lock then covers the clock, the formatting and
  // the appends: threads that log at once wait less for each other.
  LocalSecond early;
  int queued = 0;
  {
    lockSoon(recorder.mMutex, &early);
    std::lock_guard<std::mutex> lock(recorder.mMutex, std::adopt_lock);
    if (!recorder.mAttached) return;
    std::string_view lineTag = tag.empty() ? std::string_view(recorder.mProcessName) : tag;
    size_t start = 0;
    while (start < message.size()) {
      size_t feed = message.find('\n', start);
      size_t stop = feed == std::string_view::npos ? message.size() : feed;
      if (start != 0) ids = readIds();
      if (recorder.mBuffer.capacity() == 0) {
        recorder.mBuffer.reserve(recorder.mFlushThreshold + kBatchSlack);
      }
      size_t before = recorder.mBuffer.size();
      appendLine(recorder.mBuffer, level, ids, early, lineTag, message.data() + start,
                 stop - start);
      ++gStats->mLinesRecorded;
      tailAppend(recorder, recorder.mBuffer.data() + before, recorder.mBuffer.size() - before);
      if (recorder.mBuffer.size() > recorder.mFlushThreshold &&
          handOver(recorder, std::move(recorder.mBuffer), nullptr, {}, false)) {
        ++queued;
      }
      start = stop + 1;
    }
  }
  // Signalled with the lock released: a futex wake takes microseconds, which a thread waiting
  // to log would otherwise wait too.
  for (; queued > 0; --queued) recorder.mCondition.notify_one();
}

std::vector<char> formatLine(int level, std::string_view tag, std::string_view text) {
  std::vector<char> line;
  appendLine(line, level, readIds(), LocalSecond(), tag, text.data(), text.size());
  return line;
}

}  // namespace vek

void VekLogRecorder::record(int level, const std::string& tag, const std::string& message) {
  vek::recordText(*this, level, tag, message, vek::readIds());
}

bool VekLogRecorder::saveLogsToFile(bool wait) {
  auto promise = std::make_shared<std::promise<int>>();
  std::future<int> done = promise->get_future();
  // The writer starts on this batch only once its size line is written, so that the writer's
  // lines about it come after that line, as they would with the line written under mMutex.
  std::promise<void> announced;
  size_t size = 0;
  bool attached = false;
  bool queued = false;
  {
    vek::UserScope user(*this);
    if (!user.mEntered) return false;
    std::lock_guard<std::mutex> lock(mMutex);
    size = mBuffer.size();
    attached = mAttached;
    if (attached && size != 0) {
      ++vek::gStats->mFlushes;
      queued = vek::handOver(*this, std::move(mBuffer), promise, announced.get_future().share());
    }
  }
  VEK_DIAG(INFO) << "saveLogsToFile size: " << size;
  announced.set_value();
  if (!attached) return false;
  if (size == 0) return true;
  if (!wait) return queued;
  if (done.wait_for(kFlushTimeout) != std::future_status::ready) {
    vek::count(vek::gStats->mFlushTimeouts);
    vek::noteFailure(vek::kFailFlush);
    VEK_DIAG(ERROR) << "saving logs timeout!";
    return false;
  }
  return done.get() == 0;
}
