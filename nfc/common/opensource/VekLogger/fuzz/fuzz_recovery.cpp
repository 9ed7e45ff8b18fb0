// Arbitrary bytes as a dead process's crash tail, zero-filled to a tail's size: the recovery at
// the next attachment must not crash, hang or allocate without bound, must append nothing but
// whole lines of the log file's format, and must leave nothing to be read again.
#include <android-base/file.h>
#include <android-base/logging.h>
#include <android-base/properties.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include "VekFuzzLines.h"
#include "VekLogTail.h"
#include "VekWaitForWriter.h"

namespace {

// The scratch root's "/data/vendor/", with this process attached: its own tail is locked.
std::string setUp() {
  static TemporaryDir root;
  setenv("VEK_LOG_ROOT", root.path, 1);
  std::string data = std::string(root.path) + "/data/";
  std::string vendor = data + "vendor/";
  for (const std::string& dir : {data, vendor, vendor + "nfc", vendor + "secure_element"}) {
    mkdir(dir.c_str(), 0755);
  }
  android::base::SetMinimumLogSeverity(android::base::FATAL);  // no diagnostics per input
  android::base::SetProperty("persist.vendor.vek.nfc.log", "06");
  VekLogRecorder::getInstance()->attchProcess("nfc_process");
  return vendor;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::string vendor = setUp();
  const std::string base = vendor + "nfc/.nfc_process.veklog.0000000000000001-1.tail";
  android::base::WriteStringToFile(std::string(reinterpret_cast<const char*>(data), size), base);
  truncate(base.c_str(), std::max<off_t>(size, vek::kTailHeaderSize + vek::kTailCapacity));
  VekLogRecorder::getInstance()->attchProcess("nfc_process");
  if (!vekWaitForWriter(10)) abort();
  // A recovered line may go to any of the four log files, and must end.
  for (const char* log :
       {"nfc/nfc_process.veklog", "nfc/nfc_hal_process.veklog", "secure_element/se_process.veklog",
        "secure_element/se_hal_process.veklog"}) {
    std::string text;
    android::base::ReadFileToString(vendor + log, &text);
    for (size_t at = 0; at < text.size(); at = text.find('\n', at) + 1) {
      if (!wellFormedStamp(text, at) || text.find('\n', at) == std::string::npos) abort();
    }
    unlink((vendor + log).c_str());
  }
  for (const char* stage : {"", ".1", ".2"}) {
    if (access((base + stage).c_str(), F_OK) == 0) abort();
  }
  unlink((base + ".bad").c_str());
  return 0;
}
