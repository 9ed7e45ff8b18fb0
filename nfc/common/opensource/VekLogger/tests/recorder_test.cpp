// The recorder object: level property, thresholds, one instance, writer thread, attachment.
#include <android-base/properties.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <thread>

#include "VekLogTestEnv.h"

using vektest::ScratchRoot;

namespace {

void setLevels(const char* value) {
  android::base::SetProperty("persist.vendor.vek.nfc.log", value);
}

TEST(VekLogRecorder, LevelPropertyMapsEachDigitOnItsOwn) {
  vektest::LogCapture& diag = vektest::platformLog();
  const struct {
    const char* mValue;
    int mPrint;
    int mRecord;
  } cases[] = {{"55", 5, 5}, {"60", 6, 0},  {"3", 3, 5},  {"7x", 5, 5},
               {"-1", 5, 1}, {"246", 2, 4}, {"06", 0, 6}, {"", 5, 5}};
  VekLogRecorder* recorder = VekLogRecorder::getInstance();
  for (const auto& c : cases) {
    setLevels(c.mValue);
    recorder->initFeatureLevel();
    EXPECT_EQ(c.mPrint, recorder->getPrintLevel()) << '"' << c.mValue << '"';
    EXPECT_EQ(c.mRecord, recorder->getRecordLevel()) << '"' << c.mValue << '"';
    // Signed comparisons: no threshold passes 7, every threshold passes -1.
    EXPECT_TRUE(recorder->isNeedPrint(-1) && !recorder->isNeedPrint(7));
  }
  EXPECT_EQ(1, diag.count(ANDROID_LOG_INFO, "initFeatureLevel: mPrintLevel = 2, mRecordLevel = 4"));
}

TEST(VekLogRecorder, ConcurrentFirstCallsShareOneInstanceAndOneRead) {
  vektest::LogCapture& diag = vektest::platformLog();
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
  vektest::LogCapture& diag = vektest::platformLog();
  setLevels("60");
  VekLogRecorder* recorder = VekLogRecorder::getInstance();
  recorder->attchProcess("nfc_process");
  EXPECT_FALSE(recorder->mWorker.joinable());
  recorder->record(-1, "T", "negative levels need a writer too");
  EXPECT_TRUE(recorder->mBuffer.empty());
  EXPECT_EQ(0, diag.countPrefix("write buffer thread start!"));
}

TEST(VekLogRecorder, WriterRunsQueuedTasksInOrderWithoutHoldingTheLock) {
  ScratchRoot root;
  vektest::LogCapture& diag = vektest::platformLog();
  VekLogRecorder* recorder = VekLogRecorder::getInstance();
  recorder->attchProcess("se_process");
  vektest::WriterGate gate(recorder);
  std::vector<std::future<int>> done;
  for (std::string text : {"one\n", "two\n", "three\n"}) {
    auto promise = std::make_shared<std::promise<int>>();
    done.push_back(promise->get_future());
    // Taking mMutex while the writer runs the gate task shows that tasks run unlocked.
    std::lock_guard<std::mutex> lock(recorder->mMutex);
    recorder->sendBuffToWorker(std::vector<char>(text.begin(), text.end()), promise);
  }
  EXPECT_EQ(3u, recorder->mTasks.size());
  gate.release();
  for (auto& d : done) EXPECT_EQ(0, d.get());
  EXPECT_EQ("one\ntwo\nthree\n",
            vektest::readFile(root.path("/data/vendor/secure_element/se_process.veklog")));
  EXPECT_EQ(1, diag.count(ANDROID_LOG_INFO, "write buffer thread start!"));
}

TEST(VekLogRecorder, AttachSelectsPathsByExactNameAndKeepsThemForUnknownNames) {
  ScratchRoot root;
  vektest::LogCapture& diag = vektest::platformLog();
  // One recorder attached again and again; an unknown name keeps the paths it had.
  const char* const kNfc = "/data/vendor/nfc/";
  const char* const kSe = "/data/vendor/secure_element/";
  const struct {
    const char* mName;
    const char* mDir;
    const char* mFile;
  } steps[] = {{"", "", ""},
               {"nfc_hal_process", kNfc, "nfc_hal_process.veklog"},
               {"se_process", kSe, "se_process.veklog"},
               {"SE_PROCESS", kSe, "se_process.veklog"},
               {"nfc_process ", kSe, "se_process.veklog"},
               {"nfc_process", kNfc, "nfc_process.veklog"},
               {"se_hal_process", kSe, "se_hal_process.veklog"},
               {"se_hal_process", kSe, "se_hal_process.veklog"}};
  VekLogRecorder recorder;
  for (const auto& step : steps) {
    EXPECT_TRUE(recorder.attchProcess(step.mName));
    EXPECT_TRUE(recorder.mAttached);
    EXPECT_EQ(step.mName, recorder.mProcessName);
    std::string dir = *step.mDir ? root.path(step.mDir) : "";
    EXPECT_EQ(dir, recorder.mLogDir) << '"' << step.mName << '"';
    EXPECT_EQ(dir + step.mFile, recorder.mLogFilePath) << '"' << step.mName << '"';
  }
  EXPECT_EQ(2, diag.count(ANDROID_LOG_INFO, "attchProcess se_hal_process"));
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

// At exit the destructor lets the running task finish and drops the queued ones. The recorder
// is made in the child: a fork has no writer thread.
TEST(VekLogRecorderDeathTest, ExitWhileWriterIsBusyEndsCleanly) {
  ScratchRoot root;
  std::string marker = root.path("/finished");
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
  EXPECT_FALSE(vektest::exists(root.path("/data/vendor/nfc/nfc_process.veklog")));
}

}  // namespace
