// The recorder's life inside a process: exit while threads log, teardown, fork, a platform
// logger that forwards into the library, and exit with a writer that is stuck or rotating. Each
// case runs in a child process with a time limit; this process never uses the library itself,
// so every child starts without a recorder.
#include <android-base/logging.h>
#include <android-base/properties.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>

#include "VekLogLifecycle.h"
#include "VekLogTail.h"
#include "VekLogTestEnv.h"
#include "VekWaitForWriter.h"

using vektest::archives;
using vektest::countOf;
using vektest::readFile;
using vektest::statusOf;
using vektest::tailsIn;

namespace {

// A child inherits the scratch root through $VEK_LOG_ROOT.
struct Lifecycle : testing::Test {
  vektest::ScratchRoot root;
  std::string log = root.path("/data/vendor/nfc/nfc_process.veklog");
};

void attach() { VekLogRecorder::getInstance()->attchProcess("nfc_process"); }

struct LogsWhenDestroyed {
  ~LogsWhenDestroyed() {
    __vek_log_e("T", "%s", mText);
    VEK_LOG(ERROR) << mText;
  }
  const char* mText;
};

// Debian's liblog keeps its default tag in a static string, made by the first entry without a
// tag and destroyed at exit. Made first, it outlives the statics that log at exit here.
void logBeforeStatics() { __android_log_print(ANDROID_LOG_INFO, nullptr, "first entry"); }

// Static destructors, atexit handlers and thread_local destructors log, before and after the
// recorder's own destructor, while other threads log through exit: what comes while the
// recorder is alive is recorded, and nothing crashes or waits.
TEST_F(Lifecycle, ExitWhileThreadsAndTeardownLog) {
  EXPECT_EQ("exit 0", statusOf([this] {
              // Threads that print while exit destroys liblog's default tag would fail there.
              android::base::SetProperty("persist.vendor.vek.nfc.log", "05");
              logBeforeStatics();
              static LogsWhenDestroyed afterTheRecorder{"static destructor"};
              atexit([] { __vek_log_e("T", "atexit %d", 1); });
              attach();
              std::thread([] {
                thread_local LogsWhenDestroyed threadEnd{"thread_local destructor"};
                __vek_log_i("T", "thread logs");
              }).join();
              std::string text = vekWaitForWriter(10) ? readFile(log) : "";
              if (countOf(text, " T: thread_local destructor\n") != 1 ||
                  countOf(text, "] thread_local destructor\n") != 1) {
                return 1;
              }
              static std::atomic<long> logged(0);
              for (int t = 0; t < 4; ++t) {
                std::thread([t] {
                  for (;;) {
                    __vek_log_i("T", "thread %d line %ld", t, logged++);
                    VEK_LOG(INFO) << "stream line";
                  }
                }).detach();
              }
              while (logged < 20000) std::this_thread::yield();
              return 0;
            }));
}

// ASan's allocator in this toolchain has no fork handler: a child forked while another thread
// is inside it waits in its first malloc for good. Under qemu-user a child forked while other
// threads log now and then waits for good too, before its first line, on a lock in glibc's own
// data (one run in about 20, the library's code of before and after alike). Under both, no
// thread logs while the parent forks, and its writer has finished starting and its first task,
// and waits idle.
#ifdef VEK_FORKS_ALONE
constexpr bool kForkAlone = true;
#else
constexpr bool kForkAlone = false;
#endif

// ThreadSanitizer and qemu-user hold locks of their own through each fork, which their exit
// waits for: back to back, the forks would starve it.
#ifdef VEK_FORK_GAP
constexpr useconds_t kForkGapMicros = 5000;
#else
constexpr useconds_t kForkGapMicros = 0;
#endif

// Children forked while other threads log can log, flush and exit; each line is written once.
TEST_F(Lifecycle, ForkedChildrenLogFlushAndExit) {
  constexpr int kChildren = 20;
  EXPECT_EQ(
      "exit 0", statusOf([] {
        android::base::SetProperty("persist.vendor.vek.nfc.log", "05");
        attach();
        if (kForkAlone && !vekWaitForWriter(10)) return 1;
        while (kForkAlone && VekLogRecorder::getInstance()->mWriterState != vek::kWriterIdle) {
          std::this_thread::yield();
        }
        std::atomic<bool> done(false);
        std::vector<std::thread> threads(kForkAlone ? 0 : 2);
        for (auto& thread : threads) {
          // At most about 2 MiB in all, so that no child meets a rotation, however slow.
          thread = std::thread([&done] {
            for (int burst = 0; burst < 2000 && !done; ++burst) {
              for (int line = 0; line < 10; ++line) __vek_log_d("T", "parent thread");
              std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
          });
        }
        int failed = 0;
        for (int child = 0; child < kChildren; ++child) {
          failed += statusOf([child] {
                      __vek_log_i("T", "child %d", child);
                      return vekWaitForWriter(10) ? 0 : 1;
                    }) != "exit 0";
        }
        done = true;
        for (auto& thread : threads) thread.join();
        __vek_log_i("T", "parent done");
        return failed == 0 && vekWaitForWriter(10) ? 0 : 1;
      }));
  std::string text = readFile(log);
  for (int child = 0; child < kChildren; ++child) {
    EXPECT_EQ(1u, countOf(text, "T: child " + std::to_string(child) + "\n")) << child;
  }
  EXPECT_EQ(1u, countOf(text, "T: parent done\n"));
}

// Another thread forks helpers (popen, system, dump tools) while main returns: exit ends.
TEST_F(Lifecycle, ExitWhileAnotherThreadForks) {
  for (int run = 0; run < 20; ++run) {
    EXPECT_EQ("exit 0", statusOf([] {
                attach();
                __vek_log_i("T", "exits while forking");
                std::thread([] {
                  for (;;) {
                    pid_t child = fork();
                    if (child == 0) _exit(0);
                    waitpid(child, nullptr, 0);
                    usleep(kForkGapMicros);
                  }
                }).detach();
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
                return 0;
              }))
        << run;
  }
}

// A forked child that keeps logging and its parent share the log file through its rotations:
// each line of both is stored once, and no archive is made twice.
TEST_F(Lifecycle, ForkedChildAndParentRotateOneFile) {
  EXPECT_EQ("exit 0", statusOf([] {
              VekLogRecorder::getInstance()->mMaxFileSize = 128 * 1024;  // one rotation
              attach();
              if (kForkAlone && !vekWaitForWriter(10)) return 1;
              pid_t child = fork();
              std::string pad(1000, 'p');
              for (int i = 0; i < 100; ++i) {
                __vek_log_i("T", "%s %d %s", child == 0 ? "child" : "parent", i, pad.c_str());
              }
              bool flushed = vekWaitForWriter(10);
              if (child == 0) _exit(flushed ? 0 : 1);
              int status = 0;
              waitpid(child, &status, 0);
              return flushed && WIFEXITED(status) && WEXITSTATUS(status) == 0 ? 0 : 1;
            }));
  // An archive made twice would hold its lines twice.
  std::string dir = root.path("/data/vendor/nfc/");
  std::string text = readFile(log);
  for (const std::string& name : archives(dir)) text += vektest::gunzip(dir + name);
  for (const char* side : {"child ", "parent "}) {
    for (int i = 0; i < 100; ++i)
      EXPECT_EQ(1u, countOf(text, side + std::to_string(i) + " p")) << side << i;
  }
}

// No thread can be started (the process limit of an unprivileged user is 0): the process logs,
// each batch is dropped, so memory stays bounded, a flush fails at once, and exit is normal.
TEST_F(Lifecycle, WriterThatCannotStart) {
  EXPECT_EQ("exit 0", statusOf([] {
              rlimit any;
              getrlimit(RLIMIT_NPROC, &any);
              rlimit none{0, any.rlim_max};
              if (getuid() == 0 && (setgid(65534) != 0 || setuid(65534) != 0)) return 1;
              if (setrlimit(RLIMIT_NPROC, &none) != 0) return 1;
              attach();
              VekLogRecorder* recorder = VekLogRecorder::getInstance();
              std::string line(200, 'w');
              for (int i = 0; i < 2000; ++i) __vek_log_i("T", "%s", line.c_str());
              if (recorder->mBuffer.size() > recorder->mFlushThreshold) return 2;
              bool flushed = recorder->saveLogsToFile(true);
              // LeakSanitizer needs a thread at exit.
              return setrlimit(RLIMIT_NPROC, &any) == 0 && !flushed ? 0 : 1;
            }));
}

// Without its directory at the attachment, the crash tail cannot be made: one warning, logging
// goes on as it would without a tail, and a batch a second later makes it. (First, a message
// that formats empty is dropped before the recorder is made.)
TEST_F(Lifecycle, LoggingGoesOnWithoutACrashTailUntilItCanBeMade) {
  std::string dir = root.path("/data/vendor/nfc");
  ASSERT_EQ(0, rename(dir.c_str(), (dir + "-gone").c_str()));
  EXPECT_EQ("exit 0", statusOf([&dir] {
              vektest::LogCapture& diag = vektest::platformLog();
              __vek_log_e("T", "%s", "");
              if (diag.countStarting("initFeatureLevel") != 0) return 5;
              attach();
              rename((dir + "-gone").c_str(), dir.c_str());
              __vek_log_i("T", "logged all the same");
              if (!vekWaitForWriter(10)) return 1;
              rename(dir.c_str(), (dir + "-gone").c_str());
              sleep(1);
              __vek_log_i("T", "lost with the directory");  // tried again: no second warning
              __vek_save_log_now();
              rename((dir + "-gone").c_str(), dir.c_str());
              sleep(2);
              if (!vekWaitForWriter(10) || tailsIn(dir).empty()) return 3;
              if (diag.countStarting("initFeatureLevel") != 1) return 6;
              return diag.countStarting("Failed to set up crash tail: " + dir + "/.nfc") == 1 ? 0
                                                                                              : 4;
            }));
  EXPECT_EQ(1u, countOf(readFile(log), " T: logged all the same\n"));
}

// Dead processes' lines reach the file without a new process. A running process that attaches
// again appends a dead one's tail that appeared after its writer's last task; it appends the
// lines of a sibling under its name that dies beside it (a forked child, or a restart while the
// old one still dies) within seconds.
TEST_F(Lifecycle, LivingProcessesRecoverTheDeadOnes) {
  std::string dir = root.path("/data/vendor/nfc/");
  std::string aside = root.mRoot + "/aside";
  statusOf([] {
    attach();
    for (int i = 0; i < 20; ++i) __vek_log_i("T", "dead %d", i);
    return raise(SIGKILL);
  });
  std::vector<std::string> tails = tailsIn(dir);
  ASSERT_EQ(1u, tails.size());
  ASSERT_EQ(0, rename((dir + tails[0]).c_str(), aside.c_str()));
  EXPECT_EQ("exit 0", statusOf([&] {
              attach();
              if (!vekWaitForWriter(10) || rename(aside.c_str(), (dir + tails[0]).c_str()))
                return 1;
              attach();
              if (!vekWaitForWriter(10) || countOf(readFile(log), " T: dead ") != 20) return 2;
              int ends[2];
              pid_t old = pipe(ends) == 0 ? fork() : -1;
              if (old == 0) {
                attach();
                for (int i = 0; i < 50; ++i) __vek_log_i("T", "old %d", i);
                _exit(write(ends[1], "r", 1) == 1 ? pause() : 1);
              }
              char ready;
              if (read(ends[0], &ready, 1) != 1) return 3;
              attach();
              kill(old, SIGKILL);
              waitpid(old, nullptr, 0);
              for (int waited = 0; waited < 1000; ++waited, usleep(10000)) {
                if (countOf(readFile(log), " T: old 49\n") == 1) return 0;
              }
              return 4;
            }));
  std::string text = readFile(log);
  for (int i = 0; i < 50; ++i) EXPECT_EQ(1u, countOf(text, " old " + std::to_string(i) + "\n"));
}

// Loggers of both platform layers forward every entry back into the library: its own
// diagnostics and prints come back on the same thread, and nothing may deadlock.
TEST_F(Lifecycle, ForwardingPlatformLoggers) {
  EXPECT_EQ("signal " + std::to_string(SIGABRT), statusOf([] {
              android::base::SetMinimumLogSeverity(android::base::VERBOSE);
              android::base::SetLogger([](android::base::LogId, android::base::LogSeverity,
                                          const char* tag, const char*, unsigned,
                                          const char* text) { __vek_log_w(tag, "%s", text); });
              __android_log_set_logger(
                  [](const __android_logger_data*, const char* text) { VEK_LOG(INFO) << text; });
              attach();
              __vek_log_i("T", "printed once");
              if (!vekWaitForWriter(10)) return 1;
              VEK_LOG(FATAL) << "last words";
              return 2;
            }));
  std::string text = readFile(log);
  EXPECT_EQ(1u, countOf(text, " I T: printed once\n"));
  EXPECT_EQ(1u, countOf(text, "last words\n"));
}

// A kernel log node that never delivers holds the writer in its task; exit does not wait for
// it beyond its bound.
TEST_F(Lifecycle, ExitWithTheWriterStuckInATask) {
  std::string node = root.path("/proc/vekdev/logger");
  ASSERT_EQ(0, mkfifo(node.c_str(), 0600));
  EXPECT_EQ("exit 0", statusOf([node] {
              open(node.c_str(), O_RDWR);  // a writer that never writes: reads block
              VekLogRecorder::getInstance()->attchProcess("nfc_hal_process");
              __vek_log_i("T", "queued behind the node");
              // The flush times out once the writer is inside the task.
              return VekLogRecorder::getInstance()->saveLogsToFile(true) ? 1 : 0;
            }));
}

// How a child dies once it has logged its numbered lines. With mDamage, its tail is damaged
// before the next process attaches.
struct Death {
  const char* mWhat;
  int mLines;
  bool mRecovers;  // false: no tail is left (an exit's destructor discards it, or it is lost)
  bool mHeld;      // the writer is held: what passes the tail's 1 MiB is lost, and said so
  void (*mDie)();
  void (*mDamage)(const std::string& path, vek::TailHeader& header) = nullptr;
  int mProven = 0;    // damaged: the lines a recovery can show to be whole; the file is set aside
  bool mRam = false;  // the device provides a RAM directory for tails: the scratch root on tmpfs
};

void killSelf() { raise(SIGKILL); }

// Every line a log call accepted before the death is in the log file or an archive once, in
// order, after a process attaches under the same name: whatever the moment, no line is lost,
// repeated or cut. Only an exit, whose destructor discards what is pending, recovers nothing.
// Deaths at each step of a rotation or a recovery are powercut_test.cpp's.
TEST_F(Lifecycle, LinesLoggedBeforeADeathReachTheFileOnce) {
  const Death deaths[] = {
      {"kill -9, idle", 50, true, false,
       [] {
         usleep(100000);
         raise(SIGKILL);
       }},
      {"abort, batches queued", 3000, true, false, [] { abort(); }},
      {"SIGSEGV on another thread", 500, true, false,
       [] { std::thread([] { raise(SIGSEGV); }).join(); }},
      {"_exit", 300, true, false, [] { _exit(0); }},
      {"kill -9, the tail in a RAM directory", 50, true, false, killSelf, nullptr, 0, true},
      {"kill -9, the writer held past the tail", 30000, true, true, killSelf},
      {"exit", 50, false, false, [] { exit(0); }},
      // A tail is untrusted: whatever it holds, the next process starts and reads it once.
      {"tail without a target", 20, true, false, killSelf,
       [](auto&, auto& h) { h.mTargetCount = 0; }},
      {"tail with a target of no known process", 20, true, false, killSelf,
       [](auto&, auto& h) { h.mTargets[0].mProcess = -1; }},
      {"tail with more text than its ring", 20, true, false, killSelf,
       [](auto&, auto& h) { h.mHead = h.mTail + vek::kTailCapacity + 1; }},
      {"tail with a batch in flight past its text", 20, true, false, killSelf,
       [](auto&, auto& h) { h.mFlightEnd = h.mHead + 1; }},
      {"tail without its magic", 20, true, false, killSelf,
       [](auto&, auto& h) { h.mMagic[0] = 0; }},
      {"tail cut short", 20, true, false, killSelf,
       [](auto& p, auto&) { truncate(p.c_str(), vek::kTailCapacity / 2); }},
      {"tail with a target from inside its eleventh line", 20, true, false, killSelf,
       [](auto& p, auto& h) {
         std::string ring = readFile(p).substr(vek::kTailHeaderSize);
         size_t at = 0;
         for (int i = 0; i < 10; ++i) at = ring.find('\n', at) + 1;
         h.mTargets[h.mTargetCount++] = {at + 3, 0, 0};
       },
       10},
      {"tail whose recovery began twice", 20, true, false, killSelf,
       [](auto& p, auto&) { rename(p.c_str(), (p + ".2").c_str()); }},
  };

  // Scratch roots on tmpfs where there is one, for the RAM directory of tails (this process only).
  bool tmpfs = access("/dev/shm", W_OK) == 0 && setenv("TMPDIR", "/dev/shm", 1) == 0;
  auto* accepted = static_cast<std::atomic<int>*>(
      mmap(nullptr, sizeof(int), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  for (const Death& death : deaths) {
    vektest::ScratchRoot scratch;
    std::string dir = scratch.path("/data/vendor/nfc/");
    std::string ram = scratch.path("/mnt/vendor/vek/");
    if (death.mRam) vektest::runCommand("mkdir -p '" + ram + "'");
    *accepted = 0;
    statusOf([&death, accepted] {
      attach();
      if (death.mHeld) new vektest::WriterGate(VekLogRecorder::getInstance());
      std::thread([&death, accepted] {
        for (int i = 0; i < death.mLines; ++i) {
          __vek_log_i("T", "line %d", i);
          *accepted = i + 1;
        }
      }).detach();
      while (*accepted < death.mLines) usleep(100);
      death.mDie();
      return 0;
    });
    // A RAM directory that is not on tmpfs is not used.
    EXPECT_EQ(death.mRam && tmpfs, !tailsIn(ram).empty() && tailsIn(dir).empty()) << death.mWhat;
    for (const std::string& name : death.mDamage ? tailsIn(dir) : std::vector<std::string>()) {
      vek::TailImage image;
      int fd = open((dir + name).c_str(), O_RDWR);
      pread(fd, image.mHeader, sizeof(image.mHeader), 0);
      death.mDamage(dir + name, image.header());
      pwrite(fd, image.mHeader, sizeof(image.mHeader), 0);
      close(fd);
    }
    ASSERT_EQ("exit 0", statusOf([] {
                attach();
                return vekWaitForWriter(10) ? 0 : 1;
              }))
        << death.mWhat;
    std::string found;
    for (const std::string& name : archives(dir)) found += vektest::gunzip(dir + name);
    found += readFile(dir + "nfc_process.veklog");
    int next = 0;
    for (size_t at = found.find(" T: line "); at != std::string::npos;
         at = found.find(" T: line ", at + 1)) {
      EXPECT_EQ(next++, atoi(found.c_str() + at + 9)) << death.mWhat;
    }
    // Nothing is left to be read again; a damaged tail is set aside.
    EXPECT_EQ(death.mDamage ? 1u : 0u, tailsIn(dir).size() + tailsIn(ram).size()) << death.mWhat;
    if (death.mHeld) {
      EXPECT_LT(next, *accepted) << death.mWhat;
      EXPECT_EQ(1u, countOf(found, " bytes logged before a death were lost\n")) << death.mWhat;
    } else {
      int recovered = death.mRecovers ? accepted->load() : 0;
      EXPECT_EQ(death.mDamage ? death.mProven : recovered, next) << death.mWhat;
    }
  }
}

}  // namespace
