// Any value of the level property gives the two thresholds that its first two bytes name.
#include <android-base/logging.h>
#include <android-base/properties.h>
#include <stdint.h>
#include <stdlib.h>

#include <string>

#include "VekLogger.h"

namespace {

int expectedLevel(const std::string& value, size_t at) {
  return at < value.size() && value[at] >= '0' && value[at] <= '6' ? value[at] - '0' : 5;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static VekLogRecorder* recorder = [] {
    android::base::SetMinimumLogSeverity(android::base::ERROR);  // no diagnostics per input
    return VekLogRecorder::getInstance();
  }();
  // A property value is a C string of at most 91 bytes.
  std::string value(reinterpret_cast<const char*>(data), std::min<size_t>(size, 91));
  value.resize(value.find('\0') == std::string::npos ? value.size() : value.find('\0'));
  android::base::SetProperty("persist.vendor.vek.nfc.log", value);
  recorder->initFeatureLevel();
  const std::string& read = value.empty() ? "55" : value;
  if (recorder->getPrintLevel() != expectedLevel(read, 0)) abort();
  if (recorder->getRecordLevel() != expectedLevel(read, 1)) abort();
  if (recorder->isNeedPrint(7) || !recorder->isNeedPrint(-1)) abort();
  return 0;
}
