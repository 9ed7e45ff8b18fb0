// Storage on the writer thread: gzip archives, retention, rotation and write tasks, all on real
// files in a scratch root.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "VekLogTestEnv.h"

using vektest::exists;
using vektest::listDir;
using vektest::readFile;
using vektest::writeFile;

namespace {

constexpr off_t kLimit = 15L * 1024 * 1024;

struct StorageTest : vektest::NfcProcessTest {
  // A log file that takes no space: the limit is reached without writing 15 MiB.
  void sparseLog(off_t size) {
    writeFile(log, "");
    ASSERT_EQ(0, truncate(log.c_str(), size));
  }
  std::vector<std::string> archives() {
    std::vector<std::string> names;
    for (const std::string& name : listDir(dir)) {
      if (name.rfind("nfc_process_", 0) == 0) names.push_back(name);
    }
    return names;
  }
  void makeArchives(int count) {
    for (int i = count - 1; i >= 0; --i) {  // newest first: directory order is not age order
      writeFile(dir + "nfc_process_2025010" + std::to_string(i) + "_000000.gz", "x");
    }
  }
};

TEST_F(StorageTest, GzipRoundTripsThroughTheGzipProgram) {
  for (size_t size : {0UL, 1UL, 1024UL * 1024, 5UL * 1024 * 1024 + 17}) {
    std::string text = vektest::logText(size);
    writeFile(dir + "in", text);
    unlink((dir + "out.gz").c_str());  // an existing archive is never written over
    ASSERT_TRUE(recorder->compressGzip(dir + "in", dir + "out.gz")) << size;
    EXPECT_EQ(text, vektest::gunzip(dir + "out.gz")) << size;
    EXPECT_EQ(text, readFile(dir + "in"));
    std::string gz = readFile(dir + "out.gz");
    EXPECT_EQ(std::string("\x1f\x8b\x08\0\0\0\0\0", 8), gz.substr(0, 8)) << "no name, time 0";
  }
  ASSERT_TRUE(recorder->compressGzip(dir + "in", dir + "new.gz"));
  EXPECT_EQ(0, system(("gzip -t " + dir + "new.gz").c_str()));
  struct stat st;
  ASSERT_EQ(0, stat((dir + "new.gz").c_str(), &st));
  EXPECT_EQ(0640u, st.st_mode & 0777) << "never world-readable";
}

TEST_F(StorageTest, GzipFailuresNameTheFileAndLeaveInputAlone) {
  EXPECT_FALSE(recorder->compressGzip(dir + "missing", dir + "out.gz"));
  EXPECT_EQ(1, diag.count(ANDROID_LOG_ERROR,
                          "compressGzip: Failed to open input file: " + dir + "missing"));
  EXPECT_FALSE(exists(dir + "out.gz"));
  writeFile(dir + "in", "text");
  EXPECT_FALSE(recorder->compressGzip(dir + "in", dir + "no/out.gz"));
  EXPECT_EQ(1, diag.count(ANDROID_LOG_ERROR,
                          "compressGzip: Failed to open outFile file: " + dir + "no/out.gz"));
  EXPECT_EQ("text", readFile(dir + "in"));
  EXPECT_FALSE(recorder->compressGzip(root.path("/proc"), dir + "out.gz")) << "not a file";
  EXPECT_EQ(1, diag.count(ANDROID_LOG_ERROR,
                          "compressGzip: Failed to open input file: " + root.path("/proc")));
}

TEST_F(StorageTest, RetentionKeepsTheFourNewestOfThisProcessOnly) {
  writeFile(dir + "nfc_hal_process_20240101_000000.gz", "another process's");
  writeFile(log, "active");
  for (int count : {0, 4, 5, 7}) {
    for (const std::string& name : archives()) unlink((dir + name).c_str());
    makeArchives(count);
    int deleted = diag.countPrefix("manageCompressFiles: Deleted old log file: ");
    EXPECT_TRUE(recorder->manageCompressFiles());
    EXPECT_EQ(std::min(count, 4), static_cast<int>(archives().size()));
    EXPECT_EQ(std::max(0, count - 4),
              diag.countPrefix("manageCompressFiles: Deleted old log file: ") - deleted);
    if (count > 0) {
      EXPECT_EQ("nfc_process_2025010" + std::to_string(count - 1) + "_000000.gz",
                archives().back());
    }
  }
  EXPECT_EQ(1, diag.count(ANDROID_LOG_INFO, "manageCompressFiles: Deleted old log file: " + dir +
                                                "/nfc_process_20250102_000000.gz"));
  EXPECT_TRUE(exists(dir + "nfc_hal_process_20240101_000000.gz") && exists(log));
}

TEST_F(StorageTest, RetentionSortsLettersLastAndStopsAtAnUndeletableEntry) {
  makeArchives(5);
  writeFile(dir + "nfc_process_x", "x");
  std::string stuck = dir + "nfc_process_20250100_000000.gz";
  ASSERT_EQ(0, unlink(stuck.c_str()));
  ASSERT_EQ(0, mkdir(stuck.c_str(), 0755));
  writeFile(stuck + "/keep", "a non-empty directory: unlink fails even for root");
  EXPECT_FALSE(recorder->manageCompressFiles());
  EXPECT_EQ(1, diag.count(ANDROID_LOG_ERROR,
                          "manageCompressFiles: Failed to delete old log file: " + dir +
                              "/nfc_process_20250100_000000.gz"));
  EXPECT_EQ(6u, archives().size()) << "nothing after the failing entry is deleted";

  unlink((stuck + "/keep").c_str());
  rmdir(stuck.c_str());
  EXPECT_TRUE(recorder->manageCompressFiles());
  EXPECT_EQ("nfc_process_20250102_000000.gz", archives()[0]);
  EXPECT_EQ("nfc_process_x", archives()[3]);

  recorder->mLogDir = root.path("/data/vendor/none/");
  EXPECT_FALSE(recorder->manageCompressFiles());
  EXPECT_EQ(1, diag.count(ANDROID_LOG_ERROR,
                          "manageCompressFiles: opendir " + recorder->mLogDir + " failed."));
}

TEST_F(StorageTest, ArchiveNameCarriesTheLocalTime) {
  setenv("TZ", "JST-9", 1);
  tzset();
  time_t before = time(nullptr);
  std::string path = recorder->getCompressedLogFile();
  std::vector<std::string> expected;
  for (time_t t = before; t <= time(nullptr); ++t) {
    time_t japan = t + 9L * 3600;
    tm broken;
    char stamp[32];
    strftime(stamp, sizeof(stamp), "%Y%m%d_%H%M%S", gmtime_r(&japan, &broken));
    expected.push_back(dir + "/nfc_process_" + stamp + ".gz");
  }
  EXPECT_NE(expected.end(), std::find(expected.begin(), expected.end(), path)) << path;
}

TEST_F(StorageTest, RotatesAboveTheLimitAndKeepsFiveArchives) {
  sparseLog(kLimit - 10);
  EXPECT_TRUE(recorder->checkLogFileExceed(10)) << "exactly at the limit";
  EXPECT_TRUE(archives().empty());
  makeArchives(6);
  for (int rotation = 0; rotation < 2; ++rotation) {
    sparseLog(kLimit - 10);
    EXPECT_TRUE(recorder->checkLogFileExceed(11));
    EXPECT_FALSE(exists(log));
    EXPECT_EQ(5u, archives().size()) << "a second rotation in one second takes a _1 name";
    EXPECT_EQ(std::string(kLimit - 10, '\0'), vektest::gunzip(dir + archives().back()));
  }
  EXPECT_EQ(2, diag.count(ANDROID_LOG_INFO, "fileSize is full: " + std::to_string(kLimit + 1)));
  EXPECT_EQ("nfc_process_20250103_000000.gz", archives()[0]);
}

TEST_F(StorageTest, FailedRotationKeepsTheLogFile) {
  EXPECT_FALSE(recorder->checkLogFileExceed(kLimit + 1)) << "no log file to compress";
  EXPECT_EQ(1, diag.count(ANDROID_LOG_ERROR, "compressGzip: Failed to open input file: " + log));
  EXPECT_EQ(1, diag.count(ANDROID_LOG_ERROR, "checkLogFileExceed: Failed to compressGzip!"));
}

TEST_F(StorageTest, WriteTasksAppendTheKernelLogInTheHalProcessOnly) {
  std::string node = root.path("/proc/vekdev/logger");
  std::string klog = vektest::logText(3 * 3072 + 100);
  klog[5] = klog[3072] = '\0';
  writeFile(node, klog);
  for (const char* name : {"nfc_process", "se_process", "se_hal_process"}) {
    recorder->attchProcess(name);
    EXPECT_EQ(0, vektest::writeNow(recorder, "line\n"));
    EXPECT_EQ("line\n", readFile(recorder->mLogFilePath)) << name;
  }
  recorder->attchProcess("nfc_hal_process");
  std::string halLog = dir + "nfc_hal_process.veklog";
  EXPECT_EQ(0, vektest::writeNow(recorder, "line\n"));
  EXPECT_EQ("line\n" + klog, readFile(halLog));
  EXPECT_EQ(1,
            diag.count(ANDROID_LOG_INFO, "read klog buffer size: " + std::to_string(klog.size())));
  EXPECT_EQ(
      1, diag.count(ANDROID_LOG_INFO, "writting buffer size: " + std::to_string(klog.size() + 5)));

  writeFile(halLog, "");
  ASSERT_EQ(0, truncate(halLog.c_str(), kLimit - 10));
  EXPECT_EQ(0, vektest::writeNow(recorder, "next\n")) << "the kernel text alone passes the limit";
  EXPECT_EQ("next\n" + klog, readFile(halLog));

  unlink(node.c_str());
  EXPECT_EQ(0, vektest::writeNow(recorder, "last\n"));
  EXPECT_EQ("next\n" + klog + "last\nError: Unable to open klog file at /proc/vekdev/logger\n",
            readFile(halLog));
  EXPECT_EQ(1, diag.count(ANDROID_LOG_WARN, "Error: Unable to open klog file"));
}

TEST_F(StorageTest, UnwritableLogFileAndEmptyBuffer) {
  ASSERT_EQ(0, mkdir(log.c_str(), 0755));
  EXPECT_EQ(1, vektest::writeNow(recorder, "line\n"));
  EXPECT_EQ(1, diag.count(ANDROID_LOG_ERROR, "Failed to append file: " + log));
  rmdir(log.c_str());
  EXPECT_EQ(0, vektest::writeNow(recorder, "line\n"));
  struct stat st;
  ASSERT_EQ(0, stat(log.c_str(), &st));
  EXPECT_EQ(0640u, st.st_mode & 0777);

  auto promise = std::make_shared<std::promise<int>>();
  std::lock_guard<std::mutex> lock(recorder->mMutex);
  EXPECT_FALSE(recorder->sendBuffToWorker(std::vector<char>(), promise));
  EXPECT_TRUE(recorder->mTasks.empty());
  EXPECT_EQ(1, diag.count(ANDROID_LOG_WARN, "writting invalid buffer"));
  EXPECT_EQ(std::future_status::timeout, promise->get_future().wait_for(std::chrono::seconds(0)));
}

}  // namespace
