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
  EXPECT_EQ(1, diag.count(ANDROID_LOG_INFO, "initFeatureLevel: mPrintLevel = 2, mRecordLevel = 4"));
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

// One recorder attached again and again; an unknown name keeps the paths it had.
TEST_F(RecorderTest, AttachSelectsPathsByExactName) {
  const char* const kNfc = "/data/vendor/nfc/";
  const char* const kSe = "/data/vendor/secure_element/";
  const struct {
    const char* mName;
    const char* mDir;
    const char* mFile;
  } steps[] = {{"", "", ""},
               {"nfc_hal_process", kNfc, "nfc_hal_process.veklog"},
               {"SE_PROCESS", kNfc, "nfc_hal_process.veklog"},
               {"se_process", kSe, "se_process.veklog"},
               {"nfc_process ", kSe, "se_process.veklog"},
               {"nfc_process", kNfc, "nfc_process.veklog"},
               {"se_hal_process", kSe, "se_hal_process.veklog"}};
  VekLogRecorder fresh;
  for (const auto& step : steps) {
    EXPECT_TRUE(fresh.attchProcess(step.mName));
    EXPECT_TRUE(fresh.mAttached);
    EXPECT_EQ(step.mName, fresh.mProcessName);
    std::string dir = *step.mDir ? root.path(step.mDir) : "";
    EXPECT_EQ(dir, fresh.mLogDir) << '"' << step.mName << '"';
    EXPECT_EQ(dir + step.mFile, fresh.mLogFilePath) << '"' << step.mName << '"';
  }
  EXPECT_EQ(1, diag.count(ANDROID_LOG_INFO, "attchProcess SE_PROCESS"));
}

}  // namespace
