// A host whose own getopt, string formatter and logger entry points share the library's names
// and signatures. The library must keep to its own.

#include <getopt.h>
#include <stdarg.h>

#include <string>

#include "reader/host_run.h"

struct GetOptContext {
  int next;  // the host's parser state, nothing like the library's
};

int getopt_long_r(int argc, char* const* argv, const char* optstring, const option* longopts,
                  int* index, GetOptContext* state) {
  HostFunctionRan(__func__);
  return -1;
}

namespace android::base {

std::string StringPrintf(const char* format, ...) {
  HostFunctionRan(__func__);
  return format;
}

}  // namespace android::base

extern "C" {

int qd_logger_open(const char* path) {
  HostFunctionRan(__func__);
  return -1;
}

int qd_log_write(int priority, const char* tag, const char* format, ...) {
  HostFunctionRan(__func__);
  return -1;
}

}  // extern "C"

int main(int argc, char** argv) { return RunAsHost(argc, argv); }
