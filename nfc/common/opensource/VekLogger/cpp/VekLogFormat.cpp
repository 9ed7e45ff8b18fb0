// A printf for the formats log messages use: glibc's and bionic's vsnprintf spend about 70 ns
// on one, half of what the library adds to its floor, setting up a stream for each call.
#include "VekLogFormat.h"

#include <stdint.h>
#include <string.h>
#include <sys/types.h>

#include <type_traits>

namespace vek {
namespace {

// Larger widths and precisions cannot fit the caller's buffer anyway.
constexpr int kMaxField = 65536;

struct Field {
  bool mLeft = false;
  bool mZero = false;
  int mWidth = 0;
  int mPrecision = -1;  // none
  char mLength = 0;     // 'H' for hh, 'L' for ll, else the modifier's letter
  char mConversion = 0;
};

struct Out {
  bool put(const char* text, size_t length) {
    if (length > static_cast<size_t>(mEnd - mAt)) return false;
    mAt = copyShort(mAt, text, length);
    return true;
  }
  bool fill(char c, int count) {
    if (count <= 0) return true;
    if (static_cast<size_t>(count) > static_cast<size_t>(mEnd - mAt)) return false;
    memset(mAt, c, static_cast<size_t>(count));
    mAt += count;
    return true;
  }

  char* mAt;
  char* mEnd;  // the terminator's place
};

// A width or precision: at most kMaxField, -1 past it.
int readNumber(const char** fmt) {
  int value = 0;
  while (**fmt >= '0' && **fmt <= '9') {
    value = value * 10 + (*(*fmt)++ - '0');
    if (value > kMaxField) return -1;
  }
  return value;
}

// Reads the conversion after a '%'; false for what only vsnprintf formats.
bool readField(const char** fmt, Field* field) {
  for (;; ++*fmt) {
    if (**fmt == '-') {
      field->mLeft = true;
    } else if (**fmt == '0') {
      field->mZero = true;
    } else {
      break;
    }
  }
  if ((field->mWidth = readNumber(fmt)) < 0) return false;
  if (**fmt == '.') {
    ++*fmt;
    if ((field->mPrecision = readNumber(fmt)) < 0) return false;
  }
  const char* length = *fmt;
  if (*length == 'h' || *length == 'l') {
    field->mLength = length[1] == *length ? static_cast<char>(*length - 0x20) : *length;
    *fmt += length[1] == *length ? 2 : 1;
  } else if (*length == 'z' || *length == 'j' || *length == 't') {
    field->mLength = *(*fmt)++;
  }
  switch (field->mConversion = **fmt) {
    case 'd':
    case 'i':
    case 'u':
    case 'x':
    case 'X':
    case 'o':
    case 'c':
    case 's':
      ++*fmt;
      return true;
    default:
      return false;
  }
}

// Down to putConversion: the analyzer cannot see that the caller started the list; the types
// read are one and the same on some ABIs (long, long long, intmax_t), distinct on others.
// NOLINTBEGIN(clang-analyzer-valist.Uninitialized, bugprone-branch-clone)
intmax_t signedArg(char length, va_list* args) {
  switch (length) {
    case 'H':
      return static_cast<signed char>(va_arg(*args, int));
    case 'h':
      return static_cast<short>(va_arg(*args, int));
    case 'l':
      return va_arg(*args, long);
    case 'L':
      return va_arg(*args, long long);
    case 'z':
      return va_arg(*args, ssize_t);
    case 'j':
      return va_arg(*args, intmax_t);
    case 't':
      return va_arg(*args, ptrdiff_t);
    default:
      return va_arg(*args, int);
  }
}

uintmax_t unsignedArg(char length, va_list* args) {
  switch (length) {
    case 'H':
      return static_cast<unsigned char>(va_arg(*args, unsigned));
    case 'h':
      return static_cast<unsigned short>(va_arg(*args, unsigned));
    case 'l':
      return va_arg(*args, unsigned long);
    case 'L':
      return va_arg(*args, unsigned long long);
    case 'z':
      return va_arg(*args, size_t);
    case 'j':
      return va_arg(*args, uintmax_t);
    case 't':
      return static_cast<std::make_unsigned_t<ptrdiff_t>>(va_arg(*args, ptrdiff_t));
    default:
      return va_arg(*args, unsigned);
  }
}

// Writes value's digits (none for 0) backwards from end, with a constant divisor: a division by
// a variable base costs some 40 cycles a digit.
template <unsigned kBase>
char* putDigits(char* end, uintmax_t value, const char* digits) {
  for (; value != 0; value /= kBase) *--end = digits[value % kBase];
  return end;
}

bool putInteger(Out& out, const Field& field, va_list* args) {
  bool negative = false;
  uintmax_t value;
  if (field.mConversion == 'd' || field.mConversion == 'i') {
    intmax_t number = signedArg(field.mLength, args);
    negative = number < 0;
    value = negative ? 0 - static_cast<uintmax_t>(number) : static_cast<uintmax_t>(number);
  } else {
    value = unsignedArg(field.mLength, args);
  }
  char digits[24];
  char* end = digits + sizeof(digits);
  char* at = end;
  switch (field.mConversion) {
    case 'o':
      at = putDigits<8>(at, value, "01234567");
      break;
    case 'x':
      at = putDigits<16>(at, value, "0123456789abcdef");
      break;
    case 'X':
      at = putDigits<16>(at, value, "0123456789ABCDEF");
      break;
    default:
      at = putDigits<10>(at, value, "0123456789");
  }
  int count = static_cast<int>(end - at);
  // Zero shows as "0" unless the precision is 0; a precision pads with zeros, and so does the
  // '0' flag without one, after the sign.
  int zeros = field.mPrecision < 0 ? (count == 0 ? 1 : 0) : field.mPrecision - count;
  if (zeros < 0) zeros = 0;
  int pad = field.mWidth - (negative ? 1 : 0) - zeros - count;
  if (field.mZero && !field.mLeft && field.mPrecision < 0 && pad > 0) {
    zeros += pad;
    pad = 0;
  }
  return (field.mLeft || out.fill(' ', pad)) && (!negative || out.put("-", 1)) &&
         out.fill('0', zeros) && out.put(at, static_cast<size_t>(count)) &&
         (!field.mLeft || out.fill(' ', pad));
}

bool putText(Out& out, const Field& field, const char* text, size_t length) {
  int pad = field.mWidth - static_cast<int>(length < kMaxField ? length : kMaxField);
  return (field.mLeft || out.fill(' ', pad)) && out.put(text, length) &&
         (!field.mLeft || out.fill(' ', pad));
}

bool putConversion(Out& out, const Field& field, va_list* args) {
  switch (field.mConversion) {
    case 'c': {
      if (field.mZero || field.mLength != 0 || field.mPrecision >= 0) return false;
      char c = static_cast<char>(va_arg(*args, int));
      return putText(out, field, &c, 1);
    }
    case 's': {
      if (field.mZero || field.mLength != 0) return false;
      const char* text = va_arg(*args, const char*);
      if (text == nullptr) return false;
      size_t room = static_cast<size_t>(out.mEnd - out.mAt) + 1;
      size_t limit = field.mPrecision >= 0 ? static_cast<size_t>(field.mPrecision) : room;
      size_t length = strnlen(text, limit < room ? limit : room);
      return putText(out, field, text, length);
    }
    default:
      return putInteger(out, field, args);
  }
}
// NOLINTEND(clang-analyzer-valist.Uninitialized, bugprone-branch-clone)

}  // namespace

int formatQuick(char* out, size_t size, const char* fmt, va_list* args) {
  if (size == 0) return -1;
  Out text{out, out + size - 1};
  while (*fmt != '\0') {
    // Found by hand: strchr costs more than the scan on a format's short runs of text.
    const char* run = fmt;
    while (*run != '\0' && *run != '%') ++run;
    if (!text.put(fmt, static_cast<size_t>(run - fmt))) return -1;
    fmt = run;
    if (*fmt == '\0') break;
    if (*++fmt == '%') {
      if (!text.put(fmt++, 1)) return -1;
      continue;
    }
    Field field;
    if (!readField(&fmt, &field) || !putConversion(text, field, args)) return -1;
  }
  *text.mAt = '\0';
  return static_cast<int>(text.mAt - out);
}

}  // namespace vek
