#ifndef MORVOCAT_TESTS_SUPPORT_LOG_SET_H_
#define MORVOCAT_TESTS_SUPPORT_LOG_SET_H_

// Reading back a rotating set of indexed files: which files it holds, and
// the numbered "seq N" records written through it.

#include <dirent.h>
#include <stdlib.h>

#include <algorithm>
#include <string>
#include <vector>

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

// The index field of a set file name: base path, ".I", three digits.
inline int IndexOf(const std::string& file, size_t baseLength) {
  return atoi(file.substr(baseLength + 2, 3).c_str());
}

// The set files in writing order: after a wrap the run that starts right
// after the free index is the oldest.
inline std::vector<std::string> WritingOrder(std::vector<std::string> files, size_t baseLength) {
  for (size_t i = 1; i < files.size(); ++i) {
    if (IndexOf(files[i], baseLength) != IndexOf(files[i - 1], baseLength) + 1) {
      std::rotate(files.begin(), files.begin() + static_cast<long>(i), files.end());
      break;
    }
  }
  return files;
}

// The numbers that follow marker ("seq N" messages by default) in the
// order they appear.
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

}  // namespace morvotest

#endif  // MORVOCAT_TESTS_SUPPORT_LOG_SET_H_
