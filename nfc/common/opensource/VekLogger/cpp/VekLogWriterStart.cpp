// The one function built with exceptions: std::thread reports a thread it cannot start only by
// throwing, and no failure inside the library may end the host process.
#include "VekLogLifecycle.h"

namespace vek {

bool startThread(std::thread& thread, void (*body)(VekLogRecorder*), VekLogRecorder* recorder) {
  try {
    thread = std::thread(body, recorder);
    return true;
  } catch (...) {
    return false;
  }
}

}  // namespace vek
