#ifndef MORVOCAT_TESTS_SUPPORT_SHELL_FILE_H_
#define MORVOCAT_TESTS_SUPPORT_SHELL_FILE_H_

// A path as one shell word, the permission bits at a path, and the lines
// of a text, as the collector, file set and view tests check them.

#include <sys/stat.h>

#include <string>
#include <vector>

namespace morvotest {

// path in single quotes, its own single quotes escaped.
inline std::string Quoted(const std::string& path) {
  std::string quoted = "'";
  for (char c : path) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

// The permission bits of what path leads to; 0 when nothing is there.
inline mode_t ModeOf(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 ? (st.st_mode & 07777) : 0;
}

// The lines of text, without their ends; a last line without one is left out.
inline std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  size_t start = 0;
  for (size_t end; (end = text.find('\n', start)) != std::string::npos; start = end + 1) {
    lines.push_back(text.substr(start, end - start));
  }
  return lines;
}

}  // namespace morvotest

#endif  // MORVOCAT_TESTS_SUPPORT_SHELL_FILE_H_
