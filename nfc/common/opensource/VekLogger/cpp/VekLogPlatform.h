// The one place where builds differ, beside cutils' property_get: VekLogDevicePath.cpp for
// devices, VekLogScratchPath.cpp for hosts and device tests.
#pragma once

#include <string>

namespace vek {

// The path under which a fixed device path (a log directory, the kernel log node) is reached.
// Read anew on every call.
std::string devicePath(const char* path);

// Whether this process keeps a crash tail: always on a device; a host build's benchmarks turn
// it off with VEK_NO_CRASH_TAIL, to measure what it costs.
bool crashTailWanted();
// Whether a flush that waits syncs its text: always on a device; a host build's benchmarks turn
// it off with VEK_NO_FLUSH_SYNC, to measure what it costs.
bool flushSyncWanted();

// Returns the allocator's free memory to the system (VekLogAllocator.cpp, by C library).
void releaseFreeMemory();

}  // namespace vek
