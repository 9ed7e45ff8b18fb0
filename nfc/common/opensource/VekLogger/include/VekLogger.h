// libvek_log_record: the log recorder of the NFC and secure-element vendor processes.
//
// Every message goes two ways, each behind its own threshold: to the platform log, and as
// time-stamped lines into the process's private log file. Usage:
//
//   VekLogRecorder::getInstance()->attchProcess("nfc_process");  // once, at start-up
//   __vek_log_i("NfcCore", "Discovery started, mode %d", mode);  // printf style
//   VEK_LOG(INFO) << "ready";                                   // stream style
//   __vek_save_log_now();                                       // flush, wait up to 2 s
//
// Thresholds come from the property "persist.vendor.vek.nfc.log", read once when the recorder
// is first used: two digits, the print threshold then the record threshold, each 0 (off) to
// 6 (verbose); default "55". A message of level L passes threshold T when L <= T.
//
// Recorded lines gather in memory and are appended by one writer thread in batches of a little
// over 10240 bytes to "/data/vendor/nfc/<process>.veklog" or
// "/data/vendor/secure_element/<process>.veklog". A file that would pass 15 MiB is compressed
// into "<process>_<YYYYmmdd_HHMMSS>.gz" beside it and removed; five archives are kept. The
// library creates no directories. Host builds prefix these paths with $VEK_LOG_ROOT.
//
// Choices this library makes where the platform leaves room:
// - Lifecycle. The recorder lives in static storage until the process ends; the library is
//   linked never to be unloaded (-z nodelete), so dlclose leaves it, its recorder and its
//   writer in place. The destructor turns new callers away (mClosed), waits for those already
//   inside a hand-over, stops the writer and joins it. A task that is running may finish for
//   up to 2 s; a writer still busy then (a kernel log node that blocks, a slow rotation), or one
//   not yet started, is left behind and never touches the recorder again, so exit is never held
//   up for longer. Queued tasks and buffered text are discarded, and the crash tail with them:
//   flush with __vek_save_log_now() before a planned exit. A log call after the destructor (a
//   static destructor, an atexit handler, another thread during exit) is printed and not
//   recorded. No per-thread state has a destructor, so a thread_local object may log from its
//   own destructor.
// - Crash tail. Every recorded line is also copied into a file of the log directory, mapped
//   MAP_SHARED, until its batch is appended: ".<log file>.<creation time>-<pid>.tail". Its
//   pages belong to the page cache, so a process that dies without its destructor (kill -9,
//   abort, a crash on any thread, _exit) leaves its pending lines there, and the next process
//   to attach under the same name appends them before anything of its own, in order and once
//   (a batch cut by the death resumes where the file ends), then removes the file. The copy
//   is a memcpy under mMutex into pages made resident, but clean, beforehand: no system call
//   and no lock on the logging path; the first write to a page the kernel has written back
//   takes a minor fault. Only pages lines are written to are ever dirtied: measured on ext4
//   with 30 s writeback, the tail adds about 40 MiB a day of device writes at 1 line/s and
//   200 MiB at 20 lines/s (2.8 times the text in all, with the log file). The ring holds 1 MiB,
//   what the writer leaves pending while it compresses a full file (about a second) at the heaviest
//   rate seen, 0.9 MiB/s; lines that find it full are not protected, and a recovery says how many
//   bytes were lost, in a WARNING diagnostic and a W line of the log file. Cost: 1 MiB + 4 KiB of
//   disk per living process, reserved before mapping so that a full disk never raises SIGBUS, and
//   as much resident page cache. The file is 0640, close-on-exec, opened without following links,
//   and holds a lock (flock) while its process lives: a locked tail is never recovered, so
//   two processes under one name never take each other's lines. A forked child inherits
//   no tail mapping and closes every tail file it inherited, so it never holds another's lock;
//   its writer makes one of its own at its first batch (lines before that are not protected).
//   While another process under the name lives (a restart while the old one still dies, a
//   forked child), the writer looks every 2 s whether it has died, and appends its lines
//   after its own lines written so far: the log file only grows at its end, and each line
//   carries its time. The writer checks at each attachment and every 2 s while it works
//   that the file is still whole at its name; one removed (its directory too) or cut is made
//   again, with one WARNING ("Crash tail was removed or cut, made again: <path>"). Only the
//   process's own user (or root) can cut it; a cut reaching a page a thread then writes
//   raises SIGBUS in the process, as with any shared mapping. A failure to set it up leaves logging
//   as it was, with one WARNING per process ("Failed to set up crash tail: <path>"); the writer
//   tries again at the first batch 1 s after a failure, the wait doubling with each failure up to
//   64 s. vek_tail (tools/) prints a tail's lines for a process that died and was not restarted.
// - A dead process's tail is untrusted input: it is read with pread and every value checked
//   before use; only its leading whole lines are appended. A tail that fails a check, or whose
//   recovery began twice without finishing (the recovering process died each time), is set
//   aside unread as "<tail>.bad" with one WARNING, kept for vek_tail, never recovered again;
//   the newest one per process is kept, and retention of archives never counts it. A tail
//   whose lines cannot be appended (a full disk) stays for the next attachment, with one ERROR.
//   The first attchProcess recovers what dead processes left under the name (and completes a
//   rotation a death cut short) before it adds the process's own tail, so it takes as long as
//   appending their lines (and, after a death mid-rotation, compressing one log file). So a name
//   has at most three tail files: one per living process (one, normally), one dead one and
//   one set aside. Worst case per name, beside the 15 MiB log file and five archives: 3 MiB +
//   12 KiB.
// - Rotation in steps: the archive is written as ".<log file>.gz.part", named once it is whole
//   and synced, and the log file is first moved to "<log file>.rotating", removed last. The
//   next rotation, or every attachment before its first append (a tail left or none),
//   completes one that a death cut short, so no text is lost or archived twice and no cut
//   archive is left. A rotation whose compression fails (a full disk) removes its part file
//   and keeps the log file, so failing again and again costs at most the one archive pruned to
//   make room. compressGzip() itself leaves a failed output as it is.
// - Processes may log under one name at once: a forked child, or a restart while the old
//   process still dies. The size check, the rotation and the append of each batch hold a POSIX
//   record lock on ".<log file>.lock" (0640, kept open by the writer), so each full file is
//   rotated once and no process removes a file another has just begun; an archive of another
//   process in the same second takes _1. A process stopped while it holds the lock (a
//   debugger) holds up the other's writer, never its logging threads.
// - fork(): the child gets a working recorder: a fresh lock and condition variable, and its own
//   writer, started by its first hand-over. The parent's queued and buffered text is the
//   parent's to write; the child drops its copy, so no line is written twice. fork waits for a
//   line the library is writing through libbase, whose logging lock a child would inherit held,
//   and may come at any moment of exit.
// - A log call that comes back into the library on the same thread, through a platform logger
//   that forwards into it, is not recorded: one that comes from the library's own diagnostic
//   is printed (through liblog, without the threshold check), and one that comes from the
//   library's own printing is dropped, since the platform log already has it. Diagnostics are
//   written with mMutex released, so nothing here can deadlock on it; the batch of a flush
//   waits until the flush's "saveLogsToFile size" line is written, so the lines keep the order
//   they would have under the lock. (libbase holds its logging lock while a logger runs, so
//   a LOG() line of the host that reaches such a logger must not come back as VEK_LOG, nor be
//   the library's first use, whose diagnostic is a LOG() line too: either waits on that lock,
//   as LOG() there would. Use the library once at start-up, as attchProcess does.)
// - A writer thread that cannot be started (the system refuses threads) never ends the
//   process: one ERROR diagnostic ("write buffer thread failed to start!"), then each hand-over
//   tries again, and drops its batch while no writer runs (a flush returns false at once), so
//   memory stays bounded; the crash tail keeps the dropped lines until a writer runs. The one
//   function that starts the thread is built with exceptions, std::thread's only way to report
//   the failure.
// - Re-attaching is safe while tasks run: a write task keeps the process name and paths that
//   were current when it was queued. With only unknown names attached, each batch fails to open
//   the empty path and nothing is written anywhere, no lock file either.
// - Negative levels are recorded (with an empty level letter) only while the record threshold
//   is not 0, so no task is ever queued without a writer to run it. They are never printed.
// - A level-1 message of VekLogAdapter is recorded, then printed at FATAL, which ends the
//   process when the print threshold is 1 or more; only then, and only when attached, is it
//   flushed first, with the bounded wait. A fatal message that is not printed forces nothing.
// - VekLogAdapter records "[file(line)] text" as "%s" formats it: the text ends at its first
//   NUL byte. The printed text keeps all of it.
// - __vek_save_log_now() returns saveLogsToFile(true): true when the writer has appended the
//   text buffered at the call, or when nothing was buffered (it then returns at once, without
//   waiting for batches handed over earlier); false when not attached, when the log file could
//   not be opened or rotated to make room, or after the 2 s time-out (the text is still written
//   later). A write that fails after the open (a full disk) is not detected: the result is
//   true. To wait for those earlier batches as well, flush once, then log one line and flush
//   it until a flush returns true: a line alone never completes a batch, so that flush always
//   has one of its own to wait for.
// - Memory. The writer runs at Android's background priority (nice 10), so that compressing
//   yields the cores to the threads that log. A rotation takes about 2.3 MiB (the deflate
//   state and two 1 MiB chunks) and frees it when done; once the writer has had nothing to do
//   for a second, it gives the allocator's free memory back to the system (glibc keeps it until
//   malloc_trim; bionic's allocator returns it on its own schedule, M_PURGE at once), so an
//   idle process holds what it held after its first lines, whatever it logged before.
// - Files are created with mode 0640 and close-on-exec; an archive counts as made only once
//   it has been synced and closed without error. The library's own files in a log directory
//   begin with a dot, so that lnav given the directory reads the logs alone.
// - Another process shares each log directory, so files there are opened without following
//   links and without waiting, and used only when they are regular files or directories (a
//   directory fails as an ordinary failure does: opened to write it fails, read it fails at its
//   first read). A link, FIFO or device at the log file's path fails each write ("Failed to
//   append file: <path>") until a regular file or nothing is there; nothing outside the
//   directory is read or written.
// - Archives are named to the second, so a rotation of this process later in the same second
//   of real time takes the name of the one before it and replaces that archive. Any other entry
//   with the name (an archive from before the clock or zone was set back, this process's own
//   included, or one planted there) is kept: the rotation uses "<process>_<stamp>_1.gz", then
//   _2 and so on, which sort right after the plain name, so retention, deleting in byte order,
//   still deletes the older. (compressGzip() itself makes or replaces the file it is given,
//   never through a link.)

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
// true means it is on storage (synced), so that a power cut right after keeps it. Batches
// nobody waits for reach storage within the kernel's writeback delay.
VEK_EXPORT bool __vek_save_log_now(void);

// Writes a short plain-text report of the library's own state to fd, for a HAL's dump(): the
// process and its files, the thresholds, the writer's state and step, what is queued, and
// since start how many lines were recorded, appended, dropped (and why), recovered and lost,
// the rotations and flushes, and the last failure of each kind. Safe from any thread at any
// moment (before attachment, in a forked child, during exit): it never waits for the writer,
// and gives up on an fd that does not take the text.
VEK_EXPORT void __vek_dump_state(int fd);
}

// The one recorder of the process. Thresholds and the size limits are fixed at construction;
// mMutex guards mBuffer and mTasks; everything on storage happens on the writer thread.
class VEK_EXPORT VekLogRecorder {
 public:
  // Creates the recorder on first use, thread-safely. Never null.
  static VekLogRecorder* getInstance();

  VekLogRecorder();
  ~VekLogRecorder();

  // Reads the level property into mPrintLevel and mRecordLevel.
  void initFeatureLevel();
  bool isNeedPrint(int level);
  bool isNeedRecord(int level);
  int getPrintLevel();
  int getRecordLevel();

  // Names the host process ("nfc_process", "nfc_hal_process", "se_process", "se_hal_process"),
  // which selects its log file, and turns recording on. Always true.
  bool attchProcess(const std::string& processName);

  // Formats message as one line per line feed and buffers it; hands the buffer to the writer
  // once it holds more than mFlushThreshold bytes. Does nothing unless attached and
  // level passes the record threshold.
  void record(int level, const std::string& tag, const std::string& message);

  // Queues buff as a write task. The caller holds mMutex. False for an empty buffer.
  bool sendBuffToWorker(std::vector<char>&& buff, std::shared_ptr<std::promise<int>> promise)
      VEK_REQUIRES(mMutex);

  // Hands the buffer to the writer; with wait, blocks up to 2 s for the write's outcome.
  bool saveLogsToFile(bool wait);

  // Writer thread only. True when size more bytes may be appended to mLogFilePath, rotating
  // the file into an archive first when they would not fit.
  bool checkLogFileExceed(int size);
  // The path of a new archive for the current local time: mLogDir + "/" + name + "_" + time.
  // A rotation adds "_1", "_2", ... before ".gz" when an older archive has that name.
  std::string getCompressedLogFile();
  // Compresses the file in into a gzip file out, made or replaced; neither is opened through a
  // link, nor when it is a FIFO or device. The input is never changed.
  bool compressGzip(const std::string& in, const std::string& out);
  // Deletes the oldest archives of this process until fewer than five remain.
  bool manageCompressFiles();

  std::mutex mMutex;
  std::condition_variable mCondition;
  bool mAttached VEK_GUARDED_BY(mMutex);  // isNeedRecord reads it atomically without
  std::string mProcessName VEK_GUARDED_BY(mMutex);
  std::string mLogDir VEK_GUARDED_BY(mMutex);
  std::string mLogFilePath VEK_GUARDED_BY(mMutex);
  int mPrintLevel;
  int mRecordLevel;
  uint32_t mMaxFileSize;
  uint32_t mFlushThreshold;
  std::vector<char> mBuffer VEK_GUARDED_BY(mMutex);
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
// the recorder's scale: 1 fatal to 6 verbose; other levels are never printed.
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
