// Per-call latency of __vek_log_i and of spdlog's synchronous rotating logger at 1, 2 and 4
// threads, while both rotate: each call is timed on its own between two monotonic clock reads,
// and the percentiles are taken over the calls of all threads of one run. A run of two clock
// reads with nothing between them gives the clock's own share.
//
//   vek_latency [--calls N] [--out FILE] [--library-only]
//
// --calls: calls per logger and thread count, split evenly between the threads (default
// 1200000: about 90 MiB of text, six rotations for each logger). --out: where the summary goes
// as JSON, for report.py. --library-only: __vek_log_i alone, at 1 and 2 threads (the runs that
// run_benchmarks.sh --baseline alternates with a baseline's).
#include <android-base/file.h>
#include <android-base/properties.h>
#include <android/log.h>
#include <ftw.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/spdlog.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "VekLogger.h"
#include "VekWaitForWriter.h"
#include "vek_bench_line.h"

namespace {

constexpr int kThreadCounts[] = {1, 2, 4};
// Calls each thread makes before it is timed, so that what a new thread pays once (its malloc
// arena, its thread-local buffers) is not taken for a call's latency: the stack's threads live
// as long as their process.
constexpr int64_t kWarmUpCalls = 1000;

struct Run {
  const char* logger;
  int threads;
  int64_t calls;
  double mib;  // text logged by the timed calls
  int64_t p50, p99, p999, p9999, max;
  std::vector<std::pair<int64_t, double>> ccdf;  // latency, share of calls at least as slow
};

int64_t nowNs() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * int64_t{1000000000} + now.tv_nsec;
}

// Calls body `calls` times, split evenly over `threads` threads, timing each call, and returns
// every latency in nanoseconds, sorted. The samples go to arrays filled before the threads start,
// so the timed loop neither allocates nor takes a page fault on them.
template <typename Body>
std::vector<int64_t> measure(int threads, int64_t calls, Body body) {
  const int64_t perThread = calls / threads;
  std::vector<std::vector<int64_t>> samples(threads, std::vector<int64_t>(perThread));
  std::atomic<int> ready{0};
  std::vector<std::thread> workers;
  workers.reserve(threads);
  for (int t = 0; t < threads; ++t) {
    workers.emplace_back([&, t] {
      const int64_t first = t * perThread;
      for (int64_t i = 0; i < kWarmUpCalls; ++i) body(first + i);
      ready.fetch_add(1);
      while (ready.load() < threads) std::this_thread::yield();
      int64_t* out = samples[t].data();
      for (int64_t i = 0; i < perThread; ++i) {
        const int64_t start = nowNs();
        body(first + i);
        out[i] = nowNs() - start;
      }
    });
  }
  for (std::thread& worker : workers) worker.join();
  std::vector<int64_t> all;
  all.reserve(perThread * threads);
  for (const std::vector<int64_t>& one : samples) all.insert(all.end(), one.begin(), one.end());
  std::sort(all.begin(), all.end());
  return all;
}

// Nearest rank: the smallest sample with at least ppm millionths of all at or below it.
int64_t percentile(const std::vector<int64_t>& sorted, int64_t ppm) {
  const int64_t rank = (ppm * static_cast<int64_t>(sorted.size()) + 999999) / 1000000;
  return sorted[std::max<int64_t>(rank, 1) - 1];
}

Run summarize(const char* logger, int threads, const std::vector<int64_t>& sorted,
              size_t lineBytes) {
  const int64_t n = static_cast<int64_t>(sorted.size());
  const double all = static_cast<double>(n);
  Run run{logger,
          threads,
          n,
          all * static_cast<double>(lineBytes) / (1 << 20),
          percentile(sorted, 500000),
          percentile(sorted, 990000),
          percentile(sorted, 999000),
          percentile(sorted, 999900),
          sorted.back(),
          {}};
  // Twenty points a decade of the share of calls, from all of them down to the slowest one.
  int64_t lastSlower = 0;
  for (int k = 0; lastSlower != 1; ++k) {
    const int64_t slower = std::max<int64_t>(1, std::llround(std::pow(10.0, -k / 20.0) * all));
    if (slower != lastSlower) {
      run.ccdf.emplace_back(sorted[n - slower], static_cast<double>(slower) / all);
      lastSlower = slower;
    }
  }
  printf(
      "latency: %-11s threads %d: p50 %lld, p99 %lld, p99.9 %lld, p99.99 %lld, max %lld ns "
      "(%lld calls, %.0f MiB)\n",
      logger, threads, static_cast<long long>(run.p50), static_cast<long long>(run.p99),
      static_cast<long long>(run.p999), static_cast<long long>(run.p9999),
      static_cast<long long>(run.max), static_cast<long long>(n), run.mib);
  fflush(stdout);
  return run;
}

// Bytes of the one line a file holds.
size_t oneLineBytes(const std::string& path) {
  std::string text;
  android::base::ReadFileToString(path, &text);
  return text.size();
}

std::string spread(std::vector<int64_t>& sorted) {
  std::sort(sorted.begin(), sorted.end());
  char text[96];
  snprintf(text, sizeof(text), "p50 %lld, p90 %lld, p99 %lld ns",
           static_cast<long long>(percentile(sorted, 500000)),
           static_cast<long long>(percentile(sorted, 900000)),
           static_cast<long long>(percentile(sorted, 990000)));
  return text;
}

// Where a single thread's slow calls come from: the calls that hand a batch to the writer, set
// against the others, and what it costs to wake a thread that waits on a condition variable
// (which a hand-over does whenever the writer is idle).
void handOverBreakdown(VekLogRecorder* recorder, int64_t calls) {
  std::vector<int64_t> handing, others;
  handing.reserve(calls / 50);
  others.reserve(calls);
  for (int64_t i = 0; i < calls; ++i) {
    const size_t before = recorder->mBuffer.size();
    const int64_t start = nowNs();
    vekbench::vekLine(i);
    const int64_t took = nowNs() - start;
    (recorder->mBuffer.size() < before ? handing : others).push_back(took);
  }
  std::mutex mutex;
  std::condition_variable wake;
  std::vector<int64_t> notifies;
  bool waiting = false;
  std::thread waiter([&] {
    std::unique_lock<std::mutex> lock(mutex);
    for (int64_t i = 0; i < 2000; ++i) {
      waiting = true;
      wake.notify_one();
      wake.wait(lock, [&] { return !waiting; });
    }
  });
  for (int64_t i = 0; i < 2000; ++i) {
    std::unique_lock<std::mutex> lock(mutex);
    wake.wait(lock, [&] { return waiting; });
    waiting = false;
    lock.unlock();
    std::this_thread::sleep_for(std::chrono::microseconds(50));  // let it sleep in the kernel
    const int64_t start = nowNs();
    wake.notify_one();
    notifies.push_back(nowNs() - start);
  }
  waiter.join();
  printf("handover: 1 thread, %zu of %lld calls hand a batch over: %s; the other calls: %s\n",
         handing.size(), static_cast<long long>(calls), spread(handing).c_str(),
         spread(others).c_str());
  printf("handover: notify_one to a thread waiting on a condition variable: %s\n",
         spread(notifies).c_str());
}

bool writeJson(const char* path, const std::vector<Run>& runs) {
  FILE* out = fopen(path, "w");
  if (out == nullptr) {
    perror(path);
    return false;
  }
  char date[64];
  const time_t now = time(nullptr);
  tm local;
  strftime(date, sizeof(date), "%FT%T%z", localtime_r(&now, &local));
  fprintf(out, "{\"date\": \"%s\", \"cpus\": %ld, \"runs\": [", date,
          sysconf(_SC_NPROCESSORS_ONLN));
  for (size_t r = 0; r < runs.size(); ++r) {
    const Run& run = runs[r];
    fprintf(out,
            "%s\n{\"logger\": \"%s\", \"threads\": %d, \"calls\": %lld, \"mib\": %.1f, "
            "\"p50\": %lld, \"p99\": %lld, \"p99.9\": %lld, \"p99.99\": %lld, \"max\": %lld, "
            "\"ccdf\": [",
            r == 0 ? "" : ",", run.logger, run.threads, static_cast<long long>(run.calls), run.mib,
            static_cast<long long>(run.p50), static_cast<long long>(run.p99),
            static_cast<long long>(run.p999), static_cast<long long>(run.p9999),
            static_cast<long long>(run.max));
    for (size_t p = 0; p < run.ccdf.size(); ++p) {
      fprintf(out, "%s[%lld, %.9g]", p == 0 ? "" : ", ", static_cast<long long>(run.ccdf[p].first),
              run.ccdf[p].second);
    }
    fprintf(out, "]}");
  }
  fprintf(out, "\n]}\n");
  return fclose(out) == 0;
}

}  // namespace

int main(int argc, char** argv) {
  int64_t calls = 1200000;
  const char* outPath = nullptr;
  bool libraryOnly = false;
  for (int a = 1; a < argc; ++a) {
    if (strcmp(argv[a], "--calls") == 0 && a + 1 < argc) {
      calls = strtoll(argv[++a], nullptr, 10);
    } else if (strcmp(argv[a], "--out") == 0 && a + 1 < argc) {
      outPath = argv[++a];
    } else if (strcmp(argv[a], "--library-only") == 0) {
      libraryOnly = true;
    } else {
      fprintf(stderr, "usage: %s [--calls N] [--out FILE] [--library-only]\n", argv[0]);
      return 2;
    }
  }
  if (calls < 4) {
    fprintf(stderr, "--calls must be at least 4\n");
    return 2;
  }

  const std::string root = vekbench::scratchRoot("vek_latency");
  // Recorded, not printed: the figure compared with spdlog's, which prints nothing either.
  android::base::SetProperty("persist.vendor.vek.nfc.log", "05");
  VekLogRecorder::getInstance()->attchProcess("nfc_process");
  const std::string spdlogPath = root + "/peers/spdlog_sync.log";
  std::shared_ptr<spdlog::logger> peer = spdlog::rotating_logger_mt(
      "NfcCore", spdlogPath, vekbench::kMaxFileSize, vekbench::kKeptFiles);
  peer->set_pattern(vekbench::kSpdlogPattern);

  // One line each, to learn how much text a call adds.
  vekbench::vekLine(0);
  __vek_save_log_now();
  const size_t vekLineBytes = oneLineBytes(root + "/data/vendor/nfc/nfc_process.veklog");
  vekbench::spdlogLine(*peer, 0);
  peer->flush();
  const size_t spdlogLineBytes = oneLineBytes(spdlogPath);
  if (vekLineBytes == 0 || spdlogLineBytes == 0) {
    fprintf(stderr, "a logger wrote nothing to %s\n", root.c_str());
    return 1;
  }

  std::vector<Run> runs;
  for (int threads : kThreadCounts) {
    if (libraryOnly && threads > 2) break;
    if (!libraryOnly) {
      runs.push_back(summarize("clock", threads, measure(threads, calls, [](int64_t) {}), 0));
    }
    runs.push_back(summarize("__vek_log_i", threads, measure(threads, calls, vekbench::vekLine),
                             vekLineBytes));
    // The writer catches up, rotation included, so that no run shares the CPUs with the
    // compression of the run before it.
    vekWaitForWriter(1000);
    if (libraryOnly) continue;
    runs.push_back(
        summarize("spdlog", threads,
                  measure(threads, calls, [&](int64_t i) { vekbench::spdlogLine(*peer, i); }),
                  spdlogLineBytes));
  }
  if (!libraryOnly) handOverBreakdown(VekLogRecorder::getInstance(), calls);
  spdlog::shutdown();
  vekbench::removeTree(root);
  return outPath == nullptr || writeJson(outPath, runs) ? 0 : 1;
}
