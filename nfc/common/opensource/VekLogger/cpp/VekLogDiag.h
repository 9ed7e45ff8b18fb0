// Diagnostics: the library's messages about itself, written through android::base logging.
#pragma once

#include <android-base/errno_restorer.h>
#include <android-base/logging.h>
#include <android-base/stringprintf.h>

#include "VekLogReentry.h"

namespace vek {

// One diagnostic line with no tag of its own and no errno suffix. errno is restored once the
// line has been written, so a diagnostic never changes what the failing call left there. While
// it is written, a platform logger that forwards it back into the library finds it marked.
struct Diag {
  Diag(const char* file, unsigned int line, android::base::LogSeverity severity)
      : mInside(Inside::kDiagnostic), mMessage(file, line, severity, nullptr, -1) {}
  std::ostream& stream() { return mMessage.stream(); }

  android::base::ErrnoRestorer mErrnoRestorer;
  LibbaseLine mLine;
  ScopedInside mInside;
  android::base::LogMessage mMessage;
};

}  // namespace vek

// VEK_DIAG(ERROR) << "text"; builds the line only when that severity is logged.
#define VEK_DIAG(severity)                                               \
  if (!::android::base::ShouldLog(::android::base::severity, nullptr)) { \
  } else                                                                 \
    ::vek::Diag(__FILE__, __LINE__, ::android::base::severity).stream()
