// The group's write paths. Every write first rebuilds a current file that
// has vanished, then rotates when the previous write ended a record and this
// one would reach the size threshold. While the output fails, writes are
// held and the output is retried now and then.

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include "collector/tavobase.h"
#include "platform/safe_string.h"
#include "platform/tavo.h"
#include "platform/write_fully.h"

namespace {

constexpr size_t kLineBuffer = 8192;
constexpr size_t kStampBuffer = 32;

int64_t NowMillis() {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

}  // namespace

int Tavobase::LogcatWrite(const char* text, size_t length, bool endsRecord) {
  return IsFactoryWrite() ? FactoryWrite(text, length, endsRecord)
                          : MmapWrite(text, length, endsRecord);
}

void Tavobase::PrepareWrite(size_t length, bool endsRecord) {
  if (access(logFilePath.c_str(), F_OK) != 0) SetupOutput();
  if (recordEnded) RotateLog(length);
  recordEnded = endsRecord;
}

int Tavobase::MmapWrite(const char* text, size_t length, bool endsRecord) {
  if (text == nullptr || tavoWriter == nullptr) return 1;
  return Accept(text, length, endsRecord);
}

int Tavobase::FactoryWrite(const char* text, size_t length, bool endsRecord) {
  if (text == nullptr) return 1;
  return Accept(text, length, endsRecord);
}

// A refused write ends neither the group nor its records: a fault that
// passes (a full disk, a folder that cannot be made yet) is waited out.
int Tavobase::Accept(const char* text, size_t length, bool endsRecord) {
  if (failing_) RetryHeld();
  if (!failing_ && WriteNow(text, length, endsRecord)) return 0;
  BeginFault(lastError_);
  if (!reopening_) held_.Add(text, length, endsRecord);
  return 0;
}

bool Tavobase::WriteNow(const char* text, size_t length, bool endsRecord) {
  // Closed by a rotation whose open failed, or from outside.
  if (IsFactoryWrite() && logFd < 0 && length > 0 && !logFilePath.empty() &&
      access(logFilePath.c_str(), F_OK) == 0) {
    OpenLogFileFactory();
  }
  PrepareWrite(length, endsRecord);
  // A title row written by an open on the way failed: this text comes after it.
  if (failing_) return false;
  if (IsFactoryWrite()) return WriteFactoryNow(text, length);
  if (!tavoWriter->Write(text, length)) {
    lastError_ = errno;
    return false;
  }
  curFileSize += length;
  return true;
}

bool Tavobase::WriteFactoryNow(const char* text, size_t length) {
  if (length == 0) return true;
  if (logFd < 0) return false;
  size_t done = platform::WriteFully(logFd, text, length);
  curFileSize += done;
  if (done == length) return true;
  lastError_ = errno;
  Say("%s: write fail\n", logFilePath.c_str());
  // Take back the part that went in, so the refused record leaves no trace
  // and is not doubled when it is written again.
  struct stat st;
  if (done > 0 && fstat(logFd, &st) == 0 && static_cast<size_t>(st.st_size) >= done) {
    if (ftruncate(logFd, st.st_size - static_cast<off_t>(done)) == 0) curFileSize -= done;
  }
  FactoryClose();
  return false;
}

void Tavobase::BeginFault(int error) {
  if (failing_) return;
  failing_ = true;
  retryAtMillis_ = NowMillis() + kRetryMillis;
  // A retry that fails is the same fault.
  if (resuming_) return;
  char buffer[128];
  const std::string& file = logFilePath.empty() ? outputFilePath : logFilePath;
  Say("group %s: cannot write %s: %s\n", outputFilePath.c_str(), file.c_str(),
      strerror_r(error != 0 ? error : EIO, buffer, sizeof(buffer)));
}

bool Tavobase::Reopen() {
  if (access(logFilePath.c_str(), F_OK) != 0) {
    SetupOutput();
  } else if (IsFactoryWrite() && logFd < 0) {
    OpenLogFileFactory();
  }
  if (failing_) return false;
  if (IsFactoryWrite()) return logFd >= 0;
  // What the writer could not flush goes first.
  if (tavoWriter->Flush()) return true;
  lastError_ = errno;
  return false;
}

void Tavobase::RetryHeld() {
  if (!failing_ || resuming_ || NowMillis() < retryAtMillis_) return;
  resuming_ = true;
  failing_ = false;
  reopening_ = true;
  bool open = Reopen();
  reopening_ = false;
  if (!open) BeginFault(lastError_);
  while (!failing_ && !held_.Empty()) {
    const char* text;
    size_t length;
    bool endsRecord;
    held_.Front(&text, &length, &endsRecord);
    if (!WriteNow(text, length, endsRecord)) {
      BeginFault(lastError_);
      break;
    }
    held_.PopFront();
  }
  resuming_ = false;
  if (failing_) return;
  Say("group %s: writing again to %s, %zu lines lost\n", outputFilePath.c_str(),
      logFilePath.c_str(), held_.Lost());
  held_.Release();
}

int Tavobase::WriteFormatted(const char* text, size_t width, bool endsRecord) {
  // Wider than the buffer can never fit.
  if (width >= kLineBuffer) return 1;
  char line[kLineBuffer];
  int length = snprintf_s(line, sizeof(line), sizeof(line) - 1, "%-*s", static_cast<int>(width),
                          text);
  if (length < 0) return 1;
  return LogcatWrite(line, static_cast<size_t>(length), endsRecord);
}

int Tavobase::LogcatWriteFixLenBuffer(const char* text, size_t width, bool endsRecord) {
  if (text == nullptr) return 1;
  if (width == 0) width = strnlen(text, kLineBuffer);
  return WriteFormatted(text, width, endsRecord);
}

int Tavobase::LogcatWriteStr(const char* text, size_t width, bool endsRecord) {
  if (text == nullptr || width == 0) return 1;
  return WriteFormatted(text, width, endsRecord);
}

int Tavobase::LogcatWriteWithTimestamp(const char* line) {
  if (line == nullptr) return 1;
  struct timeval now;
  gettimeofday(&now, nullptr);
  time_t seconds = now.tv_sec;
  struct tm local;
  char text[kLineBuffer];
  int length;
  if (localtime_r(&seconds, &local) != nullptr) {
    char stamp[kStampBuffer];
    if (strftime(stamp, sizeof(stamp), "%m-%d %H:%M:%S", &local) == 0) stamp[0] = '\0';
    length = snprintf_s(text, sizeof(text), sizeof(text) - 1, "%s.%03ld %s\n", stamp,
                        static_cast<long>(now.tv_usec / 1000), line);
    if (length < 0) {
      fprintf(stderr, "format timestamp failed\n");
      return 1;
    }
  } else {
    length = snprintf_s(text, sizeof(text), sizeof(text) - 1, "%s\n", line);
    if (length < 0) {
      fprintf(stderr, "format timestamp without logcaltime failed\n");
      return 1;
    }
  }
  return LogcatWrite(text, static_cast<size_t>(length), true);
}
