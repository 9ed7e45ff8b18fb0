// Recording: the line format, splitting, the record filter, batching and flush on demand.
#include <android-base/properties.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include "VekLogTestEnv.h"

using android::base::ERROR;
using android::base::INFO;
using vektest::readFile;

namespace {

int64_t nowMillis() {
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

std::vector<std::string> splitLines(const std::string& text) {
  std::vector<std::string> lines;
  size_t start = 0;
  for (size_t feed; (feed = text.find('\n', start)) != std::string::npos; start = feed + 1) {
    lines.push_back(text.substr(start, feed - start));
  }
  return lines;
}

struct RecordTest : vektest::NfcProcessTest {
  std::string buffered() { return std::string(recorder->mBuffer.begin(), recorder->mBuffer.end()); }
  // The text of every buffered line, after "tag: ".
  std::vector<std::string> bufferedTexts(const std::string& tag) {
    std::vector<std::string> texts;
    for (const std::string& line : splitLines(buffered())) {
      size_t at = line.find(" " + tag + ": ");
      texts.push_back(at == std::string::npos ? "<malformed> " + line
                                              : line.substr(at + tag.size() + 3));
    }
    return texts;
  }
};

TEST_F(RecordTest, LineFormatByteForByte) {
  setenv("TZ", "JST-9", 1);
  tzset();
  int64_t before = nowMillis();
  recorder->record(4, "NfcCore", "Discovery started\nmode 2");
  recorder->record(-1, "", "no letter");
  int64_t after = nowMillis();
  std::vector<std::string> lines = splitLines(buffered());
  ASSERT_EQ(3u, lines.size());
  std::string ids = " " + std::to_string(getpid()) + " " + std::to_string(syscall(SYS_gettid));
  const std::string tails[] = {ids + " I NfcCore: Discovery started", ids + " I NfcCore: mode 2",
                               ids + "  nfc_process: no letter"};
  for (size_t i = 0; i < lines.size(); ++i) {
    bool matched = false;
    for (int64_t ms = before; ms <= after && !matched; ++ms) {
      time_t japan = static_cast<time_t>(ms / 1000) + 9L * 3600;
      tm broken;
      char stamp[32];
      strftime(stamp, sizeof(stamp), "%m-%d %H:%M:%S", gmtime_r(&japan, &broken));
      char millis[8];
      snprintf(millis, sizeof(millis), ".%03d", static_cast<int>(ms % 1000));
      matched = lines[i] == stamp + std::string(millis) + tails[i];
    }
    EXPECT_TRUE(matched) << lines[i];
  }
}

TEST_F(RecordTest, MessagesSplitAtLineFeeds) {
  struct Case {
    const char* mMessage;
    std::vector<std::string> mTexts;
  };
  const Case cases[] = {{"", {}},       {"\n", {""}},       {"a\n\nb", {"a", "", "b"}},
                        {"a\n", {"a"}}, {"\na", {"", "a"}}, {"cr\rstays", {"cr\rstays"}}};
  for (const Case& c : cases) {
    recorder->mBuffer.clear();
    recorder->record(4, "T", c.mMessage);
    EXPECT_EQ(c.mTexts, bufferedTexts("T")) << '"' << c.mMessage << '"';
  }
  recorder->mBuffer.clear();
  recorder->record(4, "", "default tag");
  EXPECT_EQ(std::vector<std::string>{"default tag"}, bufferedTexts("nfc_process"));
}

TEST_F(RecordTest, RecordThresholdFiltersByLevel) {
  android::base::SetProperty("persist.vendor.vek.nfc.log", "53");
  recorder->initFeatureLevel();
  struct Case {
    int mLevel;
    bool mRecorded;
  };
  const Case cases[] = {{0, false}, {1, true}, {3, true}, {4, false}, {7, false}, {-1, true}};
  for (const Case& c : cases) {
    recorder->mBuffer.clear();
    recorder->record(c.mLevel, "T", "x");
    EXPECT_EQ(c.mRecorded, !recorder->mBuffer.empty()) << c.mLevel;
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
  EXPECT_EQ(1u, recorder->mTasks.size());

  recorder->record(4, "T", std::string(20000, 'l'));
  EXPECT_TRUE(recorder->mBuffer.empty()) << "a line longer than the threshold goes at once";
  EXPECT_EQ(2u, recorder->mTasks.size());

  recorder->record(4, "T", std::string(10000, 'f'));
  recorder->record(4, "T", "first\nsecond " + std::string(300, 's') + "\nthird");
  EXPECT_EQ(3u, recorder->mTasks.size());
  EXPECT_EQ(std::vector<std::string>{"third"}, bufferedTexts("T"));

  gate.release();
  ASSERT_TRUE(recorder->saveLogsToFile(true));
  std::vector<std::string> lines = splitLines(readFile(log));
  ASSERT_EQ(8u, lines.size());
  const char* lasts[] = {"x", "y", "z", "l", "f", "first", "s", "third"};
  for (size_t i = 0; i < lines.size(); ++i) {
    EXPECT_EQ(std::string(lasts[i]), lines[i].substr(lines[i].size() - strlen(lasts[i]))) << i;
  }
}

TEST_F(RecordTest, FlushResults) {
  VekLogRecorder detached;
  EXPECT_FALSE(detached.saveLogsToFile(true));
  EXPECT_EQ(1, diag.count(INFO, "saveLogsToFile size: 0"));

  EXPECT_TRUE(recorder->saveLogsToFile(true)) << "nothing buffered";
  EXPECT_EQ(0, diag.countPrefix("writting buffer size: "));

  {
    vektest::WriterGate gate(recorder);
    recorder->record(4, "T", "queued");
    EXPECT_TRUE(recorder->saveLogsToFile(false)) << "queued without waiting";
    EXPECT_EQ(1u, recorder->mTasks.size());
  }
  recorder->record(4, "T", "waited for");
  size_t size = recorder->mBuffer.size();
  EXPECT_TRUE(recorder->saveLogsToFile(true));
  EXPECT_EQ(1, diag.count(INFO, "saveLogsToFile size: " + std::to_string(size)));
  EXPECT_EQ(2u, splitLines(readFile(log)).size()) << "both flushes are in the file";

  ASSERT_EQ(0, unlink(log.c_str()));
  ASSERT_EQ(0, mkdir(log.c_str(), 0755));
  recorder->record(4, "T", "dropped");
  EXPECT_FALSE(recorder->saveLogsToFile(true));
  EXPECT_EQ(0, diag.countPrefix("saving logs timeout!"));
}

// A kernel log node that never delivers keeps the writer busy past the flush time-out.
TEST_F(RecordTest, FlushTimesOutBehindAStalledWriterAndTheTextFollows) {
  recorder->attchProcess("nfc_hal_process");
  log = root.path("/data/vendor/nfc/nfc_hal_process.veklog");
  std::string node = root.path("/proc/vekdev/logger");
  ASSERT_EQ(0, mkfifo(node.c_str(), 0600));
  int driver = open(node.c_str(), O_RDWR);
  ASSERT_NE(-1, driver);

  recorder->record(4, "T", "stalled");
  EXPECT_FALSE(recorder->saveLogsToFile(true));
  EXPECT_EQ(1, diag.count(ERROR, "saving logs timeout!"));

  unlink(node.c_str());
  ASSERT_EQ(5, write(driver, "klog\n", 5));
  close(driver);
  recorder->record(4, "T", "later");
  EXPECT_TRUE(recorder->saveLogsToFile(true));
  std::vector<std::string> lines = splitLines(readFile(log));
  ASSERT_EQ(4u, lines.size());
  EXPECT_NE(std::string::npos, lines[0].find("T: stalled"));
  EXPECT_EQ("klog", lines[1]);
  EXPECT_NE(std::string::npos, lines[2].find("T: later"));
  EXPECT_EQ("Error: Unable to open klog file at /proc/vekdev/logger", lines[3]);
  EXPECT_EQ(1, diag.count(ERROR, "saving logs timeout!"));
}

}  // namespace
