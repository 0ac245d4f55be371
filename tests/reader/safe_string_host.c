// A C host with the bounded functions of C11's Annex K and a property
// lookup of its own: the library must not call them in place of its own.

#include <stdarg.h>
#include <stddef.h>
#include <stdlib.h>

#include "reader/host_run.h"

typedef size_t rsize_t;

int snprintf_s(char* restrict s, rsize_t n, const char* restrict format, ...) {
  HostFunctionRan(__func__);
  va_list args;
  va_start(args, format);
  int written = vsnprintf(s, n, format, args);
  va_end(args);
  return written;
}

int vsnprintf_s(char* restrict s, rsize_t n, const char* restrict format, va_list args) {
  HostFunctionRan(__func__);
  return vsnprintf(s, n, format, args);
}

const char* property_get(const char* name) {
  HostFunctionRan(__func__);
  return getenv(name);
}

int set_sched_policy(int level) {
  HostFunctionRan(__func__);
  return level;
}

int main(int argc, char** argv) { return RunAsHost(argc, argv); }
