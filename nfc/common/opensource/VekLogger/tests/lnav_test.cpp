// lnav reads what the library writes: two processes' active files and an archive, parsed by the
// shipped format into the right level, pid, tid, tag and body, merged in time order.
#include <android-base/properties.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "VekLogTestEnv.h"

// And what a process that died left in its crash tail, read through vek_tail. The dead one
// comes first, so that it does not inherit a recorder.
TEST(Lnav, ReadsArchivesActiveFilesAndADeadProcessesTailInTimeOrder) {
  static const char* const kLevels[] = {"fatal", "error", "warning", "info", "debug", "trace"};
  vektest::ScratchRoot root;
  std::string expected = "log_level,pid,tid,tag,log_body\n";
  pid_t dead = fork();
  if (dead == 0) {
    VekLogRecorder::getInstance()->attchProcess("se_hal_process");
    __vek_log_w("Lost", "left by a dead process");
    _exit(0);
  }
  waitpid(dead, nullptr, 0);
  expected += "warning," + std::to_string(dead) + "," + std::to_string(dead) +
              ",Lost,left by a dead process\n";
  std::string files = " '" + root.mRoot + "/lost.veklog'";
  vektest::runCommand(VEK_TAIL " '" + root.path("/data/vendor/secure_element/") +
                      "'.se_hal_process.veklog.*.tail >" + files);
  android::base::SetProperty("persist.vendor.vek.nfc.log", "66");
  VekLogRecorder* recorder = VekLogRecorder::getInstance();
  recorder->initFeatureLevel();
  recorder->mMaxFileSize = 700;  // the first process's file rotates once: an archive
  std::string ids = std::to_string(getpid()) + "," + std::to_string(syscall(SYS_gettid)) + ",";
  for (int step = 0; step < 24; ++step) {
    std::string process = step < 12 ? "nfc_process" : "se_process";
    std::string tag = step % 3 == 0 ? process : "Tag" + std::to_string(step % 4);
    std::string body = "step " + std::to_string(step) + " of the lnav check";
    recorder->attchProcess(process);
    recorder->record(1 + step % 6, tag == process ? "" : tag, body);
    ASSERT_TRUE(recorder->saveLogsToFile(true));
    expected += std::string(kLevels[step % 6]) + "," + ids + tag + "," + body + "\n";
    // Lines a few milliseconds apart, so that the merged order is the order of the steps.
    std::this_thread::sleep_for(std::chrono::milliseconds(3));
  }
  for (const char* dir : {"/data/vendor/nfc/", "/data/vendor/secure_element/"}) {
    for (const std::string& name : vektest::listDir(root.path(dir))) {
      files += " '" + root.path(dir) + name + "'";
    }
  }
  ASSERT_NE(std::string::npos, files.find(".gz'")) << files;
  std::string home = "HOME='" + root.mRoot + "' ";
  vektest::runCommand(home + LNAV " -i '" VEKLOG_FORMAT "'");
  EXPECT_EQ(expected,
            vektest::runCommand(home +
                                LNAV " -n -c ';SELECT log_level, pid, tid, tag, log_body FROM "
                                     "veklog' -c ':write-csv-to -'" +
                                files));
}
