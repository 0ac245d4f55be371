#ifndef MORVOCAT_TESTS_SUPPORT_LOG_SET_H_
#define MORVOCAT_TESTS_SUPPORT_LOG_SET_H_

// A rotating set read back: its files, its "seq N" records, and the front end as a user starts it.

#include <dirent.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "support/gzip_text.h"

namespace morvotest {

// The set files of base in dir ("base.Innn...."), in name order.
inline std::vector<std::string> SetFiles(const std::string& dir, const std::string& base) {
  std::vector<std::string> files;
  if (DIR* d = opendir(dir.c_str())) {
    while (dirent* e = readdir(d)) {
      std::string name = e->d_name;
      if (name.rfind(base + ".I", 0) == 0) files.push_back(dir + "/" + name);
    }
    closedir(d);
  }
  std::sort(files.begin(), files.end());
  return files;
}

inline int IndexOf(const std::string& file, size_t baseLength) {
  return atoi(file.substr(baseLength + 2, 3).c_str());
}

// The set files in writing order: after a wrap, the run right after the free index is the oldest.
inline std::vector<std::string> WritingOrder(std::vector<std::string> files, size_t baseLength) {
  for (size_t i = 1; i < files.size(); ++i) {
    if (IndexOf(files[i], baseLength) != IndexOf(files[i - 1], baseLength) + 1) {
      std::rotate(files.begin(), files.begin() + static_cast<long>(i), files.end());
      break;
    }
  }
  return files;
}

// The numbers that follow marker, in the order they appear.
inline std::vector<long> Sequence(const std::string& text, const std::string& marker = ": seq ") {
  std::vector<long> numbers;
  for (size_t pos = text.find(marker); pos != std::string::npos; pos = text.find(marker, pos + 1)) {
    numbers.push_back(strtol(text.c_str() + pos + marker.size(), nullptr, 10));
  }
  return numbers;
}

// Every number from first up to end (not included) is among numbers.
inline bool Holds(std::vector<long> numbers, long first, long end) {
  std::sort(numbers.begin(), numbers.end());
  for (long n = first; n < end; ++n) {
    if (!std::binary_search(numbers.begin(), numbers.end(), n)) return false;
  }
  return true;
}

// The build's morvocat as a child; -1 when the build's program folder is not known.
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

inline std::string SetText(const std::string& dir, const std::string& base) {
  std::string text;
  for (const std::string& file : SetFiles(dir, base)) text += Zcat(file);
  return text;
}

// first, first + 1, ... up to end (not included).
inline std::vector<long> Counting(long first, long end) {
  std::vector<long> numbers;
  for (long n = first; n < end; ++n) numbers.push_back(n);
  return numbers;
}

}  // namespace morvotest

#endif  // MORVOCAT_TESTS_SUPPORT_LOG_SET_H_
