// A log directory shared with a process that may plant links and FIFOs, and a disk that fills
// up: nothing outside the directory is touched, the writer never blocks, no archive is lost.
#include <android-base/file.h>
#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <future>
#include <iterator>
#include <map>
#include <memory>

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
  int errors(const std::string& text) { return diag.count(ANDROID_LOG_ERROR, text); }
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

TEST_F(HostileStorageTest, LinksInTheLogDirectoryAreNeverFollowed) {
  ASSERT_EQ(0, symlink(secret.c_str(), log.c_str()));
  EXPECT_EQ(1, vektest::writeNow(recorder, "appended\n"));
  EXPECT_EQ(1, errors("Failed to append file: " + log));
  EXPECT_FALSE(recorder->checkLogFileExceed(kLimit)) << "rotating the link";
  EXPECT_EQ(1, errors("compressGzip: Failed to open input file: " + log));

  std::string outside = root.mRoot + "/created";
  writeFile(dir + "in", "log text\n");
  ASSERT_EQ(0, symlink(secret.c_str(), (dir + "private.gz").c_str()));
  ASSERT_EQ(0, symlink(outside.c_str(), (dir + "dangling.gz").c_str()));
  for (const char* name : {"private.gz", "dangling.gz"}) {
    EXPECT_FALSE(recorder->compressGzip(dir + "in", dir + name)) << name;
    EXPECT_EQ(1, errors("compressGzip: Failed to open outFile file: " + dir + name));
  }
  EXPECT_FALSE(vektest::exists(outside));
  EXPECT_EQ("private\n", readFile(secret));

  ASSERT_EQ(0, unlink(log.c_str()));
  EXPECT_EQ(0, vektest::writeNow(recorder, "after\n"));
  EXPECT_EQ("after\n", readFile(log));
}

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

TEST_F(HostileStorageTest, FifoAtTheActivePathNeverBlocksTheWriter) {
  for (bool withReader : {false, true}) {
    ASSERT_EQ(0, mkfifo(log.c_str(), 0640));
    android::base::unique_fd reader(
        withReader ? open(log.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC) : -1);
    EXPECT_EQ(1, vektest::writeNow(recorder, "into the fifo\n")) << withReader;
    EXPECT_FALSE(recorder->checkLogFileExceed(kLimit + 100)) << "compressing the fifo";

    ASSERT_EQ(0, unlink(log.c_str()));
    writeFile(log, "earlier\n");
    EXPECT_EQ(0, vektest::writeNow(recorder, "into the file\n")) << withReader;
    EXPECT_EQ("earlier\ninto the file\n", readFile(log));
    ASSERT_EQ(0, unlink(log.c_str()));
  }
  EXPECT_EQ(2, errors("Failed to append file: " + log));
  EXPECT_EQ(2, errors("compressGzip: Failed to open input file: " + log));
}

// tmpfs needs root, as in FaultTest.FullFileSystemThenSpaceFreed.
TEST_F(HostileStorageTest, FullDiskDuringRotationsCostsOneArchiveAtMost) {
  if (mount("tmpfs", dir.c_str(), "tmpfs", 0, "size=128k") != 0) {
    GTEST_SKIP() << "cannot mount a small tmpfs here (needs root): " << strerror(errno);
  }
  auto unmount = [](const std::string* path) { umount2(path->c_str(), MNT_DETACH); };
  std::unique_ptr<const std::string, decltype(unmount)> mounted(&dir, unmount);
  for (int i = 0; i < 5; ++i) {
    writeFile(dir + "nfc_process_2000010" + std::to_string(i) + "_000000.gz", std::to_string(i));
  }
  std::map<std::string, std::string> kept = archives();
  std::string text = sparseLog();
  android::base::unique_fd filler(open((dir + "filler").c_str(), O_WRONLY | O_CREAT, 0600));
  EXPECT_FALSE(android::base::WriteFully(filler, std::string(1 << 20, 'f').data(), 1 << 20));

  for (int attempt = 0; attempt < 3; ++attempt) EXPECT_FALSE(recorder->checkLogFileExceed(100));
  EXPECT_EQ(3, errors("checkLogFileExceed: Failed to compressGzip!"));
  kept.erase(kept.begin());  // the first attempt makes room for its archive
  EXPECT_EQ(kept, archives()) << "no cut archive left, no further archive pruned";

  filler.reset();
  ASSERT_EQ(0, unlink((dir + "filler").c_str()));
  EXPECT_TRUE(recorder->checkLogFileExceed(100));
  ASSERT_EQ(5u, archives().size());
  EXPECT_EQ(text, vektest::gunzip(dir + archives().rbegin()->first));
}

}  // namespace
