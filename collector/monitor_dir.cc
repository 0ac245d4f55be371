#include "collector/monitor_dir.h"

#include <errno.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/select.h>
#include <sys/time.h>
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
constexpr time_t kRetrySeconds = 1;

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
  if (stopFd_ < 0) {
    fprintf(stderr, "could not get file descriptor.\n");
    return;
  }
  platform::DevicePath ksvLog = platform::ResolvePath(kKsvLogDir);
  if (!ksvLog.ok()) {
    fprintf(stderr, "could not add watch for %s\n", kKsvLogDir);
    return;
  }
  // An empty dir stands for a file at the root: there is no folder to wait for.
  if (dir[0] == '\0') {
    fprintf(stderr, "could not add watch for %s\n", dir);
    return;
  }
  WatchTarget targets[kTargets] = {{dir}, {ksvLog.c_str()}};
  Watch(targets);
}

// At boot the folders may be made after the collector starts, and a tool may
// remove and remake them: a watch that cannot be had is tried again every
// second, so the flushes come back with the folder.
void MonitorDir::Watch(WatchTarget* targets) {
  int notifyFd = -1;
  bool toldNoFd = false;
  char events[kEventBufferSize];
  for (;;) {
    if (notifyFd < 0) notifyFd = OpenNotify(&toldNoFd);
    if (notifyFd >= FD_SETSIZE) return;  // already closed
    bool complete = notifyFd >= 0;
    for (int i = 0; i < kTargets && notifyFd >= 0; ++i) {
      complete = AddWatch(notifyFd, &targets[i]) && complete;
    }
    int ready = WaitReadable(notifyFd, complete);
    if (ready < 0) break;
    if (ready == 0) continue;
    ssize_t n;
    do {
      n = read(notifyFd, events, sizeof(events));
    } while (n < 0 && errno == EINTR);
    if (n <= 0) continue;
    HandleEvents(events, n);
    ForgetLostWatches(events, n, targets);
  }
  if (notifyFd >= 0) close(notifyFd);
}

int MonitorDir::OpenNotify(bool* told) {
  int fd = inotify_init1(IN_CLOEXEC);
  if (fd < 0) {
    if (!*told) fprintf(stderr, "could not get file descriptor.\n");
    *told = true;
    return -1;
  }
  *told = false;
  // Both descriptors must fit a select set.
  if (fd >= FD_SETSIZE || stopFd_ >= FD_SETSIZE) {
    fprintf(stderr, "The fd is larger than 1024.\n");
    close(fd);
    return FD_SETSIZE;
  }
  return fd;
}

bool MonitorDir::AddWatch(int notifyFd, WatchTarget* target) {
  if (target->wd >= 0) return true;
  target->wd = inotify_add_watch(notifyFd, target->path, kWatchMask);
  if (target->wd >= 0) {
    target->told = false;
    return true;
  }
  if (!target->told) fprintf(stderr, "could not add watch for %s\n", target->path);
  target->told = true;
  return false;
}

// 1 when notifyFd is readable, 0 to go round again, -1 once stopped.
int MonitorDir::WaitReadable(int notifyFd, bool complete) {
  fd_set readable;
  FD_ZERO(&readable);
  FD_SET(stopFd_, &readable);
  if (notifyFd >= 0) FD_SET(notifyFd, &readable);
  int top = (notifyFd > stopFd_ ? notifyFd : stopFd_) + 1;
  struct timeval retry = {kRetrySeconds, 0};
  if (select(top, &readable, nullptr, nullptr, complete ? nullptr : &retry) < 1) return 0;
  if (FD_ISSET(stopFd_, &readable)) return -1;
  return notifyFd >= 0 && FD_ISSET(notifyFd, &readable) ? 1 : 0;
}

void MonitorDir::ForgetLostWatches(const char* events, ssize_t n, WatchTarget* targets) {
  auto forget = [&](const inotify_event& header, const char*) {
    if ((header.mask & IN_IGNORED) == 0) return;
    for (int i = 0; i < kTargets; ++i) {
      if (targets[i].wd == header.wd) targets[i].wd = -1;
    }
  };
  ForEachInotifyRecord(events, static_cast<size_t>(n), forget);
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
