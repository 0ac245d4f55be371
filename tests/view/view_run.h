#ifndef MORVOCAT_TESTS_VIEW_VIEW_RUN_H_
#define MORVOCAT_TESTS_VIEW_VIEW_RUN_H_

// Runs the morvo-view program as a user would and keeps what it printed.

#include <stdlib.h>

#include <string>
#include <vector>

#include "support/file_tree.h"
#include "support/gzip_text.h"
#include "support/temp_root.h"

namespace viewtest {

using morvotest::Lines;

struct ViewRun {
  std::string out, err;
  int status = -1;
};

// prefix runs before the program (such as setpriv with its arguments).
inline ViewRun RunView(const std::string& scratch, const std::vector<std::string>& args,
                       const std::string& prefix = "") {
  const char* dir = getenv("MORVO_BIN_DIR");
  std::string command =
      prefix + morvotest::Quoted(std::string(dir ? dir : "tools") + "/morvo-view");
  for (const std::string& arg : args) command += " " + morvotest::Quoted(arg);
  ViewRun run;
  std::string err = scratch + "/view.err";
  run.out = morvotest::CommandOutput(command + " 2>" + morvotest::Quoted(err), &run.status);
  run.err = morvotest::ReadFile(err);
  return run;
}

}  // namespace viewtest

#endif  // MORVOCAT_TESTS_VIEW_VIEW_RUN_H_
