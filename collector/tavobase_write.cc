// The group's write paths. Every write first rebuilds a current file that
// has vanished, then rotates when the previous write ended a record and this
// one would reach the size threshold.

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
  PrepareWrite(length, endsRecord);
  if (!tavoWriter->Write(text, length)) return 1;
  curFileSize += length;
  return 0;
}

int Tavobase::FactoryWrite(const char* text, size_t length, bool endsRecord) {
  if (text == nullptr) return 1;
  // Closed after a failed write (a full disk, say): open again rather than
  // take records that go nowhere.
  if (logFd < 0 && length > 0 && !logFilePath.empty() && access(logFilePath.c_str(), F_OK) == 0) {
    OpenLogFileFactory();
  }
  PrepareWrite(length, endsRecord);
  if (length == 0) return 0;
  if (logFd < 0) return 1;
  size_t done = platform::WriteFully(logFd, text, length);
  curFileSize += done;
  if (done == length) return 0;
  fprintf(stderr, "%s: write fail\n", logFilePath.c_str());
  // Take back the part that went in, so the refused record leaves no trace
  // and a repeated one is not doubled.
  struct stat st;
  if (done > 0 && fstat(logFd, &st) == 0 && static_cast<size_t>(st.st_size) >= done) {
    if (ftruncate(logFd, st.st_size - static_cast<off_t>(done)) == 0) curFileSize -= done;
  }
  FactoryClose();
  return 1;
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
