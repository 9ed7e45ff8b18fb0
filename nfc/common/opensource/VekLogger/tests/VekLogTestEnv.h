// Shared test fixtures: a scratch VEK_LOG_ROOT, the captured platform log, and a way to hold the
// writer thread. Every case runs in one process with the others, in any order.
#pragma once

#include <android-base/file.h>
#include <android/log.h>
#include <gtest/gtest.h>
#include <sys/types.h>

#include <functional>
#include <future>
#include <mutex>
#include <string>
#include <vector>

#include "VekLogger.h"

namespace vektest {

constexpr off_t kLimit = 15L * 1024 * 1024;

// A scratch root with the device directories, with VEK_LOG_ROOT pointing at it. It is made
// under $TMPDIR on a host and under /data/local/tmp on a device.
struct ScratchRoot {
  ScratchRoot();
  std::string path(const std::string& devicePath) const { return mRoot + devicePath; }

  TemporaryDir mDir;
  std::string mRoot = mDir.path;
};

// One platform log entry. libbase hands its lines to liblog, so diagnostics (which carry a
// source file) and __android_log_print entries (which do not) arrive through one hook.
struct Entry {
  int mPriority;
  std::string mTag;
  std::string mText;
  std::string mFile;
  unsigned int mLine;
};

// Every entry from the first use on, verbose included; it lives until the process ends, since
// the writer thread may log after a test body has returned.
struct LogCapture {
  std::vector<Entry> entries();
  void clear();
  int count(int priority, const std::string& text);  // entries with exactly this text
  int countStarting(const std::string& prefix);      // entries whose text begins so

  std::mutex mMutex;
  std::vector<Entry> mEntries;
};

LogCapture& platformLog();

// Holds the writer thread in a task of its own until release().
struct WriterGate {
  explicit WriterGate(VekLogRecorder* recorder);
  ~WriterGate() { release(); }
  void release();

  std::promise<void> mOpen;
  bool mReleased = false;
};

std::string logText(size_t bytes);  // log-like text, not trivially compressible
size_t countOf(const std::string& text, const std::string& part);  // overlapping too
std::string readFile(const std::string& path);
void writeFile(const std::string& path, const std::string& content);
bool exists(const std::string& path);
// Sorted; the library's own files (a dot first) only with hidden.
std::vector<std::string> listDir(const std::string& dir, bool hidden = false);
std::vector<std::string> archives(const std::string& dir);  // "nfc_process"'s, sorted
std::vector<std::string> tailsIn(const std::string& dir);   // crash tails, whatever their state
// Decompresses with the gzip program, as a field engineer would.
std::string gunzip(const std::string& path);
// What __vek_dump_state writes, read through a pipe.
std::string dumpState();
// The number after label in a dump ("flushes: " -> 3), or -1.
long long dumpCount(const std::string& dump, const std::string& label);
// How long a child process of a test may take before it counts as hung.
constexpr unsigned kChildSeconds = 20;
// How body ended in a child process: "exit N", or "signal N" (14, SIGALRM: it hung).
std::string statusOf(const std::function<int()>& body);
// The standard output of a shell command, which must exit with 0.
std::string runCommand(const std::string& command);

// The process's recorder with the default levels, nothing buffered or queued, attached as
// "nfc_process" in a fresh scratch root, and the capture emptied.
struct NfcProcessTest : testing::Test {
  void SetUp() override;
  void setLevels(const char* value);
  std::vector<std::string> archives();  // this process's, sorted
  // A log file of size bytes that takes no space: the limit is reached without writing 15 MiB.
  void sparseLog(off_t size);

  ScratchRoot root;
  LogCapture& diag = platformLog();
  VekLogRecorder* recorder = nullptr;
  std::string dir;  // ends in "/"
  std::string log;
};

}  // namespace vektest
