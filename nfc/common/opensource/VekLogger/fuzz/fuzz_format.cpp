// Formats built from arbitrary bytes (text, "%%" and up to three conversions with flags, width,
// precision and length) into a buffer of arbitrary size: the quick formatter must give
// vsnprintf's exact text and length, and must take every format it claims to take.
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "VekLogFormat.h"

namespace {

enum Kind { kInt, kLong, kText };

struct Arg {
  Kind mKind;
  long long mValue;
  const char* mText;
};

struct Case {
  std::string mFormat;
  std::vector<Arg> mArgs;
  std::string mTexts[3];
  size_t mSize;
  bool mQuick = true;  // nothing in mFormat is left to vsnprintf
};

struct Bytes {
  uint8_t take() { return size == 0 ? 0 : (--size, *data++); }
  long long takeValue(int bytes) {
    unsigned long long value = 0;
    for (int i = 0; i < bytes; ++i) value = value << 8 | take();
    return static_cast<long long>(value);
  }

  const uint8_t* data;
  size_t size;
};

int quick(char* out, size_t size, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  int length = vek::formatQuick(out, size, fmt, &args);
  va_end(args);
  return length;
}

#pragma clang diagnostic ignored "-Wformat-nonliteral"
#pragma clang diagnostic ignored "-Wformat-security"

template <typename... Args>
void compare(const Case& c, Args... args) {
  char got[300];
  char want[300];
  int gotLength = quick(got, c.mSize, c.mFormat.c_str(), args...);
  int wantLength = snprintf(want, c.mSize, c.mFormat.c_str(), args...);
  if (gotLength >= 0 ? gotLength != wantLength || memcmp(got, want, gotLength + 1) != 0
                     : c.mQuick && wantLength < static_cast<int>(c.mSize)) {
    fprintf(stderr, "\"%s\": %d, vsnprintf %d\n", c.mFormat.c_str(), gotLength, wantLength);
    abort();
  }
}

// Calls compare with c's arguments, each with the type its conversion reads.
template <typename... Done>
void call(const Case& c, size_t next, Done... done) {
  if constexpr (sizeof...(Done) < 3) {
    if (next < c.mArgs.size()) {
      const Arg& arg = c.mArgs[next];
      if (arg.mKind == kInt) return call(c, next + 1, done..., static_cast<int>(arg.mValue));
      if (arg.mKind == kLong) return call(c, next + 1, done..., arg.mValue);
      return call(c, next + 1, done..., arg.mText);
    }
  }
  compare(c, done...);
}

void addConversion(Bytes& in, Case& c) {
  static const char* const kLengths[] = {"", "hh", "h", "l", "ll", "z", "j", "t"};
  char conversion = "diuxXocs"[in.take() % 8];
  bool integer = conversion != 'c' && conversion != 's';
  uint8_t flags = in.take();
  c.mFormat += '%';
  if (flags & 1) c.mFormat += '-';
  if (flags & 2) c.mFormat += '0';
  if ((flags & 4) && (conversion == 'd' || conversion == 'i')) {
    c.mFormat += '+';
    c.mQuick = false;
  }
  c.mQuick = c.mQuick && (integer || !(flags & 2));
  if (uint8_t width = in.take() % 48) c.mFormat += std::to_string(width);
  if (uint8_t precision = in.take(); precision < 128) {
    c.mFormat += '.' + std::to_string(precision % 40);
    c.mQuick = c.mQuick && conversion != 'c';
  }
  const char* length = integer ? kLengths[in.take() % 8] : "";
  c.mFormat += length;
  c.mFormat += conversion;
  Arg arg{integer && length[0] != '\0' && length[0] != 'h' ? kLong : kInt, 0, nullptr};
  if (conversion == 's') {
    arg.mKind = kText;
    std::string& text = c.mTexts[c.mArgs.size()];
    for (uint8_t n = in.take() % 32; n > 0; --n) text += static_cast<char>(in.take() | 1);
    arg.mText = text.c_str();
  } else {
    arg.mValue = in.takeValue(arg.mKind == kLong ? 8 : 4);
  }
  c.mArgs.push_back(arg);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Bytes in{data, size};
  Case c;
  c.mSize = 1 + in.take() % 256;
  while (in.size > 0 && c.mArgs.size() < 3) {
    uint8_t op = in.take();
    if (op % 4 != 0) {
      addConversion(in, c);
      continue;
    }
    for (uint8_t n = op / 4 % 16; n > 0; --n) {
      char plain = static_cast<char>(in.take() | 1);
      c.mFormat += plain == '%' ? "%%" : std::string(1, plain);
    }
  }
  call(c, 0);
  return 0;
}
