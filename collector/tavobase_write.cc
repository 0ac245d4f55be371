// The group's write paths, the top of the sink: they call the file layer
// (group_rotation.cc) and the core (tavobase.cc), which never call back.
// Every write first rebuilds a current file that has vanished (looked for
// now and then, and before every rotation), then rotates when the previous
// write ended a record and this one would reach the size threshold. While
// the output fails, writes are held and the output is retried now and then.

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
// ".mmm " after the stamp, "\n" after the line.
constexpr size_t kMillisLength = 5;

char* Put(char* at, const char* text, size_t length) {
  memcpy(at, text, length);
  return at + length;
}

// ".mmm " with the milliseconds of a second, 0 to 999.
char* PutMillis(char* at, long millis) {
  *at++ = '.';
  *at++ = static_cast<char>('0' + millis / 100);
  *at++ = static_cast<char>('0' + millis / 10 % 10);
  *at++ = static_cast<char>('0' + millis % 10);
  *at++ = ' ';
  return at;
}

}  // namespace

// The opening steps as the group sees them: the step opens, and once it has
// returned the group is told, so that its title rows go through the write
// path like any record and the file layer never writes.
int Tavobase::SetupOutput() {
  int result = SetupFiles();
  TellFileOpened();
  return result;
}

void Tavobase::OpenLogFile() {
  OpenNextFile();
  TellFileOpened();
}

void Tavobase::RotateLog(uint64_t length) {
  RotateFiles(length);
  TellFileOpened();
}

void Tavobase::RotateLogsFactory() {
  ShiftFactoryFiles();
  TellFileOpened();
}

void Tavobase::OpenLogFileFactory() {
  OpenFactoryFile();
  TellFileOpened();
}

void Tavobase::TellFileOpened() {
  if (!fileOpened_) return;
  // Cleared first: a title write may itself open the next file.
  fileOpened_ = false;
  openLogFilePost();
}

int Tavobase::LogcatWrite(const char* text, size_t length, bool endsRecord) {
  return IsFactoryWrite() ? FactoryWrite(text, length, endsRecord)
                          : MmapWrite(text, length, endsRecord);
}

void Tavobase::PrepareWrite(size_t length, bool endsRecord) {
  if (CurrentFileGone(recordEnded && RotationDue(length))) SetupOutput();
  if (recordEnded) RotateLog(length);
  recordEnded = endsRecord;
}

bool Tavobase::CurrentFileGone(bool rotating) {
  if (outputFilePath.empty()) return logFd < 0;
  if (IsFactoryWrite() && logFd >= 0) {
    // The descriptor about to take the text: a line written after an
    // unlink would be lost with the file.
    struct stat st;
    if (fstat(logFd, &st) == 0 && st.st_nlink == 0) return true;
  }
  int64_t now = MonotonicMillis();
  if (!rotating && now < fileCheckAtMillis_) return false;
  fileCheckAtMillis_ = now + kFileCheckMillis;
  return !IsOwnFileThere(logFilePath);
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
    // A full cache had nowhere to go: the file vanished since it was last
    // looked for.
    if (IsOwnFileThere(logFilePath)) return false;
    SetupOutput();
    if (failing_) return false;
    if (!tavoWriter->Write(text, length)) {
      lastError_ = errno;
      return false;
    }
  }
  curFileSize += length;
  return true;
}

bool Tavobase::WriteFactoryNow(const char* text, size_t length) {
  if (length == 0) return true;
  if (logFd < 0) return false;
  size_t done = 0;
  ssize_t rc = platform::WriteFully(logFd, text, length, &done);
  curFileSize += done;
  if (rc >= 0) return true;
  lastError_ = static_cast<int>(-rc);
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

bool Tavobase::Reopen() {
  if (!IsOwnFileThere(logFilePath)) {
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
  if (!failing_ || resuming_ || MonotonicMillis() < retryAtMillis_) return;
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

void Tavobase::RetryHeldNow() {
  retryAtMillis_ = 0;
  RetryHeld();
}

int Tavobase::WriteFormatted(const char* text, size_t width, bool endsRecord) {
  // Wider than the buffer can never fit.
  if (width >= kLineBuffer) return 1;
  char line[kLineBuffer];
  int length =
      snprintf_s(line, sizeof(line), sizeof(line) - 1, "%-*s", static_cast<int>(width), text);
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

const char* Tavobase::StampOf(time_t second) {
  if (stampMade_ && second == stampSecond_) return stampLocal_ ? stamp_ : nullptr;
  struct tm local;
  stampLocal_ = localtime_r(&second, &local) != nullptr;
  stampLength_ = stampLocal_ ? strftime(stamp_, sizeof(stamp_), "%m-%d %H:%M:%S", &local) : 0;
  stamp_[stampLength_] = '\0';
  stampSecond_ = second;
  stampMade_ = true;
  return stampLocal_ ? stamp_ : nullptr;
}

int Tavobase::LogcatWriteWithTimestamp(const char* line) {
  if (line == nullptr) return 1;
  return LogcatWriteStamped(line, strnlen(line, kLineBuffer));
}

// "%s.%03ld %s\n" of the stamp, the milliseconds and the text, put together
// by hand: formatting cost more than the rest of the line's way to the file.
int Tavobase::LogcatWriteStamped(const char* text, size_t length) {
  if (text == nullptr) return 1;
  struct timeval now;
  WallClock(&now);
  const char* stamp = StampOf(now.tv_sec);
  size_t prefix = stamp != nullptr ? stampLength_ + kMillisLength : 0;
  // At most 8191 characters, as every formatted write.
  if (prefix + length + 1 > kLineBuffer - 1) {
    fputs(stamp != nullptr ? "format timestamp failed\n"
                           : "format timestamp without logcaltime failed\n",
          stderr);
    return 1;
  }
  char line[kLineBuffer];
  char* end = line;
  if (stamp != nullptr) end = PutMillis(Put(end, stamp, stampLength_), now.tv_usec / 1000);
  end = Put(end, text, length);
  *end++ = '\n';
  return LogcatWrite(line, static_cast<size_t>(end - line), true);
}
