// Shared test fixtures: a scratch VEK_LOG_ROOT, captured diagnostics and a way to hold the
// writer thread. Each test runs in its own process, so the recorder starts fresh every time.
#pragma once

#include <android-base/logging.h>
#include <gtest/gtest.h>

#include <condition_variable>
#include <future>
#include <mutex>
#include <string>
#include <vector>

#include "VekLogger.h"

namespace vektest {

// Creates a scratch root with the two log directories and points VEK_LOG_ROOT at it.
struct ScratchRoot {
  ScratchRoot();
  ~ScratchRoot();
  std::string path(const std::string& devicePath) const { return mRoot + devicePath; }

  std::string mRoot;
};

// One entry of the platform log. libbase hands its lines to liblog here, so diagnostics (with
// a file and a line) and __android_log_print entries (without) arrive through the same hook.
struct Diagnostic {
  int mPriority;
  std::string mTag;
  std::string mText;
  std::string mFile;
  unsigned int mLine;
};

// Records every platform log entry written from now on, verbose included, through liblog's
// logger hook. It lives until the process ends, since the writer thread may log after a test
// body has returned.
struct DiagCapture {
  DiagCapture();
  std::vector<Diagnostic> all();
  // The entries of __android_log_print, which carry no source file.
  std::vector<Diagnostic> printed();
  // How many lines at severity read exactly text.
  int count(android::base::LogSeverity severity, const std::string& text);
  // How many lines start with prefix, at any severity.
  int countPrefix(const std::string& prefix);
  // Blocks until count lines in all have started with prefix.
  void waitFor(const std::string& prefix, int count = 1);

  std::mutex mMutex;
  std::condition_variable mAdded;
  std::vector<Diagnostic> mLines;
};

// Holds the writer thread in a task of its own until release() is called.
struct WriterGate {
  explicit WriterGate(VekLogRecorder* recorder);
  ~WriterGate() { release(); }
  void release();

  std::promise<void> mOpen;
  std::promise<void> mEntered;
  bool mReleased = false;
};

// The process's one capture, installed on first use.
DiagCapture& diagnostics();

// bytes of log-like text, not trivially compressible.
std::string logText(size_t bytes);
std::string readFile(const std::string& path);
void writeFile(const std::string& path, const std::string& content);
bool exists(const std::string& path);
std::vector<std::string> listDir(const std::string& dir);
// Queues text as a write task on the recorder and waits for its completion value.
int writeNow(VekLogRecorder* recorder, const std::string& text);
// Decompresses a gzip file with the gzip program, as a field engineer would.
std::string gunzip(const std::string& path);

// A fresh scratch root and the recorder attached as "nfc_process"; dir ends in "/".
struct NfcProcessTest : testing::Test {
  void SetUp() override {
    recorder = VekLogRecorder::getInstance();
    recorder->attchProcess("nfc_process");
    dir = root.path("/data/vendor/nfc/");
    log = dir + "nfc_process.veklog";
  }

  ScratchRoot root;
  DiagCapture& diag = diagnostics();
  VekLogRecorder* recorder = nullptr;
  std::string dir;
  std::string log;
};

}  // namespace vektest
