// The public interface: the C functions and the stream logger. Many threads through a rotation
// are the load check's (stress/vek_stress.cpp, run by ctest).
#include <android-base/properties.h>
#include <android/log.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <stdarg.h>
#include <stdint.h>

#include "VekLogFormat.h"
#include "VekLogTestEnv.h"

using vektest::readFile;

namespace {

int quick(char* out, size_t size, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  int length = vek::formatQuick(out, size, fmt, &args);
  va_end(args);
  return length;
}

// Formats fmt with arg for each of up to five conversions, quickly, and expects vsnprintf's text;
// or, when fmt is not for the quick formatter, or the text needs more than size bytes, expects it
// declined.
template <typename Arg>
void expectFormat(const char* fmt, Arg arg, bool taken = true, size_t size = 64) {
  char got[64];
  char want[64];
  int length = quick(got, size, fmt, arg, arg, arg, arg, arg);
  if (!taken) {
    EXPECT_EQ(-1, length) << fmt;
    return;
  }
  EXPECT_EQ(snprintf(want, size, fmt, arg, arg, arg, arg, arg), length) << fmt;
  EXPECT_STREQ(want, got) << fmt;
}

struct ApiTest : vektest::NfcProcessTest {
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
};

// Each function prints at its priority when the print threshold passes its level, and
// records its letter when the record threshold does.
TEST_F(ApiTest, FunctionsPrintAndRecordByTheirThresholds) {
  const struct {
    void (*mLog)(const char*, const char*, ...);
    int mLevel;
    int mPriority;
    char mLetter;
  } functions[] = {{__vek_log_v, 6, ANDROID_LOG_VERBOSE, 'V'},
                   {__vek_log_d, 5, ANDROID_LOG_DEBUG, 'D'},
                   {__vek_log_i, 4, ANDROID_LOG_INFO, 'I'},
                   {__vek_log_w, 3, ANDROID_LOG_WARN, 'W'},
                   {__vek_log_e, 2, ANDROID_LOG_ERROR, 'E'}};
  for (std::string levels : {"66", "55", "05"}) {
    setLevels(levels.c_str());
    size_t seen = printed().size();
    for (const auto& f : functions) f.mLog("T", "%s %c", levels.c_str(), f.mLetter);
    std::vector<vektest::Entry> got = printed();
    std::string file = flushed();
    for (const auto& f : functions) {
      std::string text = levels + " " + f.mLetter;
      if (f.mLevel <= levels[0] - '0') {
        ASSERT_LT(seen, got.size()) << text;
        EXPECT_EQ(f.mPriority, got[seen].mPriority) << text;
        EXPECT_EQ("T", got[seen].mTag);
        EXPECT_EQ(text, got[seen++].mText);
      }
      EXPECT_EQ(f.mLevel <= levels[1] - '0',
                file.find(std::string(" ") + f.mLetter + " T: " + text + "\n") != std::string::npos)
          << text;
    }
    EXPECT_EQ(seen, got.size()) << levels;
  }
}

TEST_F(ApiTest, MessagesArePrintedWholeAndLiterally) {
  std::string big(6000, 'b');
  const char* none = nullptr;
  __vek_log_i("T", "%s", "100% done %d %n");
  __vek_log_i("T", "%s|", big.c_str());
  __vek_log_i(none, "%s", "a null tag is an empty one");
  __vek_log_i("T", none, 0);
  __vek_log_i("T", "%s", "");  // an empty message is not printed
  std::vector<vektest::Entry> got = printed();
  ASSERT_EQ(3u, got.size());
  EXPECT_EQ("", got[2].mTag);
  EXPECT_EQ("100% done %d %n", got[0].mText);
  // liblog cuts entries at its own buffer size; up to there the text is ours, unformatted.
  EXPECT_GE(got[1].mText.size(), 1000u);
  EXPECT_EQ(0u, (big + "|").find(got[1].mText));
  std::string file = flushed();
  EXPECT_NE(std::string::npos, file.find("T: " + big + "|\n"));
  EXPECT_NE(std::string::npos, file.find(" I nfc_process: a null tag is an empty one\n"));
}

// The quick formatter takes the conversions log messages use and leaves the rest to vsnprintf.
TEST(QuickFormat, GivesVsnprintfsTextOrDeclines) {
  expectFormat("%d %i %u %c%%", 65);
  expectFormat("%5d|%-5d|%05d|%.3d|%08.3d", -42);
  expectFormat("%.0d|%010.0u|%-08x|", 0);
  expectFormat("%x %X %o %#x", 0x1ff80, false);
  expectFormat("%x %X %o", -1);
  expectFormat("%hhd %hd %hhu %hu", 0x1f080);
  expectFormat("%lld %llx", LLONG_MIN);
  expectFormat("%ld %lu", LONG_MIN);
  expectFormat("%zu %zx %td", static_cast<ssize_t>(-2));
  expectFormat("%jd %ju", static_cast<intmax_t>(-2));
  expectFormat("%s|%.2s|%6s|%-6s|%.9s", "text");
  expectFormat("%+d", 1, false);
  expectFormat("%05s", "t", false);
  expectFormat("%s", static_cast<const char*>(nullptr), false);
  expectFormat("%d%d%d", 123456, true, 19);
  expectFormat("%d%d%d", 123456, false, 18);
  expectFormat("%*d", 5, false);
}

// A fatal message that will not be printed leaves the process running: it forces no flush.
TEST_F(ApiTest, StreamLoggerRecordsItsLocationAndPrintsTheBareText) {
  VekLogAdapter(4, "Main", 7).stream() << "two\nlines";
  int line = __LINE__ + 1;
  VEK_LOG(WARNING) << "macro";
  for (int level : {0, 6, 7}) VekLogAdapter(level, "Main", 9).stream() << "not at all";
  VekLogAdapter(4, "Main", 8).stream() << std::string("before\0after", 12);
  setLevels("05");
  VekLogAdapter(1, "Main", 9).stream() << "fatal, not printed";
  for (const auto& e : diag.entries()) EXPECT_NE(0u, e.mText.rfind("saveLogsToFile", 0));

  // libbase reports the file's base name, and writes each line as an entry of its own.
  std::vector<std::string> out;
  for (const auto& e : diag.entries()) {
    if (e.mFile == "Main" || e.mFile == "api_test.cpp") {
      out.push_back(std::to_string(e.mPriority) + " " + std::to_string(e.mLine) + " " + e.mText);
    }
  }
  EXPECT_EQ((std::vector<std::string>{"4 7 two", "4 7 lines",
                                      "5 " + std::to_string(line) + " macro", "4 8 before"}),
            out);
  std::string file = flushed();
  EXPECT_NE(std::string::npos, file.find(" I nfc_process: [Main(7)] two\n"));
  EXPECT_NE(std::string::npos, file.find(" I nfc_process: lines\n"));
  EXPECT_NE(std::string::npos, file.find(" W nfc_process: [" + std::string(__FILE__) + "(" +
                                         std::to_string(line) + ")] macro\n"));
  EXPECT_EQ(std::string::npos, file.find("not at all"));
  EXPECT_NE(std::string::npos, file.find(" I nfc_process: [Main(8)] before\n"));
  EXPECT_NE(std::string::npos, file.find(" F nfc_process: [Main(9)] fatal, not printed\n"));
}

}  // namespace
