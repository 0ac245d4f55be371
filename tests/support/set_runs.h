#ifndef MORVOCAT_TESTS_SUPPORT_SET_RUNS_H_
#define MORVOCAT_TESTS_SUPPORT_SET_RUNS_H_

// The front end program started as a user starts it, and what the set of
// indexed files it writes holds once read back.

#include <stdlib.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "support/gzip_text.h"
#include "support/log_set.h"

namespace morvotest {

// The morvocat program of the build as a child with args after its name;
// its pid, or -1 when the build's program folder is not known.
inline pid_t StartFrontEnd(std::vector<std::string> args) {
  const char* bin = getenv("MORVO_BIN_DIR");
  if (bin == nullptr) return -1;
  std::string program = std::string(bin) + "/morvocat";
  args.insert(args.begin(), "morvocat");
  std::vector<char*> argv;
  for (std::string& a : args) argv.push_back(&a[0]);
  argv.push_back(nullptr);
  pid_t child = fork();
  if (child == 0) {
    execv(program.c_str(), argv.data());
    _exit(127);
  }
  return child;
}

// The text of the set files of base in dir, in name order.
inline std::string SetText(const std::string& dir, const std::string& base) {
  std::string text;
  for (const std::string& file : SetFiles(dir, base)) text += Zcat(file);
  return text;
}

// first, first + 1, ... up to end (not included): what Sequence() gives
// for records numbered once each, in order.
inline std::vector<long> Counting(long first, long end) {
  std::vector<long> numbers;
  for (long n = first; n < end; ++n) numbers.push_back(n);
  return numbers;
}

}  // namespace morvotest

#endif  // MORVOCAT_TESTS_SUPPORT_SET_RUNS_H_
