#include "platform/log_store_dir.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>

#include "platform/logger.h"
#include "platform/root_path.h"
#include "platform/safe_string.h"

namespace platform {

namespace {

std::atomic<unsigned> gTempCounter{0};

bool MakeOneDir(const char* dir) {
  if (mkdir(dir, 0775) == 0) {
    // The umask must not narrow a folder that other users' processes share.
    chmod(dir, 0775);
    return true;
  }
  struct stat st;
  return errno == EEXIST && stat(dir, &st) == 0 && S_ISDIR(st.st_mode);
}

int MapFd(int fd, size_t size, SharedMapping* out) {
  void* addr = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (addr == MAP_FAILED) return -errno;
  out->addr = addr;
  out->size = size;
  return 0;
}

}  // namespace

bool LogStoreDir(char* out, size_t size) {
  const char* override = getenv(MORVO_LOG_STORE_ENV);
  if (override != nullptr && override[0] != '\0') return strcpy_s(out, size, override) == 0;
  return ResolvePath(MORVO_LOG_STORE_DIR, out, size);
}

bool MakeStoreDir(const char* dir) {
  char path[PATH_MAX];
  if (dir == nullptr || dir[0] == '\0' || strcpy_s(path, sizeof(path), dir) != 0) return false;
  struct stat st;
  if (stat(path, &st) == 0) return S_ISDIR(st.st_mode);
  for (char* p = path + 1; *p != '\0'; ++p) {
    if (*p != '/') continue;
    *p = '\0';
    bool made = MakeOneDir(path);
    *p = '/';
    if (!made) return false;
  }
  return MakeOneDir(path);
}

void UnmapShared(SharedMapping* mapping) {
  if (mapping->addr != nullptr) munmap(mapping->addr, mapping->size);
  mapping->addr = nullptr;
  mapping->size = 0;
}

int MapExistingFile(const char* path, size_t minSize, size_t maxSize, SharedMapping* out) {
  int fd = open(path, O_RDWR | O_CLOEXEC);
  if (fd < 0) return -errno;
  struct stat st;
  int rc = fstat(fd, &st) != 0 ? -errno : 0;
  if (rc == 0 && (!S_ISREG(st.st_mode) || static_cast<size_t>(st.st_size) < minSize ||
                  static_cast<size_t>(st.st_size) > maxSize)) {
    rc = -EINVAL;
  }
  if (rc == 0) rc = MapFd(fd, static_cast<size_t>(st.st_size), out);
  close(fd);
  return rc;
}

int PublishSharedFile(const char* path, size_t size, bool replace, InitMapping init,
                      const void* arg, SharedMapping* out) {
  char temp[PATH_MAX];
  if (snprintf_s(temp, sizeof(temp), sizeof(temp) - 1, "%s.tmp.%d.%u", path,
                 static_cast<int>(getpid()), gTempCounter.fetch_add(1)) < 0) {
    return -ENAMETOOLONG;
  }
  int fd = open(temp, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0664);
  if (fd < 0) return -errno;
  fchmod(fd, 0664);
  SharedMapping made;
  // Reserving the blocks now means a full disk fails here, not as SIGBUS on
  // a later store into the mapping.
  int rc = -posix_fallocate(fd, 0, static_cast<off_t>(size));
  if (rc == 0) rc = MapFd(fd, size, &made);
  close(fd);
  if (rc == 0) {
    init(made.addr, made.size, arg);
    if (replace) {
      rc = rename(temp, path) != 0 ? -errno : 0;
    } else {
      rc = link(temp, path) != 0 ? -errno : 0;
    }
  }
  if (rc != 0 || !replace) unlink(temp);
  if (rc != 0) {
    UnmapShared(&made);
    return rc;
  }
  *out = made;
  return 0;
}

}  // namespace platform
