// The public interface: the C functions and the stream logger. Many threads through a rotation
// are the load check's (stress/vek_stress.cpp, run by ctest).
#include <android-base/properties.h>
#include <android/log.h>
#include <gtest/gtest.h>

#include "VekLogTestEnv.h"

using vektest::readFile;

namespace {

struct ApiTest : testing::Test {
  void start(const char* levels) {
    android::base::SetProperty("persist.vendor.vek.nfc.log", levels);
    VekLogRecorder::getInstance()->attchProcess("se_hal_process");
    log = root.path("/data/vendor/secure_element/se_hal_process.veklog");
  }
  // The entries of __android_log_print, which carry no source file.
  std::vector<vektest::Entry> printed() {
    std::vector<vektest::Entry> entries;
    for (const vektest::Entry& e : diag.entries()) {
      if (e.mFile.empty()) entries.push_back(e);
    }
    return entries;
  }
  std::string flushed() {
    EXPECT_TRUE(__vek_save_log_now());
    return readFile(log);
  }

  vektest::ScratchRoot root;
  vektest::LogCapture& diag = vektest::platformLog();
  std::string log;
};

TEST_F(ApiTest, EachFunctionPrintsAtItsPriorityAndRecordsItsLetter) {
  start("66");
  __vek_log_v("Tv", "v %d", 6);
  __vek_log_d("Td", "d %d", 5);
  __vek_log_i("Ti", "i %d", 4);
  __vek_log_w("Tw", "w %d", 3);
  __vek_log_e("Te", "e %d", 2);
  std::vector<vektest::Entry> got = printed();
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
  std::vector<vektest::Entry> got = printed();
  ASSERT_EQ(1u, got.size());
  EXPECT_EQ(ANDROID_LOG_DEBUG, got[0].mPriority);
  EXPECT_EQ(std::string::npos, flushed().find("verbose"));
}

TEST_F(ApiTest, MessagesArePrintedWholeAndLiterally) {
  start("55");
  std::string big(6000, 'b');
  __vek_log_i("T", "%s", "100% done %d %n");
  __vek_log_i("T", "%s|", big.c_str());
  std::vector<vektest::Entry> got = printed();
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

  std::vector<vektest::Entry> all = diag.entries();
  std::vector<vektest::Entry> out;
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

}  // namespace
