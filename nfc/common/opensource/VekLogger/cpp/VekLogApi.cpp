// The public logging interface: printf-style C functions and the scoped stream logger.
#include <android/log.h>
#include <stdarg.h>
#include <stdio.h>

#include "VekLogDiag.h"
#include "VekLogFormat.h"
#include "VekLogLifecycle.h"
#include "VekLogReentry.h"
#include "VekLogger.h"

namespace {

constexpr size_t kStackText = 1024;

// The platform's names of levels 1 (fatal) to 6 (verbose); other levels are never printed.
struct PlatformLevel {
  int mPriority;
  android::base::LogSeverity mSeverity;
};
constexpr PlatformLevel kPlatformLevels[] = {
    {ANDROID_LOG_FATAL, android::base::FATAL},  {ANDROID_LOG_ERROR, android::base::ERROR},
    {ANDROID_LOG_WARN, android::base::WARNING}, {ANDROID_LOG_INFO, android::base::INFO},
    {ANDROID_LOG_DEBUG, android::base::DEBUG},  {ANDROID_LOG_VERBOSE, android::base::VERBOSE}};

const PlatformLevel* platformLevel(int level) {
  return level >= 1 && level <= 6 ? &kPlatformLevels[level - 1] : nullptr;
}

// Prints through liblog, marked, so that a platform logger that forwards the entry back into
// the library finds it already printed.
void print(int priority, const char* tag, const char* text) {
  vek::ScopedInside printing(vek::Inside::kPrinting);
  __android_log_print(priority, tag, "%s", text);
}

// Formats fmt into text, of kStackText bytes, quickly where it can, or with vsnprintf, once
// more into *heap when the message is longer. Empty: nothing to log.
std::string_view formatMessage(char* text, std::string* heap, const char* fmt, va_list args) {
  va_list quick;
  va_copy(quick, args);
  int length = vek::formatQuick(text, kStackText, fmt, &quick);
  va_end(quick);
  if (length < 0) {
    va_list measure;
    va_copy(measure, args);
    length = vsnprintf(text, kStackText, fmt, measure);
    va_end(measure);
  }
  if (length <= 0) return std::string_view();
  if (static_cast<size_t>(length) < kStackText) {
    return std::string_view(text, static_cast<size_t>(length));
  }
  heap->assign(static_cast<size_t>(length), '\0');
  vsnprintf(&(*heap)[0], heap->size() + 1, fmt, args);
  return *heap;
}

// Records and prints a formatted message. Inlined into each entry point, whose frame then makes
// the line's system calls (readIds says why). A message that came back from the library's own
// diagnostic is printed only, without the thresholds: the recorder may be under construction on
// this very thread, and the platform already chose to log the diagnostic.
__attribute__((always_inline)) inline void logMessage(vek::Inside inside, int level,
                                                      const char* tag, std::string_view message) {
  int priority = platformLevel(level)->mPriority;
  if (inside == vek::Inside::kDiagnostic) return print(priority, tag, message.data());
  VekLogRecorder* recorder = VekLogRecorder::getInstance();
  // isNeedRecord, without a call through the library's symbol table; recordText checks again
  // under the lock.
  if (recorder->mRecordLevel >= level && __atomic_load_n(&recorder->mAttached, __ATOMIC_ACQUIRE)) {
    vek::recordText(*recorder, level, tag, message, vek::readIds());
  }
  if (recorder->mPrintLevel >= level) print(priority, tag, message.data());
}

}  // namespace

// A null tag is an empty one, as the platform log takes it; a null format logs nothing.
// tInside is read once: each read of a shared library's thread-local variable is a call.
#define VEK_LOG_ENTRY_POINT(name, level)                                      \
  extern "C" void name(const char* tag, const char* fmt, ...) {               \
    vek::Inside inside = vek::tInside;                                        \
    if (fmt == nullptr || inside == vek::Inside::kPrinting) return;           \
    char text[kStackText];                                                    \
    std::string heap;                                                         \
    va_list args;                                                             \
    va_start(args, fmt);                                                      \
    std::string_view message = formatMessage(text, &heap, fmt, args);         \
    va_end(args);                                                             \
    if (!message.empty()) logMessage(inside, level, tag ? tag : "", message); \
  }

VEK_LOG_ENTRY_POINT(__vek_log_v, VEK_LEVEL_VERBOSE)
VEK_LOG_ENTRY_POINT(__vek_log_d, VEK_LEVEL_DEBUG)
VEK_LOG_ENTRY_POINT(__vek_log_i, VEK_LEVEL_INFO)
VEK_LOG_ENTRY_POINT(__vek_log_w, VEK_LEVEL_WARNING)
VEK_LOG_ENTRY_POINT(__vek_log_e, VEK_LEVEL_ERROR)

extern "C" bool __vek_save_log_now(void) {
  return VekLogRecorder::getInstance()->saveLogsToFile(true);
}

VekLogAdapter::VekLogAdapter(int level, const char* file, int line)
    : mLevel(level), mFile(file), mLine(line), mStream(std::ios_base::out) {}

std::ostringstream& VekLogAdapter::stream() { return mStream; }

VekLogAdapter::~VekLogAdapter() {
  if (vek::tInside == vek::Inside::kPrinting) return;
  std::string text = mStream.str();
  const PlatformLevel* platform = platformLevel(mLevel);
  if (vek::tInside == vek::Inside::kDiagnostic) {
    if (platform != nullptr) print(platform->mPriority, "", text.c_str());
    return;
  }
  VekLogRecorder* recorder = VekLogRecorder::getInstance();
  // "%s" ends the recorded text at its first NUL byte; the printed text keeps all of it.
  recorder->record(mLevel, std::string(),
                   android::base::StringPrintf("[%s(%d)] %s", mFile, mLine, text.c_str()));
  bool printed = recorder->mPrintLevel >= mLevel && platform != nullptr;
  // Printed at FATAL, the message ends the process: get what is recorded onto storage first.
  if (printed && mLevel == VEK_LEVEL_FATAL && recorder->isNeedRecord(mLevel)) {
    recorder->saveLogsToFile(true);
  }
  if (printed) {
    vek::LibbaseLine line;
    vek::ScopedInside printing(vek::Inside::kPrinting);
    android::base::LogMessage(mFile, static_cast<unsigned int>(mLine), platform->mSeverity, nullptr,
                              -1)
            .stream()
        << text;
  }
}
