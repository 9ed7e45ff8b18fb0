// For the fuzz targets: whether text holds a line of the log file's format at a given place.
#pragma once

#include <string>

// "dd-dd dd:dd:dd.ddd", d a digit, at text[at].
inline bool wellFormedStamp(const std::string& text, size_t at) {
  for (size_t i = 0; i < 18; ++i) {
    char c = at + i < text.size() ? text[at + i] : '\0';
    char want = "dd-dd dd:dd:dd.ddd"[i];
    if (want == 'd' ? (c < '0' || c > '9') : c != want) return false;
  }
  return true;
}
