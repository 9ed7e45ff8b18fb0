// The hot path against its peers and its floor, all writing real files in a scratch root,
// plus the storage figures: sustained rate, rotation against gzip -9, flush latency, memory.
#include <android-base/file.h>
#include <android-base/properties.h>
#include <android/log.h>
#include <benchmark/benchmark.h>
#include <ftw.h>
#include <glog/logging.h>
#include <spdlog/async.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/spdlog.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

#include "VekLogger.h"
#include "VekWaitForWriter.h"
#include "vek_bench_line.h"

namespace {

using Clock = std::chrono::steady_clock;
using vekbench::kMaxFileSize;
using vekbench::kTag;
using vekbench::spdlogLine;
using vekbench::uid;
using vekbench::vekLine;

std::string gRoot;
VekLogRecorder* gRecorder = nullptr;
std::shared_ptr<spdlog::logger> gSpdlogSync;
std::shared_ptr<spdlog::logger> gSpdlogAsync;

// Waits until the writer has caught up, so that no benchmark pays for the backlog of the one
// before it.
void waitForIdleWriter(const benchmark::State& state) {
  if (state.thread_index() == 0) vekWaitForWriter(1000);
}

// The hand-over reads the limit under mMutex.
void setSizeLimit(uint32_t limit) {
  std::lock_guard<std::mutex> lock(gRecorder->mMutex);
  gRecorder->mMaxFileSize = limit;
}

// What every recorded line must do by design: one realtime clock read, localtime_r, and the
// getpid and gettid system calls.
void BM_Floor(benchmark::State& state) {
  waitForIdleWriter(state);
  for (auto _ : state) {
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    tm local;
    localtime_r(&now.tv_sec, &local);
    benchmark::DoNotOptimize(local);
    benchmark::DoNotOptimize(syscall(SYS_getpid));
    benchmark::DoNotOptimize(syscall(SYS_gettid));
  }
  state.SetItemsProcessed(state.iterations());
}

void BM_Record(benchmark::State& state) {
  const std::string tag(kTag);
  const std::string message("Discovery started, mode 2, uid 9e3779b1");
  waitForIdleWriter(state);
  for (auto _ : state) gRecorder->record(4, tag, message);
  state.SetItemsProcessed(state.iterations());
}

// print 0: recorded only; print 1: also printed, into a liblog logger that drops the entry.
void BM_VekLogI(benchmark::State& state) {
  gRecorder->mPrintLevel = state.range(0) ? 5 : 0;
  int64_t i = 0;
  waitForIdleWriter(state);
  for (auto _ : state) {
    vekLine(i);
    ++i;
  }
  state.SetItemsProcessed(state.iterations());
}

// As BM_VekLogI/print:0, with the size limit out of reach: the writer only appends, keeps up,
// and the crash tail copies every line. While the writer compresses, a thread logging flat out
// soon fills the tail's ring, and the lines past it skip the copy.
void BM_VekLogIAppendOnly(benchmark::State& state) {
  gRecorder->mPrintLevel = 0;
  int64_t i = 0;
  waitForIdleWriter(state);
  if (state.thread_index() == 0) setSizeLimit(UINT32_MAX);
  for (auto _ : state) {
    vekLine(i);
    ++i;
  }
  if (state.thread_index() == 0) setSizeLimit(kMaxFileSize);
  state.SetItemsProcessed(state.iterations());
}

void BM_SpdlogSyncRotating(benchmark::State& state) {
  int64_t i = 0;
  waitForIdleWriter(state);
  for (auto _ : state) {
    spdlogLine(*gSpdlogSync, i);
    ++i;
  }
  state.SetItemsProcessed(state.iterations());
}

void BM_SpdlogAsyncRotating(benchmark::State& state) {
  int64_t i = 0;
  waitForIdleWriter(state);
  for (auto _ : state) {
    spdlogLine(*gSpdlogAsync, i);
    ++i;
  }
  state.SetItemsProcessed(state.iterations());
}

void BM_Glog(benchmark::State& state) {
  int64_t i = 0;
  waitForIdleWriter(state);
  for (auto _ : state) {
    LOG(INFO) << "Discovery started, mode " << (i & 3) << ", uid " << std::hex << uid(i);
    ++i;
  }
  state.SetItemsProcessed(state.iterations());
}

BENCHMARK(BM_Floor)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_Record)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_VekLogI)->ArgName("print")->Arg(0)->Arg(1)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_VekLogIAppendOnly)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_SpdlogSyncRotating)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_SpdlogAsyncRotating)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_Glog)->Threads(1)->Threads(2)->UseRealTime();

void dropEntry(const __android_logger_data*, const char*) {}

void setUp() {
  gRoot = vekbench::scratchRoot("vek_bench");
  android::base::SetProperty("persist.vendor.vek.nfc.log", "55");
  gRecorder = VekLogRecorder::getInstance();
  gRecorder->attchProcess("nfc_process");

  gSpdlogSync = spdlog::rotating_logger_mt("NfcCore", gRoot + "/peers/spdlog_sync.log",
                                           kMaxFileSize, vekbench::kKeptFiles);
  gSpdlogSync->set_pattern(vekbench::kSpdlogPattern);
  spdlog::init_thread_pool(8192, 1);
  gSpdlogAsync = spdlog::rotating_logger_mt<spdlog::async_factory>(
      "NfcCoreAsync", gRoot + "/peers/spdlog_async.log", kMaxFileSize, vekbench::kKeptFiles);
  gSpdlogAsync->set_pattern(vekbench::kSpdlogPattern);

  FLAGS_log_dir = gRoot + "/peers";
  FLAGS_logtostderr = false;
  FLAGS_stderrthreshold = google::FATAL;
  google::InitGoogleLogging("vek_bench");
}

double seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

// Lines per second from one thread, until the last of them is on storage.
void sustainedRate() {
  gRecorder->mPrintLevel = 0;
  constexpr int kLines = 1000000;
  auto start = Clock::now();
  for (int i = 0; i < kLines; ++i) {
    vekLine(i);
  }
  vekWaitForWriter(1000);
  printf("sustained: %.0f lines/s reach the file (%d lines, one thread, writer rotating)\n",
         kLines / seconds(Clock::now() - start), kLines);
}

// The library's rotation compressor against gzip -9 on the same 15 MiB of its own log text.
void rotationAgainstGzip() {
  std::string text;
  std::string dir = gRoot + "/data/vendor/nfc/";
  for (const std::string& name : {std::string("nfc_process.veklog")}) {
    android::base::ReadFileToString(dir + name, &text);
  }
  while (text.size() < kMaxFileSize) text += text.empty() ? "x\n" : text;
  text.resize(kMaxFileSize);
  text.resize(text.rfind('\n') + 1);
  std::string input = gRoot + "/rotation.veklog";
  android::base::WriteStringToFile(text, input);

  std::vector<double> ours;
  std::vector<double> gzip;
  for (int run = 0; run < 5; ++run) {
    auto start = Clock::now();
    gRecorder->compressGzip(input, gRoot + "/ours.gz");
    ours.push_back(seconds(Clock::now() - start));
    start = Clock::now();
    std::string command = "gzip -9 -n -c " + input + " > " + gRoot + "/gzip.gz";
    if (system(command.c_str()) != 0) return;
    gzip.push_back(seconds(Clock::now() - start));
  }
  std::sort(ours.begin(), ours.end());
  std::sort(gzip.begin(), gzip.end());
  struct stat oursSize;
  struct stat gzipSize;
  stat((gRoot + "/ours.gz").c_str(), &oursSize);
  stat((gRoot + "/gzip.gz").c_str(), &gzipSize);
  printf(
      "rotation: %zu bytes; compressGzip %.3f s, %lld bytes; gzip -9 %.3f s, %lld bytes; "
      "time ratio %.2f, size ratio %.4f\n",
      text.size(), ours[2], static_cast<long long>(oursSize.st_size), gzip[2],
      static_cast<long long>(gzipSize.st_size), ours[2] / gzip[2],
      static_cast<double>(oursSize.st_size) / static_cast<double>(gzipSize.st_size));
}

// Flush latency with an idle writer: one line, then __vek_save_log_now. --flush-only runs this
// alone, on the file system of $TMPDIR.
void flushLatency() {
  std::vector<double> micros;
  for (int i = 0; i < 2000; ++i) {
    __vek_log_i(kTag, "flush %d", i);
    auto start = Clock::now();
    __vek_save_log_now();
    micros.push_back(seconds(Clock::now() - start) * 1e6);
  }
  std::sort(micros.begin(), micros.end());
  printf("flush: __vek_save_log_now with an idle writer: median %.0f us, p99 %.0f us\n",
         micros[micros.size() / 2], micros[micros.size() * 99 / 100]);
}

// Logs one million lines as fast as one thread can, waits until they are on storage, and
// reports the process's peak RSS. Runs in a process of its own (see peakRss).
int logMillionLines() {
  __android_log_set_logger(dropEntry);
  android::base::SetProperty("persist.vendor.vek.nfc.log", "05");
  VekLogRecorder::getInstance()->attchProcess("nfc_process");
  for (int i = 0; i < 1000000; ++i) {
    vekLine(i);
  }
  vekWaitForWriter(1000);
  // VmHWM belongs to this image; ru_maxrss would carry the forking parent's peak over exec.
  std::string status;
  android::base::ReadFileToString("/proc/self/status", &status);
  size_t at = status.find("VmHWM:");
  long kib = at == std::string::npos ? 0 : strtol(status.c_str() + at + 6, nullptr, 10);
  printf("memory: peak RSS %.1f MiB while logging 1,000,000 lines from one thread\n",
         static_cast<double>(kib) / 1024);
  return 0;
}

// A fresh process, so that neither the benchmarks' memory nor a missing writer thread (fork
// copies none) counts.
void peakRss() {
  fflush(stdout);
  pid_t child = fork();
  if (child == 0) {
    execl("/proc/self/exe", "vek_bench", "--log-million-lines", nullptr);
    _exit(127);
  }
  int status;
  waitpid(child, &status, 0);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && strcmp(argv[1], "--log-million-lines") == 0) return logMillionLines();
  if (argc == 2 && strcmp(argv[1], "--flush-only") == 0) {
    setUp();
    flushLatency();
    vekbench::removeTree(gRoot);
    return 0;
  }
  // --no-storage, last: the benchmarks alone (run_benchmarks.sh --baseline runs them often).
  const bool storage = argc < 2 || strcmp(argv[argc - 1], "--no-storage") != 0;
  if (!storage) argv[--argc] = nullptr;
  setUp();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  if (storage) {
    sustainedRate();
    rotationAgainstGzip();
    flushLatency();
    peakRss();
  }
  vekbench::removeTree(gRoot);
  return 0;
}
