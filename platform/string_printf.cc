#include "platform/string_printf.h"

#include <stdarg.h>
#include <stdio.h>

namespace android {
namespace base {

std::string StringPrintf(const char* format, ...) {
  std::string result;
  if (format == nullptr) return result;
  va_list args;
  va_start(args, format);
  va_list again;
  va_copy(again, args);
  int n = vsnprintf(nullptr, 0, format, args);
  va_end(args);
  if (n > 0) {
    result.resize(static_cast<size_t>(n) + 1);
    vsnprintf(&result[0], result.size(), format, again);
    result.resize(static_cast<size_t>(n));
  }
  va_end(again);
  return result;
}

}  // namespace base
}  // namespace android
