#include <stdlib.h>

#include "VekLogPlatform.h"

namespace vek {

// Host builds and device test builds: VEK_LOG_ROOT moves every device path into a scratch
// tree, so that they run unprivileged and never touch a device's real logs.
std::string devicePath(const char* path) {
  const char* root = getenv("VEK_LOG_ROOT");
  if (root == nullptr || *root == '\0') return path;
  return std::string(root) + path;
}

bool crashTailWanted() { return getenv("VEK_NO_CRASH_TAIL") == nullptr; }

bool flushSyncWanted() { return getenv("VEK_NO_FLUSH_SYNC") == nullptr; }

}  // namespace vek
