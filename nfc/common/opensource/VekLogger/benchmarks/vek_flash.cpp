// vek_flash: what a quiet process costs the device's storage, and the page faults its logging
// thread meets. Run by tools/run_flash.sh, which gives it a log root on a file system of its own
// and the block device's stat file:
//
//   vek_flash LINES_PER_SECOND SECONDS /sys/block/loopN/stat
//
// Logs demo-like lines at the rate for the time, flushes, syncs, and prints the text logged, the
// KiB the device wrote meanwhile (sectors written, from the stat file) and their ratio, and the
// minor page faults of the logging thread per second. VEK_NO_CRASH_TAIL turns the tail off.
#include <android-base/properties.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <thread>

#include "VekLogger.h"

namespace {

// Field 7 of a block device's stat file: sectors written, of 512 bytes.
long long sectorsWritten(const char* stat) {
  std::ifstream in(stat);
  long long field = 0;
  for (int i = 0; i < 7 && (in >> field); ++i) {
  }
  return field;
}

long threadMinorFaults() {
  rusage usage;
  getrusage(RUSAGE_THREAD, &usage);
  return usage.ru_minflt;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    fprintf(stderr, "usage: %s LINES_PER_SECOND SECONDS STAT\n", argv[0]);
    return 2;
  }
  double rate = atof(argv[1]);
  int seconds = atoi(argv[2]);
  android::base::SetProperty("persist.vendor.vek.nfc.log", "05");  // recorded, not printed
  long long before = sectorsWritten(argv[3]);
  VekLogRecorder::getInstance()->attchProcess("nfc_process");
  __vek_save_log_now();
  long faults = threadMinorFaults();
  auto start = std::chrono::steady_clock::now();
  auto period = std::chrono::duration<double>(1.0 / rate);
  long long text = 0;
  for (long i = 0; std::chrono::steady_clock::now() - start < std::chrono::seconds(seconds); ++i) {
    std::this_thread::sleep_until(start + std::chrono::duration_cast<std::chrono::nanoseconds>(
                                              period * static_cast<double>(i)));
    char line[128];
    int n = snprintf(line, sizeof(line), "RF field on, tech A, poll %ld, RSSI -%ld dBm, ok", i,
                     40 + i % 30);
    __vek_log_i("NfcCore", "%s", line);
    text += n + 41;  // with the header: "MM-DD hh:mm:ss.mmm pid tid I NfcCore: ", the line feed
  }
  long faultRate = (threadMinorFaults() - faults) / seconds;
  __vek_save_log_now();
  sync();
  long long written = (sectorsWritten(argv[3]) - before) * 512;
  printf(
      "%.0f lines/s for %d s: %lld bytes of text, %lld KiB written (x%.1f), "
      "%ld page faults/s on the logging thread\n",
      rate, seconds, text, written / 1024, static_cast<double>(written) / static_cast<double>(text),
      faultRate);
  return 0;
}
