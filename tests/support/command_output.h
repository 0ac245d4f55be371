#ifndef MORVOCAT_TESTS_SUPPORT_COMMAND_OUTPUT_H_
#define MORVOCAT_TESTS_SUPPORT_COMMAND_OUTPUT_H_

// What a shell command prints: tests read files back through the stock
// tools a user would run (zcat, tar).

#include <stdio.h>

#include <string>

namespace morvotest {

inline std::string CommandOutput(const std::string& command) {
  std::string out;
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return out;
  char buf[65536];
  size_t n;
  while ((n = fread(buf, 1, sizeof(buf), pipe)) > 0) out.append(buf, n);
  pclose(pipe);
  return out;
}

}  // namespace morvotest

#endif  // MORVOCAT_TESTS_SUPPORT_COMMAND_OUTPUT_H_
