// vek_tail: prints what a process left in its crash tail when it died and no process has
// attached under its name since, in the log file's own format, for lnav or a pager:
//
//   vek_tail pulled/nfc/.nfc_process.veklog.*.tail > lost.veklog && lnav lost.veklog
//
// The first lines may be in the log file already: the batch being appended at the death.
#include <fcntl.h>
#include <inttypes.h>
#include <stdio.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <vector>

#include "VekLogTail.h"

namespace {

// False when path is no crash tail.
bool printTail(const char* path) {
  int fd = open(path, O_RDONLY | O_CLOEXEC);
  struct stat st;
  void* map = MAP_FAILED;
  if (fd != -1 && fstat(fd, &st) == 0) {
    map = mmap(nullptr, static_cast<size_t>(st.st_size), PROT_READ, MAP_PRIVATE, fd, 0);
  }
  if (fd != -1) close(fd);
  vek::TailHeader* header =
      map == MAP_FAILED ? nullptr : vek::tailHeader(map, static_cast<size_t>(st.st_size));
  if (header == nullptr) return false;
  if (!header->mClosed) {  // closed: its process exited, which discards what is pending
    std::vector<char> text(header->mHead - header->mTail);
    vek::copyFromRing(static_cast<char*>(map) + vek::kTailHeaderSize, header->mTail, text.size(),
                      text.data());
    fwrite(text.data(), 1, text.size(), stdout);
    uint64_t lost = header->mLostLogged - header->mLostDone;
    if (lost != 0) fprintf(stderr, "%s: %" PRIu64 " bytes were lost, the tail full\n", path, lost);
  }
  munmap(map, static_cast<size_t>(st.st_size));
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  int status = argc > 1 ? 0 : 2;
  for (int i = 1; i < argc; ++i) {
    if (!printTail(argv[i])) {
      fprintf(stderr, "%s: not a crash tail\n", argv[i]);
      status = 1;
    }
  }
  if (argc == 1) fprintf(stderr, "usage: %s TAIL...\n", argv[0]);
  return status;
}
