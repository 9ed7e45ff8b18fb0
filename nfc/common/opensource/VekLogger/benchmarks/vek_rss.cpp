// Resident memory of an idle process, the library's beside spdlog's synchronous rotating logger:
// each scenario runs in a freshly exec'd process of its own, so that nothing carries over, and
// reports VmRSS with its anonymous, file and shared-memory parts from /proc/self/status.
//
//   vek_rss [--quick] [--as NAME]
//
// Moments: 1 before the first log call; 2 attached as "nfc_process", 1,000 lines logged and
// flushed; 3 logged with a flush every 300 lines until the log file has rotated once; 4 200,000
// lines logged at once, as fast as one thread can. Moments 2 to 4 wait until every line is on
// storage, then idle 3 s. --quick skips moment 3. --as NAME measures the library alone and
// names its lines NAME (the baseline of run_benchmarks.sh --baseline).
#include <android-base/file.h>
#include <android-base/properties.h>
#include <android/log.h>
#include <ftw.h>
#include <glob.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/spdlog.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "VekLogger.h"
#include "VekWaitForWriter.h"
#include "vek_bench_line.h"

namespace {

constexpr int kFlushEvery = 300;
// Moment 3 gives up here: about five times the text a rotation needs.
constexpr int64_t kMaxLines = 1000000;

struct Library {
  std::string root;
  void attach() { VekLogRecorder::getInstance()->attchProcess("nfc_process"); }
  void line(int64_t i) { vekbench::vekLine(i); }
  void flush() { __vek_save_log_now(); }
  bool drain() { return vekWaitForWriter(1000); }
  bool rotated() {
    glob_t found;
    const bool any =
        glob((root + "/data/vendor/nfc/nfc_process_*.gz").c_str(), 0, nullptr, &found) == 0;
    globfree(&found);
    return any;
  }
};

struct Spdlog {
  std::string root;
  std::shared_ptr<spdlog::logger> logger;
  void attach() {
    logger = spdlog::rotating_logger_mt("NfcCore", root + "/peers/spdlog.log",
                                        vekbench::kMaxFileSize, vekbench::kKeptFiles);
    logger->set_pattern(vekbench::kSpdlogPattern);
  }
  void line(int64_t i) { vekbench::spdlogLine(*logger, i); }
  void flush() { logger->flush(); }
  bool drain() {
    logger->flush();
    return true;
  }
  bool rotated() { return access((root + "/peers/spdlog.1.log").c_str(), F_OK) == 0; }
};

template <typename Logger>
bool logUntilRotated(Logger& logger) {
  for (int64_t i = 0; !logger.rotated();) {
    if (i >= kMaxLines) return false;
    for (int k = 0; k < kFlushEvery; ++k) logger.line(i++);
    logger.flush();
  }
  return true;
}

// Does the work of one moment; false when it could not be done.
template <typename Logger>
bool play(Logger logger, int moment) {
  if (moment == 1) return true;
  logger.attach();
  if (moment == 3 && !logUntilRotated(logger)) return false;
  const int64_t lines = moment == 2 ? 1000 : moment == 4 ? 200000 : 0;
  for (int64_t i = 0; i < lines; ++i) logger.line(i);
  const bool drained = logger.drain();
  std::this_thread::sleep_for(std::chrono::seconds(3));
  return drained;
}

long statusKib(const std::string& status, const char* field) {
  const size_t at = status.find(field);
  return at == std::string::npos ? -1 : strtol(status.c_str() + at + strlen(field), nullptr, 10);
}

int scenario(const std::string& name, int moment) {
  const std::string root = vekbench::scratchRoot("vek_rss");
  android::base::SetProperty("persist.vendor.vek.nfc.log", "05");
  const bool done =
      name == "spdlog" ? play(Spdlog{root, nullptr}, moment) : play(Library{root}, moment);
  std::string status;
  android::base::ReadFileToString("/proc/self/status", &status);
  vekbench::removeTree(root);
  if (!done) {
    fprintf(stderr, "vek_rss: %s could not do moment %d\n", name.c_str(), moment);
    return 1;
  }
  printf("rss: %s moment %d: VmRSS %ld kB, RssAnon %ld kB, RssFile %ld kB, RssShmem %ld kB\n",
         name.c_str(), moment, statusKib(status, "VmRSS:"), statusKib(status, "RssAnon:"),
         statusKib(status, "RssFile:"), statusKib(status, "RssShmem:"));
  return 0;
}

bool spawn(const char* name, int moment) {
  fflush(stdout);
  const std::string momentText = std::to_string(moment);
  const pid_t child = fork();
  if (child == 0) {
    execl("/proc/self/exe", "vek_rss", "--scenario", name, momentText.c_str(), nullptr);
    _exit(127);
  }
  int status;
  return child > 0 && waitpid(child, &status, 0) == child && WIFEXITED(status) &&
         WEXITSTATUS(status) == 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 4 && strcmp(argv[1], "--scenario") == 0) return scenario(argv[2], atoi(argv[3]));
  bool quick = false;
  const char* as = nullptr;
  for (int a = 1; a < argc; ++a) {
    if (strcmp(argv[a], "--quick") == 0) {
      quick = true;
    } else if (strcmp(argv[a], "--as") == 0 && a + 1 < argc) {
      as = argv[++a];
    } else {
      fprintf(stderr, "usage: %s [--quick] [--as NAME]\n", argv[0]);
      return 2;
    }
  }
  std::vector<const char*> names{as ? as : "library"};
  if (as == nullptr) names.push_back("spdlog");
  for (const char* name : names) {
    for (int moment = 1; moment <= 4; ++moment) {
      if ((moment != 3 || !quick) && !spawn(name, moment)) return 1;
    }
  }
  return 0;
}
