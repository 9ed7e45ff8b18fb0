// The recorder object: level property, thresholds, one instance, writer thread, attachment.
#include <android-base/properties.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <thread>

#include "VekLogTestEnv.h"

using android::base::INFO;
using vektest::DiagCapture;
using vektest::ScratchRoot;

namespace {

constexpr char kLevelProperty[] = "persist.vendor.vek.nfc.log";

TEST(VekLogRecorder, LevelPropertyMapsEachDigitOnItsOwn) {
  DiagCapture& diag = vektest::diagnostics();
  struct Case {
    const char* mValue;
    int mPrint;
    int mRecord;
  };
  const Case cases[] = {{"55", 5, 5}, {"60", 6, 0},  {"3", 3, 5},  {"7x", 5, 5},
                        {"-1", 5, 1}, {"246", 2, 4}, {"06", 0, 6}, {"", 5, 5}};
  VekLogRecorder* recorder = VekLogRecorder::getInstance();
  for (const Case& c : cases) {
    android::base::SetProperty(kLevelProperty, c.mValue);
    recorder->initFeatureLevel();
    EXPECT_EQ(c.mPrint, recorder->getPrintLevel()) << '"' << c.mValue << '"';
    EXPECT_EQ(c.mRecord, recorder->getRecordLevel()) << '"' << c.mValue << '"';
  }
  EXPECT_EQ(1, diag.count(INFO, "initFeatureLevel: mPrintLevel = 2, mRecordLevel = 4"));
}

TEST(VekLogRecorder, ThresholdQueriesCompareSigned) {
  ScratchRoot root;
  android::base::SetProperty(kLevelProperty, "32");
  VekLogRecorder* recorder = VekLogRecorder::getInstance();
  EXPECT_TRUE(recorder->isNeedPrint(-1));
  EXPECT_TRUE(recorder->isNeedPrint(3));
  EXPECT_FALSE(recorder->isNeedPrint(4));
  EXPECT_FALSE(recorder->isNeedPrint(7));
  EXPECT_FALSE(recorder->isNeedRecord(2)) << "not attached yet";
  recorder->attchProcess("nfc_process");
  EXPECT_TRUE(recorder->isNeedRecord(2));
  EXPECT_TRUE(recorder->isNeedRecord(-1));
  EXPECT_FALSE(recorder->isNeedRecord(3));
  EXPECT_FALSE(recorder->isNeedRecord(0));
}

TEST(VekLogRecorder, ConcurrentFirstCallsShareOneInstanceAndOneRead) {
  DiagCapture& diag = vektest::diagnostics();
  std::promise<void> go;
  std::shared_future<void> start = go.get_future().share();
  std::vector<VekLogRecorder*> seen(8);
  std::vector<std::thread> threads;
  threads.reserve(seen.size());
  for (auto& slot : seen) {
    threads.emplace_back([&slot, start] {
      start.wait();
      slot = VekLogRecorder::getInstance();
    });
  }
  go.set_value();
  for (auto& t : threads) t.join();
  for (VekLogRecorder* r : seen) EXPECT_EQ(seen[0], r);
  EXPECT_EQ(1, diag.countPrefix("initFeatureLevel: "));
}

TEST(VekLogRecorder, RecordThresholdZeroStartsNoWriter) {
  ScratchRoot root;
  DiagCapture& diag = vektest::diagnostics();
  android::base::SetProperty(kLevelProperty, "60");
  VekLogRecorder* recorder = VekLogRecorder::getInstance();
  recorder->attchProcess("nfc_process");
  EXPECT_FALSE(recorder->mWorker.joinable());
  recorder->record(-1, "T", "negative levels need a writer too");
  EXPECT_TRUE(recorder->mBuffer.empty());
  EXPECT_TRUE(recorder->saveLogsToFile(true));
  EXPECT_EQ(0, diag.countPrefix("write buffer thread start!"));
}

TEST(VekLogRecorder, WriterRunsQueuedTasksInOrderWithoutHoldingTheLock) {
  ScratchRoot root;
  DiagCapture& diag = vektest::diagnostics();
  VekLogRecorder* recorder = VekLogRecorder::getInstance();
  recorder->attchProcess("se_process");
  vektest::WriterGate gate(recorder);
  std::vector<std::future<int>> done;
  for (const char* text : {"one\n", "two\n", "three\n"}) {
    auto promise = std::make_shared<std::promise<int>>();
    done.push_back(promise->get_future());
    // Taking mMutex here while the writer runs the gate task shows it runs tasks unlocked.
    std::lock_guard<std::mutex> lock(recorder->mMutex);
    ASSERT_TRUE(recorder->sendBuffToWorker(std::vector<char>(text, text + strlen(text)), promise));
  }
  EXPECT_EQ(3u, recorder->mTasks.size());
  gate.release();
  for (auto& d : done) EXPECT_EQ(0, d.get());
  EXPECT_EQ("one\ntwo\nthree\n",
            vektest::readFile(root.path("/data/vendor/secure_element/se_process.veklog")));
  EXPECT_EQ(1, diag.count(INFO, "write buffer thread start!"));
}

TEST(VekLogRecorder, AttachSelectsPathsByExactName) {
  ScratchRoot root;
  struct Case {
    const char* mName;
    const char* mDir;
  };
  const Case known[] = {{"nfc_process", "/data/vendor/nfc/"},
                        {"nfc_hal_process", "/data/vendor/nfc/"},
                        {"se_process", "/data/vendor/secure_element/"},
                        {"se_hal_process", "/data/vendor/secure_element/"}};
  for (const Case& c : known) {
    VekLogRecorder recorder;
    EXPECT_TRUE(recorder.attchProcess(c.mName));
    EXPECT_EQ(root.path(c.mDir), recorder.mLogDir);
    EXPECT_EQ(root.path(c.mDir) + c.mName + ".veklog", recorder.mLogFilePath);
    EXPECT_TRUE(recorder.mAttached);
  }
  for (const char* unknown : {"NFC_PROCESS", "nfc_process ", "", "nfc"}) {
    VekLogRecorder recorder;
    EXPECT_TRUE(recorder.attchProcess(unknown));
    EXPECT_TRUE(recorder.mAttached);
    EXPECT_EQ(unknown, recorder.mProcessName);
    EXPECT_EQ("", recorder.mLogDir);
    EXPECT_EQ("", recorder.mLogFilePath);
  }
}

TEST(VekLogRecorder, ReattachKeepsKnownPathsAndLogsEachTime) {
  ScratchRoot root;
  DiagCapture& diag = vektest::diagnostics();
  VekLogRecorder recorder;
  recorder.attchProcess("nfc_process");
  recorder.attchProcess("nfc_process");
  EXPECT_EQ(2, diag.count(INFO, "attchProcess nfc_process"));
  recorder.attchProcess("tool");
  EXPECT_EQ("tool", recorder.mProcessName);
  EXPECT_EQ(root.path("/data/vendor/nfc/nfc_process.veklog"), recorder.mLogFilePath);
  EXPECT_EQ(1, diag.count(INFO, "attchProcess tool"));
}

TEST(VekLogRecorder, QueuedTaskKeepsTheAttachmentItWasQueuedUnder) {
  ScratchRoot root;
  VekLogRecorder* recorder = VekLogRecorder::getInstance();
  recorder->attchProcess("nfc_process");
  vektest::WriterGate gate(recorder);
  recorder->record(4, "T", "before");
  recorder->saveLogsToFile(false);
  recorder->attchProcess("se_process");
  gate.release();
  recorder->record(4, "T", "after");
  ASSERT_TRUE(recorder->saveLogsToFile(true));
  EXPECT_NE(std::string::npos,
            vektest::readFile(root.path("/data/vendor/nfc/nfc_process.veklog")).find("before"));
  EXPECT_NE(
      std::string::npos,
      vektest::readFile(root.path("/data/vendor/secure_element/se_process.veklog")).find("after"));
}

// The destructor at exit lets the running task finish and drops the queued ones.
TEST(VekLogRecorderDeathTest, ExitWhileWriterIsBusyEndsCleanly) {
  ScratchRoot root;
  std::string marker = root.path("/finished");
  std::string log = root.path("/data/vendor/nfc/nfc_process.veklog");
  GTEST_FLAG_SET(death_test_style, "fast");
  EXPECT_EXIT(
      {
        VekLogRecorder* recorder = VekLogRecorder::getInstance();
        recorder->attchProcess("nfc_process");
        std::promise<void> entered;
        {
          std::lock_guard<std::mutex> lock(recorder->mMutex);
          recorder->mTasks.emplace_back([&entered, marker] {
            entered.set_value();
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
            vektest::writeFile(marker, "done");
          });
          recorder->mCondition.notify_one();
        }
        entered.get_future().wait();
        recorder->record(4, "T", "queued behind the running task");
        recorder->saveLogsToFile(false);
        exit(0);
      },
      testing::ExitedWithCode(0), "");
  EXPECT_EQ("done", vektest::readFile(marker));
  EXPECT_FALSE(vektest::exists(log));
}

}  // namespace
