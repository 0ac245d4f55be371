#ifndef MORVOCAT_ARCHIVE_FOLDER_H_
#define MORVOCAT_ARCHIVE_FOLDER_H_

// The folders that rotated files and archives are renamed and deleted in,
// held open so that every name is taken relative to them and no link
// planted on the way is followed.

#include <unistd.h>

#include <string>

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
// without "/" is in the working folder. A descriptor or a negated errno
// (-EINVAL for a path ending in "/").
int OpenParentFolder(const char* path, std::string* name);

// Makes the work folder that members are packed from (mode 0775), or takes
// the one an interrupted run left after reporting the failed mkdir with
// perror("couldn't create compress dir"); a link at its name is refused
// with the same report, not followed. A descriptor or a negated errno.
int MakeWorkFolder(const std::string& folder);

}  // namespace archive

#endif  // MORVOCAT_ARCHIVE_FOLDER_H_
