#include "VekLogPlatform.h"

namespace vek {

std::string devicePath(const char* path) { return path; }

bool crashTailWanted() { return true; }

}  // namespace vek
