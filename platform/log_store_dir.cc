#include "platform/log_store_dir.h"

#include <ctype.h>
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <linux/fs.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>

#include "platform/log_lock.h"
#include "platform/logger.h"
#include "platform/safe_file.h"
#include "platform/safe_string.h"

namespace platform {

namespace {

std::atomic<unsigned> gTempCounter{0};
// Every file of the store is named so (rings, the signal page).
constexpr char kStoreNamePrefix[] = "morvo_";

int Refuse(const char* what, const char* name, const char* why, int rc) {
  fprintf(stderr, "log store %s %s refused: %s\n", what, name, why);
  return rc;
}

bool TrustedOwner(uid_t uid) { return uid == 0 || uid == geteuid(); }

// Missing parents are made 0755 whatever the umask, so that the readers
// the store's own mode admits can reach it. Links among them are followed:
// they are the host's (/dev/shm may be one).
void MakeParents(char* path) {
  for (char* p = path + 1; *p != '\0'; ++p) {
    if (*p != '/') continue;
    *p = '\0';
    if (mkdir(path, 0755) == 0) {
      int fd = OpenFolder(path);
      if (fd >= 0) {
        fchmod(fd, 0755);
        close(fd);
      }
    }
    *p = '/';
  }
}

int CheckStoreDir(int fd, const char* dir, uid_t* owner) {
  struct stat st;
  if (fstat(fd, &st) != 0) return -errno;
  if (!TrustedOwner(st.st_uid)) return Refuse("folder", dir, "owned by another user", -EPERM);
  if ((st.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    return Refuse("folder", dir, "writable by group or others", -EPERM);
  }
  *owner = st.st_uid;
  return 0;
}

int Close(int fd, int rc) {
  close(fd);
  return rc;
}

int CheckStoreFile(int fd, const char* name) {
  struct stat st;
  if (fstat(fd, &st) != 0) return -errno;
  if (!S_ISREG(st.st_mode)) return Refuse("file", name, "not a regular file", -EPERM);
  if (!TrustedOwner(st.st_uid)) return Refuse("file", name, "owned by another user", -EPERM);
  if ((st.st_mode & S_IWOTH) != 0) return Refuse("file", name, "writable by others", -EPERM);
  // A second name may lie outside the store: writing the ring would write
  // that file.
  if (st.st_nlink != 1) return Refuse("file", name, "it has another name", -EMLINK);
  return 0;
}

int MapFd(int fd, size_t size, bool writable, SharedMapping* out) {
  struct stat st;
  if (fstat(fd, &st) != 0) return -errno;
  int prot = writable ? PROT_READ | PROT_WRITE : PROT_READ;
  void* addr = mmap(nullptr, size, prot, MAP_SHARED, fd, 0);
  if (addr == MAP_FAILED) return -errno;
  out->addr = addr;
  out->size = size;
  out->dev = st.st_dev;
  out->ino = st.st_ino;
  return 0;
}

// The pid in a temporary name "morvo_NAME.tmp.PID.N"; false for any other
// name.
bool TemporaryOf(const char* name, uint32_t* pid) {
  if (strncmp(name, kStoreNamePrefix, strlen(kStoreNamePrefix)) != 0) return false;
  const char* digits = strstr(name, ".tmp.");
  if (digits == nullptr || !isdigit(static_cast<unsigned char>(digits[5]))) return false;
  char* end = nullptr;
  unsigned long long value = strtoull(digits + 5, &end, 10);
  if (end[0] != '.' || !isdigit(static_cast<unsigned char>(end[1]))) return false;
  const char* counter = end + 1;
  strtoull(counter, &end, 10);
  if (*end != '\0') return false;
  // Beyond any pid: no live process can have made it.
  *pid = value > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(value);
  return true;
}

// A resize killed midway leaves a file of up to the largest ring in memory
// for ever; no live process will rename it.
void SweepTemporaries(int dirFd, uid_t owner) {
  int fd = openat(dirFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return;
  DIR* dir = fdopendir(fd);
  if (dir == nullptr) {
    close(fd);
    return;
  }
  while (const struct dirent* entry = readdir(dir)) {
    uint32_t pid = 0;
    struct stat st;
    if (!TemporaryOf(entry->d_name, &pid) || !TaskGone(pid) ||
        fstatat(dirFd, entry->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
      continue;
    }
    // Links, folders, others' files and files with a second name were
    // never made here.
    if (S_ISREG(st.st_mode) && st.st_uid == owner && st.st_nlink == 1) {
      unlinkat(dirFd, entry->d_name, 0);
    }
  }
  closedir(dir);
}

// Renames temp to name in dirFd; without replace an existing name wins.
int Publish(int dirFd, const char* temp, const char* name, bool replace) {
  if (replace) return renameat(dirFd, temp, dirFd, name) == 0 ? 0 : -errno;
  if (syscall(SYS_renameat2, dirFd, temp, dirFd, name, RENAME_NOREPLACE) == 0) return 0;
  if (errno != EINVAL && errno != ENOSYS) return -errno;
  // A file system without the flag: link, then drop the temporary name.
  int rc = linkat(dirFd, temp, dirFd, name, 0) == 0 ? 0 : -errno;
  unlinkat(dirFd, temp, 0);
  return rc;
}

}  // namespace

DevicePath LogStoreDir() { return ResolveOverridable(MORVO_LOG_STORE_ENV, MORVO_LOG_STORE_DIR); }

int OpenStoreDir(const char* dir) {
  char path[PATH_MAX];
  if (dir == nullptr || dir[0] == '\0' || strcpy_s(path, sizeof(path), dir) != 0) return -EINVAL;
  MakeParents(path);
  bool created = false;
  int fd = MakeFolder(path, kStoreDirMode, &created);
  if (fd == -ELOOP || fd == -ENOTDIR) {
    struct stat st;
    if (lstat(path, &st) == 0 && S_ISLNK(st.st_mode)) {
      return Refuse("folder", path, "it is a link", -ELOOP);
    }
  }
  if (fd < 0) return fd;
  if (created) fchmod(fd, kStoreDirMode);
  uid_t owner = 0;
  int rc = CheckStoreDir(fd, path, &owner);
  if (rc != 0) return Close(fd, rc);
  SweepTemporaries(fd, owner);
  return fd;
}

void UnmapShared(SharedMapping* mapping) {
  if (mapping->addr != nullptr) munmap(mapping->addr, mapping->size);
  *mapping = SharedMapping();
}

int MapStoreFile(int dirFd, const char* name, bool writable, size_t minSize, size_t maxSize,
                 SharedMapping* out) {
  // Non-blocking: a FIFO put there must not hang the open.
  int flags = (writable ? O_RDWR : O_RDONLY) | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
  int fd = openat(dirFd, name, flags);
  if (fd < 0) {
    return errno == ELOOP ? Refuse("file", name, "it is a link", -ELOOP) : -errno;
  }
  int rc = CheckStoreFile(fd, name);
  struct stat st;
  if (rc == 0 && fstat(fd, &st) != 0) rc = -errno;
  if (rc == 0 &&
      (static_cast<size_t>(st.st_size) < minSize || static_cast<size_t>(st.st_size) > maxSize)) {
    rc = -EINVAL;
  }
  if (rc == 0) rc = MapFd(fd, static_cast<size_t>(st.st_size), writable, out);
  return Close(fd, rc);
}

bool NameHolds(int dirFd, const char* name, const SharedMapping& mapping) {
  struct stat st;
  return fstatat(dirFd, name, &st, AT_SYMLINK_NOFOLLOW) == 0 && st.st_dev == mapping.dev &&
         st.st_ino == mapping.ino;
}

bool RefusedStoreFile(int rc) { return rc == -ELOOP || rc == -EPERM || rc == -EMLINK; }

int PublishSharedFile(int dirFd, const char* name, size_t size, mode_t mode, bool replace,
                      InitMapping init, const void* arg, SharedMapping* out) {
  char temp[NAME_MAX + 1];
  if (snprintf_s(temp, sizeof(temp), sizeof(temp) - 1, "%s.tmp.%d.%u", name,
                 static_cast<int>(getpid()), gTempCounter.fetch_add(1)) < 0) {
    return -ENAMETOOLONG;
  }
  int fd = OpenFileAt(dirFd, temp, O_RDWR | O_CREAT | O_EXCL, mode);
  if (fd < 0) return fd;
  // The umask must not decide who reads the store.
  fchmod(fd, mode);
  SharedMapping made;
  // Reserving the blocks now means a full disk fails here, not as SIGBUS on
  // a later store into the mapping.
  int rc = -posix_fallocate(fd, 0, static_cast<off_t>(size));
  if (rc == 0) rc = MapFd(fd, size, true, &made);
  close(fd);
  if (rc == 0) {
    init(made.addr, made.size, arg);
    rc = Publish(dirFd, temp, name, replace);
  }
  if (rc != 0) {
    unlinkat(dirFd, temp, 0);
    UnmapShared(&made);
    return rc;
  }
  *out = made;
  return 0;
}

}  // namespace platform
