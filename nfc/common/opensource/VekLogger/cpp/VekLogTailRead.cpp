// Reading a tail file back, for a recovery and for vek_tail: every value is checked against
// what a living process could have written before it is used.
#include <errno.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>

#include "VekLogTailFormat.h"

namespace vek {
namespace {

bool readFully(int fd, void* out, size_t size, off_t at) {
  auto* bytes = static_cast<char*>(out);
  while (size > 0) {
    ssize_t got = TEMP_FAILURE_RETRY(pread(fd, bytes, size, at));
    if (got <= 0) return false;
    bytes += got;
    size -= static_cast<size_t>(got);
    at += got;
  }
  return true;
}

bool validHeader(const TailHeader& header) {
  uint64_t head = header.mHead;
  uint64_t tail = header.mTail;
  uint64_t flight = header.mFlightEnd;
  uint64_t lost = header.mLostLogged;
  if (memcmp(header.mMagic, kTailMagic, sizeof(kTailMagic)) != 0 ||
      header.mCapacity != kTailCapacity || tail > head || head - tail > kTailCapacity ||
      header.mLostDone > lost || header.mTargetCount == 0 || header.mTargetCount > kTailTargets ||
      header.mClosed > 1) {
    return false;
  }
  if (flight != 0 && (flight < tail || flight > head || header.mFlightOffset < 0 ||
                      header.mFlightLost > lost - header.mLostDone)) {
    return false;
  }
  uint64_t from = 0;
  for (uint32_t i = 0; i < header.mTargetCount; ++i) {
    const TailTarget& target = header.mTargets[i];
    if (target.mProcess < 0 || target.mProcess >= kKnownProcesses || target.mFrom < from ||
        target.mFrom > head) {
      return false;
    }
    from = target.mFrom;
  }
  return true;
}

bool isDigit(char c) { return c >= '0' && c <= '9'; }

// Whether the line at text[at] begins as the library's lines do: "MM-DD hh:mm:ss.mmm pid tid ".
bool wellFormedLine(const std::vector<char>& text, size_t at) {
  static constexpr char kStamp[] = "dd-dd dd:dd:dd.ddd ";
  for (const char* want = kStamp; *want != '\0'; ++want, ++at) {
    if (at >= text.size() || (*want == 'd' ? !isDigit(text[at]) : text[at] != *want)) return false;
  }
  for (int id = 0; id < 2; ++id) {
    size_t digits = at;
    while (at < text.size() && isDigit(text[at])) ++at;
    if (at == digits || at >= text.size() || text[at] != ' ') return false;
    ++at;
  }
  return true;
}

// Whether a target or the batch in flight begins strictly inside [from, to).
bool beginsInside(const TailHeader& header, uint64_t from, uint64_t to) {
  uint64_t flight = header.mFlightEnd;
  if (flight > from && flight < to) return true;
  for (uint32_t i = 0; i < header.mTargetCount; ++i) {
    if (header.mTargets[i].mFrom > from && header.mTargets[i].mFrom < to) return true;
  }
  return false;
}

}  // namespace

bool readTail(int fd, TailImage* image) {
  struct stat st;
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) ||
      static_cast<uint64_t>(st.st_size) != kTailHeaderSize + kTailCapacity ||
      !readFully(fd, image->mHeader, sizeof(image->mHeader), 0) || !validHeader(image->header())) {
    return false;
  }
  uint64_t tail = image->header().mTail;
  size_t size = static_cast<size_t>(image->header().mHead - tail);
  size_t offset = static_cast<size_t>(tail % kTailCapacity);
  size_t first = std::min(size, kTailCapacity - offset);
  image->mText.resize(size);
  return readFully(fd, image->mText.data(), first, static_cast<off_t>(kTailHeaderSize + offset)) &&
         readFully(fd, image->mText.data() + first, size - first, kTailHeaderSize);
}

uint64_t provenEnd(const TailImage& image) {
  const std::vector<char>& text = image.mText;
  uint64_t base = image.header().mTail;
  size_t end = 0;
  while (end < text.size() && wellFormedLine(text, end)) {
    auto feed = std::find(text.begin() + static_cast<ptrdiff_t>(end), text.end(), '\n');
    if (feed == text.end()) break;
    size_t next = static_cast<size_t>(feed - text.begin()) + 1;
    if (beginsInside(image.header(), base + end, base + next)) break;
    end = next;
  }
  return base + end;
}

}  // namespace vek
