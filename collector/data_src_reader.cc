#include "collector/data_src_reader.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <memory>
#include <new>

#include "collector/command_child.h"
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

// Opens a node of the configuration; the holder owns the result. A node is
// read whole at each poll, so a FIFO without a writer must not block here.
FdHolder OpenNode(const platform::DevicePath& path) {
  FdHolder holder(new (std::nothrow) int(-1), &Tavobase::ReleaseFD);
  if (holder) *holder = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  return holder;
}

// The teardown may stop the thread in the wait for data, never in the read:
// a read stopped after it had taken text (the C library can act on a
// cancellation as the call returns) would lose that text with the thread.
ssize_t ReadWhenReady(int fd, char* buf, size_t count) {
  struct pollfd ready = {fd, POLLIN, 0};
  {
    WaitPoint wait;
    while (poll(&ready, 1, -1) < 0 && errno == EINTR) {
    }
  }
  return read(fd, buf, count);
}

void SleepWaiting(unsigned seconds) {
  WaitPoint wait;
  sleep(seconds);
}

}  // namespace

DataSrcReader::~DataSrcReader() { CloseStream(); }

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
  FdHolder fd = OpenNode(platform::ResolveNodePath(path));
  if (!fd) return 1;
  if (*fd < 0) return LogcatWriteStr(kReadFail, width, endsRecord);
  char data[kReadBufSize];
  bool seen = false;
  for (;;) {
    // Opened non-blocking: the read is no wait, and keeps what it takes.
    ssize_t n = read(*fd, data, sizeof(data) - 1);
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
    fd = OpenNode(platform::ResolveNodePath(list->str));
    if (!fd) return 1;
    if (*fd >= 0) break;
  }
  if (!fd || *fd < 0) return LogcatWriteStr(kReadFail, width, endsRecord);
  char data[kReadBufSize];
  ssize_t n = read(*fd, data, sizeof(data) - 1);
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
  platform::DevicePath devicePath = platform::ResolveNodePath(path);
  if (!devicePath.ok() || realpath(devicePath.c_str(), realDataSrc.get()) == nullptr) {
    // Said once while the stream stays away, not at every retry.
    if (!openFailReported) {
      fprintf(stderr, "failed to translate path[%s] to absolute path\n", path);
    }
    openFailReported = true;
    return 1;
  }
  platform::DevicePath cshellPath = platform::ResolvePath(kCshellDevice);
  if (cshellPath.ok() && strcmp(realDataSrc.get(), cshellPath.c_str()) == 0) {
    *cshell = true;
  }
  {
    WaitPoint wait;
    *fd = open(realDataSrc.get(), O_RDONLY | O_CLOEXEC);
  }
  if (*fd >= 0) {
    openFailReported = false;
    return 0;
  }
  if (*cshell) property_set("ctl.stop", kStopService);
  return 1;
}

int DataSrcReader::ParseLines(char* text, size_t length, char* buf, size_t* carry) {
  int result = 0;
  char* end = text + length;
  for (char* line = text;;) {
    auto* feed = static_cast<char*>(memchr(line, '\n', static_cast<size_t>(end - line)));
    size_t left = static_cast<size_t>((feed != nullptr ? feed : end) - line);
    // Full pieces go at once, so a long line is split alike however the
    // reads cut it, and the carry always leaves room to read more.
    while (left > kLinePiece || (feed == nullptr && left == kLinePiece)) {
      if (LogcatWriteStamped(line, kLinePiece) != 0) result = 1;
      line += kLinePiece;
      left -= kLinePiece;
    }
    if (feed == nullptr) {
      if (line != buf) memmove(buf, line, left);
      buf[left] = '\0';
      *carry = left;
      return result;
    }
    if (left > 0 && LogcatWriteStamped(line, left) != 0) result = 1;
    line = feed + 1;
  }
}

int DataSrcReader::ParseEachLine(char* start, char* buf, int* carry) {
  if (start == nullptr || buf == nullptr) {
    fprintf(stderr, "start or buf is null ptr\n");
    return 1;
  }
  size_t left = 0;
  int result = ParseLines(start, strlen(start), buf, &left);
  *carry = static_cast<int>(left);
  return result;
}

int DataSrcReader::OpenStreamWaiting(const char* path, bool* cshell) {
  for (;;) {
    int fd = -1;
    if (OpenDataSrc(path, &fd, cshell) == 0) return fd;
    SleepWaiting(kRetrySleepSeconds);
  }
}

bool DataSrcReader::StreamReplaced(const platform::DevicePath& path) const {
  struct stat named;
  struct stat opened;
  if (!path.ok() || fstat(streamFd, &opened) != 0) return false;
  if (stat(path.c_str(), &named) != 0) return true;
  return named.st_dev != opened.st_dev || named.st_ino != opened.st_ino;
}

bool DataSrcReader::RetryRead(bool cshell, size_t room) {
  if (!cshell || failureRetry == 0) return false;
  if (FailureLimitReached()) {
    property_set("ctl.stop", kStopService);
    return false;
  }
  SleepWaiting(kRetrySleepSeconds);
  fprintf(stderr, "read failure!reserved_buf_size = %d\n", static_cast<int>(room));
  return true;
}

int DataSrcReader::NodeCatStream(const char* path) {
  if (path == nullptr) return 1;
  // Looked at after every idle read: resolved once for the stream's life.
  const platform::DevicePath source = platform::ResolveNodePath(path);
  bool cshell = false;
  CloseStream();
  streamCarry = 0;
  for (;;) {
    if (streamFd < 0) streamFd = OpenStreamWaiting(path, &cshell);
    size_t room = kReadBufSize - 1 - streamCarry;
    ssize_t n = ReadWhenReady(streamFd, streamBuf + streamCarry, room);
    if (n > 0) {
      // A line the sink refused is the sink's to count; the stream goes on.
      ParseLines(streamBuf, streamCarry + static_cast<size_t>(n), streamBuf, &streamCarry);
    } else if (n == 0) {
      if (StreamReplaced(source)) {
        CloseStream();
      } else {
        // Lines held through a write fault go out while the source is idle,
        // not only with its next line.
        RetryHeld();
        WaitPoint wait;
        usleep(kEndOfFilePauseMicros);
      }
    } else if (errno != EINTR && !RetryRead(cshell, room)) {
      // A read error may pass: the stream is opened again.
      CloseStream();
      SleepWaiting(kRetrySleepSeconds);
    }
  }
}

void DataSrcReader::CloseStream() {
  if (streamFd >= 0) close(streamFd);
  streamFd = -1;
}

void DataSrcReader::CompleteCarriedLine() {
  int flags = fcntl(streamFd, F_GETFL);
  if (flags < 0 || fcntl(streamFd, F_SETFL, flags | O_NONBLOCK) != 0) return;
  // One byte at a time, so nothing after the line end is taken.
  while (streamCarry < kLinePiece && read(streamFd, streamBuf + streamCarry, 1) == 1 &&
         streamBuf[streamCarry] != '\n') {
    ++streamCarry;
  }
}

void DataSrcReader::FlushStreamCarry() {
  if (streamCarry > 0 && streamFd >= 0) CompleteCarriedLine();
  CloseStream();
  size_t length = streamCarry;
  streamCarry = 0;
  if (length > 0) LogcatWriteStamped(streamBuf, length);
}

int DataSrcReader::CopyCommandOutput(char* cmdLine) {
  char* argv[kCmdLineSize / 2 + 1];
  size_t count = 0;
  char* save = nullptr;
  for (char* word = strtok_r(cmdLine, " \t", &save); word != nullptr;
       word = strtok_r(nullptr, " \t", &save)) {
    argv[count++] = word;
  }
  argv[count] = nullptr;
  char program[kPathSize];
  if (count == 0 || !CommandChild::Find(argv[0], program, sizeof(program))) {
    fprintf(stderr, "dumpsys not found in %s\n", CommandChild::kSearchDirs);
    return 1;
  }
  CommandChild child;
  if (!child.Start(program, argv)) return 1;
  char piece[kReadBufSize];
  int result = 0;
  for (;;) {
    ssize_t n = ReadWhenReady(child.Output(), piece, sizeof(piece));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    if (LogcatWrite(piece, static_cast<size_t>(n), true) != 0) result = 1;
  }
  child.Finish();
  return result;
}

int DataSrcReader::SystemCmdCat(const char* command) {
  if (command == nullptr) return 1;
  int result = 0;
  time_t now = time(nullptr);
  struct tm local;
  if (localtime_r(&now, &local) != nullptr) {
    char header[kCmdLineSize];
    int length =
        snprintf_s(header, sizeof(header), sizeof(header) - 1,
                   "current time: <%s>%d-%d-%d %d:%d:%d\r\n", command, local.tm_year + 1900,
                   local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
    if (length < 0) {
      fprintf(stderr, "format current time failed\n");
      return 1;
    }
    // A refused header does not cost the output.
    if (LogcatWrite(header, static_cast<size_t>(length), true) != 0) result = 1;
  }
  char cmdLine[kCmdLineSize];
  if (snprintf_s(cmdLine, sizeof(cmdLine), sizeof(cmdLine) - 1, "dumpsys %s", command) < 0) {
    fprintf(stderr, "cmd write failed\n");
    return 1;
  }
  if (CopyCommandOutput(cmdLine) != 0) result = 1;
  return result;
}
