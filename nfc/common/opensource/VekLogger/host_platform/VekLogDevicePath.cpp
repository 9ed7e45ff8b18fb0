#include <stdlib.h>

#include "VekLogPlatform.h"

namespace vek {

// Host builds run unprivileged: VEK_LOG_ROOT moves every device path into a scratch tree.
std::string devicePath(const char* path) {
  const char* root = getenv("VEK_LOG_ROOT");
  if (root == nullptr || *root == '\0') return path;
  return std::string(root) + path;
}

}  // namespace vek
