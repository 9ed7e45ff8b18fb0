// One demo process: attaches under its name and logs from several threads through both
// interfaces until the parent says stop; "nfc_hal_process" also feeds its kernel log node.
#include <android-base/properties.h>
#include <android/log.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <thread>
#include <vector>

#include "VekDemo.h"
#include "VekLogger.h"
#include "VekWaitForWriter.h"

namespace vekdemo {
namespace {

ProcessStats* gStats = nullptr;

bool startsWith(const char* text, const char* prefix) {
  return strncmp(text, prefix, strlen(prefix)) == 0;
}

// The platform log of a demo process: the library's diagnostics tell how far its writer got;
// printed messages are dropped so that the terminal shows the progress only.
void platformLog(const __android_logger_data* data, const char* message) {
  if (startsWith(message, "fileSize is full: ")) gStats->mRotations++;
  if (startsWith(message, "writting buffer size: ")) {
    gStats->mBytesWritten += atol(message + strlen("writting buffer size: "));
  }
  // Diagnostics come from the library's own sources; VEK_LOG(ERROR) lines are the demo's. A
  // flush that times out while the writer rotates is retried, not an error.
  if (data->priority >= ANDROID_LOG_ERROR && data->file != nullptr &&
      startsWith(data->file, "VekLog") && !startsWith(message, "saving logs timeout!")) {
    if (gStats->mErrors++ == 0) {
      snprintf(gStats->mFirstError, sizeof(gStats->mFirstError), "%s", message);
    }
  }
}

// Logs at a steady pace, as a busy NFC stack would, rather than as fast as the CPU allows, so
// that the demo shows rotations one by one.
void logMessages(int thread, const std::atomic<bool>& stop, int recordLevel, int perSecond) {
  static const char* const kStates[] = {"IDLE", "DISCOVER", "POLL_A", "POLL_F", "HCE", "SE_APDU"};
  unsigned state = 2166136261u * static_cast<unsigned>(thread + 1);
  auto start = std::chrono::steady_clock::now();
  for (long seq = 0; !stop; ++seq) {
    if (seq % 64 == 0) {
      std::this_thread::sleep_until(start + std::chrono::microseconds(seq * 1000000 / perSecond));
    }
    state = state * 1664525u + 1013904223u;
    int level = levelOf(seq);
    const char* mode = kStates[state % 6];
    int rssi = -static_cast<int>(state % 90);
    if (seq % 2 == 0) {
      void (*log)(const char*, const char*, ...) = level == 4   ? __vek_log_i
                                                   : level == 5 ? __vek_log_d
                                                   : level == 3 ? __vek_log_w
                                                                : __vek_log_e;
      log("NfcDemo", "demo#%d#%ld# state=%s uid=%08x rssi=%d apdu=00A40400%08X len=%u", thread, seq,
          mode, state, rssi, state ^ 0x5a5a5a5au, state % 256);
    } else {
      VekLogAdapter(level, "VekDemoProcess.cpp", __LINE__).stream()
          << "demo#" << thread << "#" << seq << "# state=" << mode << " rssi=" << rssi
          << " field=" << (state & 1 ? "on" : "off") << " retries=" << state % 7;
    }
    gStats->mLogged[thread] = seq + 1;
    if (level <= recordLevel) gStats->mRecorded[thread]++;
  }
}

// Plays the kernel driver: each time the writer opens the node, hands it what has gathered.
void feedKernelLog(const std::string& node, const std::atomic<bool>& stop) {
  long seq = 0;
  while (!stop) {
    int fd = open(node.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd == -1) {
      std::this_thread::sleep_for(std::chrono::microseconds(200));
      continue;
    }
    char line[96];
    int length =
        snprintf(line, sizeof(line), "<6>[%8ld.%06ld] vekdev: klog#%ld# irq status=0x%02lx\n",
                 seq / 100, seq % 100 * 10000, seq, seq % 256);
    if (write(fd, line, static_cast<size_t>(length)) == length) gStats->mKernelLines = ++seq;
    close(fd);
  }
}

}  // namespace

void runProcess(int index, int firstThread, const Options& options, Shared& shared) {
  gStats = &shared.mProcesses[index];
  gStats->mPid = getpid();
  __android_log_set_logger(platformLog);
  __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
  android::base::SetProperty("persist.vendor.vek.nfc.log", options.mLevels);

  VekLogRecorder* recorder = VekLogRecorder::getInstance();
  recorder->attchProcess(kProcessNames[index]);

  std::atomic<bool> feederStop(false);
  std::thread feeder;
  if (strcmp(kProcessNames[index], "nfc_hal_process") == 0) {
    std::string node = options.mRoot + "/proc/vekdev/logger";
    // The writer may close the node between the driver's open and its write.
    signal(SIGPIPE, SIG_IGN);
    feeder = std::thread(feedKernelLog, node, std::cref(feederStop));
  }
  std::vector<std::thread> threads;
  threads.reserve(static_cast<size_t>(options.mThreads));
  for (int t = firstThread; t < firstThread + options.mThreads; ++t) {
    threads.emplace_back(logMessages, t, std::cref(shared.mStop), recorder->getRecordLevel(),
                         std::max(1, options.mRate / options.mThreads));
  }
  for (auto& thread : threads) thread.join();
  // Text still queued at exit is dropped, so wait until the writer has caught up.
  vekWaitForWriter(30);
  feederStop = true;
  if (feeder.joinable()) feeder.join();
  // What the process would hand a bug report, printed by the demo at its end.
  std::string dump = options.mRoot + "/" + kProcessNames[index] + ".dump";
  int fd = open(dump.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  __vek_dump_state(fd);
  close(fd);
  gStats->mFinished = true;
  exit(0);
}

int levelOf(long seq) {
  static const int kLevels[] = {4, 5, 3, 2};
  return kLevels[seq / 2 % 4];
}

}  // namespace vekdemo
