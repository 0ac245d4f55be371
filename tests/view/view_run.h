#ifndef MORVOCAT_TESTS_VIEW_VIEW_RUN_H_
#define MORVOCAT_TESTS_VIEW_VIEW_RUN_H_

// Runs the morvo-view program as a user would and keeps what it printed.

#include <stdlib.h>
#include <sys/wait.h>

#include <string>
#include <vector>

#include "support/file_tree.h"
#include "support/temp_root.h"

namespace viewtest {

struct ViewRun {
  std::string out;
  std::string err;
  int status = -1;
};

inline std::string ViewProgram() {
  const char* dir = getenv("MORVO_BIN_DIR");
  return std::string(dir != nullptr ? dir : "tools") + "/morvo-view";
}

using morvotest::Quoted;

// prefix runs before the program (such as setpriv with its arguments).
inline ViewRun RunView(const std::string& scratch, const std::vector<std::string>& args,
                       const std::string& prefix = "") {
  std::string command = prefix + Quoted(ViewProgram());
  for (const std::string& arg : args) command += " " + Quoted(arg);
  command += " >" + Quoted(scratch + "/view.out") + " 2>" + Quoted(scratch + "/view.err");
  int rc = system(command.c_str());
  ViewRun run;
  run.status = WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
  run.out = morvotest::ReadFile(scratch + "/view.out");
  run.err = morvotest::ReadFile(scratch + "/view.err");
  return run;
}

using morvotest::Lines;

}  // namespace viewtest

#endif  // MORVOCAT_TESTS_VIEW_VIEW_RUN_H_
