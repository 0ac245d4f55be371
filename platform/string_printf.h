#ifndef MORVOCAT_PLATFORM_STRING_PRINTF_H_
#define MORVOCAT_PLATFORM_STRING_PRINTF_H_

#include <string>

namespace android {
namespace base {

// printf into a new string; an unusable format gives an empty string.
std::string StringPrintf(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace base
}  // namespace android

#endif  // MORVOCAT_PLATFORM_STRING_PRINTF_H_
