#ifndef MORVOCAT_ARCHIVE_FOLDER_H_
#define MORVOCAT_ARCHIVE_FOLDER_H_

// The folder that rotated files and archives are renamed and deleted in,
// held open so that every name is taken relative to it and no link planted
// on the way is followed.

#include <errno.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include "platform/safe_file.h"

namespace archive {

// Owns a folder descriptor (or the negated errno of a failed open).
class Folder {
 public:
  explicit Folder(int fd) : fd_(fd) {}
  ~Folder() {
    if (fd_ >= 0) close(fd_);
  }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;
  int fd() const { return fd_; }
  bool ok() const { return fd_ >= 0; }

 private:
  int fd_;
};

// Opens the folder of path and gives its last component in *name; a path
// without "/" is in the working folder. A path ending in "/" gives -EINVAL.
inline int OpenParentFolder(const char* path, std::string* name) {
  std::string folder;
  if (!platform::SplitPath(path, &folder, name)) {
    if (path == nullptr || path[0] == '\0' || path[strlen(path) - 1] == '/') return -EINVAL;
    folder = ".";
    name->assign(path);
  }
  return platform::OpenFolder(folder.c_str());
}

}  // namespace archive

#endif  // MORVOCAT_ARCHIVE_FOLDER_H_
