#ifndef MORVOCAT_TESTS_SUPPORT_BUILD_PATHS_H_
#define MORVOCAT_TESTS_SUPPORT_BUILD_PATHS_H_

// The build's tools and source tree where the test runner says they are.

#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <string>

#include "support/temp_root.h"

namespace morvotest {

inline std::string ToolPath(const std::string& tool) {
  const char* dir = getenv("MORVO_BIN_DIR");
  return std::string(dir != nullptr ? dir : "tools") + "/" + tool;
}

inline std::string SourcePath(const std::string& path) {
  const char* dir = getenv("MORVO_SOURCE_DIR");
  return std::string(dir != nullptr ? dir : ".") + "/" + path;
}

// A shell command's exit status (-1: it did not exit), its output kept in folder.
inline int RunCaught(const std::string& command, const std::string& folder, std::string* out,
                     std::string* err) {
  int status = system((command + " >" + folder + "/run.out 2>" + folder + "/run.err").c_str());
  *out = ReadFile(folder + "/run.out");
  *err = ReadFile(folder + "/run.err");
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// MORVO_UNDER_QEMU: an AArch64 run under qemu-user (its /proc shows qemu; no exec).
inline bool UnderQemu() {
  const char* value = getenv("MORVO_UNDER_QEMU");
  return value != nullptr && value[0] != '\0';
}

// True, after saying so, where qemu hides what a check looks at.
inline bool QemuHides(const char* what) {
  if (!UnderQemu()) return false;
  printf("[ QEMU     ] not checked under qemu-user: %s\n", what);
  return true;
}

}  // namespace morvotest

#endif  // MORVOCAT_TESTS_SUPPORT_BUILD_PATHS_H_
