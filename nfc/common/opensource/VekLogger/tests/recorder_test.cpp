// The recorder object: level property, thresholds, writer thread, attachment. First use and
// the recorder's end are lifecycle_test.cpp's.
#include <android-base/properties.h>
#include <gtest/gtest.h>

#include "VekLogTestEnv.h"

namespace {

using RecorderTest = vektest::NfcProcessTest;

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

TEST_F(RecorderTest, RecordThresholdZeroStartsNoWriter) {
  android::base::SetProperty("persist.vendor.vek.nfc.log", "60");
  VekLogRecorder quiet;
  quiet.attchProcess("nfc_process");
  EXPECT_FALSE(quiet.mWorker.joinable());
  quiet.record(-1, "T", "negative levels need a writer too");
  EXPECT_TRUE(quiet.mBuffer.empty());
  EXPECT_FALSE(quiet.isNeedRecord(0) || quiet.isNeedRecord(1));
}

// Tasks run in queue order, with mMutex free meanwhile, each for the attachment it was
// queued under.
TEST_F(RecorderTest, WriterRunsTasksInOrderUnlockedForTheirAttachment) {
  vektest::WriterGate gate(recorder);
  std::vector<std::future<int>> done;
  for (const char* name : {"se_process", "se_process", "nfc_process"}) {
    recorder->attchProcess(name);
    auto promise = std::make_shared<std::promise<int>>();
    done.push_back(promise->get_future());
    std::string text = std::string(name) + "\n";
    // Taking mMutex while the writer runs the gate task shows that tasks run unlocked.
    std::lock_guard<std::mutex> lock(recorder->mMutex);
    recorder->sendBuffToWorker(std::vector<char>(text.begin(), text.end()), promise);
  }
  EXPECT_EQ(3u, recorder->mTasks.size());
  gate.release();
  for (auto& d : done) EXPECT_EQ(0, d.get());
  EXPECT_EQ("se_process\nse_process\n",
            vektest::readFile(root.path("/data/vendor/secure_element/se_process.veklog")));
  EXPECT_EQ("nfc_process\n", vektest::readFile(log));
}

// Only an exact name selects paths; any other attaches and keeps the paths it had. Where each
// name writes is the write tasks' test.
TEST_F(RecorderTest, AttachSelectsPathsByExactName) {
  std::string se = root.path("/data/vendor/secure_element/se_process.veklog");
  const struct {
    const char* mName;
    std::string mFile;
  } steps[] = {{"", ""},
               {"se_process", se},
               {"SE_PROCESS", se},
               {"nfc_process ", se},
               {"nfc_hal_process", dir + "nfc_hal_process.veklog"}};
  VekLogRecorder fresh;
  for (const auto& step : steps) {
    EXPECT_TRUE(fresh.attchProcess(step.mName) && fresh.mAttached);
    EXPECT_EQ(step.mName, fresh.mProcessName);
    EXPECT_EQ(step.mFile, fresh.mLogFilePath) << '"' << step.mName << '"';
  }
  EXPECT_EQ(dir, fresh.mLogDir);
}

}  // namespace
