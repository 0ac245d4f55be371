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

// The numbers of "seq N" messages in the order they appear.
inline std::vector<long> Sequence(const std::string& text) {
  std::vector<long> numbers;
  for (size_t pos = text.find(": seq "); pos != std::string::npos;
       pos = text.find(": seq ", pos + 1)) {
    numbers.push_back(strtol(text.c_str() + pos + 6, nullptr, 10));
  }
  return numbers;
}

}  // namespace morvotest

#endif  // MORVOCAT_TESTS_SUPPORT_LOG_SET_H_
