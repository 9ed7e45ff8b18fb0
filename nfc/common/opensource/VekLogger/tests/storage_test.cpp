// Storage on the writer thread: gzip archives, retention, rotation and write tasks, all on real
// files in a scratch root.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "VekLogTestEnv.h"

using android::base::ERROR;
using android::base::INFO;
using android::base::WARNING;
using vektest::exists;
using vektest::listDir;
using vektest::readFile;
using vektest::writeFile;

namespace {

constexpr off_t kLimit = 15L * 1024 * 1024;

struct StorageTest : vektest::NfcProcessTest {
  // A log file of size bytes that takes no space: the limit is reached without writing it.
  void sparseLog(off_t size) {
    writeFile(log, "");
    ASSERT_EQ(0, truncate(log.c_str(), size));
  }
  std::string archives() {
    std::string names;
    for (const std::string& name : listDir(dir)) {
      if (name.rfind("nfc_process_", 0) == 0) names += name + " ";
    }
    return names;
  }
};

TEST_F(StorageTest, GzipRoundTripsThroughTheGzipProgram) {
  const size_t sizes[] = {0, 1, 1024UL * 1024, 5UL * 1024 * 1024 + 17};
  for (size_t size : sizes) {
    std::string text = vektest::logText(size);
    writeFile(dir + "in", text);
    writeFile(dir + "out.gz", "an older archive, longer than an empty member's gzip file");
    ASSERT_TRUE(recorder->compressGzip(dir + "in", dir + "out.gz")) << size;
    EXPECT_EQ(text, vektest::gunzip(dir + "out.gz")) << size;
    EXPECT_EQ(text, readFile(dir + "in")) << "input unchanged";
    std::string gz = readFile(dir + "out.gz");
    ASSERT_GE(gz.size(), 10u);
    EXPECT_EQ(0, gz[3]) << "no name, no comment, no extra field";
    EXPECT_EQ(std::string(4, '\0'), gz.substr(4, 4)) << "modification time 0";
  }
  ASSERT_TRUE(recorder->compressGzip(dir + "in", dir + "new.gz"));
  EXPECT_EQ(0, system(("gzip -t " + dir + "new.gz").c_str()));
  struct stat st;
  ASSERT_EQ(0, stat((dir + "new.gz").c_str(), &st));
  EXPECT_EQ(0640u, st.st_mode & 0777) << "never world-readable";
}

TEST_F(StorageTest, GzipFailuresNameTheFileAndLeaveInputAlone) {
  EXPECT_FALSE(recorder->compressGzip(dir + "missing", dir + "out.gz"));
  EXPECT_EQ(1, diag.count(ERROR, "compressGzip: Failed to open input file: " + dir + "missing"));
  EXPECT_FALSE(exists(dir + "out.gz"));

  writeFile(dir + "in", "text");
  EXPECT_FALSE(recorder->compressGzip(dir + "in", dir + "nodir/out.gz"));
  EXPECT_EQ(
      1, diag.count(ERROR, "compressGzip: Failed to open outFile file: " + dir + "nodir/out.gz"));
  EXPECT_EQ("text", readFile(dir + "in"));

  ASSERT_EQ(0, mkdir((dir + "indir").c_str(), 0755));
  EXPECT_FALSE(recorder->compressGzip(dir + "indir", dir + "out.gz"));
  EXPECT_EQ(1, diag.count(ERROR, "compressGzip: Error reading input file."));
}

TEST_F(StorageTest, RetentionKeepsTheFourNewestOfThisProcessOnly) {
  struct Case {
    int mArchives;
    int mDeleted;
  };
  const Case cases[] = {{0, 0}, {4, 0}, {5, 1}, {7, 3}};
  for (const Case& c : cases) {
    for (const std::string& name : listDir(dir)) unlink((dir + name).c_str());
    // Written newest first, so directory order is not age order.
    for (int i = c.mArchives - 1; i >= 0; --i) {
      writeFile(dir + "nfc_process_2025010" + std::to_string(i) + "_080000.gz", "x");
    }
    writeFile(dir + "nfc_hal_process_20240101_080000.gz", "other process");
    writeFile(log, "active");
    int deletedBefore = diag.countPrefix("manageCompressFiles: Deleted old log file: ");
    EXPECT_TRUE(recorder->manageCompressFiles()) << c.mArchives;
    EXPECT_EQ(c.mDeleted,
              diag.countPrefix("manageCompressFiles: Deleted old log file: ") - deletedBefore);
    for (int i = 0; i < c.mArchives; ++i) {
      std::string name = "nfc_process_2025010" + std::to_string(i) + "_080000.gz";
      EXPECT_EQ(i >= c.mDeleted, exists(dir + name)) << name;
    }
    EXPECT_TRUE(exists(dir + "nfc_hal_process_20240101_080000.gz"));
    EXPECT_TRUE(exists(log));
  }
  EXPECT_EQ(1, diag.count(INFO, "manageCompressFiles: Deleted old log file: " + dir +
                                    "/nfc_process_20250102_080000.gz"));
}

TEST_F(StorageTest, RetentionSortsLettersLastAndStopsAtAnUndeletableEntry) {
  for (const char* name :
       {"nfc_process_x", "nfc_process_20250102_000000.gz", "nfc_process_20250103_000000.gz",
        "nfc_process_20250104_000000.gz", "nfc_process_20250105_000000.gz"}) {
    writeFile(dir + name, "x");
  }
  ASSERT_EQ(0, mkdir((dir + "nfc_process_20250101_000000.gz").c_str(), 0755));
  writeFile(dir + "nfc_process_20250101_000000.gz/keep", "a directory that unlink refuses");
  EXPECT_FALSE(recorder->manageCompressFiles());
  EXPECT_EQ(1, diag.count(ERROR, "manageCompressFiles: Failed to delete old log file: " + dir +
                                     "/nfc_process_20250101_000000.gz"));
  EXPECT_EQ(6u, listDir(dir).size()) << "nothing after the failing entry is deleted";

  unlink((dir + "nfc_process_20250101_000000.gz/keep").c_str());
  rmdir((dir + "nfc_process_20250101_000000.gz").c_str());
  EXPECT_TRUE(recorder->manageCompressFiles());
  EXPECT_EQ(
      "nfc_process_20250103_000000.gz nfc_process_20250104_000000.gz "
      "nfc_process_20250105_000000.gz nfc_process_x ",
      archives());

  recorder->mLogDir = root.path("/data/vendor/none/");
  EXPECT_FALSE(recorder->manageCompressFiles());
  EXPECT_EQ(1, diag.count(ERROR, "manageCompressFiles: opendir " + recorder->mLogDir + " failed."));
}

TEST_F(StorageTest, ArchiveNameCarriesTheLocalTime) {
  setenv("TZ", "JST-9", 1);
  tzset();
  time_t before = time(nullptr);
  std::string path = recorder->getCompressedLogFile();
  time_t after = time(nullptr);
  std::vector<std::string> expected;
  for (time_t t = before; t <= after; ++t) {
    time_t japan = t + 9L * 3600;
    tm broken;
    char stamp[32];
    strftime(stamp, sizeof(stamp), "%Y%m%d_%H%M%S", gmtime_r(&japan, &broken));
    expected.push_back(dir + "/nfc_process_" + stamp + ".gz");
  }
  EXPECT_NE(expected.end(), std::find(expected.begin(), expected.end(), path)) << path;
}

TEST_F(StorageTest, RotatesOnlyAboveTheLimit) {
  sparseLog(kLimit - 10);
  EXPECT_TRUE(recorder->checkLogFileExceed(10));
  EXPECT_EQ(kLimit - 10, static_cast<off_t>(readFile(log).size()));
  EXPECT_EQ("", archives());
  EXPECT_EQ(0, diag.countPrefix("fileSize is full: "));

  for (int i = 0; i < 6; ++i) {
    writeFile(dir + "nfc_process_2025010" + std::to_string(i) + "_000000.gz", "old");
  }
  for (int rotation = 0; rotation < 2; ++rotation) {
    sparseLog(kLimit - 10);
    EXPECT_TRUE(recorder->checkLogFileExceed(11));
    EXPECT_FALSE(exists(log));
    std::vector<std::string> left;
    for (const std::string& name : listDir(dir)) {
      if (name.rfind("nfc_process_", 0) == 0) left.push_back(name);
    }
    // Two rotations in one second share a name, so the second may replace the first.
    EXPECT_LE(left.size(), 5u);
    EXPECT_GE(left.size(), 4u);
    EXPECT_EQ(std::string(kLimit - 10, '\0'), vektest::gunzip(dir + left.back()));
  }
  EXPECT_EQ(2, diag.count(INFO, "fileSize is full: " + std::to_string(kLimit + 1)));
  EXPECT_FALSE(exists(dir + "nfc_process_20250102_000000.gz"));
  EXPECT_TRUE(exists(dir + "nfc_process_20250103_000000.gz"));
}

TEST_F(StorageTest, FailedRotationKeepsTheLogFile) {
  EXPECT_FALSE(recorder->checkLogFileExceed(kLimit + 1)) << "no log file to compress";
  EXPECT_EQ(1, diag.count(ERROR, "compressGzip: Failed to open input file: " + log));
  EXPECT_EQ(1, diag.count(ERROR, "checkLogFileExceed: Failed to compressGzip!"));

  writeFile(log, "kept");
  for (int i = 0; i < 5; ++i) {
    ASSERT_EQ(
        0, mkdir((dir + "nfc_process_2025010" + std::to_string(i) + "_000000.gz").c_str(), 0755));
  }
  writeFile(dir + "nfc_process_20250100_000000.gz/keep", "x");
  EXPECT_FALSE(recorder->checkLogFileExceed(kLimit));
  EXPECT_EQ(1, diag.count(ERROR, "checkLogFileExceed: Failed to manageCompressFiles!"));
  EXPECT_EQ("kept", readFile(log));
  EXPECT_TRUE(recorder->checkLogFileExceed(kLimit - 4)) << "appends that fit still pass";
}

struct WriteTaskTest : StorageTest {
  void attachHal() {
    recorder->attchProcess("nfc_hal_process");
    log = dir + "nfc_hal_process.veklog";
    node = root.path("/proc/vekdev/logger");
  }
  std::string node;
};

TEST_F(WriteTaskTest, OtherProcessesNeverReadTheKernelLog) {
  attachHal();
  writeFile(node, "KLOG");
  for (const char* name : {"nfc_process", "se_process", "se_hal_process"}) {
    recorder->attchProcess(name);
    EXPECT_EQ(0, vektest::writeNow(recorder, "line\n"));
    EXPECT_EQ("line\n", readFile(recorder->mLogFilePath)) << name;
  }
  EXPECT_EQ(0, diag.countPrefix("read klog buffer size: "));
}

TEST_F(WriteTaskTest, HalProcessAppendsTheKernelLogAsRead) {
  attachHal();
  std::string klog = vektest::logText(3 * 3072 + 100);
  klog[5] = '\0';
  klog[3072] = '\0';
  writeFile(node, klog);
  EXPECT_EQ(0, vektest::writeNow(recorder, "line\n"));
  EXPECT_EQ("line\n" + klog, readFile(log));
  EXPECT_EQ(1, diag.count(INFO, "read klog buffer size: " + std::to_string(klog.size())));
  EXPECT_EQ(1, diag.count(INFO, "writting buffer size: " + std::to_string(klog.size() + 5)));

  // The size check counts the kernel text: it alone pushes the file over the limit.
  sparseLog(kLimit - 10);
  EXPECT_EQ(0, vektest::writeNow(recorder, "next\n"));
  EXPECT_EQ(1, diag.countPrefix("fileSize is full: "));
  EXPECT_EQ("next\n" + klog, readFile(log));
}

TEST_F(WriteTaskTest, HalProcessWithoutNodeWritesTheErrorLine) {
  attachHal();
  EXPECT_EQ(0, vektest::writeNow(recorder, "line\n"));
  EXPECT_EQ("line\nError: Unable to open klog file at /proc/vekdev/logger\n", readFile(log));
  EXPECT_EQ(1, diag.count(WARNING, "Error: Unable to open klog file"));
}

TEST_F(WriteTaskTest, UnwritableLogFileCompletesWithOne) {
  ASSERT_EQ(0, mkdir(log.c_str(), 0755));
  EXPECT_EQ(1, vektest::writeNow(recorder, "line\n"));
  EXPECT_EQ(1, diag.count(ERROR, "Failed to append file: " + log));

  rmdir(log.c_str());
  EXPECT_EQ(0, vektest::writeNow(recorder, "line\n"));
  struct stat st;
  ASSERT_EQ(0, stat(log.c_str(), &st));
  EXPECT_EQ(0640u, st.st_mode & 0777);
}

TEST_F(WriteTaskTest, EmptyBufferQueuesNothing) {
  auto promise = std::make_shared<std::promise<int>>();
  std::lock_guard<std::mutex> lock(recorder->mMutex);
  EXPECT_FALSE(recorder->sendBuffToWorker(std::vector<char>(), promise));
  EXPECT_TRUE(recorder->mTasks.empty());
  EXPECT_EQ(1, diag.count(WARNING, "writting invalid buffer"));
  EXPECT_EQ(std::future_status::timeout, promise->get_future().wait_for(std::chrono::seconds(0)));
}

}  // namespace
