#include "VekLogTestEnv.h"

#include <android-base/file.h>
#include <android/log.h>
#include <dirent.h>
#include <fcntl.h>
#include <ftw.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

namespace vektest {

ScratchRoot::ScratchRoot() {
  const char* tmp = getenv("TMPDIR");
  std::string pattern = std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/vek.XXXXXX";
  mRoot = mkdtemp(&pattern[0]);
  setenv("VEK_LOG_ROOT", mRoot.c_str(), 1);
  for (const char* dir : {"/data", "/data/vendor", "/data/vendor/nfc",
                          "/data/vendor/secure_element", "/proc", "/proc/vekdev"}) {
    mkdir(path(dir).c_str(), 0755);
  }
}

ScratchRoot::~ScratchRoot() {
  nftw(
      mRoot.c_str(), [](const char* p, const struct stat*, int, FTW*) { return remove(p); }, 16,
      FTW_DEPTH | FTW_PHYS);
}

namespace {

int priorityOf(android::base::LogSeverity severity) {
  switch (severity) {
    case android::base::VERBOSE:
      return ANDROID_LOG_VERBOSE;
    case android::base::DEBUG:
      return ANDROID_LOG_DEBUG;
    case android::base::INFO:
      return ANDROID_LOG_INFO;
    case android::base::WARNING:
      return ANDROID_LOG_WARN;
    case android::base::ERROR:
      return ANDROID_LOG_ERROR;
    default:
      return ANDROID_LOG_FATAL;
  }
}

}  // namespace

DiagCapture::DiagCapture() {
  android::base::SetMinimumLogSeverity(android::base::VERBOSE);
  __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
  __android_log_set_logger([](const __android_logger_data* data, const char* message) {
    DiagCapture& self = diagnostics();
    std::lock_guard<std::mutex> lock(self.mMutex);
    self.mLines.push_back({data->priority, data->tag != nullptr ? data->tag : "", message,
                           data->file != nullptr ? data->file : "", data->line});
    self.mAdded.notify_all();
  });
}

DiagCapture& diagnostics() {
  static DiagCapture* capture = new DiagCapture;
  return *capture;
}

std::vector<Diagnostic> DiagCapture::all() {
  std::lock_guard<std::mutex> lock(mMutex);
  return mLines;
}

std::vector<Diagnostic> DiagCapture::printed() {
  std::vector<Diagnostic> lines = all();
  lines.erase(std::remove_if(lines.begin(), lines.end(),
                             [](const Diagnostic& d) { return !d.mFile.empty(); }),
              lines.end());
  return lines;
}

int DiagCapture::count(android::base::LogSeverity severity, const std::string& text) {
  std::vector<Diagnostic> lines = all();
  return static_cast<int>(std::count_if(lines.begin(), lines.end(), [&](const Diagnostic& d) {
    return d.mPriority == priorityOf(severity) && d.mText == text;
  }));
}

static int countStarting(const std::vector<Diagnostic>& lines, const std::string& prefix) {
  return static_cast<int>(std::count_if(lines.begin(), lines.end(), [&](const Diagnostic& d) {
    return d.mText.compare(0, prefix.size(), prefix) == 0;
  }));
}

int DiagCapture::countPrefix(const std::string& prefix) { return countStarting(all(), prefix); }

void DiagCapture::waitFor(const std::string& prefix, int count) {
  std::unique_lock<std::mutex> lock(mMutex);
  mAdded.wait(lock, [&] { return countStarting(mLines, prefix) >= count; });
}

WriterGate::WriterGate(VekLogRecorder* recorder) {
  std::shared_future<void> open = mOpen.get_future().share();
  std::future<void> entered = mEntered.get_future();
  {
    std::lock_guard<std::mutex> lock(recorder->mMutex);
    recorder->mTasks.emplace_back([this, open] {
      mEntered.set_value();
      open.wait();
    });
    recorder->mCondition.notify_one();
  }
  entered.wait();
}

void WriterGate::release() {
  if (mReleased) return;
  mReleased = true;
  mOpen.set_value();
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

std::string readFile(const std::string& path) {
  std::string content;
  android::base::ReadFileToString(path, &content);
  return content;
}

void writeFile(const std::string& path, const std::string& content) {
  ASSERT_TRUE(android::base::WriteStringToFile(content, path)) << path;
}

bool exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

std::vector<std::string> listDir(const std::string& dir) {
  std::vector<std::string> names;
  DIR* d = opendir(dir.c_str());
  if (d == nullptr) return names;
  while (dirent* entry = readdir(d)) {
    std::string name = entry->d_name;
    if (name != "." && name != "..") names.push_back(name);
  }
  closedir(d);
  std::sort(names.begin(), names.end());
  return names;
}

int writeNow(VekLogRecorder* recorder, const std::string& text) {
  auto promise = std::make_shared<std::promise<int>>();
  std::future<int> done = promise->get_future();
  {
    std::lock_guard<std::mutex> lock(recorder->mMutex);
    recorder->sendBuffToWorker(std::vector<char>(text.begin(), text.end()), promise);
  }
  return done.get();
}

std::string gunzip(const std::string& path) {
  std::string content;
  FILE* pipe = popen(("gzip -dc '" + path + "'").c_str(), "r");
  if (pipe == nullptr) return content;
  char chunk[65536];
  size_t got;
  while ((got = fread(chunk, 1, sizeof(chunk), pipe)) > 0) content.append(chunk, got);
  EXPECT_EQ(0, pclose(pipe)) << "gzip -dc " << path;
  return content;
}

}  // namespace vektest
