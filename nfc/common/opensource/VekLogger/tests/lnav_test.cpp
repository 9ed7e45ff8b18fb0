// lnav reads what the library writes: two processes' active files and archives, parsed by the
// shipped format into the right level, pid, tid, tag and body, merged in time order.
#include <android-base/properties.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "VekLogTestEnv.h"

namespace {

constexpr int kSteps = 36;
constexpr char kStop = 127;
const char* const kProcesses[] = {"nfc_process", "se_process"};

struct Row {
  std::string mLevel;
  std::string mTag;
  std::string mBody;
};

// Step s is logged by process s % 2, at a level and with a tag that vary with s.
Row expectedRow(int step) {
  static const char* const kLevels[] = {"fatal", "error", "warning", "info", "debug", "trace"};
  std::string tag = step % 3 == 0 ? kProcesses[step % 2] : "Tag" + std::to_string(step % 4);
  return Row{kLevels[step % 6], tag, "step " + std::to_string(step) + " of the lnav check"};
}

// One process: logs its steps when told to through in, and acknowledges each through out.
void runProcess(int index, int in, int out) {
  android::base::SetProperty("persist.vendor.vek.nfc.log", "66");
  VekLogRecorder* recorder = VekLogRecorder::getInstance();
  recorder->attchProcess(kProcesses[index]);
  recorder->mMaxFileSize = 700;  // one rotation halfway through, so there is an archive
  char step;
  while (read(in, &step, 1) == 1 && step != kStop) {
    Row row = expectedRow(step);
    std::string tag = row.mTag == kProcesses[index] ? "" : row.mTag;
    recorder->record(1 + step % 6, tag, row.mBody);
    recorder->saveLogsToFile(true);
    if (write(out, &step, 1) != 1) break;
  }
  _exit(0);
}

TEST(Lnav, ReadsArchivesAndActiveFilesOfTwoProcessesInTimeOrder) {
  vektest::ScratchRoot root;
  pid_t pids[2];
  int toChild[2][2];
  int fromChild[2][2];
  for (int p = 0; p < 2; ++p) {
    ASSERT_EQ(0, pipe(toChild[p]));
    ASSERT_EQ(0, pipe(fromChild[p]));
    pids[p] = fork();
    if (pids[p] == 0) runProcess(p, toChild[p][0], fromChild[p][1]);
  }
  for (char step = 0; step < kSteps; ++step) {
    int p = step % 2;
    ASSERT_EQ(1, write(toChild[p][1], &step, 1));
    char done;
    ASSERT_EQ(1, read(fromChild[p][0], &done, 1));
    // Lines a millisecond apart, so that the merged order is the order of the steps.
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  for (int p = 0; p < 2; ++p) {
    ASSERT_EQ(1, write(toChild[p][1], &kStop, 1));
    waitpid(pids[p], nullptr, 0);
  }

  std::string files;
  int archives = 0;
  for (const char* dir : {"/data/vendor/nfc/", "/data/vendor/secure_element/"}) {
    for (const std::string& name : vektest::listDir(root.path(dir))) {
      files += " '" + root.path(dir) + name + "'";
      archives += name.size() > 3 && name.compare(name.size() - 3, 3, ".gz") == 0;
    }
  }
  ASSERT_EQ(2, archives) << files;

  std::string home = "HOME='" + root.mRoot + "' ";
  vektest::runCommand(home + LNAV " -i '" VEKLOG_FORMAT "'");
  std::string csv =
      vektest::runCommand(home +
                          LNAV
                          " -n -c ';SELECT log_level, pid, tid, tag, log_body FROM veklog' "
                          "-c ':write-csv-to -'" +
                          files);
  std::vector<std::string> lines;
  size_t start = 0;
  for (size_t feed; (feed = csv.find('\n', start)) != std::string::npos; start = feed + 1) {
    lines.push_back(csv.substr(start, feed - start));
  }
  ASSERT_EQ(static_cast<size_t>(kSteps) + 1, lines.size()) << csv;
  EXPECT_EQ("log_level,pid,tid,tag,log_body", lines[0]);
  for (int step = 0; step < kSteps; ++step) {
    Row row = expectedRow(step);
    std::string pid = std::to_string(pids[step % 2]);
    EXPECT_EQ(row.mLevel + "," + pid + "," + pid + "," + row.mTag + "," + row.mBody,
              lines[step + 1]);
  }
}

}  // namespace
