// The public interface: the C functions, the stream logger, and many threads end to end.
#include <android-base/properties.h>
#include <android/log.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <map>
#include <thread>

#include "VekLogTestEnv.h"

using vektest::readFile;

namespace {

struct ApiTest : testing::Test {
  void start(const char* levels) {
    android::base::SetProperty("persist.vendor.vek.nfc.log", levels);
    VekLogRecorder::getInstance()->attchProcess("se_hal_process");
    log = root.path("/data/vendor/secure_element/se_hal_process.veklog");
  }
  std::vector<vektest::Diagnostic> printed() { return diag.printed(); }
  std::string flushed() {
    EXPECT_TRUE(__vek_save_log_now());
    return readFile(log);
  }

  vektest::ScratchRoot root;
  vektest::DiagCapture& diag = vektest::diagnostics();
  std::string log;
};

TEST_F(ApiTest, EachFunctionPrintsAtItsPriorityAndRecordsItsLetter) {
  start("66");
  __vek_log_v("Tv", "v %d", 6);
  __vek_log_d("Td", "d %d", 5);
  __vek_log_i("Ti", "i %d", 4);
  __vek_log_w("Tw", "w %d", 3);
  __vek_log_e("Te", "e %d", 2);
  std::vector<vektest::Diagnostic> got = printed();
  ASSERT_EQ(5u, got.size());
  const int priorities[] = {ANDROID_LOG_VERBOSE, ANDROID_LOG_DEBUG, ANDROID_LOG_INFO,
                            ANDROID_LOG_WARN, ANDROID_LOG_ERROR};
  const char* letters = "VDIWE";
  std::string file = flushed();
  for (int i = 0; i < 5; ++i) {
    std::string tag = std::string("T") + static_cast<char>(tolower(letters[i]));
    EXPECT_EQ(priorities[i], got[i].mPriority);
    EXPECT_EQ(tag, got[i].mTag);
    EXPECT_EQ(std::string(1, tolower(letters[i])) + " " + std::to_string(6 - i), got[i].mText);
    EXPECT_NE(std::string::npos, file.find(std::string(" ") + letters[i] + " " + tag + ": "))
        << file;
  }
}

TEST_F(ApiTest, DefaultLevelsSkipVerbose) {
  start("55");
  __vek_log_v("T", "verbose");
  __vek_log_d("T", "debug");
  std::vector<vektest::Diagnostic> got = printed();
  ASSERT_EQ(1u, got.size());
  EXPECT_EQ(ANDROID_LOG_DEBUG, got[0].mPriority);
  EXPECT_EQ(std::string::npos, flushed().find("verbose"));
}

TEST_F(ApiTest, MessagesArePrintedWholeAndLiterally) {
  start("55");
  std::string big(6000, 'b');
  __vek_log_i("T", "%s", "100% done %d %n");
  __vek_log_i("T", "%s|", big.c_str());
  std::vector<vektest::Diagnostic> got = printed();
  ASSERT_EQ(2u, got.size());
  EXPECT_EQ("100% done %d %n", got[0].mText);
  // liblog cuts entries at its own buffer size; up to there the text is ours, unformatted.
  EXPECT_GE(got[1].mText.size(), 1000u);
  EXPECT_EQ(0u, (big + "|").find(got[1].mText));
  EXPECT_NE(std::string::npos, flushed().find("T: " + big + "|\n"));
}

TEST_F(ApiTest, EmptyMessageDoesNotCreateTheRecorder) {
  const char* empty = "";
  __vek_log_e("T", empty, 0);
  EXPECT_TRUE(printed().empty());
  EXPECT_EQ(0, diag.countPrefix("initFeatureLevel: "));
}

TEST_F(ApiTest, PrintThresholdZeroStillRecords) {
  start("05");
  __vek_log_e("T", "recorded only");
  VEK_LOG(ERROR) << "streamed only";
  EXPECT_TRUE(printed().empty());
  EXPECT_EQ(0, diag.countPrefix("streamed only"));
  std::string file = flushed();
  EXPECT_NE(std::string::npos, file.find("E T: recorded only"));
  EXPECT_NE(std::string::npos, file.find("streamed only"));
}

TEST_F(ApiTest, StreamLoggerRecordsItsLocationAndPrintsTheBareText) {
  start("55");
  VekLogAdapter(4, "Main", 7).stream() << "ready";
  VekLogAdapter(4, "Main", 8).stream() << "two\nlines";
  int line = __LINE__ + 1;
  VEK_LOG(WARNING) << "macro";
  VekLogAdapter(0, "Main", 9).stream() << "level zero";
  VekLogAdapter(7, "Main", 9).stream() << "level seven";
  VekLogAdapter(6, "Main", 9).stream() << "above threshold";

  std::vector<vektest::Diagnostic> all = diag.all();
  std::vector<vektest::Diagnostic> out;
  for (const auto& d : all) {
    // libbase reports the file's base name.
    if (d.mFile == "Main" || d.mFile == "api_test.cpp") out.push_back(d);
  }
  // libbase writes each line of a message as an entry of its own.
  ASSERT_EQ(4u, out.size());
  EXPECT_EQ(ANDROID_LOG_INFO, out[0].mPriority);
  EXPECT_EQ("ready", out[0].mText);
  EXPECT_EQ(7u, out[0].mLine);
  EXPECT_EQ("two", out[1].mText);
  EXPECT_EQ("lines", out[2].mText);
  EXPECT_EQ(ANDROID_LOG_WARN, out[3].mPriority);
  EXPECT_EQ("macro", out[3].mText);
  EXPECT_EQ(static_cast<unsigned>(line), out[3].mLine);

  std::string file = flushed();
  EXPECT_NE(std::string::npos, file.find(" I se_hal_process: [Main(7)] ready\n"));
  EXPECT_NE(std::string::npos, file.find(" I se_hal_process: [Main(8)] two\n"));
  EXPECT_NE(std::string::npos, file.find(" I se_hal_process: lines\n"));
  EXPECT_NE(std::string::npos, file.find(" W se_hal_process: [" + std::string(__FILE__) + "(" +
                                         std::to_string(line) + ")] macro\n"));
  EXPECT_EQ(std::string::npos, file.find("level"));
  EXPECT_EQ(std::string::npos, file.find("above"));
}

TEST_F(ApiTest, FatalStreamMessageReachesTheFileBeforeTheProcessEnds) {
  std::string path = root.path("/data/vendor/secure_element/se_hal_process.veklog");
  GTEST_FLAG_SET(death_test_style, "fast");
  EXPECT_DEATH(
      {
        start("55");
        VEK_LOG(INFO) << "buffered before";
        VEK_LOG(FATAL) << "last words";
      },
      "");
  std::string file = readFile(path);
  EXPECT_NE(std::string::npos, file.find("buffered before\n"));
  EXPECT_NE(std::string::npos, file.find(" F se_hal_process: ["));
  EXPECT_NE(std::string::npos, file.find("last words\n"));
}

// Many threads through a rotation: every line once, each thread's lines in order, and time
// stamps never going back along the files.
TEST_F(ApiTest, ConcurrentLinesSurviveARotationExactlyOnce) {
  start("55");
  vektest::writeFile(log, "");
  ASSERT_EQ(0, truncate(log.c_str(), 15 * 1024 * 1024 - 200 * 1024));
  constexpr int kThreads = 4;
  constexpr int kLines = 5000;
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < kLines; ++i) {
        if (i % 2 == 0) {
          __vek_log_i("E2E", "thread %d line %d", t, i);
        } else {
          VEK_LOG(INFO) << "thread " << t << " line " << i;
        }
      }
    });
  }
  for (auto& thread : threads) thread.join();
  ASSERT_TRUE(__vek_save_log_now());

  std::string all;
  for (const std::string& name : vektest::listDir(root.path("/data/vendor/secure_element"))) {
    if (name.rfind("se_hal_process_", 0) == 0) {
      all += vektest::gunzip(root.path("/data/vendor/secure_element/" + name));
    }
  }
  EXPECT_FALSE(all.empty()) << "no rotation happened";
  all = all.substr(all.find_first_not_of('\0')) + readFile(log);

  std::vector<int> next(kThreads, 0);
  std::string lastStamp;
  size_t start = 0;
  for (size_t feed; (feed = all.find('\n', start)) != std::string::npos; start = feed + 1) {
    std::string line = all.substr(start, feed - start);
    int t = -1;
    int i = -1;
    size_t at = line.find("thread ");
    ASSERT_NE(std::string::npos, at) << line;
    ASSERT_EQ(2, sscanf(line.c_str() + at, "thread %d line %d", &t, &i)) << line;
    ASSERT_TRUE(t >= 0 && t < kThreads) << line;
    EXPECT_EQ(next[t]++, i) << line;
    std::string stamp = line.substr(0, 18);
    EXPECT_LE(lastStamp, stamp) << line;
    lastStamp = stamp;
  }
  for (int t = 0; t < kThreads; ++t) EXPECT_EQ(kLines, next[t]) << t;
}

}  // namespace
