#include "VekLogTestEnv.h"

#include <android-base/file.h>
#include <android-base/logging.h>
#include <android-base/properties.h>
#include <dirent.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

namespace vektest {

ScratchRoot::ScratchRoot() {
  setenv("VEK_LOG_ROOT", mRoot.c_str(), 1);
  for (const char* dir : {"/data", "/data/vendor", "/data/vendor/nfc",
                          "/data/vendor/secure_element", "/proc", "/proc/vekdev"}) {
    mkdir(path(dir).c_str(), 0755);
  }
}

LogCapture& platformLog() {
  static LogCapture* capture = [] {
    android::base::SetMinimumLogSeverity(android::base::VERBOSE);
    __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
    __android_log_set_logger([](const __android_logger_data* data, const char* message) {
      LogCapture& self = platformLog();
      std::lock_guard<std::mutex> lock(self.mMutex);
      self.mEntries.push_back({data->priority, data->tag != nullptr ? data->tag : "", message,
                               data->file != nullptr ? data->file : "", data->line});
    });
    return new LogCapture;
  }();
  return *capture;
}

void LogCapture::clear() {
  std::lock_guard<std::mutex> lock(mMutex);
  mEntries.clear();
}

std::vector<Entry> LogCapture::entries() {
  std::lock_guard<std::mutex> lock(mMutex);
  return mEntries;
}

int LogCapture::count(int priority, const std::string& text) {
  std::vector<Entry> all = entries();
  return static_cast<int>(std::count_if(all.begin(), all.end(), [&](const Entry& e) {
    return e.mPriority == priority && e.mText == text;
  }));
}

int LogCapture::countStarting(const std::string& prefix) {
  std::vector<Entry> all = entries();
  return static_cast<int>(std::count_if(
      all.begin(), all.end(), [&](const Entry& e) { return e.mText.rfind(prefix, 0) == 0; }));
}

WriterGate::WriterGate(VekLogRecorder* recorder) {
  std::shared_future<void> open = mOpen.get_future().share();
  std::promise<void> entered;
  {
    std::lock_guard<std::mutex> lock(recorder->mMutex);
    recorder->mTasks.emplace_back([&entered, open] {
      entered.set_value();
      open.wait();
    });
    recorder->mCondition.notify_one();
  }
  entered.get_future().wait();
}

void WriterGate::release() {
  if (!mReleased) mOpen.set_value();
  mReleased = true;
}

std::string logText(size_t bytes) {
  std::string text;
  for (unsigned i = 0; text.size() < bytes; ++i) {
    text += "11-22 20:51:23.0" + std::to_string(i % 100) + " 1873 2011 I NfcCore: event " +
            std::to_string(i * 2654435761u) + "\n";
  }
  text.resize(bytes);
  return text;
}

size_t countOf(const std::string& text, const std::string& part) {
  size_t found = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) found++;
  return found;
}

std::string readFile(const std::string& path) {
  std::string content;
  android::base::ReadFileToString(path, &content);
  return content;
}

void writeFile(const std::string& path, const std::string& content) {
  ASSERT_TRUE(android::base::WriteStringToFile(content, path)) << path;
}

bool exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

std::vector<std::string> listDir(const std::string& dir, bool hidden) {
  std::vector<std::string> names;
  std::unique_ptr<DIR, int (*)(DIR*)> d(opendir(dir.c_str()), closedir);
  while (dirent* entry = d ? readdir(d.get()) : nullptr) {
    std::string name = entry->d_name;
    if (name != "." && name != ".." && (hidden || name[0] != '.')) names.push_back(name);
  }
  std::sort(names.begin(), names.end());
  return names;
}

std::string statusOf(const std::function<int()>& body) {
  pid_t pid = fork();
  if (pid == 0) {
    alarm(kChildSeconds);
    prctl(PR_SET_PDEATHSIG, SIGKILL);  // children of a child that hung go with it
    exit(body());
  }
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFSIGNALED(status) ? "signal " + std::to_string(WTERMSIG(status))
                             : "exit " + std::to_string(WEXITSTATUS(status));
}

std::string runCommand(const std::string& command) {
  std::string output;
  FILE* pipe = popen(command.c_str(), "r");
  char chunk[65536];
  for (size_t got; (got = fread(chunk, 1, sizeof(chunk), pipe)) > 0;) output.append(chunk, got);
  EXPECT_EQ(0, pclose(pipe)) << command;
  return output;
}

std::string dumpState() {
  int ends[2];
  if (pipe(ends) != 0) return "";
  __vek_dump_state(ends[1]);
  close(ends[1]);
  std::string text;
  android::base::ReadFdToString(ends[0], &text);
  close(ends[0]);
  return text;
}

long long dumpCount(const std::string& dump, const std::string& label) {
  size_t at = dump.find(label);
  return at == std::string::npos ? -1 : atoll(dump.c_str() + at + label.size());
}

std::string gunzip(const std::string& path) { return runCommand("gzip -dc '" + path + "'"); }

void NfcProcessTest::SetUp() {
  recorder = VekLogRecorder::getInstance();
  setLevels("55");
  recorder->attchProcess("nfc_process");
  WriterGate{recorder}.release();  // every task queued before has run, and the attachment's work
  {
    std::lock_guard<std::mutex> lock(recorder->mMutex);
    recorder->mBuffer.clear();
  }
  dir = root.path("/data/vendor/nfc/");
  log = dir + "nfc_process.veklog";
  diag.clear();
}

void NfcProcessTest::setLevels(const char* value) {
  android::base::SetProperty("persist.vendor.vek.nfc.log", value);
  recorder->initFeatureLevel();
}

std::vector<std::string> archives(const std::string& dir) {
  std::vector<std::string> names = listDir(dir);
  names.erase(std::remove_if(names.begin(), names.end(),
                             [](const std::string& n) { return n.rfind("nfc_process_", 0) != 0; }),
              names.end());
  return names;
}

std::vector<std::string> NfcProcessTest::archives() { return vektest::archives(dir); }

std::vector<std::string> tailsIn(const std::string& dir) {
  std::vector<std::string> names = listDir(dir, true);
  names.erase(std::remove_if(names.begin(), names.end(),
                             [](const std::string& n) { return n.find(".tail") == n.npos; }),
              names.end());
  return names;
}

void NfcProcessTest::sparseLog(off_t size) {
  writeFile(log, "");
  ASSERT_EQ(0, truncate(log.c_str(), size));
}

}  // namespace vektest
