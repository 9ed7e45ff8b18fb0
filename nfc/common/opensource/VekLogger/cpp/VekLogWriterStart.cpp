// The one function built with exceptions (CMakeLists.txt, Android.bp): std::thread reports a
// thread it cannot start only by throwing, and no failure inside the library may end the host
// process. Built without them, as a syntax check may, the failure would end the process.
#include "VekLogLifecycle.h"

namespace vek {

bool startThread(std::thread& thread, void (*body)(VekLogRecorder*), VekLogRecorder* recorder) {
#if defined(__cpp_exceptions)
  try {
    thread = std::thread(body, recorder);
  } catch (...) {
    return false;
  }
#else
  thread = std::thread(body, recorder);
#endif
  return true;
}

}  // namespace vek
