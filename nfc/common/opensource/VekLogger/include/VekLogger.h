// libvek_log_record: the log recorder of the NFC and secure-element vendor processes. Every
// message goes to the platform log and, behind its own threshold, as a time-stamped line into
// the process's log file. Thresholds: "persist.vendor.vek.nfc.log", read once, print digit then
// record digit, 0 (off) to 6 (verbose), default "55". Files: "/data/vendor/nfc/<process>.veklog"
// or "/data/vendor/secure_element/<process>.veklog", rotated at 15 MiB into
// "<process>_<YYYYmmdd_HHMMSS>.gz", five kept; no directory is made; hosts prefix $VEK_LOG_ROOT.
//
//   VekLogRecorder::getInstance()->attchProcess("nfc_process");  // once, at start-up
//   __vek_log_i("NfcCore", "Discovery started, mode %d", mode);  // printf style
//   VEK_LOG(INFO) << "ready";                                   // stream style
//   __vek_save_log_now();                                       // flush, wait up to 2 s
//
// Guarantees and choices, each with its section of docs/DESIGN.md, which says why: [1] the call,
// [2] the crash tail, [3] the writer, [4] the log file, [5] archives, [6] deaths, [7] the files.
// - A log call waits for nothing but mMutex: no other lock, no storage, no writer. [1]
// - A call that a platform logger routes back into the library is printed or dropped. [1]
// - Negative levels are recorded (empty letter) while recording is on, never printed. [1]
// - A printed level-1 VekLogAdapter message is flushed first (when attached), then ends it. [1]
// - Every recorded line is in a crash tail (mapped file) before its log call returns. [2]
// - Tail flash writes: 47 MiB a day at 1 line/s, 208 at 20 (ext4); none in "/mnt/vendor/vek". [2]
// - A tail that cannot be made: one WARNING; retried from 1 s, doubling up to 64 s. [2]
// - A living tail is 0640 and flock-ed; cut by its user or root, it may raise SIGBUS. [2]
// - A tail removed or cut is made again, with one WARNING naming it. [2]
// - A writer that cannot start: one ERROR; each hand-over retries, its batch dropped. [3]
// - __vek_save_log_now(): true once synced, or at once with nothing buffered. [3]
// - A task keeps the paths current when queued: re-attaching while tasks run is safe. [3]
// - Memory: a rotation's 2.3 MiB is freed; an idle writer returns free memory after 1 s. [3]
// - Files are 0640, close-on-exec; the library's own begin with a dot (lnav skips them). [4]
// - Planted links, FIFOs and devices are never followed or waited on; writes there fail. [4]
// - Two processes under one name: ".<log file>.lock" orders their appends and rotations. [4]
// - A rotation in steps: no death or power cut loses text, archives it twice or cuts one. [5]
// - An archive name already taken by another entry becomes "_1", "_2"; retention still sorts. [5]
// - kill -9, abort or a crash: the next process under the name appends the lines, once. [6]
// - The first attchProcess recovers dead processes' tails and a cut rotation, then returns. [6]
// - A dead sibling's lines follow the survivor's, within 2 s of its death. [6]
// - A dead tail is read with pread and checked; a bad one is kept aside as "<tail>.bad". [6]
// - fork(): the child gets its own writer and tail; the parent's pending text stays its own. [6]
// - exit: at most 2 s for a running task; pending text and its tail are dropped: flush first. [6]
// - Disk per name, worst case: 15 MiB file, five archives, three tails (3 MiB + 12 KiB). [7]

#pragma once

#include <stdint.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#define VEK_EXPORT __attribute__((visibility("default")))

// Lock annotations, checked by clang's -Wthread-safety (the attributes libbase's
// thread_annotations.h names); other compilers skip them.
#if defined(__clang__)
#define VEK_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define VEK_THREAD_ANNOTATION(x)
#endif
#define VEK_GUARDED_BY(x) VEK_THREAD_ANNOTATION(guarded_by(x))
#define VEK_REQUIRES(...) VEK_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define VEK_EXCLUDES(...) VEK_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define VEK_ACQUIRE(...) VEK_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define VEK_ASSERT_CAPABILITY(x) VEK_THREAD_ANNOTATION(assert_capability(x))
#define VEK_NO_THREAD_SAFETY_ANALYSIS VEK_THREAD_ANNOTATION(no_thread_safety_analysis)

extern "C" {
// Format the message, record it at level 6 (v), 5 (d), 4 (i), 3 (w) or 2 (e), then print it to
// the platform log at the matching Android priority. An empty message does nothing.
VEK_EXPORT void __vek_log_v(const char* tag, const char* fmt, ...)
    __attribute__((format(printf, 2, 3)));
VEK_EXPORT void __vek_log_d(const char* tag, const char* fmt, ...)
    __attribute__((format(printf, 2, 3)));
VEK_EXPORT void __vek_log_i(const char* tag, const char* fmt, ...)
    __attribute__((format(printf, 2, 3)));
VEK_EXPORT void __vek_log_w(const char* tag, const char* fmt, ...)
    __attribute__((format(printf, 2, 3)));
VEK_EXPORT void __vek_log_e(const char* tag, const char* fmt, ...)
    __attribute__((format(printf, 2, 3)));

// Hands the buffered text to the writer and waits up to 2 seconds for it to reach the file;
// true means it is on storage (synced), so that a power cut right after keeps it. With nothing
// buffered, true at once, without waiting for batches handed over earlier. False when not
// attached, when the file could not be opened or rotated, its sync failed, or after the 2 s
// (the text is still written later). A write that fails after the open returns true: the dump
// shows it. Batches nobody waits for reach storage within the kernel's writeback delay.
VEK_EXPORT bool __vek_save_log_now(void);

// Writes a short plain-text report of the library's own state to fd, for a HAL's dump(): the
// process and its files, the thresholds, the writer's state and step, what is queued, and
// since start how many lines were recorded, appended, dropped (and why), recovered and lost,
// the rotations and flushes, and the last failure of each kind. Safe from any thread at any
// moment (before attachment, in a forked child, during exit): it never waits for the writer,
// and gives up on an fd that does not take the text.
VEK_EXPORT void __vek_dump_state(int fd);
}

// The one recorder of the process. mMutex guards the fields marked VEK_GUARDED_BY; the levels
// and size limits are fixed at construction and read without it; everything on storage
// happens on the writer thread.
class VEK_EXPORT VekLogRecorder {
 public:
  // Creates the recorder on first use, thread-safely. Never null.
  static VekLogRecorder* getInstance();

  VekLogRecorder();
  // Turns new callers away, waits for those inside a hand-over, and gives a running task up to
  // 2 s; a writer busy past that is left behind and never touches the recorder again. Queued
  // and buffered text and the crash tail are discarded. Later log calls are printed only. The
  // library is linked -z nodelete: dlclose leaves it, its recorder and its writer in place.
  ~VekLogRecorder();

  // Reads the level property into mPrintLevel and mRecordLevel.
  void initFeatureLevel();
  bool isNeedPrint(int level);
  bool isNeedRecord(int level);
  int getPrintLevel();
  int getRecordLevel();

  // Names the host process ("nfc_process", "nfc_hal_process", "se_process", "se_hal_process"),
  // which selects its log file, and turns recording on. Always true.
  bool attchProcess(const std::string& processName) VEK_EXCLUDES(mMutex);

  // Formats message as one line per line feed and buffers it; hands the buffer to the writer
  // once it holds more than mFlushThreshold bytes. Does nothing unless attached and
  // level passes the record threshold.
  void record(int level, const std::string& tag, const std::string& message) VEK_EXCLUDES(mMutex);

  // Queues buff as a write task. The caller holds mMutex. False for an empty buffer.
  bool sendBuffToWorker(std::vector<char>&& buff, std::shared_ptr<std::promise<int>> promise)
      VEK_REQUIRES(mMutex);

  // Hands the buffer to the writer; with wait, blocks up to 2 s for the write's outcome.
  bool saveLogsToFile(bool wait) VEK_EXCLUDES(mMutex);

  // Writer thread only. True when size more bytes may be appended to mLogFilePath, rotating
  // the file into an archive first when they would not fit.
  bool checkLogFileExceed(int size) VEK_EXCLUDES(mMutex);
  // The path of a new archive for the current local time: mLogDir + "/" + name + "_" + time.
  // A rotation adds "_1", "_2", ... before ".gz" when an older archive has that name.
  std::string getCompressedLogFile() VEK_EXCLUDES(mMutex);
  // Compresses the file in into a gzip file out, made or replaced; neither is opened through a
  // link, nor when it is a FIFO or device. The input is never changed.
  bool compressGzip(const std::string& in, const std::string& out);
  // Deletes the oldest archives of this process until fewer than five remain.
  bool manageCompressFiles() VEK_EXCLUDES(mMutex);

  std::mutex mMutex;
  std::condition_variable mCondition;
  bool mAttached VEK_GUARDED_BY(mMutex);  // isNeedRecord reads it atomically without
  std::string mProcessName VEK_GUARDED_BY(mMutex);
  std::string mLogDir VEK_GUARDED_BY(mMutex);
  std::string mLogFilePath VEK_GUARDED_BY(mMutex);
  // Fixed once the constructor returns, read without mMutex.
  int mPrintLevel;
  int mRecordLevel;
  uint32_t mMaxFileSize;
  uint32_t mFlushThreshold;
  std::vector<char> mBuffer VEK_GUARDED_BY(mMutex);
  // The writer: started with mMutex held (or by the constructor), joined by the destructor.
  std::thread mWorker;
  std::deque<std::function<void()>> mTasks VEK_GUARDED_BY(mMutex);
  // Set by the destructor; the writer leaves its loop when it sees it.
  bool mStopWriter VEK_GUARDED_BY(mMutex);
  // No writer runs though one should (a forked child's, or one the system refused to start):
  // the next hand-over starts one.
  bool mRestartWriter VEK_GUARDED_BY(mMutex);
  // Read and written without mMutex. The storage outlives the destructor, so late callers
  // still find mClosed set and leave without touching anything else.
  std::atomic<bool> mClosed;
  std::atomic<int> mUsers;        // threads inside record, a flush's hand-over or attchProcess
  std::atomic<int> mWriterState;  // starting, idle, in a task, stopped, or left behind
};

// Logs one message written to stream(); the destructor records "[file(line)] text" and prints
// the bare text through android::base logging with the caller's file and line. Levels follow
// the recorder's scale: 1 fatal to 6 verbose; other levels are never printed. The recorded
// text ends at its first NUL byte, as "%s" formats it; the printed text keeps all of it.
class VEK_EXPORT VekLogAdapter {
 public:
  VekLogAdapter(int level, const char* file, int line);
  ~VekLogAdapter();
  VekLogAdapter(const VekLogAdapter&) = delete;
  VekLogAdapter& operator=(const VekLogAdapter&) = delete;

  std::ostringstream& stream();

  int mLevel;
  const char* mFile;  // not copied: must outlive the adapter
  int mLine;
  std::ostringstream mStream;
};

#define VEK_LEVEL_FATAL 1
#define VEK_LEVEL_ERROR 2
#define VEK_LEVEL_WARNING 3
#define VEK_LEVEL_INFO 4
#define VEK_LEVEL_DEBUG 5
#define VEK_LEVEL_VERBOSE 6

// VEK_LOG(INFO) << "text"; logs one message with the caller's file and line.
#define VEK_LOG(severity) VekLogAdapter(VEK_LEVEL_##severity, __FILE__, __LINE__).stream()
