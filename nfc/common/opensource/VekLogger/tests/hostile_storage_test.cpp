// A log directory shared with a process that may plant entries, and a clock that steps back:
// no archive is written over, and nothing outside the directory is touched.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>
#include <map>

#include "VekLogTestEnv.h"

using vektest::readFile;
using vektest::writeFile;

namespace {

constexpr off_t kLimit = 15L * 1024 * 1024;

struct HostileStorageTest : vektest::NfcProcessTest {
  void SetUp() override {
    NfcProcessTest::SetUp();
    writeFile(secret, "private\n");
    ASSERT_EQ(0, chmod(secret.c_str(), 0600));
  }
  // This process's archives by name, with their content (a link reads as empty).
  std::map<std::string, std::string> archives() {
    std::map<std::string, std::string> found;
    for (const std::string& name : vektest::listDir(dir)) {
      if (name.rfind("nfc_process_", 0) == 0) found[name] = readFile(dir + name);
    }
    return found;
  }
  // A log file just under the limit that takes no space; returns its text.
  std::string sparseLog() {
    writeFile(log, "head\n");
    EXPECT_EQ(0, truncate(log.c_str(), kLimit - 10));
    return "head\n" + std::string(kLimit - 15, '\0');
  }

  std::string secret = root.mRoot + "/secret";  // beside the log directories, not in one
};

// Four entries, which retention keeps, at the names of this second and the next three: older
// archives as a clock set back leaves them, or links to a private file.
TEST_F(HostileStorageTest, RotationNeverReusesATakenArchiveName) {
  for (bool links : {false, true}) {
    for (const auto& archive : archives()) unlink((dir + archive.first).c_str());
    time_t start = time(nullptr);
    for (time_t t = start; t < start + 4; ++t) {
      tm local;
      char stamp[32];
      strftime(stamp, sizeof(stamp), "%Y%m%d_%H%M%S", localtime_r(&t, &local));
      std::string path = dir + "nfc_process_" + stamp + ".gz";
      if (links) {
        ASSERT_EQ(0, symlink(secret.c_str(), path.c_str()));
      } else {
        writeFile(path, "archive " + std::to_string(t));
      }
    }
    std::map<std::string, std::string> planted = archives();
    std::string text = sparseLog();
    ASSERT_TRUE(recorder->checkLogFileExceed(100)) << links;
    bool rotatedInWindow = time(nullptr) <= start + 3;

    std::map<std::string, std::string> now = archives();
    auto made = std::find_if(now.begin(), now.end(),
                             [&](const auto& archive) { return !planted.count(archive.first); });
    ASSERT_NE(now.end(), made);
    EXPECT_EQ(text, vektest::gunzip(dir + made->first));
    // Unless it ran past the planted seconds, the rotation met a taken name; its archive has
    // that name plus "_1" and sorts right after it, so retention still sees the age.
    std::string plain = made == now.begin() ? ".gz" : std::prev(made)->first;
    EXPECT_TRUE(plain.substr(0, plain.size() - 3) + "_1.gz" == made->first || !rotatedInWindow);
    now.erase(made);
    EXPECT_EQ(planted, now);
  }
  EXPECT_EQ("private\n", readFile(secret));
}

}  // namespace
