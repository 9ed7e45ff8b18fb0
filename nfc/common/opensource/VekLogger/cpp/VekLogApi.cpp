// The public logging interface: printf-style C functions and the scoped stream logger.
#include <android/log.h>
#include <stdarg.h>
#include <stdio.h>

#include "VekLogDiag.h"
#include "VekLogger.h"

namespace {

// What a logging thread keeps between calls, so that a call allocates nothing in the common
// case: a formatting buffer, and the message and tag strings with their capacity.
struct CallScratch {
  char mText[1024];
  std::string mMessage;
  std::string mTag;
};

// Formats in full (no length limit), records, then prints when the print threshold allows.
// The text is formatted once into the thread's buffer, and again only when it is longer.
void logFormatted(int level, int priority, const char* tag, const char* fmt, va_list args) {
  thread_local CallScratch scratch;
  va_list measure;
  va_copy(measure, args);
  int length = vsnprintf(scratch.mText, sizeof(scratch.mText), fmt, measure);
  va_end(measure);
  if (length <= 0) return;
  std::string& message = scratch.mMessage;
  if (static_cast<size_t>(length) < sizeof(scratch.mText)) {
    message.assign(scratch.mText, static_cast<size_t>(length));
  } else {
    message.resize(static_cast<size_t>(length));
    vsnprintf(&message[0], message.size() + 1, fmt, args);
  }
  scratch.mTag.assign(tag);

  VekLogRecorder* recorder = VekLogRecorder::getInstance();
  recorder->record(level, scratch.mTag, message);
  if (recorder->mPrintLevel >= level) __android_log_print(priority, tag, "%s", message.c_str());
}

bool severityOf(int level, android::base::LogSeverity* severity) {
  static const android::base::LogSeverity kSeverities[] = {
      android::base::FATAL, android::base::ERROR, android::base::WARNING,
      android::base::INFO,  android::base::DEBUG, android::base::VERBOSE};
  if (level < 1 || level > 6) return false;
  *severity = kSeverities[level - 1];
  return true;
}

}  // namespace

#define VEK_LOG_ENTRY_POINT(name, level, priority)              \
  extern "C" void name(const char* tag, const char* fmt, ...) { \
    va_list args;                                               \
    va_start(args, fmt);                                        \
    logFormatted(level, priority, tag, fmt, args);              \
    va_end(args);                                               \
  }

VEK_LOG_ENTRY_POINT(__vek_log_v, 6, ANDROID_LOG_VERBOSE)
VEK_LOG_ENTRY_POINT(__vek_log_d, 5, ANDROID_LOG_DEBUG)
VEK_LOG_ENTRY_POINT(__vek_log_i, 4, ANDROID_LOG_INFO)
VEK_LOG_ENTRY_POINT(__vek_log_w, 3, ANDROID_LOG_WARN)
VEK_LOG_ENTRY_POINT(__vek_log_e, 2, ANDROID_LOG_ERROR)

extern "C" bool __vek_save_log_now(void) {
  return VekLogRecorder::getInstance()->saveLogsToFile(true);
}

VekLogAdapter::VekLogAdapter(int level, const char* file, int line)
    : mLevel(level), mFile(file), mLine(line), mStream(std::ios_base::out) {}

std::ostringstream& VekLogAdapter::stream() { return mStream; }

VekLogAdapter::~VekLogAdapter() {
  std::string text = mStream.str();
  VekLogRecorder* recorder = VekLogRecorder::getInstance();
  // Appended rather than formatted with "%s" so that text keeps any NUL bytes it holds.
  recorder->record(mLevel, std::string(),
                   android::base::StringPrintf("[%s(%d)] ", mFile, mLine) + text);
  // Printing at FATAL ends the process: get the message onto storage first.
  if (mLevel == 1) recorder->saveLogsToFile(true);
  android::base::LogSeverity severity;
  if (recorder->mPrintLevel >= mLevel && severityOf(mLevel, &severity)) {
    android::base::LogMessage(mFile, static_cast<unsigned int>(mLine), severity, nullptr, -1)
            .stream()
        << text;
  }
}
