// The one place where host and device builds differ, beside cutils' property_get.
#pragma once

#include <string>

namespace vek {

// The path under which a fixed device path (a log directory, the kernel log node) is reached.
// Read anew on every call.
std::string devicePath(const char* path);

}  // namespace vek
