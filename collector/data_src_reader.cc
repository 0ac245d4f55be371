#include "collector/data_src_reader.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <memory>
#include <new>

#include "collector/node_path.h"
#include "collector/wait_point.h"
#include "platform/properties.h"
#include "platform/root_path.h"
#include "platform/safe_string.h"

namespace {

constexpr size_t kPathSize = 4096;
constexpr size_t kCmdLineSize = 256;
constexpr unsigned kRetrySleepSeconds = 1;
// A stream at end of file is read again after this pause.
constexpr useconds_t kEndOfFilePauseMicros = 100000;
constexpr char kReadFail[] = "Read Fail";
constexpr char kCshellDevice[] = "/dev/cshell_log";
constexpr char kStopService[] = "kmsgcat_cp";

using FdHolder = std::unique_ptr<int, void (*)(int*)>;

// Opens a node of the configuration; the holder owns the result.
FdHolder OpenNode(const char* devicePath) {
  FdHolder holder(new (std::nothrow) int(-1), &Tavobase::ReleaseFD);
  char path[kPathSize];
  if (holder && ResolveNodePath(devicePath, path, sizeof(path))) {
    *holder = open(path, O_RDONLY);
  }
  return holder;
}

ssize_t ReadWaiting(int fd, char* buf, size_t count) {
  WaitPoint wait;
  return read(fd, buf, count);
}

void SleepWaiting(unsigned seconds) {
  WaitPoint wait;
  sleep(seconds);
}

}  // namespace

int DataSrcReader::WriteNodeText(char* data, size_t width, bool endsRecord) {
  size_t length = strlen(data);
  if (length >= 2 && (data[length - 1] == '\r' || data[length - 1] == '\n')) {
    data[--length] = '\0';
  }
  return LogcatWriteFixLenBuffer(data, width, endsRecord);
}

bool DataSrcReader::FailureLimitReached() {
  if (++failureCount < failureRetry) return false;
  failureCount = 0;
  return true;
}

int DataSrcReader::NodeCatOnce(const char* path, size_t width, bool endsRecord) {
  if (path == nullptr) return 1;
  FdHolder fd = OpenNode(path);
  if (!fd) return 1;
  if (*fd < 0) return LogcatWriteStr(kReadFail, width, endsRecord);
  char data[kReadBufSize];
  bool seen = false;
  for (;;) {
    ssize_t n = ReadWaiting(*fd, data, sizeof(data) - 1);
    if (n <= 0) {
      if (seen) return 0;
      if (failureRetry == 0) return LogcatWriteStr(kReadFail, width, endsRecord);
      if (FailureLimitReached()) return 1;
      SleepWaiting(kRetrySleepSeconds);
      continue;
    }
    data[n] = '\0';
    if (WriteNodeText(data, width, endsRecord) != 0) return 1;
    seen = true;
  }
}

int DataSrcReader::NodeCatAlterOnce(const TavoCommon::TavocatStrListT* list, size_t width,
                                    bool endsRecord) {
  if (list == nullptr) return 1;
  FdHolder fd(nullptr, &Tavobase::ReleaseFD);
  for (; list != nullptr && list->str != nullptr; list = list->next) {
    fd = OpenNode(list->str);
    if (!fd) return 1;
    if (*fd >= 0) break;
  }
  if (!fd || *fd < 0) return LogcatWriteStr(kReadFail, width, endsRecord);
  char data[kReadBufSize];
  ssize_t n = ReadWaiting(*fd, data, sizeof(data) - 1);
  if (n < 0) return LogcatWriteStr(kReadFail, width, endsRecord);
  data[n] = '\0';
  return WriteNodeText(data, width, endsRecord);
}

int DataSrcReader::OpenDataSrc(const char* path, int* fd, bool* cshell) {
  if (path == nullptr) return 1;
  std::unique_ptr<char[]> realDataSrc(new (std::nothrow) char[kPathSize]);
  if (!realDataSrc) {
    fprintf(stderr, "failed to create realDataSrc buffer\n");
    return 1;
  }
  char devicePath[kPathSize];
  if (!ResolveNodePath(path, devicePath, sizeof(devicePath)) ||
      realpath(devicePath, realDataSrc.get()) == nullptr) {
    fprintf(stderr, "failed to translate path[%s] to absolute path\n", path);
    return 1;
  }
  char cshellPath[kPathSize];
  if (platform::ResolvePath(kCshellDevice, cshellPath, sizeof(cshellPath)) &&
      strcmp(realDataSrc.get(), cshellPath) == 0) {
    *cshell = true;
  }
  {
    WaitPoint wait;
    *fd = open(realDataSrc.get(), O_RDONLY);
  }
  if (*fd >= 0) return 0;
  if (*cshell) property_set("ctl.stop", kStopService);
  return 1;
}

const char* DataSrcReader::Strchrnul(const char* text, int c) const {
  while (*text != '\0' && *text != static_cast<char>(c)) ++text;
  return text;
}

void DataSrcReader::OverlappingStrcpy(char* dest, const char* src) const {
  memmove(dest, src, strlen(src) + 1);
}

int DataSrcReader::ParseEachLine(char* start, char* buf, int* carry) {
  if (start == nullptr || buf == nullptr) {
    fprintf(stderr, "start or buf is null ptr\n");
    return 1;
  }
  char* line = start;
  for (;;) {
    char* end = const_cast<char*>(Strchrnul(line, '\n'));
    bool last = *end == '\0';
    if (last) {
      if (line != buf) OverlappingStrcpy(buf, line);
      *carry = static_cast<int>(end - line);
      if (*carry < static_cast<int>(kReadBufSize - 1)) return 0;
      // The whole buffer is one line: hand it over as it is.
      *carry = 0;
      line = buf;
    } else {
      *end = '\0';
    }
    if (*line != '\0' && LogcatWriteWithTimestamp(line) != 0) return 1;
    if (last) return 0;
    line = end + 1;
  }
}

int DataSrcReader::NodeCatStream(const char* path) {
  int fd = -1;
  bool cshell = false;
  if (OpenDataSrc(path, &fd, &cshell) != 0) return 1;
  char buf[kReadBufSize];
  int carry = 0;
  for (;;) {
    size_t room = kReadBufSize - 1 - static_cast<size_t>(carry);
    ssize_t n = ReadWaiting(fd, buf + carry, room);
    if (n < 0) {
      if (!cshell || failureRetry == 0) break;
      if (FailureLimitReached()) {
        property_set("ctl.stop", kStopService);
        break;
      }
      SleepWaiting(kRetrySleepSeconds);
      fprintf(stderr, "read failure!reserved_buf_size = %d\n", static_cast<int>(room));
      continue;
    }
    if (n == 0) {
      WaitPoint wait;
      usleep(kEndOfFilePauseMicros);
      continue;
    }
    buf[carry + n] = '\0';
    if (ParseEachLine(buf, buf, &carry) != 0) break;
  }
  close(fd);
  return 1;
}

int DataSrcReader::SystemCmdCat(const char* command) {
  if (command == nullptr) return 1;
  time_t now = time(nullptr);
  struct tm local;
  if (localtime_r(&now, &local) != nullptr) {
    char header[kCmdLineSize];
    int length = snprintf_s(header, sizeof(header), sizeof(header) - 1,
                            "current time: <%s>%d-%d-%d %d:%d:%d\r\n", command,
                            local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour,
                            local.tm_min, local.tm_sec);
    if (length < 0) {
      fprintf(stderr, "format current time failed\n");
      return 1;
    }
    if (LogcatWrite(header, static_cast<size_t>(length), true) != 0) return 1;
  }
  char cmdLine[kCmdLineSize];
  if (snprintf_s(cmdLine, sizeof(cmdLine), sizeof(cmdLine) - 1, "dumpsys %s", command) < 0) {
    fprintf(stderr, "cmd write failed\n");
    return 1;
  }
  FILE* output = popen(cmdLine, "r");
  if (output == nullptr) return 1;
  char piece[kReadBufSize];
  int result = 0;
  for (;;) {
    size_t n;
    {
      WaitPoint wait;
      n = fread(piece, 1, sizeof(piece), output);
    }
    if (n == 0) break;
    if (LogcatWrite(piece, n, true) != 0) {
      result = 1;
      break;
    }
  }
  // A command that never ends must not hold the group past the teardown.
  WaitPoint wait;
  pclose(output);
  return result;
}
