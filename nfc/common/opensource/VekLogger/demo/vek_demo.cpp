// vek_demo: the whole stack on a host. Four child processes, named as on a device, log from
// several threads until each has rotated its log file; then every file they left is checked.
#include <fcntl.h>
#include <getopt.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <new>
#include <thread>

#include "VekDemo.h"

namespace vekdemo {

const char* const kProcessNames[kProcesses] = {"nfc_process", "nfc_hal_process", "se_process",
                                               "se_hal_process"};

namespace {

void usage(const char* program) {
  fprintf(stderr,
          "usage: %s [--seconds N] [--rotations N] [--threads N] [--rate N] [--levels PR]\n"
          "          [--root DIR]\n"
          "  --seconds N    give up after N seconds (default 90)\n"
          "  --rotations N  stop once every process has rotated N times (default 2)\n"
          "  --threads N    logging threads per process, 1 to %d (default 3)\n"
          "  --rate N       messages per second per process (default 7000)\n"
          "  --levels PR    value of persist.vendor.vek.nfc.log (default 55)\n"
          "  --root DIR     VEK_LOG_ROOT to use (default: a new directory under /tmp)\n",
          program, kMaxThreads / 2);
  exit(2);
}

Options parseOptions(int argc, char** argv) {
  static const option kOptions[] = {{"seconds", required_argument, nullptr, 's'},
                                    {"rotations", required_argument, nullptr, 'r'},
                                    {"threads", required_argument, nullptr, 't'},
                                    {"rate", required_argument, nullptr, 'm'},
                                    {"levels", required_argument, nullptr, 'l'},
                                    {"root", required_argument, nullptr, 'd'},
                                    {nullptr, 0, nullptr, 0}};
  Options options;
  for (int c; (c = getopt_long(argc, argv, "", kOptions, nullptr)) != -1;) {
    switch (c) {
      case 's':
        options.mSeconds = atoi(optarg);
        break;
      case 'r':
        options.mRotations = atoi(optarg);
        break;
      case 't':
        options.mThreads = atoi(optarg);
        break;
      case 'm':
        options.mRate = atoi(optarg);
        break;
      case 'l':
        options.mLevels = optarg;
        break;
      case 'd':
        options.mRoot = optarg;
        break;
      default:
        usage(argv[0]);
    }
  }
  if (optind != argc || options.mSeconds < 1 || options.mRotations < 0 || options.mThreads < 1 ||
      options.mThreads > kMaxThreads / 2 || options.mRate < 1) {
    usage(argv[0]);
  }
  return options;
}

// The library creates no directories: the demo lays out the device tree under its root.
bool makeRoot(Options& options) {
  if (options.mRoot.empty()) {
    char pattern[] = "/tmp/vek_demo.XXXXXX";
    if (mkdtemp(pattern) == nullptr) return false;
    options.mRoot = pattern;
  }
  for (const char* dir : {"", "/data", "/data/vendor", "/data/vendor/nfc",
                          "/data/vendor/secure_element", "/proc", "/proc/vekdev"}) {
    std::string path = options.mRoot + dir;
    if (mkdir(path.c_str(), 0755) != 0 && errno != EEXIST) return false;
  }
  std::string node = options.mRoot + "/proc/vekdev/logger";
  unlink(node.c_str());
  return mkfifo(node.c_str(), 0600) == 0 && setenv("VEK_LOG_ROOT", options.mRoot.c_str(), 1) == 0;
}

// Midway, once it has rotated, the first process is killed with SIGKILL, as init stops a HAL,
// and started again: what it logged before must still reach its files.
void killAndRestartMidway(const Options& options, Shared& shared, pid_t* child) {
  ProcessStats& stats = shared.mProcesses[0];
  if (stats.mKilledPid != 0 || stats.mRotations < std::max(1, options.mRotations / 2)) return;
  kill(*child, SIGKILL);
  waitpid(*child, nullptr, 0);
  stats.mKilledPid = stats.mPid.load();
  printf("killed %s (pid %d) with SIGKILL, started it again\n", kProcessNames[0], *child);
  fflush(stdout);  // not again from the child's copy
  *child = fork();
  if (*child == 0) runProcess(0, options.mThreads, options, shared);
}

bool everyProcessRotated(const Options& options, const Shared& shared) {
  for (const ProcessStats& stats : shared.mProcesses) {
    if (stats.mRotations < options.mRotations) return false;
  }
  return true;
}

void showProgress(const Shared& shared, long elapsed) {
  printf("%3lds", elapsed);
  for (int i = 0; i < kProcesses; ++i) {
    const ProcessStats& stats = shared.mProcesses[i];
    printf("  %s %5.1f MiB %ld rot", kProcessNames[i],
           mebibytes(static_cast<double>(stats.mBytesWritten)), stats.mRotations.load());
  }
  printf("\n");
  fflush(stdout);
}

}  // namespace
}  // namespace vekdemo

int main(int argc, char** argv) {
  using namespace vekdemo;
  Options options = parseOptions(argc, argv);
  if (!makeRoot(options)) {
    perror("vek_demo: cannot lay out the root");
    return 1;
  }
  void* memory =
      mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) {
    perror("vek_demo: mmap");
    return 1;
  }
  Shared& shared = *new (memory) Shared();
  printf(
      "VEK_LOG_ROOT=%s\n%d threads and %d messages/s per process, levels \"%s\", "
      "until %d rotations each\n",
      options.mRoot.c_str(), options.mThreads, options.mRate, options.mLevels.c_str(),
      options.mRotations);
  fflush(stdout);

  pid_t children[kProcesses];
  for (int i = 0; i < kProcesses; ++i) {
    children[i] = fork();
    if (children[i] == 0) runProcess(i, 0, options, shared);
  }
  auto start = std::chrono::steady_clock::now();
  long elapsed = 0;
  while (!everyProcessRotated(options, shared) && elapsed < options.mSeconds) {
    std::this_thread::sleep_for(std::chrono::seconds(1));
    elapsed =
        std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - start)
            .count();
    showProgress(shared, elapsed);
    killAndRestartMidway(options, shared, &children[0]);
  }
  shared.mStop = true;
  bool exited = true;
  for (pid_t child : children) {
    int status = 0;
    exited = waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0 &&
             exited;
  }
  bool ok = checkFiles(options, shared) && exited;
  if (!exited) printf("\na demo process did not exit cleanly\n");
  for (const char* name : kProcessNames) {
    printf("\n== %s, as __vek_dump_state reports it at its end\n", name);
    fflush(stdout);
    std::string dump = options.mRoot + "/" + name + ".dump";
    if (int fd = open(dump.c_str(), O_RDONLY | O_CLOEXEC); fd != -1) {
      char chunk[4096];
      for (ssize_t got; (got = read(fd, chunk, sizeof(chunk))) > 0;) fwrite(chunk, 1, got, stdout);
      close(fd);
    }
  }
  printf("\n%s: files left under %s\n", ok ? "PASS" : "FAIL", options.mRoot.c_str());
  return ok ? 0 : 1;
}
