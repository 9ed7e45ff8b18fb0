// The recorder: level property, attachment, the line format, hand-over to the writer and
// flush on demand. How messages split into lines is fuzz_record's; first use and the recorder's
// end are lifecycle_test.cpp's.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <thread>

#include "VekLogTestEnv.h"

using vektest::readFile;

namespace {

std::vector<std::string> splitLines(const std::string& text) {
  std::vector<std::string> lines;
  size_t start = 0;
  for (size_t feed; (feed = text.find('\n', start)) != std::string::npos; start = feed + 1) {
    lines.push_back(text.substr(start, feed - start));
  }
  return lines;
}

struct RecorderTest : vektest::NfcProcessTest {
  std::vector<std::string> bufferedLines() {
    return splitLines(std::string(recorder->mBuffer.begin(), recorder->mBuffer.end()));
  }
};

TEST_F(RecorderTest, LevelPropertyMapsEachDigitOnItsOwn) {
  const struct {
    const char* mValue;
    int mPrint;
    int mRecord;
  } cases[] = {{"55", 5, 5}, {"60", 6, 0}, {"3", 3, 5}, {"7x", 5, 5}, {"-1", 5, 1}, {"246", 2, 4}};
  for (const auto& c : cases) {
    setLevels(c.mValue);
    EXPECT_EQ(c.mPrint, recorder->getPrintLevel()) << '"' << c.mValue << '"';
    EXPECT_EQ(c.mRecord, recorder->getRecordLevel()) << '"' << c.mValue << '"';
    // Signed comparisons: no threshold passes 7, every threshold passes -1.
    EXPECT_TRUE(recorder->isNeedPrint(-1) && !recorder->isNeedPrint(7));
  }
}

// Only an exact name selects paths; any other attaches and keeps the paths it had. Recording
// off, no writer starts and nothing is recorded, negative levels included.
TEST_F(RecorderTest, AttachByExactNameWithRecordingOff) {
  setLevels("60");
  VekLogRecorder quiet;
  EXPECT_FALSE(quiet.saveLogsToFile(true)) << "not attached";
  std::string se = root.path("/data/vendor/secure_element/se_process.veklog");
  const struct {
    const char* mName;
    std::string mFile;
  } steps[] = {{"", ""},
               {"se_process", se},
               {"SE_PROCESS", se},
               {"nfc_process ", se},
               {"nfc_hal_process", dir + "nfc_hal_process.veklog"}};
  std::thread reader([&quiet] {  // isNeedRecord reads mAttached without mMutex
    for (int i = 0; i < 10000; ++i) quiet.isNeedRecord(1);
  });
  for (const auto& step : steps) {
    EXPECT_TRUE(quiet.attchProcess(step.mName) && quiet.mAttached);
    EXPECT_EQ(step.mName, quiet.mProcessName);
    EXPECT_EQ(step.mFile, quiet.mLogFilePath) << '"' << step.mName << '"';
  }
  reader.join();
  EXPECT_EQ(dir, quiet.mLogDir);
  quiet.record(-1, "T", "negative levels need a writer too");
  EXPECT_TRUE(quiet.mBuffer.empty());
  EXPECT_FALSE(quiet.mWorker.joinable());
}

// Local time, read anew for every line: the zone changes between the two lines.
// A name that is not one of the four, with no known one before it: each batch fails to open
// the empty path, and nothing is written anywhere, the working directory included.
TEST_F(RecorderTest, UnknownNameWritesNothing) {
  TemporaryDir cwd;
  char here[PATH_MAX];
  ASSERT_TRUE(getcwd(here, sizeof(here)) && chdir(cwd.path) == 0);
  VekLogRecorder stranger;
  stranger.attchProcess("nfc");
  stranger.record(4, "T", "nowhere");
  EXPECT_FALSE(stranger.saveLogsToFile(true));
  EXPECT_EQ(1, diag.count(ANDROID_LOG_ERROR, "Failed to append file: "));
  EXPECT_TRUE(vektest::listDir(cwd.path, true).empty());
  ASSERT_EQ(0, chdir(here));
}

TEST_F(RecorderTest, LineFormatByteForByte) {
  timespec before;
  timespec after;
  clock_gettime(CLOCK_REALTIME, &before);
  for (const char* zone : {"UTC0", "JST-9"}) {
    setenv("TZ", zone, 1);
    tzset();
    recorder->record(4, "NfcCore", std::string("Discovery in ") + zone);
  }
  clock_gettime(CLOCK_REALTIME, &after);
  std::vector<std::string> lines = bufferedLines();
  ASSERT_EQ(2u, lines.size());
  std::string ids = " " + std::to_string(getpid()) + " " + std::to_string(syscall(SYS_gettid));
  for (size_t i = 0; i < lines.size(); ++i) {
    bool matched = false;
    int64_t first = static_cast<int64_t>(before.tv_sec) * 1000 + before.tv_nsec / 1000000;
    int64_t last = static_cast<int64_t>(after.tv_sec) * 1000 + after.tv_nsec / 1000000;
    for (int64_t ms = first; ms <= last && !matched; ++ms) {
      time_t local = static_cast<time_t>(ms / 1000 + static_cast<int64_t>(i) * 9 * 3600);
      tm broken;
      char stamp[32];
      size_t n = strftime(stamp, sizeof(stamp), "%m-%d %H:%M:%S", gmtime_r(&local, &broken));
      snprintf(stamp + n, sizeof(stamp) - n, ".%03d", static_cast<int>(ms % 1000));
      matched = lines[i] == stamp + ids + " I NfcCore: Discovery in " + (i ? "JST-9" : "UTC0");
    }
    EXPECT_TRUE(matched) << lines[i];
  }
}

// Whole lines go past the threshold or on a flush, in order; an empty flush queues nothing.
TEST_F(RecorderTest, HandsOverWholeLinesPastTheThresholdOrOnFlush) {
  vektest::WriterGate gate(recorder);
  EXPECT_TRUE(recorder->saveLogsToFile(true)) << "nothing buffered: no wait";
  EXPECT_TRUE(recorder->mTasks.empty());
  recorder->record(4, "T", "x");
  size_t overhead = recorder->mBuffer.size() - 1;
  recorder->record(4, "T", std::string(10240 - 2 * overhead - 1, 'y'));
  EXPECT_EQ(10240u, recorder->mBuffer.size()) << "exactly at the threshold stays";
  EXPECT_TRUE(recorder->mTasks.empty());
  recorder->record(4, "T", "z");
  EXPECT_TRUE(recorder->mBuffer.empty()) << "the next line goes with it";
  recorder->record(4, "T", std::string(20000, 'l'));
  EXPECT_TRUE(recorder->mBuffer.empty()) << "a line longer than the threshold goes at once";
  recorder->record(4, "T", std::string(10000, 'f'));
  recorder->record(4, "T", "first\nsecond " + std::string(300, 's') + "\nthird");
  EXPECT_EQ(3u, recorder->mTasks.size());
  ASSERT_EQ(1u, bufferedLines().size());
  EXPECT_NE(std::string::npos, bufferedLines()[0].find(" T: third")) << "split between lines";
  EXPECT_TRUE(recorder->saveLogsToFile(false)) << "handed over without waiting";
  EXPECT_EQ(4u, recorder->mTasks.size());

  gate.release();
  recorder->record(4, "T", "waited for");
  ASSERT_TRUE(recorder->saveLogsToFile(true));
  std::vector<std::string> lines = splitLines(readFile(log));
  const std::string lasts[] = {"x", "y", "z", "l", "f", "first", "s", "third", "waited for"};
  ASSERT_EQ(9u, lines.size());
  for (size_t i = 0; i < lines.size(); ++i) {
    EXPECT_EQ(lasts[i], lines[i].substr(lines[i].size() - lasts[i].size())) << i;
  }
}

// A kernel log node that never delivers keeps the writer busy past the flush time-out.
TEST_F(RecorderTest, FlushTimesOutBehindAStalledWriterAndTheTextFollows) {
  recorder->attchProcess("nfc_hal_process");
  std::string node = root.path("/proc/vekdev/logger");
  ASSERT_EQ(0, mkfifo(node.c_str(), 0600));
  int driver = open(node.c_str(), O_RDWR);
  recorder->record(4, "T", "stalled");
  long long timeouts = vektest::dumpCount(vektest::dumpState(), "timed out: ");
  EXPECT_FALSE(recorder->saveLogsToFile(true));
  EXPECT_EQ(1, diag.count(ANDROID_LOG_ERROR, "saving logs timeout!"));
  // A dump never waits for the writer: it says where it is stuck.
  std::string dump = vektest::dumpState();
  EXPECT_NE(std::string::npos, dump.find("writer: in a task, kernel log since ")) << dump;
  EXPECT_EQ(timeouts + 1, vektest::dumpCount(dump, "timed out: ")) << dump;

  unlink(node.c_str());
  ASSERT_EQ(5, write(driver, "klog\n", 5));
  close(driver);
  recorder->record(4, "T", "later");
  EXPECT_TRUE(recorder->saveLogsToFile(true));
  std::vector<std::string> lines = splitLines(readFile(dir + "nfc_hal_process.veklog"));
  ASSERT_EQ(4u, lines.size());
  EXPECT_NE(std::string::npos, lines[0].find("T: stalled"));
  EXPECT_EQ("klog", lines[1]);
  EXPECT_NE(std::string::npos, lines[2].find("T: later"));
  EXPECT_EQ(1, diag.count(ANDROID_LOG_ERROR, "saving logs timeout!"));
}

}  // namespace
