#include "platform/safe_string.h"

#include <errno.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

namespace {

// Larger sizes are taken for a negative number passed by mistake.
constexpr size_t kMaxSize = SIZE_MAX >> 1;

bool BadDest(const void* dest, size_t destMax) {
  return dest == nullptr || destMax == 0 || destMax > kMaxSize;
}

}  // namespace

extern "C" {

int vsnprintf_s(char* dest, size_t destMax, size_t count, const char* format, va_list args) {
  if (BadDest(dest, destMax)) return -1;
  dest[0] = '\0';
  if (format == nullptr || count >= destMax) return -1;
  int n = vsnprintf(dest, destMax, format, args);
  if (n < 0 || static_cast<size_t>(n) > count) {
    dest[0] = '\0';
    return -1;
  }
  return n;
}

int snprintf_s(char* dest, size_t destMax, size_t count, const char* format, ...) {
  va_list args;
  va_start(args, format);
  int n = vsnprintf_s(dest, destMax, count, format, args);
  va_end(args);
  return n;
}

int sprintf_s(char* dest, size_t destMax, const char* format, ...) {
  va_list args;
  va_start(args, format);
  int n = vsnprintf_s(dest, destMax, destMax - 1, format, args);
  va_end(args);
  return n;
}

int strncpy_s(char* dest, size_t destMax, const char* src, size_t count) {
  if (BadDest(dest, destMax)) return EINVAL;
  dest[0] = '\0';
  if (src == nullptr) return EINVAL;
  size_t n = strnlen(src, count);
  if (n >= destMax) return ERANGE;
  memmove(dest, src, n);
  dest[n] = '\0';
  return 0;
}

int strcpy_s(char* dest, size_t destMax, const char* src) {
  if (BadDest(dest, destMax)) return EINVAL;
  if (src == nullptr) {
    dest[0] = '\0';
    return EINVAL;
  }
  return strncpy_s(dest, destMax, src, strlen(src));
}

int strncat_s(char* dest, size_t destMax, const char* src, size_t count) {
  if (BadDest(dest, destMax)) return EINVAL;
  size_t used = strnlen(dest, destMax);
  if (src == nullptr || used == destMax) {
    dest[0] = '\0';
    return EINVAL;
  }
  size_t n = strnlen(src, count);
  if (used + n >= destMax) {
    dest[0] = '\0';
    return ERANGE;
  }
  memmove(dest + used, src, n);
  dest[used + n] = '\0';
  return 0;
}

int memset_s(void* dest, size_t destMax, int value, size_t count) {
  if (BadDest(dest, destMax)) return EINVAL;
  if (count > destMax) {
    memset(dest, value, destMax);
    return ERANGE;
  }
  memset(dest, value, count);
  return 0;
}

}  // extern "C"
