// The line every benchmark program logs, so that the library and spdlog are compared on the
// same text in each of them.
#pragma once

#include <android/log.h>
#include <ftw.h>
#include <spdlog/spdlog.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <string>

#include "VekLogger.h"

namespace vekbench {

constexpr char kTag[] = "NfcCore";
// spdlog rotates as the library does: at 15 MiB, five files kept.
constexpr size_t kMaxFileSize = size_t{15} << 20;
constexpr size_t kKeptFiles = 5;
// The library's header fields in spdlog's terms: date, time with milliseconds, pid, tid,
// level, tag.
constexpr char kSpdlogPattern[] = "%m-%d %H:%M:%S.%e %P %t %L %n: %v";

// A scratch VEK_LOG_ROOT, "$TMPDIR/<program>.XXXXXX" ("/tmp" by default), with the NFC log
// directory and "/peers" for the other loggers' files, whose platform log entries are dropped:
// the figures are of the library, not of the platform log.
inline std::string scratchRoot(const char* program) {
  const char* tmp = getenv("TMPDIR");
  std::string pattern =
      std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/" + program + ".XXXXXX";
  std::string root = mkdtemp(&pattern[0]);
  for (const char* dir : {"/data", "/data/vendor", "/data/vendor/nfc", "/peers"}) {
    mkdir((root + dir).c_str(), 0755);
  }
  setenv("VEK_LOG_ROOT", root.c_str(), 1);
  __android_log_set_logger([](const __android_logger_data*, const char*) {});
  return root;
}

inline void removeTree(const std::string& root) {
  nftw(
      root.c_str(), [](const char* p, const struct stat*, int, FTW*) { return remove(p); }, 16,
      FTW_DEPTH | FTW_PHYS);
}

// Varies the formatted text from line to line.
inline unsigned uid(int64_t i) { return static_cast<unsigned>(i) * 2654435761u; }

inline void vekLine(int64_t i) {
  __vek_log_i(kTag, "Discovery started, mode %d, uid %08x", static_cast<int>(i & 3), uid(i));
}

inline void spdlogLine(spdlog::logger& logger, int64_t i) {
  logger.info("Discovery started, mode {}, uid {:08x}", static_cast<int>(i & 3), uid(i));
}

}  // namespace vekbench
