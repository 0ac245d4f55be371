#include "archive/folder.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

#include "platform/safe_file.h"

namespace archive {

constexpr mode_t kWorkFolderMode = 0775;

int OpenParentFolder(const char* path, std::string* name) {
  std::string folder;
  if (platform::SplitPath(path, &folder, name) != 0) {
    if (path == nullptr || path[0] == '\0' || path[strlen(path) - 1] == '/') return -EINVAL;
    folder = ".";
    name->assign(path);
  }
  return platform::OpenFolder(folder.c_str());
}

int MakeWorkFolder(const std::string& folder) {
  bool created = false;
  int fd = platform::MakeFolder(folder.c_str(), kWorkFolderMode, &created);
  if (fd < 0 || !created) {
    errno = fd < 0 ? -fd : EEXIST;
    perror("couldn't create compress dir");
  }
  return fd;
}

}  // namespace archive
