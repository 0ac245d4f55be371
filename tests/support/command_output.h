#ifndef MORVOCAT_TESTS_SUPPORT_COMMAND_OUTPUT_H_
#define MORVOCAT_TESTS_SUPPORT_COMMAND_OUTPUT_H_

// What a shell command prints: tests read files back through the stock
// tools a user would run (zcat, tar). *status, when asked for, gets its
// exit status (-1 when it did not exit).

#include <stdio.h>
#include <sys/wait.h>

#include <string>

namespace morvotest {

inline std::string CommandOutput(const std::string& command, int* status = nullptr) {
  std::string out;
  if (status != nullptr) *status = -1;
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return out;
  char buf[65536];
  size_t n;
  while ((n = fread(buf, 1, sizeof(buf), pipe)) > 0) out.append(buf, n);
  int rc = pclose(pipe);
  if (status != nullptr && rc != -1 && WIFEXITED(rc)) *status = WEXITSTATUS(rc);
  return out;
}

}  // namespace morvotest

#endif  // MORVOCAT_TESTS_SUPPORT_COMMAND_OUTPUT_H_
