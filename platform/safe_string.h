#ifndef MORVOCAT_PLATFORM_SAFE_STRING_H_
#define MORVOCAT_PLATFORM_SAFE_STRING_H_

// Bounded formatting and copying. Every call takes the destination size and,
// where it has one, the most characters to produce. A text that does not fit
// fails: the destination is left as an empty string and the result is -1
// (formatting) or a non-zero error number (copying). Nothing ever aborts.

#include <stdarg.h>
#include <stddef.h>

extern "C" {

int vsnprintf_s(char* dest, size_t destMax, size_t count, const char* format, va_list args);
int snprintf_s(char* dest, size_t destMax, size_t count, const char* format, ...)
    __attribute__((format(printf, 4, 5)));
int sprintf_s(char* dest, size_t destMax, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
int strncpy_s(char* dest, size_t destMax, const char* src, size_t count);
int strcpy_s(char* dest, size_t destMax, const char* src);
int strncat_s(char* dest, size_t destMax, const char* src, size_t count);
// Fills count bytes; when count exceeds destMax it fills destMax bytes and
// fails, so a caller never writes past the buffer.
int memset_s(void* dest, size_t destMax, int value, size_t count);

}  // extern "C"

#endif  // MORVOCAT_PLATFORM_SAFE_STRING_H_
