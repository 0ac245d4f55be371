#include "collector/monitor_dir.h"

#include <errno.h>
#include <limits.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/select.h>
#include <unistd.h>

#include <new>

#include "collector/inotify_records.h"
#include "collector/tavobase.h"
#include "platform/root_path.h"
#include "platform/safe_string.h"

namespace {

constexpr const char kKsvLogDir[] = "/data/log/ksv_log";
constexpr uint32_t kWatchMask = IN_OPEN | IN_ISDIR;
constexpr size_t kEventBufferSize = 1024;

}  // namespace

MonitorDir::MonitorDir(const char* path) {
  GetDir(path);
  stopFd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
}

MonitorDir::~MonitorDir() {
  Stop();
  if (stopFd_ >= 0) close(stopFd_);
  delete[] dir;
  dir = nullptr;
}

void MonitorDir::GetDir(const char* path) {
  if (path == nullptr || path[0] == '\0') return;
  const char* slash = strrchr(path, '/');
  if (slash == nullptr) return;
  size_t n = static_cast<size_t>(slash - path);
  char* text = new (std::nothrow) char[n + 1];
  if (text == nullptr) {
    dir = nullptr;
    fprintf(stderr, "malloc memory fail when get dir.\n");
    return;
  }
  memset_s(text, n + 1, 0, n + 1);
  dir = text;
  if (n > 0 && strncpy_s(dir, n + 1, path, n) != 0) {
    fprintf(stderr, "get monitor dir failed\n");
    return;
  }
  dir[n] = '\0';
}

void MonitorDir::SetupLogBase(Tavobase* base) { logBase = base; }

void MonitorDir::Stop() {
  if (stopFd_ >= 0) {
    uint64_t one = 1;
    ssize_t rc;
    do {
      rc = write(stopFd_, &one, sizeof(one));
    } while (rc < 0 && errno == EINTR);
  }
  Wait();
}

void MonitorDir::Run() {
  if (logBase == nullptr || dir == nullptr) return;
  // Without its stop descriptor the loop could never be ended.
  int fd = stopFd_ < 0 ? -1 : inotify_init();
  if (fd < 0) {
    fprintf(stderr, "could not get file descriptor.\n");
    return;
  }
  char ksvLog[PATH_MAX];
  if (inotify_add_watch(fd, dir, kWatchMask) < 0) {
    fprintf(stderr, "could not add watch for %s\n", dir);
  } else if (!platform::ResolvePath(kKsvLogDir, ksvLog, sizeof(ksvLog)) ||
             inotify_add_watch(fd, ksvLog, kWatchMask) < 0) {
    fprintf(stderr, "could not add watch for %s\n", ksvLog);
  } else if (fd >= FD_SETSIZE || stopFd_ >= FD_SETSIZE) {
    // Both descriptors must fit a select set.
    fprintf(stderr, "The fd is larger than 1024.\n");
  } else {
    Watch(fd);
  }
  close(fd);
}

void MonitorDir::Watch(int notifyFd) {
  char events[kEventBufferSize];
  int top = (notifyFd > stopFd_ ? notifyFd : stopFd_) + 1;
  for (;;) {
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(notifyFd, &readable);
    FD_SET(stopFd_, &readable);
    if (select(top, &readable, nullptr, nullptr, nullptr) < 1) continue;
    if (FD_ISSET(stopFd_, &readable)) return;
    ssize_t n;
    do {
      n = read(notifyFd, events, sizeof(events));
    } while (n < 0 && errno == EINTR);
    if (n <= 0) continue;
    HandleEvents(events, n);
  }
}

int MonitorDir::HandleEvents(const char* events, ssize_t n) {
  if (logBase == nullptr || events == nullptr || n <= 0) return 0;
  int flushes = 0;
  auto flush = [&](const inotify_event& header, const char*) {
    if ((header.mask & IN_ISDIR) == 0) return;
    logBase->LogcatClose();
    ++flushes;
  };
  ForEachInotifyRecord(events, static_cast<size_t>(n), flush);
  return flushes;
}
