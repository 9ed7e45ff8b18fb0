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
#include <unistd.h>

#include <functional>

#include "VekLogTestEnv.h"

using vektest::kLimit;
using vektest::readFile;
using vektest::writeFile;

namespace {

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
  // Records text and waits, however long a rotation takes (an emulator), until the writer has
  // run its batch; true when it reached the file.
  bool logAndWait(const std::string& text) {
    recorder->record(4, "Fault", text);
    recorder->saveLogsToFile(false);
    vektest::WriterGate{recorder}.release();
    return inLog(text);
  }
  void TearDown() override { umount2(dir.c_str(), MNT_DETACH); }  // a tmpfs a case mounted

  std::string secret = root.mRoot + "/secret";  // beside the log directories, not in one
};

// Whatever stands at the log file's path, the batch is dropped at once with a diagnostic, never
// written through a link or into a FIFO. A write that fails past the open (file-size limit or a
// full disk) goes unnoticed but by a dump. The next batch lands once the fault clears. Each case
// starts after the last one's log file was deleted, which no batch may still reach.
TEST_F(FaultTest, AppendFailsWhileTheFaultHoldsThenResumes) {
  int fifoReader = -1;
  signal(SIGXFSZ, SIG_IGN);
  rlimit limited{0, RLIM_INFINITY};
  rlimit unlimited{RLIM_INFINITY, RLIM_INFINITY};
  const struct {
    const char* mWhat;
    bool mNoticed;
    std::function<int()> mBreak;
    std::function<int()> mRepair;
  } cases[] = {
      {"directory missing", true,
       [&] { return rename(dir.c_str(), (root.mRoot + "/gone").c_str()); },
       [&] { return rename((root.mRoot + "/gone").c_str(), dir.c_str()); }},
      {"a directory", true, [&] { return mkdir(log.c_str(), 0755); },
       [&] { return rmdir(log.c_str()); }},
      {"a link", true, [&] { return symlink(secret.c_str(), log.c_str()); },
       [&] { return unlink(log.c_str()); }},
      {"a FIFO", true, [&] { return mkfifo(log.c_str(), 0640); },
       [&] { return unlink(log.c_str()); }},
      {"a FIFO with a reader", true,
       [&] {
         mkfifo(log.c_str(), 0640);
         return (fifoReader = open(log.c_str(), O_RDONLY | O_NONBLOCK)) < 0;
       },
       [&] { return close(fifoReader) | unlink(log.c_str()); }},
      {"a file-size limit", false, [&] { return setrlimit(RLIMIT_FSIZE, &limited); },
       [&] { return setrlimit(RLIMIT_FSIZE, &unlimited); }},
  };
  for (const auto& c : cases) {
    ASSERT_EQ(0, c.mBreak()) << c.mWhat;
    long long dropped = vektest::dumpCount(vektest::dumpState(), "dropped batches: ");
    EXPECT_EQ(!c.mNoticed, logAndFlush("while broken")) << c.mWhat;
    // Noticed or not, a dump counts the batch as dropped.
    EXPECT_EQ(dropped + 1, vektest::dumpCount(vektest::dumpState(), "dropped batches: "))
        << c.mWhat;
    EXPECT_EQ(c.mNoticed ? 1 : 0, diag.count(ANDROID_LOG_ERROR, "Failed to append file: " + log))
        << c.mWhat;
    EXPECT_EQ(0, diag.count(ANDROID_LOG_ERROR, "saving logs timeout!"))
        << c.mWhat << ": the writer waited";
    EXPECT_FALSE(recorder->checkLogFileExceed(kLimit + 1)) << c.mWhat << ": nothing archived";
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

  // Truncated by another process between batches: the next batch goes to the new end.
  EXPECT_TRUE(logAndFlush("one"));
  ASSERT_EQ(0, truncate(log.c_str(), 0));
  EXPECT_TRUE(logAndFlush("two"));
  EXPECT_TRUE(inLog("two") && readFile(log).find('\0') == std::string::npos) << "a hole";
}

// Failed rotations keep the log file, leave no cut archive and prune one old archive in all.
// Then a rotation cut by a death (its log file moved aside, its archive a part file) meets the
// full disk: the text moved aside stays, and no rotation may replace it, until space is freed
// and the repair archives it first.
TEST_F(FaultTest, FullDiskDuringRotationsCostsOneArchiveAtMost) {
  if (mount("tmpfs", dir.c_str(), "tmpfs", 0, "size=128k") != 0) GTEST_SKIP() << "needs root";
  for (int i = 0; i < 5; ++i) writeFile(dir + "nfc_process_2000010" + std::to_string(i), "old");
  std::vector<std::string> kept = archives();
  sparseLog(kLimit - 10);
  android::base::unique_fd filler;
  auto fill = [&] {
    filler.reset(open((dir + "filler").c_str(), O_WRONLY | O_CREAT, 0600));
    EXPECT_FALSE(android::base::WriteFully(filler, std::string(1 << 20, 'f').data(), 1 << 20));
  };
  auto free = [&] {
    filler.reset();
    ASSERT_EQ(0, unlink((dir + "filler").c_str()));
  };
  fill();
  for (int attempt = 0; attempt < 3; ++attempt) EXPECT_FALSE(recorder->checkLogFileExceed(100));
  EXPECT_EQ(3, diag.count(ANDROID_LOG_ERROR, "checkLogFileExceed: Failed to compressGzip!"));
  kept.erase(kept.begin());  // the first attempt makes room for its archive
  EXPECT_EQ(kept, archives());

  free();
  std::string old = vektest::logText(20000);
  writeFile(log + ".rotating", old);
  writeFile(dir + ".nfc_process.veklog.gz.part", "");
  fill();
  EXPECT_FALSE(logAndFlush("past the limit"));
  EXPECT_EQ(1, diag.count(ANDROID_LOG_ERROR, "checkLogFileExceed: Failed to repairRotation!"));
  EXPECT_TRUE(old == readFile(log + ".rotating"));
  free();
  EXPECT_TRUE(logAndWait("once freed"));
  std::vector<std::string> made = archives();
  ASSERT_EQ(5u, made.size());
  EXPECT_TRUE(old == vektest::gunzip(dir + made[3])) << "the older text, archived first";
  EXPECT_EQ(std::string(kLimit - 10, '\0'), vektest::gunzip(dir + made[4]));
  EXPECT_FALSE(vektest::exists(log + ".rotating"));
}

// The log directory moved away and made again while the process runs: the writer finds its
// crash tail gone at its next look, and makes one again, with one diagnostic.
TEST_F(FaultTest, CrashTailLostWithItsDirectoryIsMadeAgain) {
  ASSERT_EQ(1u, vektest::tailsIn(dir).size());
  ASSERT_EQ(0, rename(dir.c_str(), (root.mRoot + "/moved").c_str()));
  ASSERT_EQ(0, mkdir(dir.c_str(), 0755));
  recorder->attchProcess("nfc_process");
  EXPECT_TRUE(logAndFlush("after"));
  EXPECT_EQ(1u, vektest::tailsIn(dir).size());
  EXPECT_EQ(1, diag.countStarting("Crash tail was removed or cut, made again: " + dir + ".nfc"));
}

// Entries planted in the directory. A non-empty directory among the archives (unlink fails
// even for root) stops every rotation at pruning until it is removed. Whatever stands at a
// rotation step's own name is removed, or stepped around (a non-empty directory at the part
// file's name): it never stops a rotation, and is never written into.
TEST_F(FaultTest, PlantedEntriesStopRotationsOnlyAsArchives) {
  for (int i = 1; i < 5; ++i) writeFile(dir + "nfc_process_2025010" + std::to_string(i), "x");
  std::string stuck = dir + "nfc_process_20250100";
  ASSERT_EQ(0, mkdir(stuck.c_str(), 0755));
  writeFile(stuck + "/keep", "x");
  std::string part = dir + ".nfc_process.veklog.gz.part";
  ASSERT_EQ(0, mkdir(part.c_str(), 0755));
  writeFile(part + "/keep", "someone else's");
  ASSERT_EQ(0, mkfifo((log + ".rotating").c_str(), 0600));
  sparseLog(kLimit - 4096);

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
  EXPECT_TRUE(logAndWait(std::string(5000, 'r')));
  EXPECT_FALSE(inLog("fits under the limit")) << "rotated";
  EXPECT_NE(std::string::npos,
            vektest::gunzip(dir + archives().back()).find("Fault: fits under the limit\n"));
  EXPECT_EQ("someone else's", readFile(part + "/keep"));
  EXPECT_FALSE(vektest::exists(log + ".rotating"));
}

}  // namespace
