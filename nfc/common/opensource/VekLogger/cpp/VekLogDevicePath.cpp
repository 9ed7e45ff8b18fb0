#include "VekLogPlatform.h"

namespace vek {

std::string devicePath(const char* path) { return path; }

bool crashTailWanted() { return true; }

bool flushSyncWanted() { return true; }

}  // namespace vek
