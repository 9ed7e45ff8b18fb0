// Calls that come back into the library on the same thread: a platform logger that forwards
// the library's own lines, and fork while such a line is half written.
#pragma once

namespace vek {

// What this thread is doing inside the library, so that a call that comes back through a
// platform logger can tell. Trivially destructible: valid during any thread or static teardown.
// __thread, not thread_local: a thread_local defined in another file is read through a call to
// its initialisation wrapper, on every log call.
enum class Inside { kNothing, kDiagnostic, kPrinting };
extern __thread Inside tInside;

struct ScopedInside {
  explicit ScopedInside(Inside what) : mSaved(tInside) { tInside = what; }
  ~ScopedInside() { tInside = mSaved; }
  ScopedInside(const ScopedInside&) = delete;
  ScopedInside& operator=(const ScopedInside&) = delete;

  Inside mSaved;
};

// Held around every line the library writes through android::base logging. libbase keeps its
// logging lock across fork, so fork waits until no such line is half written: a child forked
// while one was would wait for that lock at its first line for good (VekLogLifecycle.cpp).
struct LibbaseLine {
  LibbaseLine();
  ~LibbaseLine();
  LibbaseLine(const LibbaseLine&) = delete;
  LibbaseLine& operator=(const LibbaseLine&) = delete;
};

}  // namespace vek
