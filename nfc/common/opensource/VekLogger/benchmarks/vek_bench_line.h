// The line every benchmark program logs, so that the library and spdlog are compared on the
// same text in each of them.
#pragma once

#include <spdlog/spdlog.h>
#include <stddef.h>
#include <stdint.h>

#include "VekLogger.h"

namespace vekbench {

constexpr char kTag[] = "NfcCore";
// spdlog rotates as the library does: at 15 MiB, five files kept.
constexpr size_t kMaxFileSize = size_t{15} << 20;
constexpr size_t kKeptFiles = 5;
// The library's header fields in spdlog's terms: date, time with milliseconds, pid, tid,
// level, tag.
constexpr char kSpdlogPattern[] = "%m-%d %H:%M:%S.%e %P %t %L %n: %v";

// Varies the formatted text from line to line.
inline unsigned uid(int64_t i) { return static_cast<unsigned>(i) * 2654435761u; }

inline void vekLine(int64_t i) {
  __vek_log_i(kTag, "Discovery started, mode %d, uid %08x", static_cast<int>(i & 3), uid(i));
}

inline void spdlogLine(spdlog::logger& logger, int64_t i) {
  logger.info("Discovery started, mode {}, uid {:08x}", static_cast<int>(i & 3), uid(i));
}

}  // namespace vekbench
