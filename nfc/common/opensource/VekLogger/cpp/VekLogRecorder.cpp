// The recorder object: thresholds, attachment and the writer thread.
#include <cutils/properties.h>
#include <stdio.h>

#include "VekLogDiag.h"
#include "VekLogLifecycle.h"
#include "VekLogPlatform.h"
#include "VekLogStats.h"
#include "VekLogStorage.h"
#include "VekLogTail.h"
#include "VekLogger.h"

namespace {

constexpr uint32_t kMaxFileSize = 15 * 1024 * 1024;
constexpr uint32_t kFlushThreshold = 10240;
constexpr int kDefaultLevel = 5;

struct KnownProcess {
  const char* mName;
  const char* mLogDir;
};

constexpr KnownProcess kProcesses[vek::kKnownProcesses] = {
    {"nfc_process", "/data/vendor/nfc/"},
    {"nfc_hal_process", "/data/vendor/nfc/"},
    {"se_process", "/data/vendor/secure_element/"},
    {"se_hal_process", "/data/vendor/secure_element/"},
};

int levelOfDigit(char digit) { return digit >= '0' && digit <= '6' ? digit - '0' : kDefaultLevel; }

}  // namespace

namespace vek {

int knownProcess(const std::string& name) {
  for (int process = 0; process < kKnownProcesses; ++process) {
    if (name == kProcesses[process].mName) return process;
  }
  return -1;
}

const char* knownName(int process) { return kProcesses[process].mName; }

LogTarget knownTarget(const VekLogRecorder& recorder, int process) {
  std::string dir = devicePath(kProcesses[process].mLogDir);
  return LogTarget{knownName(process), dir, dir + knownName(process) + ".veklog",
                   recorder.mMaxFileSize};
}

}  // namespace vek

VekLogRecorder* VekLogRecorder::getInstance() {
  static VekLogRecorder instance;
  static const bool forkSafe = (vek::installForkHandlers(), true);
  (void)forkSafe;
  return &instance;
}

VekLogRecorder::VekLogRecorder()
    : mAttached(false),
      mPrintLevel(kDefaultLevel),
      mRecordLevel(kDefaultLevel),
      mMaxFileSize(0),
      mFlushThreshold(0),
      mStopWriter(false),
      mRestartWriter(false),
      mClosed(false),
      mUsers(0),
      mWriterState(vek::kWriterStopped) {
  initFeatureLevel();
  mAttached = false;
  mMaxFileSize = kMaxFileSize;
  mFlushThreshold = kFlushThreshold;
  // Without a writer every hand-over tries to start one, and drops its batch when it cannot.
  if (mRecordLevel != 0 && !vek::startWriter(*this)) {
    mRestartWriter = true;
    VEK_DIAG(ERROR) << "write buffer thread failed to start!";
  }
}

void VekLogRecorder::initFeatureLevel() {
  char value[PROPERTY_VALUE_MAX] = {};
  int ret = property_get("persist.vendor.vek.nfc.log", value, "55");
  snprintf(vek::gStats->mLevelProperty, sizeof(vek::gStats->mLevelProperty), "%s", value);
  if (ret <= 0) {
    VEK_DIAG(WARNING) << "VekLogRecorder: Error in property_get! ret = " << ret;
    mPrintLevel = kDefaultLevel;
    mRecordLevel = kDefaultLevel;
    return;
  }
  mPrintLevel = levelOfDigit(value[0]);
  mRecordLevel = levelOfDigit(value[1]);
  VEK_DIAG(INFO) << android::base::StringPrintf("%s: mPrintLevel = %d, mRecordLevel = %d",
                                                "initFeatureLevel", mPrintLevel, mRecordLevel);
}

bool VekLogRecorder::isNeedPrint(int level) { return mPrintLevel >= level; }

// mAttached is read without mMutex while attchProcess may write it.
bool VekLogRecorder::isNeedRecord(int level) {
  return level != 0 && __atomic_load_n(&mAttached, __ATOMIC_ACQUIRE) && mRecordLevel >= level;
}

int VekLogRecorder::getPrintLevel() { return mPrintLevel; }

int VekLogRecorder::getRecordLevel() { return mRecordLevel; }

bool VekLogRecorder::attchProcess(const std::string& processName) {
  {
    vek::UserScope user(*this);
    if (!user.mEntered) return true;
    int process = vek::knownProcess(processName);
    {
      // Under mMutex so that record and sendBuffToWorker never see the strings change halfway.
      std::lock_guard<std::mutex> lock(mMutex);
      mProcessName = processName;
      if (process >= 0) {
        vek::LogTarget target = vek::knownTarget(*this, process);
        mLogDir = target.mLogDir;
        mLogFilePath = target.mLogFilePath;
      }
      __atomic_store_n(&mAttached, true, __ATOMIC_RELEASE);
    }
    if (process >= 0) vek::attachTail(*this, process);
  }
  VEK_DIAG(INFO) << "attchProcess " << processName;
  return true;
}
