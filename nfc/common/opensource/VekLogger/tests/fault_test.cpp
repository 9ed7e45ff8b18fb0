// Faults of the storage around the library, each while it holds and after it clears: the host
// keeps running, never waits past the flush time-out, and logs again once the fault is gone.
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>

#include "VekLogTestEnv.h"

using vektest::readFile;
using vektest::writeFile;

namespace {

constexpr off_t kLimit = 15L * 1024 * 1024;

struct FaultTest : vektest::NfcProcessTest {
  // Records text and flushes it; the flush is bounded by its time-out whatever the fault.
  bool logAndFlush(const std::string& text) {
    recorder->record(4, "Fault", text);
    auto start = std::chrono::steady_clock::now();
    bool written = recorder->saveLogsToFile(true);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5)) << text;
    return written;
  }
  bool inLog(const std::string& text) {
    return readFile(log).find("Fault: " + text + "\n") != std::string::npos;
  }
};

// A missing directory, or a directory where the log file should be: each batch is dropped
// with a diagnostic, and logging resumes once the fault is gone.
TEST_F(FaultTest, LogFileCannotBeOpenedThenCan) {
  const struct {
    std::string mBroken;
    bool mIsLogDir;
  } cases[] = {{dir, true}, {log, false}};
  for (const auto& c : cases) {
    ASSERT_EQ(0, c.mIsLogDir ? rmdir(c.mBroken.c_str()) : mkdir(c.mBroken.c_str(), 0755));
    EXPECT_FALSE(logAndFlush("while broken"));
    EXPECT_EQ(1, diag.count(ANDROID_LOG_ERROR, "Failed to append file: " + log));
    ASSERT_EQ(0, c.mIsLogDir ? mkdir(c.mBroken.c_str(), 0755) : rmdir(c.mBroken.c_str()));
    EXPECT_TRUE(logAndFlush("once repaired"));
    EXPECT_TRUE(inLog("once repaired") && !inLog("while broken")) << "dropped, not retried";
    struct stat st;
    ASSERT_EQ(0, stat(log.c_str(), &st));
    EXPECT_EQ(0640u, st.st_mode & 0777);
    unlink(log.c_str());
    diag.clear();
  }
  EXPECT_EQ(0, diag.countPrefix("saving logs timeout!"));
}

// tmpfs needs root; the file-size limit below covers a write that stops short anywhere.
TEST_F(FaultTest, FullFileSystemThenSpaceFreed) {
  if (mount("tmpfs", dir.c_str(), "tmpfs", 0, "size=64k") != 0) {
    GTEST_SKIP() << "cannot mount a small tmpfs here (needs root): " << strerror(errno);
  }
  std::string filler = dir + "filler";
  writeFile(filler, std::string(64UL * 1024, 'f'));
  logAndFlush("while full");  // the write fails after the open, which goes unnoticed
  EXPECT_FALSE(inLog("while full"));
  ASSERT_EQ(0, unlink(filler.c_str()));
  EXPECT_TRUE(logAndFlush("after freeing"));
  EXPECT_TRUE(inLog("after freeing"));
  umount2(dir.c_str(), MNT_DETACH);
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

TEST_F(FaultTest, UndeletableArchiveFailsEveryRotationUntilRemoved) {
  for (int i = 1; i < 5; ++i)
    writeFile(dir + "nfc_process_2025010" + std::to_string(i) + ".gz", "x");
  std::string stuck = dir + "nfc_process_20250100.gz";
  ASSERT_EQ(0, mkdir(stuck.c_str(), 0755));
  writeFile(stuck + "/keep", "a non-empty directory: unlink fails even for root");
  writeFile(log, "");
  ASSERT_EQ(0, truncate(log.c_str(), kLimit - 4096));

  EXPECT_TRUE(logAndFlush("fits under the limit"));
  EXPECT_FALSE(logAndFlush(std::string(5000, 'o')));
  EXPECT_FALSE(logAndFlush(std::string(5000, 'o')));
  EXPECT_EQ(2, diag.count(ANDROID_LOG_ERROR, "checkLogFileExceed: Failed to manageCompressFiles!"));
  EXPECT_EQ(2, diag.count(ANDROID_LOG_ERROR, "check log file excedd failed!"));
  EXPECT_TRUE(inLog("fits under the limit"));

  unlink((stuck + "/keep").c_str());
  rmdir(stuck.c_str());
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
