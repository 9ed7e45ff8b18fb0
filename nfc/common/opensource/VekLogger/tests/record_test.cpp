// Recording: the line format, batching and flush on demand. How messages split into lines is
// fuzz_record's.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

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

int64_t millisecondsOf(const timespec& t) {
  return static_cast<int64_t>(t.tv_sec) * 1000 + t.tv_nsec / 1000000;
}

struct RecordTest : vektest::NfcProcessTest {
  std::vector<std::string> bufferedLines() {
    return splitLines(std::string(recorder->mBuffer.begin(), recorder->mBuffer.end()));
  }
};

void setZone(const char* zone) {
  setenv("TZ", zone, 1);
  tzset();
}

// Local time, read anew for every line: the zone changes between the first line and the rest.
TEST_F(RecordTest, LineFormatByteForByte) {
  timespec before;
  timespec after;
  clock_gettime(CLOCK_REALTIME, &before);
  setZone("UTC0");
  recorder->record(4, "NfcCore", "Discovery started");
  setZone("JST-9");
  recorder->record(4, "NfcCore", "mode 2\nsecond line");
  recorder->record(-1, "", "no letter");
  clock_gettime(CLOCK_REALTIME, &after);
  std::vector<std::string> lines = bufferedLines();
  ASSERT_EQ(4u, lines.size());
  std::string ids = " " + std::to_string(getpid()) + " " + std::to_string(syscall(SYS_gettid));
  const std::string tails[] = {ids + " I NfcCore: Discovery started", ids + " I NfcCore: mode 2",
                               ids + " I NfcCore: second line", ids + "  nfc_process: no letter"};
  for (size_t i = 0; i < lines.size(); ++i) {
    bool matched = false;
    for (int64_t ms = millisecondsOf(before); ms <= millisecondsOf(after) && !matched; ++ms) {
      time_t local = static_cast<time_t>(ms / 1000 + (i == 0 ? 0 : 9 * 3600));
      tm broken;
      char stamp[32];
      size_t n = strftime(stamp, sizeof(stamp), "%m-%d %H:%M:%S", gmtime_r(&local, &broken));
      snprintf(stamp + n, sizeof(stamp) - n, ".%03d", static_cast<int>(ms % 1000));
      matched = lines[i] == stamp + tails[i];
    }
    EXPECT_TRUE(matched) << lines[i];
  }
}

TEST_F(RecordTest, HandsOverWholeLinesOnlyPastTheThreshold) {
  vektest::WriterGate gate(recorder);
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

  gate.release();
  ASSERT_TRUE(recorder->saveLogsToFile(true));
  std::vector<std::string> lines = splitLines(readFile(log));
  const std::string lasts[] = {"x", "y", "z", "l", "f", "first", "s", "third"};
  ASSERT_EQ(8u, lines.size());
  for (size_t i = 0; i < lines.size(); ++i) {
    EXPECT_EQ(lasts[i], lines[i].substr(lines[i].size() - lasts[i].size())) << i;
  }
}

TEST_F(RecordTest, FlushResults) {
  VekLogRecorder detached;
  EXPECT_FALSE(detached.saveLogsToFile(true));
  EXPECT_TRUE(recorder->saveLogsToFile(true)) << "nothing buffered";
  EXPECT_EQ(0, diag.countPrefix("writting buffer size: ")) << "and nothing queued";
  {
    vektest::WriterGate gate(recorder);
    recorder->record(4, "T", "queued");
    EXPECT_TRUE(recorder->saveLogsToFile(false)) << "queued without waiting";
    EXPECT_EQ(1u, recorder->mTasks.size());
  }
  recorder->record(4, "T", "waited for");
  EXPECT_TRUE(recorder->saveLogsToFile(true));
  EXPECT_EQ(2u, splitLines(readFile(log)).size()) << "both flushes are in the file";
}

// A kernel log node that never delivers keeps the writer busy past the flush time-out.
TEST_F(RecordTest, FlushTimesOutBehindAStalledWriterAndTheTextFollows) {
  recorder->attchProcess("nfc_hal_process");
  std::string node = root.path("/proc/vekdev/logger");
  ASSERT_EQ(0, mkfifo(node.c_str(), 0600));
  int driver = open(node.c_str(), O_RDWR);
  recorder->record(4, "T", "stalled");
  EXPECT_FALSE(recorder->saveLogsToFile(true));
  EXPECT_EQ(1, diag.count(ANDROID_LOG_ERROR, "saving logs timeout!"));

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
