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

// Records and prints text, formatted in full (no length limit) by the caller. A message that
// came back from the library's own diagnostic is printed only, without the threshold check:
// the recorder may be under construction on this very thread, and the platform already chose
// to log the diagnostic.
// inside is what this thread was doing in the library, read once: each read of a thread_local
// of a shared library is a call.
void logText(vek::Inside inside, int level, const char* tag, const char* text, size_t length) {
  int priority = platformLevel(level)->mPriority;
  if (inside == vek::Inside::kDiagnostic) return print(priority, tag, text);
  VekLogRecorder* recorder = VekLogRecorder::getInstance();
  vek::recordText(*recorder, level, tag, std::string_view(text, length));
  if (recorder->mPrintLevel >= level) print(priority, tag, text);
}

// Formats into the stack, quickly where it can, or with vsnprintf, once more into the heap when
// the text is longer. A null tag is an empty one, as the platform log takes it; a null format
// logs nothing.
void logFormatted(int level, const char* tag, const char* fmt, va_list args) {
  vek::Inside inside = vek::tInside;
  if (fmt == nullptr || inside == vek::Inside::kPrinting) return;
  if (tag == nullptr) tag = "";
  char text[kStackText];
  va_list quick;
  va_copy(quick, args);
  int length = vek::formatQuick(text, sizeof(text), fmt, &quick);
  va_end(quick);
  if (length < 0) {
    va_list measure;
    va_copy(measure, args);
    length = vsnprintf(text, sizeof(text), fmt, measure);
    va_end(measure);
  }
  if (length <= 0) return;
  if (static_cast<size_t>(length) < sizeof(text)) {
    return logText(inside, level, tag, text, static_cast<size_t>(length));
  }
  std::string message(static_cast<size_t>(length), '\0');
  vsnprintf(&message[0], message.size() + 1, fmt, args);
  logText(inside, level, tag, message.c_str(), message.size());
}

}  // namespace

#define VEK_LOG_ENTRY_POINT(name, level)                        \
  extern "C" void name(const char* tag, const char* fmt, ...) { \
    va_list args;                                               \
    va_start(args, fmt);                                        \
    logFormatted(level, tag, fmt, args);                        \
    va_end(args);                                               \
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
