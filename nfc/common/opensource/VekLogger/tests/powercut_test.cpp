// A power cut, or a death, at every step of a rotation and of a recovery. This binary defines the
// file calls the library makes that change or sync a log directory (the library's calls bind to
// these), and keeps what a power cut would leave: each file's data as of its last sync, and the
// directory's names as of its last sync. At the chosen step the process writes out its images
// and dies: "synced", the names as last synced; "now", the names as they stand (a journal that
// committed meanwhile), both with the data as synced. The test adds "untailed", a copy of the
// directory the process left without its crash tails, and "died", the directory left in place,
// which a kill -9 leaves. A new process attaches to each image, and the test reads the result.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <mutex>

#include "VekLogTestEnv.h"

using vektest::readFile;
using vektest::runCommand;
using vektest::writeFile;

namespace {

constexpr int kCut = 42;  // the status of a process whose power went
constexpr char kLog[] = "nfc_process.veklog";
constexpr char kDir[] = "/data/vendor/nfc/";

// The watched directory (with its "/"), the step the power goes before, and what is on storage:
// files by an id of their own, since the file system gives a removed file's inode to the next.
std::mutex gMutex;
std::string gDir;
std::string gImages;
int gCutAt = -1;
int gSteps = 0;
int gNextId = 0;
std::map<ino_t, int> gIds;
std::map<int, std::string> gData;
std::map<std::string, int> gNames;
// Written by the process that loses power, read by the test.
struct Counts {
  std::atomic<int> mAccepted;  // lines whose log call returned
  std::atomic<int> mFlushed;   // lines that a flush returning true covered
  std::atomic<int> mRotated;   // lines the rotation moved aside
};
Counts& gCounts = *static_cast<Counts*>(
    mmap(nullptr, sizeof(Counts), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));

template <typename F>
F* real(const char* name) {
  return reinterpret_cast<F*>(dlsym(RTLD_NEXT, name));
}

bool watched(const std::string& path) {
  return !gDir.empty() && (path + "/" == gDir || path.compare(0, gDir.size(), gDir) == 0);
}

std::string pathOf(int fd) {
  char path[4096];
  ssize_t size = readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), path, sizeof(path));
  return std::string(path, size > 0 ? static_cast<size_t>(size) : 0);
}

int idOf(ino_t ino) { return gIds.emplace(ino, gNextId++).first->second; }

std::map<std::string, int> namesNow() {
  std::map<std::string, int> names;
  for (const std::string& name : vektest::listDir(gDir, true)) {
    struct stat st;
    if (lstat((gDir + name).c_str(), &st) == 0 && S_ISREG(st.st_mode))
      names[name] = idOf(st.st_ino);
  }
  return names;
}

// The power goes: what it leaves is written out, with what the test needs to know, and the
// process ends. The library's calls meanwhile go straight through.
[[noreturn]] void cut() {
  auto now = namesNow();
  gDir.clear();
  for (auto [image, names] : {std::make_pair("/synced", gNames), std::make_pair("/now", now)}) {
    runCommand("mkdir -p '" + gImages + image + kDir + "'");
    for (const auto& [name, id] : names) writeFile(gImages + image + kDir + name, gData[id]);
  }
  _exit(kCut);
}

// A call that changes or syncs the watched directory: counted, and the power may go first.
template <typename Call>
auto step(bool inDir, Call call) -> decltype(call()) {
  if (!inDir) return call();
  std::lock_guard<std::mutex> lock(gMutex);
  if (gSteps++ == gCutAt) cut();
  return call();
}

int syncStep(int fd, int (*next)(int)) {
  std::string path = pathOf(fd);
  return step(watched(path), [&] {
    int ret = next(fd);
    struct stat st;
    if (ret == 0 && path + "/" == gDir) gNames = namesNow();
    if (ret == 0 && path + "/" != gDir && fstat(fd, &st) == 0) {
      gData[idOf(st.st_ino)] = readFile(path);
    }
    return ret;
  });
}

// The inode at path is no file's once a call removes it or renames another onto it.
void forget(const char* path) {
  struct stat st;
  if (lstat(path, &st) == 0) gIds.erase(st.st_ino);
}

int removeStep(const char* path, int (*next)(const char*)) {
  return step(watched(path), [&] {
    forget(path);
    return next(path);
  });
}

// Attaches in root. The file rotates at 8 KiB, in batches of 2 KiB: one rotation in all (a second
// in the same second would replace its archive).
void attach(const std::string& root) {
  setenv("VEK_LOG_ROOT", root.c_str(), 1);
  VekLogRecorder* recorder = VekLogRecorder::getInstance();
  recorder->mMaxFileSize = 8192;
  recorder->mFlushThreshold = 2048;
  recorder->attchProcess("nfc_process");
}

std::string line(int i) { return ": line " + std::to_string(10000 + i) + "\n"; }

void logLines(int from, int to, int flushEvery) {
  for (int i = from; i < to; ++i) {
    __vek_log_i("PowerCut", "line %d", 10000 + i);
    gCounts.mAccepted = i + 1;
    if ((i + 1 - from) % flushEvery != 0) continue;
    __vek_log_i("PowerCut", "flush");  // text to hand over: with none, a flush returns at once
    if (__vek_save_log_now()) gCounts.mFlushed = i + 1;
  }
}

}  // namespace

extern "C" {
ssize_t write(int fd, const void* data, size_t size) {
  static auto next = real<decltype(::write)>("write");
  return step(watched(pathOf(fd)), [&] { return next(fd, data, size); });
}
int fsync(int fd) { return syncStep(fd, real<decltype(::fsync)>("fsync")); }
int fdatasync(int fd) { return syncStep(fd, real<decltype(::fdatasync)>("fdatasync")); }
int unlink(const char* path) { return removeStep(path, real<decltype(::unlink)>("unlink")); }
int remove(const char* path) { return removeStep(path, real<decltype(::remove)>("remove")); }
int rename(const char* from, const char* to) {
  static auto next = real<decltype(::rename)>("rename");
  return step(watched(from) || watched(to), [&] {
    if (std::string(from) == gDir + kLog && std::string(to) == gDir + kLog + ".rotating") {
      gCounts.mRotated = static_cast<int>(vektest::countOf(readFile(from), ": line "));
    }
    forget(to);
    return next(from, to);
  });
}
}

// A process dies with lines 30 to 59 in its tail, beside five archives. The next one recovers
// them and logs lines 60 to 219 through a rotation, with a true flush after 180 and 220, and
// loses power before its step n, for n = 0, 1, ... until it ends on its own, each time from the
// directory the death left. In every image: each archive whole, no more than five, no line the
// tail, a flush or the rotation held lost, none written twice, but the recovered ones where a
// power cut made the recovery run again; after a death, every logged line once; with the tails
// lost, every line a flush or the rotation held, and the rotation completed.
TEST(PowerCut, EveryStepOfARecoveryAndARotation) {
  vektest::ScratchRoot root;
  std::string dir = root.path(kDir);
  std::string images = root.path("/images");
  for (int i = 0; i < 5; ++i) {
    writeFile(dir + "nfc_process_2020010" + std::to_string(i) + "_000000.gz",
              std::string("\x1f\x8b\x08\0\0\0\0\0\0\x03\x03\0\0\0\0\0\0\0\0\0", 20));
  }
  ASSERT_EQ("signal 9", vektest::statusOf([&] {
              attach(root.mRoot);
              logLines(0, 30, 30);
              vektest::WriterGate gate(VekLogRecorder::getInstance());
              logLines(30, 60, 1000);
              return raise(SIGKILL);
            }));
  runCommand("cp -a '" + dir + "' '" + root.path("/template") + "'");
  std::string status;
  const std::string cutStatus = "exit " + std::to_string(kCut);
  for (gCutAt = 0; gCutAt == 0 || status == cutStatus; ++gCutAt) {
    runCommand("rm -rf '" + dir + "' '" + images + "' && cp -a '" + root.path("/template") + "' '" +
               dir + "'");
    gCounts.mAccepted = gCounts.mFlushed = gCounts.mRotated = 0;
    status = vektest::statusOf([&] {
      gDir = dir;
      gImages = images;
      gNames = namesNow();
      for (const auto& [name, id] : gNames) gData[id] = readFile(gDir + name);
      attach(root.mRoot);
      logLines(60, 180, 120);
      logLines(180, 220, 40);  // the last flush before the exit, which discards the tail
      return 0;
    });
    std::string untailed = images + "/untailed" + kDir;
    runCommand("mkdir -p '" + untailed + "' && cp -a '" + dir + ".' '" + untailed + "' && rm -f '" +
               untailed + "'.*.tail*");
    for (std::string image : {"synced", "now", "untailed", "died"}) {
      if (status != cutStatus) break;
      SCOPED_TRACE("cut before step " + std::to_string(gCutAt) + ", image " + image);
      std::string imageRoot = image == "died" ? root.mRoot : images + "/" + image;
      ASSERT_EQ("exit 0", vektest::statusOf([&] {
                  attach(imageRoot);
                  __vek_log_i("PowerCut", "after");
                  return __vek_save_log_now() ? 0 : 1;
                }));
      std::string logDir = imageRoot + kDir;
      std::string text = readFile(logDir + kLog);
      std::vector<std::string> archives = vektest::archives(logDir);
      EXPECT_LE(archives.size(), 5u);
      for (const std::string& name : archives) text += vektest::gunzip(logDir + name);
      int kept = std::max(gCounts.mFlushed.load(), gCounts.mRotated.load());
      for (int i = 0; i < 220; ++i) {
        size_t found = vektest::countOf(text, line(i));
        // A recovery may run again after a power cut. A death may have come once the line after
        // the last one logged reached the tail; with the tail lost, only what was written stays.
        bool twice = i < 60 && (image == "synced" || image == "now");
        bool lost = image == "died"       ? i >= gCounts.mAccepted
                    : image == "untailed" ? i >= std::max(30, kept)
                                          : i >= std::max(60, kept);
        bool right = found == 1 || (found == 2 && twice) || (found == 0 && lost);
        ASSERT_TRUE(right) << "line " << i << " found " << found << " times";
      }
    }
  }
  EXPECT_EQ("exit 0", status);
  EXPECT_GT(gCutAt, 20);
}
