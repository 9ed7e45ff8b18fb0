// Arbitrary bytes as level, tag and message: the recorded text must split back into exactly
// the message's lines, each behind a well-formed header of its own, so that no message can
// forge a line. Tags are the program's constants and hold no line feed.
#include <android-base/logging.h>
#include <android-base/properties.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "VekFuzzLines.h"
#include "VekLogger.h"

namespace {

VekLogRecorder* attachedRecorder() {
  android::base::SetMinimumLogSeverity(android::base::ERROR);  // no diagnostics per input
  android::base::SetProperty("persist.vendor.vek.nfc.log", "06");
  VekLogRecorder* recorder = VekLogRecorder::getInstance();
  recorder->attchProcess("nfc_process");
  // Keep every line in the buffer, where this target reads it back and clears it: nothing is
  // ever handed to the writer, so no file is written. 4 KiB of input makes at most 4096 lines
  // of well under 1 KiB each.
  recorder->mFlushThreshold = 4u << 20;
  return recorder;
}

// The lines of a message: a trailing line feed ends the last one, it does not start another.
std::vector<std::string> expectedLines(const std::string& message) {
  std::vector<std::string> lines;
  for (size_t start = 0, end; start < message.size(); start = end + 1) {
    end = std::min(message.find('\n', start), message.size());
    lines.push_back(message.substr(start, end - start));
  }
  return lines;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static VekLogRecorder* recorder = attachedRecorder();
  if (size < 2) return 0;
  int level = static_cast<int>(data[0] % 8) - 1;  // -1 to 6
  size_t tagLength = std::min<size_t>(data[1], size - 2);
  std::string tag(reinterpret_cast<const char*>(data) + 2, tagLength);
  tag.erase(std::remove(tag.begin(), tag.end(), '\n'), tag.end());
  std::string message(reinterpret_cast<const char*>(data) + 2 + tagLength, size - 2 - tagLength);

  recorder->mBuffer.clear();
  recorder->record(level, tag, message);
  std::string text(recorder->mBuffer.begin(), recorder->mBuffer.end());

  std::vector<std::string> lines = level == 0 ? std::vector<std::string>() : expectedLines(message);
  static const char* const kLetters[] = {"", "", "F", "E", "W", "I", "D", "V"};
  std::string middle = " " + std::to_string(getpid()) + " " + std::to_string(syscall(SYS_gettid)) +
                       " " + kLetters[level + 1] + " " + (tag.empty() ? "nfc_process" : tag) + ": ";
  size_t at = 0;
  for (const std::string& line : lines) {
    std::string rest = middle + line + "\n";
    if (!wellFormedStamp(text, at) || text.compare(at + 18, rest.size(), rest) != 0) abort();
    at += 18 + rest.size();
  }
  if (at != text.size()) abort();
  return 0;
}
