// vek_tail: prints what a process left in its crash tail when it died and no process has
// attached under its name since, in the log file's own format, for lnav or a pager:
//
//   vek_tail pulled/nfc/.nfc_process.veklog.*.tail* > lost.veklog && lnav lost.veklog
//
// The first lines may be in the log file already: the batch being appended at the death. A
// tail set aside by a recovery (".tail.bad") holds what was not recovered.
#include <fcntl.h>
#include <inttypes.h>
#include <stdio.h>
#include <unistd.h>

#include "VekLogTailFormat.h"

namespace {

// False when path is no crash tail, or one too damaged to read. Only a regular file is read,
// and opening never waits: a FIFO or device at the path is refused.
bool printTail(const char* path) {
  int fd = open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  vek::TailImage image;
  bool read = fd != -1 && vek::readTail(fd, &image);
  if (fd != -1) close(fd);
  if (!read) return false;
  const vek::TailHeader& header = image.header();
  if (header.mClosed) return true;  // its process exited, which discards what is pending
  fwrite(image.mText.data(), 1, image.mText.size(), stdout);
  uint64_t lost = header.mLostLogged - header.mLostDone;
  if (lost != 0) fprintf(stderr, "%s: %" PRIu64 " bytes were lost, the tail full\n", path, lost);
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  int status = argc > 1 ? 0 : 2;
  for (int i = 1; i < argc; ++i) {
    if (!printTail(argv[i])) {
      fprintf(stderr, "%s: not a crash tail, or damaged\n", argv[i]);
      status = 1;
    }
  }
  if (argc == 1) fprintf(stderr, "usage: %s TAIL...\n", argv[0]);
  return status;
}
