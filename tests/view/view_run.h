#ifndef MORVOCAT_TESTS_VIEW_VIEW_RUN_H_
#define MORVOCAT_TESTS_VIEW_VIEW_RUN_H_

// Runs the morvo-view program as a user would and keeps what it printed.

#include <string>
#include <vector>

#include "support/build_paths.h"
#include "support/file_tree.h"

namespace viewtest {

using morvotest::Lines;

struct ViewRun {
  std::string out, err;
  int status = -1;
};

// prefix runs before the program (such as setpriv with its arguments).
inline ViewRun RunView(const std::string& scratch, const std::vector<std::string>& args,
                       const std::string& prefix = "") {
  std::string command = prefix + morvotest::Quoted(morvotest::ToolPath("morvo-view"));
  for (const std::string& arg : args) command += " " + morvotest::Quoted(arg);
  ViewRun run;
  run.status = morvotest::RunCaught(command, scratch, &run.out, &run.err);
  return run;
}

}  // namespace viewtest

#endif  // MORVOCAT_TESTS_VIEW_VIEW_RUN_H_
