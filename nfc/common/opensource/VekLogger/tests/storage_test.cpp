// Storage on the writer thread: gzip archives, retention, rotation and write tasks, all on real
// files in a scratch root.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "VekLogTestEnv.h"

using vektest::exists;
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
    for (const std::string& name : vektest::listDir(dir)) {
      if (name.rfind("nfc_process_", 0) == 0) names.push_back(name);
    }
    return names;
  }
  std::string archive(int day) { return "nfc_process_202501" + std::to_string(10 + day) + ".gz"; }
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
    EXPECT_EQ(text, readFile(dir + "in"));
    std::string gz = readFile(dir + "out.gz");
    EXPECT_EQ(std::string("\x1f\x8b\x08\0\0\0\0\0", 8), gz.substr(0, 8)) << "no name, time 0";
  }
  ASSERT_TRUE(recorder->compressGzip(dir + "in", dir + "new.gz"));
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

// Four newest of this process kept, oldest by name deleted first, letters after digits. An
// entry that cannot be deleted is FaultTest's.
TEST_F(StorageTest, RetentionKeepsTheFourNewestOfThisProcessOnly) {
  writeFile(dir + "nfc_hal_process_20240101_000000.gz", "another process's");
  writeFile(log, "active");
  for (int count : {0, 4, 5, 7}) {
    for (const std::string& name : archives()) unlink((dir + name).c_str());
    makeArchives(count);
    int deleted = diag.countPrefix("manageCompressFiles: Deleted old log file: ");
    EXPECT_TRUE(recorder->manageCompressFiles());
    std::vector<std::string> kept;
    for (int day = std::max(0, count - 4); day < count; ++day) kept.push_back(archive(day));
    EXPECT_EQ(kept, archives());
    EXPECT_EQ(std::max(0, count - 4),
              diag.countPrefix("manageCompressFiles: Deleted old log file: ") - deleted);
  }
  EXPECT_EQ(1, diag.count(ANDROID_LOG_INFO,
                          "manageCompressFiles: Deleted old log file: " + dir + "/" + archive(2)));
  EXPECT_TRUE(exists(dir + "nfc_hal_process_20240101_000000.gz") && exists(log));

  for (const std::string& name : archives()) unlink((dir + name).c_str());
  writeFile(dir + "nfc_process_x", "x");
  makeArchives(4);
  EXPECT_TRUE(recorder->manageCompressFiles());
  EXPECT_EQ((std::vector<std::string>{archive(1), archive(2), archive(3), "nfc_process_x"}),
            archives())
      << "letters sort after digits";

  recorder->mLogDir = root.path("/data/vendor/none/");
  EXPECT_FALSE(recorder->manageCompressFiles());
  EXPECT_EQ(1, diag.count(ANDROID_LOG_ERROR,
                          "manageCompressFiles: opendir " + recorder->mLogDir + " failed."));
}

TEST_F(StorageTest, RotatesAboveTheLimitKeepingFiveArchives) {
  sparseLog(kLimit - 10);
  EXPECT_TRUE(recorder->checkLogFileExceed(10)) << "exactly at the limit";
  EXPECT_TRUE(archives().empty());
  makeArchives(6);
  setenv("TZ", "JST-9", 1);
  tzset();
  time_t before = time(nullptr);
  EXPECT_TRUE(recorder->checkLogFileExceed(11));
  std::vector<std::string> expected = {archive(2), archive(3), archive(4), archive(5)};
  for (time_t t = before; t <= time(nullptr); ++t) {  // the archive is named in local time
    time_t japan = t + static_cast<time_t>(9 * 3600);
    tm broken;
    char stamp[32];
    strftime(stamp, sizeof(stamp), "%Y%m%d_%H%M%S", gmtime_r(&japan, &broken));
    expected.push_back("nfc_process_" + std::string(stamp) + ".gz");
    if (archives() == expected) break;
    expected.pop_back();
  }
  ASSERT_EQ(5u, expected.size()) << "kept and made: " << ::testing::PrintToString(archives());
  EXPECT_FALSE(exists(log));
  std::string path = recorder->getCompressedLogFile();
  EXPECT_EQ(dir + "/nfc_process_", path.substr(0, dir.size() + 13)) << path;
  EXPECT_EQ(expected.back().size(), path.size() - dir.size() - 1) << path;
  EXPECT_EQ(std::string(kLimit - 10, '\0'), vektest::gunzip(dir + archives().back()));

  // Another rotation: within the same second it replaces the archive just made.
  writeFile(log, "second\n");
  ASSERT_EQ(0, truncate(log.c_str(), kLimit - 10));
  time_t again = time(nullptr);
  EXPECT_TRUE(recorder->checkLogFileExceed(11));
  if (again == before && time(nullptr) == before) {
    EXPECT_EQ((std::vector<std::string>{archive(3), archive(4), archive(5), expected.back()}),
              archives());
  }
  EXPECT_EQ("second\n", vektest::gunzip(dir + archives().back()).substr(0, 7));
  EXPECT_EQ(2, diag.count(ANDROID_LOG_INFO, "fileSize is full: " + std::to_string(kLimit + 1)));

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

  unlink(node.c_str());
  EXPECT_EQ(0, vektest::writeNow(recorder, "last\n"));
  EXPECT_EQ("line\n" + klog + "last\nError: Unable to open klog file at /proc/vekdev/logger\n",
            readFile(halLog));
  EXPECT_EQ(1, diag.count(ANDROID_LOG_WARN, "Error: Unable to open klog file"));

  std::lock_guard<std::mutex> lock(recorder->mMutex);
  EXPECT_FALSE(recorder->sendBuffToWorker(std::vector<char>(), nullptr));
  EXPECT_TRUE(recorder->mTasks.empty());
  EXPECT_EQ(1, diag.count(ANDROID_LOG_WARN, "writting invalid buffer"));
}

}  // namespace
