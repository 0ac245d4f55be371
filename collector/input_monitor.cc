#include "collector/input_monitor.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/input.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <strings.h>
#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <new>

#include "collector/event_labels.h"
#include "collector/inotify_records.h"
#include "collector/wait_point.h"
#include "platform/safe_string.h"

using TavoCommon::TavocatStrListT;

namespace {

constexpr size_t kPathSize = 4096;
constexpr size_t kDeviceNameSize = 80;
constexpr size_t kPickCompareLength = 11;
constexpr size_t kNotifyBufSize = 512;
constexpr int kEvKey = 1;
constexpr int kKeyPower = 116;
// Between tries at a folder that is missing, and after a failed poll.
constexpr unsigned kRetrySeconds = 1;
const char kCurrentDir[] = ".";
const char kParentDir[] = "..";

// The last local-time stamp; only one input group is expected per process.
char monitorTimeStamp[32];

char* CopyName(const char* name) {
  size_t size = strlen(name) + 1;
  char* copy = new (std::nothrow) char[size];
  if (copy != nullptr && strcpy_s(copy, size, name) != 0) copy[0] = '\0';
  return copy;
}

const char* ShortCodeName(const char* name) {
  static const struct {
    const char* name;
    const char* shortName;
  } kShort[] = {{"ABS_MT_POSITION_X", "X"},
                {"ABS_MT_POSITION_Y", "Y"},
                {"ABS_MT_PRESSURE", "P"},
                {"ABS_MT_TRACKING_ID", "T"},
                {"SYN_REPORT", "S"}};
  for (const auto& entry : kShort) {
    if (strcmp(name, entry.name) == 0) return entry.shortName;
  }
  return name;
}

void PauseBeforeRetry() { WaitPoint::Sleep(kRetrySeconds); }

}  // namespace

InputMonitor::InputMonitor(Writer writer, void* owner) : writer(writer), owner(owner) {}

InputMonitor::~InputMonitor() {
  delete[] eventBuf;
  delete[] fileBuf;
  for (int i = ufdCount - 1; i >= 0; --i) {
    delete[] deviceNames[i];
    if (ufds[i].fd >= 0) close(ufds[i].fd);
  }
  delete[] deviceNames;
  delete[] ufds;
}

bool InputMonitor::AllocateBuffers() {
  if (eventBuf == nullptr) eventBuf = new (std::nothrow) char[kEventBufSize]();
  if (eventBuf == nullptr) {
    fprintf(stderr, "event buf malloc fail!\n");
    return false;
  }
  if (fileBuf == nullptr) fileBuf = new (std::nothrow) char[kFileBufSize]();
  if (fileBuf == nullptr) {
    fprintf(stderr, "file buf malloc fail!\n");
    return false;
  }
  return true;
}

void InputMonitor::Run(const char* dir, const TavocatStrListT* picks) {
  if (!AllocateBuffers()) return;
  if (AddDevice2Cache("default", inotify_init1(IN_CLOEXEC)) != 0) {
    fprintf(stderr, "add default socket failed!\n");
    return;
  }
  WatchAndScan(dir, picks);
  MonitorDirLoop(dir, picks);
}

// At boot the folder may be made after the collector starts: waiting for it
// keeps the group alive instead of ending it for good.
void InputMonitor::WatchAndScan(const char* dir, const TavocatStrListT* picks) {
  bool told = false;
  for (;;) {
    if (ufds[0].fd < 0) ufds[0].fd = inotify_init1(IN_CLOEXEC);
    if (ufds[0].fd >= 0 && inotify_add_watch(ufds[0].fd, dir, IN_CREATE | IN_DELETE) >= 0) {
      if (MonitorScanDir(dir, picks) == 0) return;
      if (!told) fprintf(stderr, "monitor scan dir failed for %s\n", dir);
    } else if (!told) {
      fprintf(stderr, "could not add watch for %s\n", dir);
    }
    told = true;
    PauseBeforeRetry();
  }
}

int InputMonitor::AddDevice2Cache(const char* name, int fd) {
  auto* newUfds = new (std::nothrow) pollfd[ufdCount + 1];
  if (newUfds == nullptr) {
    fprintf(stderr, "out of memory at new_ufds\n");
    return 1;
  }
  auto* newNames = new (std::nothrow) char*[ufdCount + 1];
  if (newNames == nullptr) {
    fprintf(stderr, "out of memory\n");
    delete[] newUfds;
    return 1;
  }
  for (int i = 0; i < ufdCount; ++i) {
    newUfds[i] = ufds[i];
    newNames[i] = deviceNames[i];
  }
  newUfds[ufdCount] = pollfd{fd, POLLIN, 0};
  newNames[ufdCount] = CopyName(name);
  delete[] ufds;
  delete[] deviceNames;
  ufds = newUfds;
  deviceNames = newNames;
  ++ufdCount;
  return 0;
}

int InputMonitor::MonitorScanDir(const char* dir, const TavocatStrListT* picks) {
  DIR* stream = opendir(dir);
  if (stream == nullptr) return 1;
  char path[kPathSize];
  if (snprintf_s(path, sizeof(path), sizeof(path) - 1, "%s/", dir) < 0) {
    closedir(stream);
    return 1;
  }
  size_t prefixLength = strlen(path);
  while (struct dirent* entry = readdir(stream)) {
    if (strcmp(entry->d_name, kCurrentDir) == 0 || strcmp(entry->d_name, kParentDir) == 0) {
      continue;
    }
    if (strcpy_s(path + prefixLength, sizeof(path) - prefixLength, entry->d_name) != 0) continue;
    MonitorOpenDevice(path, picks);
  }
  closedir(stream);
  return 0;
}

bool InputMonitor::IsPicked(const char* name, const TavocatStrListT* picks) {
  for (; picks != nullptr; picks = picks->next) {
    if (picks->str != nullptr && strncasecmp(picks->str, name, kPickCompareLength) == 0) {
      return true;
    }
  }
  return false;
}

int InputMonitor::MonitorOpenDevice(const char* path, const TavocatStrListT* picks) {
  // A device both found by a scan and reported as created is held once.
  if (HeldIndex(path) > 0) return 0;
  // Never blocks the thread outside its waits: not at the open, not at a read.
  int fd = open(path, O_RDWR | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) {
    MonitorWriteToBuf("could not open %s\n", path);
    return 1;
  }
  char name[kDeviceNameSize] = {0};
  if (ioctl(fd, EVIOCGNAME(sizeof(name) - 1), name) < 1) name[0] = '\0';
  MonitorWriteToBuf("add device %d: %s\n", ufdCount, path);
  MonitorWriteToBuf("  name:     \"%s\"\n", name);
  if (!IsPicked(name, picks)) {
    close(fd);
    return 0;
  }
  if (AddDevice2Cache(path, fd) != 0) {
    fprintf(stderr, "out of memory at new_ufds\n");
    close(fd);
    return 1;
  }
  return 0;
}

int InputMonitor::HeldIndex(const char* path) const {
  for (int i = 1; i < ufdCount; ++i) {
    if (deviceNames[i] != nullptr && strcmp(deviceNames[i], path) == 0) return i;
  }
  return 0;
}

void InputMonitor::RemoveDevice(int index) {
  MonitorWriteToBuf("remove device %d: %s\n", index, deviceNames[index]);
  delete[] deviceNames[index];
  close(ufds[index].fd);
  for (int j = index; j + 1 < ufdCount; ++j) {
    ufds[j] = ufds[j + 1];
    deviceNames[j] = deviceNames[j + 1];
  }
  --ufdCount;
}

int InputMonitor::MonitorCloseDevice(const char* path) {
  int index = HeldIndex(path);
  if (index == 0) {
    fprintf(stderr, "remote device: %s not found", path);
    return 1;
  }
  RemoveDevice(index);
  return 0;
}

int InputMonitor::MonitorReadNotify(const char* dir, int fd, const TavocatStrListT* picks) {
  char events[kNotifyBufSize] = {0};
  ssize_t length = read(fd, events, sizeof(events));
  if (length < static_cast<ssize_t>(sizeof(inotify_event))) {
    if (length < 0 && errno == EINTR) return 0;
    fprintf(stderr, "could not get event\n");
    return 1;
  }
  char path[kPathSize];
  if (strlen(dir) >= kPathSize ||
      snprintf_s(path, sizeof(path), sizeof(path) - 1, "%s/", dir) < 0) {
    fprintf(stderr, "copy device path fialed\n");
    return 1;
  }
  size_t prefixLength = strlen(path);
  auto handle = [&](const inotify_event& header, const char* name) {
    if ((header.mask & IN_IGNORED) != 0) watchLost = true;
    if (header.len == 0) return;
    if (strcpy_s(path + prefixLength, sizeof(path) - prefixLength, name) != 0) {
      fprintf(stderr, "get event name error\n");
    } else if ((header.mask & IN_CREATE) != 0) {
      MonitorOpenDevice(path, picks);
    } else {
      MonitorCloseDevice(path);
    }
  };
  ForEachInotifyRecord(events, static_cast<size_t>(length), handle);
  return 0;
}

void InputMonitor::MonitorDirLoop(const char* dir, const TavocatStrListT* picks) {
  long long lastSyn = 0;
  for (;;) {
    int pollResult;
    {
      WaitPoint wait;
      pollResult = poll(ufds, ufdCount, -1);
    }
    if (pollResult < 0) {
      if (errno != EINTR) PauseBeforeRetry();
      continue;
    }
    if ((ufds[0].revents & POLLIN) != 0) MonitorReadNotify(dir, ufds[0].fd, picks);
    if (watchLost) {
      watchLost = false;
      WatchAndScan(dir, picks);
      continue;
    }
    for (int i = 1; i < ufdCount; ++i) {
      // A device let go moves the next one into its entry.
      if (ufds[i].revents != 0 && !ReadDevice(i, pollResult, &lastSyn)) --i;
    }
  }
}

// A short read is reported and its piece skipped; a device at its end or
// gone is let go, since polling it again would only spin.
bool InputMonitor::ReadDevice(int index, int pollResult, long long* lastSyn) {
  RawInputEvent event;
  ssize_t n = read(ufds[index].fd, &event, sizeof(event));
  if (n == static_cast<ssize_t>(sizeof(event))) {
    GatherEvent(event, lastSyn);
    return true;
  }
  if (n < 0 && (errno == EAGAIN || errno == EINTR)) return true;
  fprintf(stderr, "could not get event,poll result:%d", pollResult);
  if (n > 0) return true;
  RemoveDevice(index);
  return false;
}

void InputMonitor::GatherEvent(const RawInputEvent& event, long long* lastSyn) {
  char* stamp = monitorTimeStamp;
  MonitorLoggingTime(&stamp);
  MonitorWriteToBuf("%s", stamp);
  MonitorWriteToBuf("[%ld.%06ld] ", static_cast<long>(event.sec), static_cast<long>(event.usec));
  MonitorPrintEvent(event.type, event.code, event.value);
  if (event.type == 0 && event.code == 0) {
    long long now = event.sec * 1000000LL + event.usec;
    if (*lastSyn != 0) {
      MonitorWriteToBuf("\trate %lld\n", now == *lastSyn ? 0 : 1000000 / (now - *lastSyn));
    }
    *lastSyn = now;
  }
  MonitorWriteToBuf("%s ", "\n");
}

int InputMonitor::MonitorLoggingTime(char** stamp) {
  time_t now = time(nullptr);
  struct tm local;
  if (localtime_r(&now, &local) != nullptr) {
    strftime(monitorTimeStamp, sizeof(monitorTimeStamp), "%m-%d %H:%M:%S ", &local);
  }
  *stamp = monitorTimeStamp;
  return static_cast<int>(strlen(monitorTimeStamp));
}

void InputMonitor::MonitorPrintEvent(int type, int code, int value) {
  const char* codeName = MonitorGetLabel(GetCodeLabel(type), code);
  const char* valueName = MonitorGetLabel(GetValueLabel(type, code), value);
  if (codeName != nullptr) {
    MonitorWriteToBuf(" %s", ShortCodeName(codeName));
  } else {
    MonitorWriteToBuf(" %04x", code);
  }
  if (valueName != nullptr) {
    MonitorWriteToBuf(" %-8.8s", valueName);
  } else {
    MonitorWriteToBuf(" %08x", static_cast<unsigned>(value));
  }
  if (type == kEvKey && code == kKeyPower) MonitorFlush();
}

void InputMonitor::MonitorWriteToBuf(const char* format, ...) {
  if (eventBuf == nullptr || fileBuf == nullptr) return;
  va_list args;
  va_start(args, format);
  int length = vsnprintf_s(eventBuf, kEventBufSize, kEventBufSize - 1, format, args);
  va_end(args);
  if (length < 0) {
    fprintf(stderr, "couldn't write to event buf\n");
    return;
  }
  if (static_cast<size_t>(fileBufLen) + length >= kFileBufSize) MonitorFlush();
  // A failed append leaves the count as it was, so it always matches the text.
  if (strncat_s(fileBuf + fileBufLen, kFileBufSize - fileBufLen, eventBuf, kEventBufSize) != 0) {
    fprintf(stderr, "couldn't append to file buf\n");
    return;
  }
  fileBufLen += length;
}

void InputMonitor::MonitorFlush() {
  if (fileBuf == nullptr) return;
  size_t length = static_cast<size_t>(fileBufLen) < kFileBufSize ? fileBufLen : kFileBufSize;
  writer(owner, fileBuf, length, true);
  fileBufLen = 0;
  fileBuf[0] = '\0';
}
