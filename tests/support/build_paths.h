#ifndef MORVOCAT_TESTS_SUPPORT_BUILD_PATHS_H_
#define MORVOCAT_TESTS_SUPPORT_BUILD_PATHS_H_

// The build's tools and the source tree where the test runner says they are
// (MORVO_BIN_DIR, MORVO_SOURCE_DIR), and a tool run with its output caught.

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

// Runs a shell command with its standard output and error kept in files of
// folder; its exit status, or -1 when it did not exit.
inline int RunCaught(const std::string& command, const std::string& folder, std::string* out,
                     std::string* err) {
  int status = system((command + " >" + folder + "/run.out 2>" + folder + "/run.err").c_str());
  *out = ReadFile(folder + "/run.out");
  *err = ReadFile(folder + "/run.err");
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace morvotest

#endif  // MORVOCAT_TESTS_SUPPORT_BUILD_PATHS_H_
