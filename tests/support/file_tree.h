#ifndef MORVOCAT_TESTS_SUPPORT_FILE_TREE_H_
#define MORVOCAT_TESTS_SUPPORT_FILE_TREE_H_

// What a folder holds and what sits at a path, to show an attacked run left them be.

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <string>
#include <vector>

namespace morvotest {

// The names in dir (not . and ..), sorted.
inline std::vector<std::string> Entries(const std::string& dir) {
  std::vector<std::string> names;
  DIR* d = opendir(dir.c_str());
  if (d == nullptr) return names;
  while (struct dirent* e = readdir(d)) {
    std::string name = e->d_name;
    if (name != "." && name != "..") names.push_back(name);
  }
  closedir(d);
  std::sort(names.begin(), names.end());
  return names;
}

// The node at path itself (a link is not followed); all zero when absent.
struct Node {
  ino_t ino = 0;
  mode_t mode = 0;  // type and permission bits
  dev_t rdev = 0;
  uid_t uid = 0;
  gid_t gid = 0;
  off_t size = 0;
  bool operator==(const Node& o) const {
    return ino == o.ino && mode == o.mode && rdev == o.rdev && uid == o.uid && gid == o.gid &&
           size == o.size;
  }
};

inline Node NodeAt(const std::string& path) {
  Node node;
  struct stat st;
  if (lstat(path.c_str(), &st) == 0) {
    node = {st.st_ino, st.st_mode, st.st_rdev, st.st_uid, st.st_gid, st.st_size};
  }
  return node;
}

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

#endif  // MORVOCAT_TESTS_SUPPORT_FILE_TREE_H_
