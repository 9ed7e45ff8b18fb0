// For the programs that drive the library (tests, stress, demo, benchmarks): wait until the
// writer has written every batch handed over before the call.
#pragma once

#include <string_view>

#include "VekLogger.h"

// A flush waits only for a batch of its own, and returns true at once when nothing is
// buffered, even with earlier batches still queued. So the first flush hands over what is
// buffered, and each try after it flushes one line alone, which cannot complete a batch and so
// always leaves one to wait for. A try can time out behind a rotation or a held writer. No
// other thread may log meanwhile. False once every try has timed out.
inline bool vekWaitForWriter(int tries) {
  __vek_save_log_now();
  for (int i = 0; i < tries; ++i) {
    __vek_log_i("VekWait", "waiting for the writer");
    if (__vek_save_log_now()) return true;
  }
  return false;
}

// Whether a line of a log file (without its line feed) is one that vekWaitForWriter logged.
inline bool vekIsWaitLine(std::string_view line) {
  constexpr std::string_view kEnd = " VekWait: waiting for the writer";
  return line.size() >= kEnd.size() && line.substr(line.size() - kEnd.size()) == kEnd;
}
