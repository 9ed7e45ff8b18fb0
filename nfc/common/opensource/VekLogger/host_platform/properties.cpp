#include <android-base/properties.h>
#include <cutils/properties.h>
#include <string.h>

int property_get(const char* key, char* value, const char* default_value) {
  std::string found = android::base::GetProperty(key, "");
  const char* source = found.empty() ? default_value : found.c_str();
  if (source == nullptr) {
    value[0] = '\0';
    return 0;
  }
  size_t length = strnlen(source, PROPERTY_VALUE_MAX - 1);
  memcpy(value, source, length);
  value[length] = '\0';
  return static_cast<int>(length);
}
