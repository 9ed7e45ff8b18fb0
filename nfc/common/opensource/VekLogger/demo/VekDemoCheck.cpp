// The closing check: every archive decompresses, and every recorded line that was not pruned
// with an old archive is present exactly once, each thread's lines in order.
#include <ctype.h>
#include <dirent.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <zlib.h>

#include <algorithm>
#include <vector>

#include "VekDemo.h"
#include "VekWaitForWriter.h"

namespace vekdemo {
namespace {

struct Archive {
  std::string mName;
  long mSize;
  std::string mText;
  bool mValid;
};

std::string logDir(const Options& options, int index) {
  return options.mRoot + (index < 2 ? "/data/vendor/nfc/" : "/data/vendor/secure_element/");
}

bool gunzip(const std::string& path, std::string* text) {
  gzFile file = gzopen(path.c_str(), "rb");
  if (file == nullptr) return false;
  char chunk[1 << 16];
  int got;
  while ((got = gzread(file, chunk, sizeof(chunk))) > 0)
    text->append(chunk, static_cast<size_t>(got));
  int error = 0;
  gzerror(file, &error);
  bool ok = got == 0 && error == Z_OK;
  gzclose(file);
  return ok;
}

std::string readAll(const std::string& path) {
  std::string text;
  FILE* file = fopen(path.c_str(), "rb");
  if (file == nullptr) return text;
  char chunk[1 << 16];
  size_t got;
  while ((got = fread(chunk, 1, sizeof(chunk), file)) > 0) text.append(chunk, got);
  fclose(file);
  return text;
}

std::vector<Archive> readArchives(const std::string& dir, const std::string& name) {
  std::vector<Archive> archives;
  DIR* d = opendir(dir.c_str());
  if (d == nullptr) return archives;
  while (dirent* entry = readdir(d)) {
    if (strncmp(entry->d_name, (name + "_").c_str(), name.size() + 1) != 0) continue;
    Archive archive{entry->d_name, 0, "", false};
    struct stat st;
    if (stat((dir + entry->d_name).c_str(), &st) == 0) archive.mSize = st.st_size;
    archive.mValid = gunzip(dir + entry->d_name, &archive.mText);
    archives.push_back(std::move(archive));
  }
  closedir(d);
  std::sort(archives.begin(), archives.end(),
            [](const Archive& a, const Archive& b) { return a.mName < b.mName; });
  return archives;
}

// "MM-DD hh:mm:ss.mmm pid tid L tag: ", strictly; yields the pid.
bool parseHeader(const std::string& line, long* pid) {
  static const char kStamp[] = "dd-dd dd:dd:dd.ddd ";  // d: a digit
  size_t stamp = sizeof(kStamp) - 1;
  if (line.size() < stamp) return false;
  for (size_t i = 0; i < stamp; ++i) {
    if (kStamp[i] == 'd' ? !isdigit(static_cast<unsigned char>(line[i])) : line[i] != kStamp[i]) {
      return false;
    }
  }
  const char* at = line.c_str() + stamp;
  char* end = nullptr;
  *pid = strtol(at, &end, 10);
  if (end == at || end[0] != ' ' || !isdigit(static_cast<unsigned char>(end[1]))) return false;
  strtol(end + 1, &end, 10);
  if (end[0] != ' ' || end[1] == '\0' || strchr("FEWIDV", end[1]) == nullptr || end[2] != ' ') {
    return false;
  }
  const char* tag = end + 3;
  const char* colon = strstr(tag, ": ");
  return colon != nullptr && colon > tag &&
         memchr(tag, ' ', static_cast<size_t>(colon - tag)) == nullptr;
}

// Follows each thread's message numbers through the text, in file order. Lines carry the pid
// of the process, or of the one the demo killed.
struct LineCheck {
  bool check(const std::string& text, const ProcessStats& stats) {
    size_t start = 0;
    for (size_t feed; (feed = text.find('\n', start)) != std::string::npos; start = feed + 1) {
      std::string line = text.substr(start, feed - start);
      if (!checkLine(line, stats)) return false;
    }
    return fail(start == text.size(), "text after the last line feed");
  }
  bool checkLine(const std::string& line, const ProcessStats& stats) {
    long kernelSeq;
    if (sscanf(line.c_str(), "<6>[%*d.%*d] vekdev: klog#%ld#", &kernelSeq) == 1) {
      if (!fail(kernelSeq > mKernelSeq, "kernel log out of order: " + line)) return false;
      mKernelSeq = kernelSeq;
      mKernelLines++;
      return true;
    }
    long linePid;
    if (!fail(parseHeader(line, &linePid), "malformed line: " + line)) return false;
    if (!fail(linePid == stats.mPid || linePid == stats.mKilledPid, "wrong pid: " + line)) {
      return false;
    }
    if (vekIsWaitLine(line)) return true;
    size_t at = line.find("demo#");
    int thread;
    long seq;
    if (!fail(at != std::string::npos &&
                  sscanf(line.c_str() + at, "demo#%d#%ld#", &thread, &seq) == 2 && thread >= 0 &&
                  thread < kMaxThreads,
              "unknown line: " + line)) {
      return false;
    }
    long& last = mLastSeq[thread];
    if (!fail(seq > last, "duplicate or out of order: " + line)) return false;
    // Gaps are recorded lines that went with pruned archives, or unrecorded levels.
    mFirstSeq[thread] = last < 0 ? seq : mFirstSeq[thread];
    last = seq;
    mLines[thread]++;
    return true;
  }
  bool fail(bool ok, const std::string& why) {
    if (!ok && mWhy.empty()) mWhy = why;
    return ok;
  }

  long mLastSeq[kMaxThreads] = {-1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1};
  long mFirstSeq[kMaxThreads] = {};
  long mLines[kMaxThreads] = {};
  long mKernelSeq = -1;
  long mKernelLines = 0;
  std::string mWhy;
};

// Recorded messages among seq first..last, by the same rule the demo logs with.
long recordedBetween(long first, long last, int recordLevel) {
  long count = 0;
  for (long seq = first; seq <= last; ++seq) count += levelOf(seq) <= recordLevel;
  return count;
}

bool checkProcess(const Options& options, const Shared& shared, int index) {
  const ProcessStats& stats = shared.mProcesses[index];
  std::string dir = logDir(options, index);
  std::string name = kProcessNames[index];
  std::vector<Archive> archives = readArchives(dir, name);
  std::string active = readAll(dir + name + ".veklog");
  int recordLevel =
      options.mLevels.size() > 1 && options.mLevels[1] >= '0' && options.mLevels[1] <= '6'
          ? options.mLevels[1] - '0'
          : 5;

  LineCheck lines;
  bool ok = true;
  long logged = 0;
  long recorded = 0;
  for (const Archive& archive : archives) {
    ok = lines.fail(archive.mValid, archive.mName + " does not decompress") && ok;
    ok = ok && lines.check(archive.mText, stats);
  }
  ok = ok && lines.check(active, stats);
  bool pruned = stats.mRotations > 5;
  int threads = options.mThreads * (stats.mKilledPid != 0 ? 2 : 1);
  for (int t = 0; t < threads; ++t) {
    logged += stats.mLogged[t];
    recorded += stats.mRecorded[t];
    // A thread killed in a log call may have left its line without counting it.
    long last = std::max(stats.mLogged[t] - 1, lines.mLastSeq[t]);
    ok = ok && lines.fail(lines.mLastSeq[t] <= stats.mLogged[t],
                          "thread " + std::to_string(t) + ": a line never logged");
    long expected =
        lines.mLines[t] == 0 ? 0 : recordedBetween(lines.mFirstSeq[t], last, recordLevel);
    ok = ok && lines.fail(lines.mLines[t] == expected,
                          "thread " + std::to_string(t) + ": a line is missing");
    ok = ok && lines.fail(pruned || lines.mLines[t] == recordedBetween(0, last, recordLevel),
                          "thread " + std::to_string(t) + ": lines lost without pruning");
  }
  ok = ok && lines.fail(stats.mErrors == 0, std::string("error: ") + stats.mFirstError);
  ok = ok && lines.fail(stats.mRotations >= options.mRotations, "too few rotations");

  long present = 0;
  for (int t = 0; t < threads; ++t) present += lines.mLines[t];
  printf("\n%s (pid %d): %ld messages logged, %ld recorded, %ld present (older ones pruned: %s)\n",
         name.c_str(), stats.mPid.load(), logged, recorded, present, pruned ? "yes" : "no");
  printf("  %.1f MiB written, %ld rotations, active file %.1f MiB",
         mebibytes(static_cast<double>(stats.mBytesWritten)), stats.mRotations.load(),
         mebibytes(static_cast<double>(active.size())));
  if (stats.mKernelLines > 0) {
    printf(", kernel log lines %ld fed, %ld present", stats.mKernelLines.load(),
           lines.mKernelLines);
  }
  printf("\n");
  for (const Archive& archive : archives) {
    printf("  %-40s %9ld bytes  ratio %5.1f:1  %s\n", archive.mName.c_str(), archive.mSize,
           archive.mSize > 0
               ? static_cast<double>(archive.mText.size()) / static_cast<double>(archive.mSize)
               : 0.0,
           archive.mValid ? "decompresses" : "CORRUPT");
  }
  printf("  check: %s\n", ok ? "every recorded line not pruned is present exactly once, in order"
                             : ("FAILED: " + lines.mWhy).c_str());
  return ok;
}

}  // namespace

bool checkFiles(const Options& options, const Shared& shared) {
  bool ok = true;
  for (int index = 0; index < kProcesses; ++index) ok = checkProcess(options, shared, index) && ok;
  return ok;
}

}  // namespace vekdemo
