// Faults of the storage around the library, each while it holds and after it clears: the host
// keeps running, never waits past the flush time-out, logs again once the fault is gone, and
// nothing outside the log directory (shared with another process) is read or written.
#include <android-base/file.h>
#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <functional>
#include <map>

#include "VekLogTestEnv.h"

using vektest::readFile;
using vektest::writeFile;

namespace {

constexpr off_t kLimit = 15L * 1024 * 1024;

struct FaultTest : vektest::NfcProcessTest {
  void SetUp() override {
    NfcProcessTest::SetUp();
    writeFile(secret, "private\n");
    ASSERT_EQ(0, chmod(secret.c_str(), 0600));
  }
  // Records text and flushes it; true when it reached the file.
  bool logAndFlush(const std::string& text) {
    recorder->record(4, "Fault", text);
    return recorder->saveLogsToFile(true);
  }
  bool inLog(const std::string& text) {
    return readFile(log).find("Fault: " + text + "\n") != std::string::npos;
  }
  // This process's archives by name, with their content (a link reads as empty).
  std::map<std::string, std::string> archives() {
    std::map<std::string, std::string> found;
    for (const std::string& name : vektest::listDir(dir)) {
      if (name.rfind("nfc_process_", 0) == 0) found[name] = readFile(dir + name);
    }
    return found;
  }
  // A log file just under the limit that takes no space; returns its text.
  std::string sparseLog() {
    writeFile(log, "head\n");
    EXPECT_EQ(0, truncate(log.c_str(), kLimit - 10));
    return "head\n" + std::string(kLimit - 15, '\0');
  }
  // Mounts a small tmpfs on the log directory for the test's length; false without root.
  bool smallFileSystem(const char* size) {
    if (mount("tmpfs", dir.c_str(), "tmpfs", 0, size) != 0) return false;
    mounted.reset(&dir);
    return true;
  }

  std::string secret = root.mRoot + "/secret";  // beside the log directories, not in one
  std::unique_ptr<const std::string, void (*)(const std::string*)> mounted{
      nullptr, [](const std::string* path) { umount2(path->c_str(), MNT_DETACH); }};
};

// Whatever stands at the log file's path, the batch is dropped at once with a diagnostic, never
// written through a link or into a FIFO, and the next batch lands once a regular file can be.
TEST_F(FaultTest, LogFileCannotBeOpenedThenCan) {
  int fifoReader = -1;
  const struct {
    const char* mWhat;
    std::function<int()> mBreak;
    std::function<int()> mRepair;
  } cases[] = {
      {"directory missing", [&] { return rmdir(dir.c_str()); },
       [&] { return mkdir(dir.c_str(), 0755); }},
      {"a directory", [&] { return mkdir(log.c_str(), 0755); }, [&] { return rmdir(log.c_str()); }},
      {"a link", [&] { return symlink(secret.c_str(), log.c_str()); },
       [&] { return unlink(log.c_str()); }},
      {"a FIFO", [&] { return mkfifo(log.c_str(), 0640); }, [&] { return unlink(log.c_str()); }},
      {"a FIFO with a reader",
       [&] {
         mkfifo(log.c_str(), 0640);
         return (fifoReader = open(log.c_str(), O_RDONLY | O_NONBLOCK)) < 0;
       },
       [&] { return close(fifoReader) | unlink(log.c_str()); }},
  };
  for (const auto& c : cases) {
    ASSERT_EQ(0, c.mBreak()) << c.mWhat;
    EXPECT_FALSE(logAndFlush("while broken")) << c.mWhat;
    EXPECT_EQ(1, diag.count(ANDROID_LOG_ERROR, "Failed to append file: " + log)) << c.mWhat;
    EXPECT_EQ(0, diag.countPrefix("saving logs timeout!")) << c.mWhat << ": the writer waited";
    EXPECT_FALSE(recorder->checkLogFileExceed(kLimit + 1)) << c.mWhat << " is no log to archive";
    ASSERT_EQ(0, c.mRepair()) << c.mWhat;
    EXPECT_TRUE(logAndFlush("once repaired"));
    EXPECT_TRUE(inLog("once repaired") && !inLog("while broken")) << c.mWhat;
    struct stat st;
    ASSERT_EQ(0, stat(log.c_str(), &st));
    EXPECT_EQ(0640u, st.st_mode & 0777);
    unlink(log.c_str());
    diag.clear();
  }
  EXPECT_EQ("private\n", readFile(secret));
  EXPECT_TRUE(archives().empty());
}

// Entries at the names of this second and the next three, older archives as a clock set back
// leaves them or links to a private file: the rotation never writes over one.
TEST_F(FaultTest, RotationNeverWritesOverATakenArchiveName) {
  for (bool links : {false, true}) {
    for (const auto& archive : archives()) unlink((dir + archive.first).c_str());
    time_t start = time(nullptr);
    for (time_t t = start; t < start + 4; ++t) {
      tm local;
      char stamp[32];
      strftime(stamp, sizeof(stamp), "%Y%m%d_%H%M%S", localtime_r(&t, &local));
      std::string path = dir + "nfc_process_" + stamp + ".gz";
      if (links) {
        ASSERT_EQ(0, symlink(secret.c_str(), path.c_str()));
      } else {
        writeFile(path, stamp);
      }
    }
    std::map<std::string, std::string> planted = archives();
    std::string text = sparseLog();
    ASSERT_TRUE(recorder->checkLogFileExceed(100)) << links;
    bool inWindow = time(nullptr) <= start + 3;
    std::map<std::string, std::string> now = archives();
    auto made = std::find_if(now.begin(), now.end(),
                             [&](const auto& a) { return !planted.count(a.first); });
    ASSERT_NE(now.end(), made);
    EXPECT_EQ(text, vektest::gunzip(dir + made->first));
    // Within the planted seconds the name was taken: "_1" is added, which sorts right after it.
    std::string taken = made == now.begin() ? ".gz" : std::prev(made)->first;
    EXPECT_TRUE(!inWindow || taken.substr(0, taken.size() - 3) + "_1.gz" == made->first);
    now.erase(made);
    EXPECT_EQ(planted, now);
  }
  writeFile(dir + "in", "log text\n");
  std::string outside = root.mRoot + "/created";
  for (const std::string& target : {secret, outside}) {
    std::string out = dir + "link.gz";
    ASSERT_EQ(0, symlink(target.c_str(), out.c_str()));
    EXPECT_FALSE(recorder->compressGzip(dir + "in", out));
    EXPECT_EQ(1,
              diag.count(ANDROID_LOG_ERROR, "compressGzip: Failed to open outFile file: " + out));
    unlink(out.c_str());
    diag.clear();
  }
  EXPECT_EQ("private\n", readFile(secret));
  EXPECT_FALSE(vektest::exists(outside));
}

// The append's write fails after its open, which goes unnoticed; the next batch after space is
// freed lands.
TEST_F(FaultTest, FullFileSystemThenSpaceFreed) {
  if (!smallFileSystem("size=64k")) GTEST_SKIP() << "cannot mount a small tmpfs (needs root)";
  writeFile(dir + "filler", std::string(64UL * 1024, 'f'));
  logAndFlush("while full");
  EXPECT_FALSE(inLog("while full"));
  ASSERT_EQ(0, unlink((dir + "filler").c_str()));
  EXPECT_TRUE(logAndFlush("after freeing"));
  EXPECT_TRUE(inLog("after freeing"));
}

// Failed rotations keep the log file, leave no cut archive and prune one old archive in all.
TEST_F(FaultTest, FullDiskDuringRotationsCostsOneArchiveAtMost) {
  if (!smallFileSystem("size=128k")) GTEST_SKIP() << "cannot mount a small tmpfs (needs root)";
  for (int i = 0; i < 5; ++i) writeFile(dir + "nfc_process_2000010" + std::to_string(i), "old");
  std::map<std::string, std::string> kept = archives();
  std::string text = sparseLog();
  android::base::unique_fd filler(open((dir + "filler").c_str(), O_WRONLY | O_CREAT, 0600));
  EXPECT_FALSE(android::base::WriteFully(filler, std::string(1 << 20, 'f').data(), 1 << 20));

  for (int attempt = 0; attempt < 3; ++attempt) EXPECT_FALSE(recorder->checkLogFileExceed(100));
  EXPECT_EQ(3, diag.count(ANDROID_LOG_ERROR, "checkLogFileExceed: Failed to compressGzip!"));
  kept.erase(kept.begin());  // the first attempt makes room for its archive
  EXPECT_EQ(kept, archives());
  filler.reset();
  ASSERT_EQ(0, unlink((dir + "filler").c_str()));
  EXPECT_TRUE(recorder->checkLogFileExceed(100));
  ASSERT_EQ(5u, archives().size());
  EXPECT_EQ(text, vektest::gunzip(dir + archives().rbegin()->first));
}

TEST_F(FaultTest, FileSizeLimitThenRaised) {
  signal(SIGXFSZ, SIG_IGN);
  rlimit limit{4096, RLIM_INFINITY};
  ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &limit));
  logAndFlush(std::string(8000, 'x'));
  EXPECT_EQ(4096u, readFile(log).size()) << "the write stops at the limit";
  limit.rlim_cur = RLIM_INFINITY;
  ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &limit));
  EXPECT_TRUE(logAndFlush("after raising"));
  EXPECT_TRUE(inLog("after raising"));
}

// A non-empty directory among the archives: unlink fails even for root, and stops pruning.
TEST_F(FaultTest, UndeletableArchiveFailsEveryRotationUntilRemoved) {
  for (int i = 1; i < 5; ++i) writeFile(dir + "nfc_process_2025010" + std::to_string(i), "x");
  std::string stuck = dir + "nfc_process_20250100";
  ASSERT_EQ(0, mkdir(stuck.c_str(), 0755));
  writeFile(stuck + "/keep", "x");
  writeFile(log, "");
  ASSERT_EQ(0, truncate(log.c_str(), kLimit - 4096));

  EXPECT_TRUE(logAndFlush("fits under the limit"));
  EXPECT_FALSE(logAndFlush(std::string(5000, 'o')));
  EXPECT_FALSE(logAndFlush(std::string(5000, 'o')));
  EXPECT_EQ(2, diag.count(ANDROID_LOG_ERROR,
                          "manageCompressFiles: Failed to delete old log file: " + dir +
                              "/nfc_process_20250100"));
  EXPECT_EQ(2, diag.count(ANDROID_LOG_ERROR, "checkLogFileExceed: Failed to manageCompressFiles!"));
  EXPECT_EQ(2, diag.count(ANDROID_LOG_ERROR, "check log file excedd failed!"));
  EXPECT_EQ(5u, archives().size()) << "nothing after the failing entry is deleted";
  EXPECT_TRUE(inLog("fits under the limit"));

  ASSERT_EQ(0, unlink((stuck + "/keep").c_str()));
  ASSERT_EQ(0, rmdir(stuck.c_str()));
  EXPECT_TRUE(logAndFlush(std::string(5000, 'r')));
  EXPECT_FALSE(inLog("fits under the limit")) << "rotated";
}

TEST_F(FaultTest, HugeKernelLogIsAppendedWhole) {
  recorder->attchProcess("nfc_hal_process");
  log = dir + "nfc_hal_process.veklog";
  std::string klog = vektest::logText(24UL * 1024 * 1024);
  writeFile(root.path("/proc/vekdev/logger"), klog);
  writeFile(log, "earlier\n");
  EXPECT_TRUE(logAndFlush("with a huge kernel log"));
  std::string text = readFile(log);
  EXPECT_TRUE(text.size() > klog.size() &&
              text.compare(text.size() - klog.size(), klog.size(), klog) == 0);
  EXPECT_EQ(std::string::npos, text.find("earlier\n")) << "the earlier file was archived first";
}

TEST_F(FaultTest, LogFileDeletedOrTruncatedBetweenBatches) {
  EXPECT_TRUE(logAndFlush("one"));
  ASSERT_EQ(0, unlink(log.c_str()));
  EXPECT_TRUE(logAndFlush("two"));
  EXPECT_TRUE(inLog("two") && !inLog("one"));
  ASSERT_EQ(0, truncate(log.c_str(), 0));
  EXPECT_TRUE(logAndFlush("three"));
  std::string text = readFile(log);
  EXPECT_EQ(1, std::count(text.begin(), text.end(), '\n'));
}

}  // namespace
