// The printf formatting of log messages, quick for the conversions they nearly always use.
#pragma once

#include <stdarg.h>
#include <stddef.h>
#include <string.h>

namespace vek {

// Formats fmt with *args into out, NUL-terminated, exactly as vsnprintf would, and returns the
// length; or -1, having written anything, when fmt holds anything but plain text, "%%" and the
// conversions d, i, u, x, X, o, c and s with the flags '-' and '0', a decimal width and
// precision and a length modifier (hh, h, l, ll, z, j, t), or when a %s is null, or the text
// needs more than size - 1 bytes. Then the caller formats with vsnprintf, on its own copy of
// the arguments: *args has been read from.
int formatQuick(char* out, size_t size, const char* fmt, va_list* args);

// Copies size bytes to a place that does not overlap from, and returns its end. Inline: the
// pieces of a line are mostly shorter than 32 bytes, and a call into libc for each costs more
// than the copy.
inline char* copyShort(char* to, const char* from, size_t size) {
  if (size > 64) {
    memcpy(to, from, size);
  } else if (size >= 16) {
    for (size_t at = 0; at + 16 < size; at += 16) memcpy(to + at, from + at, 16);
    memcpy(to + size - 16, from + size - 16, 16);
  } else if (size >= 4) {
    size_t half = size >= 8 ? 8 : 4;
    memcpy(to, from, half);
    memcpy(to + size - half, from + size - half, half);
  } else if (size > 0) {
    to[0] = from[0];
    to[size / 2] = from[size / 2];
    to[size - 1] = from[size - 1];
  }
  return to + size;
}

}  // namespace vek
