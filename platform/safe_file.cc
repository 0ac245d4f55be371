#include "platform/safe_file.h"

#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

namespace platform {
namespace {

constexpr int kAllowedFlags = O_WRONLY | O_RDWR | O_CREAT | O_EXCL | O_APPEND | O_TRUNC;

struct Owner {
  bool found = false;
  uid_t uid = 0;
  gid_t gid = 0;
};

// Looked up once, in the local files only: through NSS the lookup would
// map modules (libnss_systemd and what it needs, over 600 KiB) into a
// resident collector for good. "system" is a local account.
Owner LookUpRootSystem() {
  Owner owner;
  FILE* groups = fopen("/etc/group", "re");
  struct group entry;
  struct group* found = nullptr;
  char buffer[4096];
  while (groups != nullptr && fgetgrent_r(groups, &entry, buffer, sizeof(buffer), &found) == 0) {
    if (strcmp(found->gr_name, "system") == 0) {
      owner.found = true;
      owner.gid = found->gr_gid;
      break;
    }
  }
  if (groups != nullptr) fclose(groups);
  if (!owner.found) fprintf(stderr, "group system not found: log files keep their group\n");
  return owner;
}

Owner LookUpSystemUser() {
  Owner owner;
  FILE* users = fopen("/etc/passwd", "re");
  struct passwd entry;
  struct passwd* found = nullptr;
  char buffer[4096];
  while (users != nullptr && fgetpwent_r(users, &entry, buffer, sizeof(buffer), &found) == 0) {
    if (strcmp(found->pw_name, "system") == 0) {
      owner = {true, found->pw_uid, found->pw_gid};
      break;
    }
  }
  if (users != nullptr) fclose(users);
  return owner;
}

int Close(int fd, int rc) {
  close(fd);
  return rc;
}

}  // namespace

int SplitPath(const char* path, std::string* folder, std::string* name) {
  const char* slash = path != nullptr ? strrchr(path, '/') : nullptr;
  if (slash == nullptr || slash[1] == '\0') return -EINVAL;
  // "/name" lives in the root folder.
  folder->assign(path, slash == path ? 1 : static_cast<size_t>(slash - path));
  name->assign(slash + 1);
  return 0;
}

int OpenFolder(const char* folder) {
  int fd = open(folder, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  return fd >= 0 ? fd : -errno;
}

int MakeFolder(const char* folder, mode_t mode, bool* created) {
  *created = mkdir(folder, mode) == 0;
  if (!*created && errno != EEXIST) return -errno;
  return OpenFolder(folder);
}

int OpenFileAt(int dirFd, const char* name, int flags, mode_t mode) {
  if ((flags & ~kAllowedFlags) != 0 || (flags & (O_WRONLY | O_RDWR)) == 0) return -EINVAL;
  // Non-blocking so that a FIFO put in the way can neither hang the open
  // nor be written; no controlling terminal from a device put there.
  // Truncation waits for the checks: O_TRUNC would empty a file planted
  // under a second name before the open could be refused.
  int openFlags = (flags & ~O_TRUNC) | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
  int fd = openat(dirFd, name, openFlags, mode);
  if (fd < 0) return -errno;
  struct stat st;
  if (fstat(fd, &st) != 0) return Close(fd, -errno);
  if (!S_ISREG(st.st_mode)) return Close(fd, -EINVAL);
  if (st.st_nlink > 1) return Close(fd, -EMLINK);
  if ((flags & O_TRUNC) != 0 && ftruncate(fd, 0) != 0) return Close(fd, -errno);
  int fl = fcntl(fd, F_GETFL);
  if (fl < 0 || fcntl(fd, F_SETFL, fl & ~O_NONBLOCK) != 0) return Close(fd, -errno);
  return fd;
}

int OpenFile(const char* path, int flags, mode_t mode) {
  std::string folder;
  std::string name;
  int rc = SplitPath(path, &folder, &name);
  if (rc != 0) return rc;
  int dirFd = OpenFolder(folder.c_str());
  if (dirFd < 0) return dirFd;
  int fd = OpenFileAt(dirFd, name.c_str(), flags, mode);
  close(dirFd);
  return fd;
}

int OpenHostTarget(const char* path) {
  int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, 0666);
  if (fd < 0) return -errno;
  int fl = fcntl(fd, F_GETFL);
  if (fl < 0 || fcntl(fd, F_SETFL, fl & ~O_NONBLOCK) != 0) return Close(fd, -errno);
  return fd;
}

int GiveToRootSystem(int fd) {
  static const Owner owner = LookUpRootSystem();
  return fchown(fd, 0, owner.found ? owner.gid : static_cast<gid_t>(-1)) == 0 ? 0 : -errno;
}

int GiveToSystemUser(int fd) {
  static const Owner owner = LookUpSystemUser();
  if (!owner.found) return 0;
  return fchown(fd, owner.uid, owner.gid) == 0 ? 0 : -errno;
}

}  // namespace platform
