// Storage on the writer thread: gzip archives, retention, rotation and write tasks, all on real
// files in a scratch root.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "VekLogTestEnv.h"

using vektest::exists;
using vektest::kLimit;
using vektest::readFile;
using vektest::writeFile;

namespace {

struct StorageTest : vektest::NfcProcessTest {
  std::string archive(int day) { return "nfc_process_202501" + std::to_string(10 + day) + ".gz"; }
  // Queues a write task; taking mMutex while the writer runs the gate task shows that tasks
  // run unlocked.
  bool send(const std::string& text) {
    std::lock_guard<std::mutex> lock(recorder->mMutex);
    return recorder->sendBuffToWorker(std::vector<char>(text.begin(), text.end()), nullptr);
  }
  void drain() { vektest::WriterGate{recorder}.release(); }
  void makeArchives(int count) {
    for (int day = count - 1; day >= 0; --day) writeFile(dir + archive(day), "x");
  }
};

TEST_F(StorageTest, GzipRoundTripsThroughTheGzipProgram) {
  for (size_t size : {0UL, 1UL, 1024UL * 1024, 5UL * 1024 * 1024 + 17}) {
    std::string text = vektest::logText(size);
    writeFile(dir + "in", text);
    writeFile(dir + "out.gz", "an older archive, longer than an empty member's gzip file");
    ASSERT_TRUE(recorder->compressGzip(dir + "in", dir + "out.gz")) << size;
    EXPECT_EQ(text, vektest::gunzip(dir + "out.gz")) << size;
    EXPECT_EQ(std::string("\x1f\x8b\x08\0\0\0\0\0", 8), readFile(dir + "out.gz").substr(0, 8))
        << "no name, time 0";
  }
  ASSERT_TRUE(recorder->compressGzip(dir + "in", dir + "new.gz"));
  struct stat st;
  ASSERT_EQ(0, stat((dir + "new.gz").c_str(), &st));
  EXPECT_EQ(0640u, st.st_mode & 0777) << "never world-readable";
  // A directory as the input opens, and fails at its first read: the output is left empty.
  EXPECT_FALSE(recorder->compressGzip(dir, dir + "new.gz"));
  EXPECT_EQ(1, diag.count(ANDROID_LOG_ERROR, "compressGzip: Error reading input file."));
  EXPECT_EQ("", readFile(dir + "new.gz"));
}

// While five or more remain, the oldest by name goes: digits before letters, this process's
// archives only, never its active log.
TEST_F(StorageTest, RetentionKeepsTheFourNewestOfThisProcessOnly) {
  writeFile(dir + "nfc_hal_process_20240101_000000.gz", "another process's");
  writeFile(log, "active");
  writeFile(dir + "nfc_process_x", "x");
  makeArchives(6);
  EXPECT_TRUE(recorder->manageCompressFiles());
  EXPECT_EQ((std::vector<std::string>{archive(3), archive(4), archive(5), "nfc_process_x"}),
            archives());
  EXPECT_TRUE(exists(dir + "nfc_hal_process_20240101_000000.gz") && exists(log));
  EXPECT_TRUE(recorder->manageCompressFiles()) << "four remain: nothing to delete";
  EXPECT_EQ(4u, archives().size());

  recorder->mLogDir = root.path("/data/vendor/none/");
  EXPECT_FALSE(recorder->manageCompressFiles());
  EXPECT_EQ(1, diag.count(ANDROID_LOG_ERROR,
                          "manageCompressFiles: opendir " + recorder->mLogDir + " failed."));
}

// Archives are named in local time: the zone is set to one the machine is unlikely to have.
TEST_F(StorageTest, RotatesAboveTheLimitKeepingFiveArchives) {
  sparseLog(kLimit - 10);
  EXPECT_TRUE(recorder->checkLogFileExceed(10)) << "exactly at the limit";
  EXPECT_TRUE(archives().empty());
  makeArchives(6);
  setenv("TZ", "JST-9", 1);
  tzset();
  time_t before = time(nullptr);
  auto madeSinceBefore = [before](const std::string& name) {
    bool found = false;
    for (time_t t = before; t <= time(nullptr); ++t) {
      time_t japan = t + static_cast<time_t>(9 * 3600);
      tm broken;
      char stamp[64];
      strftime(stamp, sizeof(stamp), "nfc_process_%Y%m%d_%H%M%S.gz", gmtime_r(&japan, &broken));
      found |= name == stamp;
    }
    return found;
  };
  EXPECT_TRUE(recorder->checkLogFileExceed(11));
  std::vector<std::string> kept = archives();
  ASSERT_EQ(5u, kept.size()) << "two pruned, one made";
  EXPECT_EQ(archive(2), kept[0]);
  EXPECT_TRUE(madeSinceBefore(kept[4])) << kept[4];
  EXPECT_TRUE(madeSinceBefore(recorder->getCompressedLogFile().substr(dir.size() + 1)));
  EXPECT_FALSE(exists(log));
  EXPECT_EQ(std::string(kLimit - 10, '\0'), vektest::gunzip(dir + kept[4]));

  // Another rotation: within the same second it replaces the archive just made.
  auto rotate = [&](const std::string& text) {
    writeFile(log, text);
    ASSERT_EQ(0, truncate(log.c_str(), kLimit - 10));
    EXPECT_TRUE(recorder->checkLogFileExceed(11));
  };
  time_t second = time(nullptr);  // the second the archive is named for, when it stays that
  rotate("second\n");
  bool named = time(nullptr) == second;
  if (time(nullptr) == before) {
    EXPECT_EQ((std::vector<std::string>{archive(3), archive(4), archive(5), kept[4]}), archives());
  }
  std::string last = archives().back();
  EXPECT_EQ("second\n", vektest::gunzip(dir + last).substr(0, 7));
  // Seconds later, with the zone set back onto that name: the archive stays, the new one is _1.
  time_t now;
  while ((now = time(nullptr)) == second) usleep(10000);
  int east = 9 * 3600 - static_cast<int>(now - second);
  char zone[32];
  snprintf(zone, sizeof(zone), "VEK-%d:%02d:%02d", east / 3600, east / 60 % 60, east % 60);
  setenv("TZ", zone, 1);
  tzset();
  rotate("third\n");
  if (named && time(nullptr) == now) {
    EXPECT_EQ(last.substr(0, last.size() - 3) + "_1.gz", archives().back());
  }
  EXPECT_EQ("second\n", vektest::gunzip(dir + last).substr(0, 7));

  EXPECT_FALSE(recorder->checkLogFileExceed(kLimit + 1)) << "no log file to compress";
  EXPECT_EQ(1, diag.count(ANDROID_LOG_ERROR, "compressGzip: Failed to open input file: " + log));
  EXPECT_EQ(1, diag.count(ANDROID_LOG_ERROR, "checkLogFileExceed: Failed to compressGzip!"));
  EXPECT_EQ(4u, archives().size()) << "a failed rotation leaves no archive";
}

// A rotation cut by a death, completed at an attachment beside a new log file: its text becomes
// an archive of its own, pruned for as a rotation's, never in place of this process's last.
TEST_F(StorageTest, RepairAtAttachmentPrunesAndReplacesNoArchive) {
  makeArchives(4);
  sparseLog(kLimit - 10);
  ASSERT_TRUE(recorder->checkLogFileExceed(11));
  std::string last = archives().back();  // this process's, made this second
  writeFile(log + ".rotating", "cut short\n");
  writeFile(dir + ".nfc_process.veklog.gz.part", "");
  writeFile(log, "new\n");
  recorder->attchProcess("nfc_process");
  drain();
  std::vector<std::string> kept = archives();
  ASSERT_EQ(5u, kept.size());
  EXPECT_EQ(archive(1), kept[0]) << "the oldest pruned";
  EXPECT_EQ(kLimit - 10, static_cast<off_t>(vektest::gunzip(dir + last).size()));
  EXPECT_EQ("cut short\n", vektest::gunzip(dir + kept.back()));
  EXPECT_EQ("new\n", readFile(log));
}

// Tasks run in queue order with mMutex free, each for the attachment it was queued under; the
// NFC HAL process's append the kernel log after their batch, whatever its size.
TEST_F(StorageTest, WriteTasksAppendTheKernelLogInTheHalProcessOnly) {
  std::string node = root.path("/proc/vekdev/logger");
  std::string klog = vektest::logText(3 * 3072 + 100);
  klog[5] = klog[3072] = '\0';
  writeFile(node, klog);
  const std::string names[] = {"nfc_process", "se_process", "se_hal_process", "nfc_hal_process"};
  vektest::WriterGate gate(recorder);
  for (const std::string& name : names) {
    recorder->attchProcess(name);
    send(name + " 1\n");
    send(name + " 2\n");
  }
  EXPECT_EQ(8u, recorder->mTasks.size());
  gate.release();
  drain();
  std::string expected;
  for (const std::string& name : names) {
    std::string sub = name[0] == 'n' ? "nfc/" : "secure_element/";
    std::string klogs = name == "nfc_hal_process" ? klog : "";
    expected = name + " 1\n" + klogs + name + " 2\n" + klogs;
    EXPECT_EQ(expected, readFile(root.path("/data/vendor/" + sub + name + ".veklog")));
  }
  unlink(node.c_str());
  send("last\n");
  drain();
  EXPECT_EQ(expected + "last\nError: Unable to open klog file at /proc/vekdev/logger\n",
            readFile(dir + "nfc_hal_process.veklog"));
  // A kernel log of tens of MiB: the file so far is archived, then the log is appended whole.
  std::string huge = vektest::logText(24UL * 1024 * 1024);
  writeFile(node, huge);
  send("huge\n");
  drain();
  EXPECT_TRUE(readFile(dir + "nfc_hal_process.veklog") == "huge\n" + huge);
  EXPECT_FALSE(send("")) << "an empty batch";
  EXPECT_TRUE(recorder->mTasks.empty());
}

}  // namespace
