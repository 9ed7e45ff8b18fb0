// The printf formatting of log messages, quick for the conversions they nearly always use.
#pragma once

#include <stdarg.h>
#include <stddef.h>

namespace vek {

// Formats fmt with *args into out, NUL-terminated, exactly as vsnprintf would, and returns the
// length; or -1, having written anything, when fmt holds anything but plain text, "%%" and the
// conversions d, i, u, x, X, o, c and s with the flags '-' and '0', a decimal width and
// precision and a length modifier (hh, h, l, ll, z, j, t), or when a %s is null, or the text
// needs more than size - 1 bytes. Then the caller formats with vsnprintf, on its own copy of
// the arguments: *args has been read from.
int formatQuick(char* out, size_t size, const char* fmt, va_list* args);

}  // namespace vek
