// vek_stress: evidence that the library loses nothing it was not told to drop.
//
//   vek_stress load [--lines N] [--threads N] [--rate N]
//     threads log N lines in all (C functions and the stream logger in turn) while another
//     thread flushes at random moments, through several rotations; then every line not in a
//     pruned archive must be present exactly once, each thread's lines in order.
//   vek_stress slow-storage [--lines N] [--threads N] [--hold S]
//     the writer is held for S seconds while the threads log at full speed; the memory the
//     queue takes is measured, and once the writer resumes every line must reach the file.
//
// Both run in a scratch VEK_LOG_ROOT and print their figures; the exit status tells the check.
#include <android-base/file.h>
#include <android-base/properties.h>
#include <android/log.h>
#include <ftw.h>
#include <getopt.h>
#include <malloc.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <zlib.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "VekLogger.h"
#include "VekWaitForWriter.h"

namespace {

using Clock = std::chrono::steady_clock;

struct Options {
  long mLines = 2000000;
  int mThreads = 8;
  long mRate = 100000;  // lines per second in all
  int mHoldSeconds = 3;
};

std::atomic<long> gRotations(0);
std::atomic<long> gErrors(0);

// The platform log: counts rotations and library errors, prints nothing.
void platformLog(const __android_logger_data* data, const char* message) {
  if (strncmp(message, "fileSize is full: ", 18) == 0) gRotations++;
  if (data->priority >= ANDROID_LOG_ERROR && data->file != nullptr &&
      strncmp(message, "saving logs timeout!", 20) != 0) {
    if (gErrors++ == 0) fprintf(stderr, "library error: %s\n", message);
  }
}

void removeTree(const std::string& root) {
  nftw(
      root.c_str(), [](const char* p, const struct stat*, int, FTW*) { return remove(p); }, 16,
      FTW_DEPTH | FTW_PHYS);
}

std::string makeRoot() {
  char root[] = "/tmp/vek_stress.XXXXXX";
  if (mkdtemp(root) == nullptr) return "";
  for (const char* dir : {"/data", "/data/vendor", "/data/vendor/secure_element"}) {
    mkdir((std::string(root) + dir).c_str(), 0755);
  }
  setenv("VEK_LOG_ROOT", root, 1);
  return root;
}

void logLine(int thread, long seq) {
  if (seq % 2 == 0) {
    __vek_log_i("Stress", "stress#%d#%ld# apdu=00A4040007A0000000041010 sw=9000", thread, seq);
  } else {
    VEK_LOG(INFO) << "stress#" << thread << "#" << seq << "# field on, tech A, rssi -42";
  }
}

std::string readLogs(const std::string& root) {
  std::string dir = root + "/data/vendor/secure_element/";
  std::vector<std::string> archives;
  std::unique_ptr<DIR, int (*)(DIR*)> d(opendir(dir.c_str()), closedir);
  while (dirent* entry = readdir(d.get())) {
    if (strncmp(entry->d_name, "se_process_", 11) == 0) archives.push_back(entry->d_name);
  }
  std::sort(archives.begin(), archives.end());
  std::string text;
  for (const std::string& name : archives) {
    gzFile file = gzopen((dir + name).c_str(), "rb");
    char chunk[1 << 16];
    int got;
    while ((got = gzread(file, chunk, sizeof(chunk))) > 0)
      text.append(chunk, static_cast<size_t>(got));
    gzclose(file);
  }
  std::string active;
  android::base::ReadFileToString(dir + "se_process.veklog", &active);
  return text + active;
}

// Every thread's lines present once and in order; lines may be missing only before the first
// one present, and only when old archives were pruned.
bool checkLines(const std::string& text, int threads, long perThread, bool pruned, long* present) {
  std::vector<long> next(static_cast<size_t>(threads), -1);
  *present = 0;
  size_t start = 0;
  for (size_t feed; (feed = text.find('\n', start)) != std::string::npos; start = feed + 1) {
    size_t at = text.find("stress#", start);
    if (at == std::string::npos || at > feed) {
      if (vekIsWaitLine(std::string_view(text).substr(start, feed - start))) continue;
      fprintf(stderr, "unexpected line: %s\n", text.substr(start, feed - start).c_str());
      return false;
    }
    // strtol, not sscanf: sscanf measures the whole remaining text on every call.
    char* end = nullptr;
    long thread = strtol(text.c_str() + at + 7, &end, 10);
    long seq = *end == '#' ? strtol(end + 1, &end, 10) : -1;
    if (*end != '#' || thread < 0 || thread >= threads || seq < 0) return false;
    long& expected = next[static_cast<size_t>(thread)];
    if ((expected >= 0 && seq != expected) || (expected < 0 && seq != 0 && !pruned)) {
      fprintf(stderr, "thread %ld: line %ld where %ld was due\n", thread, seq,
              std::max(expected, 0L));
      return false;
    }
    expected = seq + 1;
    ++*present;
  }
  for (long n : next) {
    if (n != perThread) return false;
  }
  return true;
}

double mebibytes(double bytes) { return bytes / (1024 * 1024); }

long peakRssKiB() {
  rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

int runLoad(const Options& options, const std::string& root) {
  long perThread = options.mLines / options.mThreads;
  long perSecond = std::max(1L, options.mRate / options.mThreads);
  std::atomic<bool> done(false);
  std::thread flusher([&done] {
    std::mt19937 random(7);
    while (!done) {
      std::this_thread::sleep_for(std::chrono::microseconds(random() % 20000));
      __vek_save_log_now();
    }
  });
  auto start = Clock::now();
  std::vector<std::thread> threads;
  threads.reserve(static_cast<size_t>(options.mThreads));
  for (int t = 0; t < options.mThreads; ++t) {
    threads.emplace_back([t, perThread, perSecond, start] {
      for (long seq = 0; seq < perThread; ++seq) {
        // Paced, as a device logs: the writer keeps up, and the peak memory stays the steady one.
        if (seq % 64 == 0) {
          std::this_thread::sleep_until(
              start + std::chrono::microseconds(int64_t{seq} * 1000000 / perSecond));
        }
        logLine(t, seq);
      }
    });
  }
  for (auto& thread : threads) thread.join();
  done = true;
  flusher.join();
  bool drained = vekWaitForWriter(30);
  double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  long peakKiB = peakRssKiB();  // before the check reads the files into memory

  long present = 0;
  bool pruned = gRotations > 5;
  bool ok = drained && gErrors == 0 &&
            checkLines(readLogs(root), options.mThreads, perThread, pruned, &present);
  printf(
      "load: %ld lines from %d threads in %.1f s (%.0f lines/s), %ld rotations, "
      "%ld lines in the kept files, lost 0: %s, peak RSS %.1f MiB\n",
      perThread * options.mThreads, options.mThreads, seconds,
      static_cast<double>(perThread * options.mThreads) / seconds, gRotations.load(), present,
      ok ? "yes" : "NO", static_cast<double>(peakKiB) / 1024);
  return ok ? 0 : 1;
}

int runSlowStorage(const Options& options, const std::string& root) {
  VekLogRecorder* recorder = VekLogRecorder::getInstance();
  long perThread = options.mLines / options.mThreads;
  size_t heapBefore = mallinfo2().uordblks;
  std::promise<void> held;
  {
    std::lock_guard<std::mutex> lock(recorder->mMutex);
    recorder->mTasks.emplace_back([&held, &options] {
      held.set_value();
      std::this_thread::sleep_for(std::chrono::seconds(options.mHoldSeconds));
    });
    recorder->mCondition.notify_one();
  }
  held.get_future().wait();
  auto start = Clock::now();
  std::vector<std::thread> threads;
  threads.reserve(static_cast<size_t>(options.mThreads));
  for (int t = 0; t < options.mThreads; ++t) {
    threads.emplace_back([t, perThread] {
      for (long seq = 0; seq < perThread; ++seq) logLine(t, seq);
    });
  }
  for (auto& thread : threads) thread.join();
  double logSeconds = std::chrono::duration<double>(Clock::now() - start).count();
  size_t queued;
  {
    std::lock_guard<std::mutex> lock(recorder->mMutex);
    queued = recorder->mTasks.size();
  }
  size_t heapHeld = mallinfo2().uordblks - heapBefore;
  bool drained = vekWaitForWriter(30);
  long peakKiB = peakRssKiB();

  long present = 0;
  std::string text = readLogs(root);
  // The text's size depends on the width of ids and paths, so it may rotate once or twice;
  // the archives are read with the active file.
  bool ok = drained && gErrors == 0 &&
            checkLines(text, options.mThreads, perThread, gRotations > 4, &present);
  if (!ok) {
    fprintf(stderr, "drained %d, errors %ld, rotations %ld, %zu bytes read\n", drained,
            gErrors.load(), gRotations.load(), text.size());
  }
  printf(
      "slow storage: writer held %d s; %ld lines from %d threads logged in %.2f s without "
      "waiting; %zu batches queued holding %.1f MiB of heap for %.1f MiB of text; "
      "all %ld lines written after it resumed: %s; peak RSS %.1f MiB\n",
      options.mHoldSeconds, perThread * options.mThreads, options.mThreads, logSeconds, queued,
      mebibytes(static_cast<double>(heapHeld)), mebibytes(static_cast<double>(text.size())),
      present, ok ? "yes" : "NO", static_cast<double>(peakKiB) / 1024);
  return ok ? 0 : 1;
}

[[noreturn]] void usage() {
  fprintf(stderr,
          "usage: vek_stress load [--lines N] [--threads N] [--rate N]\n"
          "       vek_stress slow-storage [--lines N] [--threads N] [--hold S]\n");
  exit(2);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) usage();
  std::string mode = argv[1];
  if (mode != "load" && mode != "slow-storage") usage();
  Options options;
  if (mode == "slow-storage") {
    options.mLines = 120000;  // about the size limit: at most one rotation after the hold
    options.mThreads = 4;
  }
  static const option kOptions[] = {{"lines", required_argument, nullptr, 'l'},
                                    {"threads", required_argument, nullptr, 't'},
                                    {"rate", required_argument, nullptr, 'r'},
                                    {"hold", required_argument, nullptr, 'h'},
                                    {nullptr, 0, nullptr, 0}};
  optind = 2;
  for (int c; (c = getopt_long(argc, argv, "", kOptions, nullptr)) != -1;) {
    switch (c) {
      case 'l':
        options.mLines = atol(optarg);
        break;
      case 't':
        options.mThreads = atoi(optarg);
        break;
      case 'r':
        options.mRate = atol(optarg);
        break;
      case 'h':
        options.mHoldSeconds = atoi(optarg);
        break;
      default:
        usage();
    }
  }
  if (options.mThreads < 1 || options.mLines < options.mThreads || options.mRate < 1) usage();

  std::string root = makeRoot();
  if (root.empty()) return 1;
  __android_log_set_logger(platformLog);
  android::base::SetProperty("persist.vendor.vek.nfc.log", "55");
  VekLogRecorder::getInstance()->attchProcess("se_process");
  int status = mode == "load" ? runLoad(options, root) : runSlowStorage(options, root);
  // The files are only evidence while a check fails.
  if (status == 0) removeTree(root);
  return status;
}
