#include "platform/log_format.h"

#include <errno.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <new>

#include "platform/log_filter.h"
#include "platform/log_line.h"
#include "platform/write_fully.h"

// "threadtime" is the only print format, so there is no format code to keep.
struct QdLogFormat {
  platform::LogFilter filter;
  platform::ThreadTimeLine threadTime;
};

namespace {

constexpr long kNanosPerSecond = 1000000000L;
// Most lines fit; longer ones go to the heap.
constexpr size_t kPrintBufferSize = 1024;

// Writes all of text; the length or a negated errno.
int WriteAll(int fd, const char* text, size_t length) {
  return static_cast<int>(platform::WriteFully(fd, text, length));
}

}  // namespace

extern "C" {

QdLogFormat* qdlogging_log_format_new(void) { return new (std::nothrow) QdLogFormat; }

void qdlogging_log_format_free(QdLogFormat* format) { delete format; }

QdLogPrintFormat qdlogging_log_formatFromString(const char* text) {
  if (text != nullptr && strcmp(text, "threadtime") == 0) return FORMAT_THREADTIME;
  return FORMAT_OFF;
}

int qdlogging_log_setPrintFormat(QdLogFormat* format, QdLogPrintFormat code) {
  return format != nullptr && code == FORMAT_THREADTIME ? 0 : -1;
}

int qdlogging_log_addFilterRule(QdLogFormat* format, const char* rule) {
  if (format == nullptr) return -1;
  return format->filter.Add(rule, true);
}

int qdlogging_log_addFilterString(QdLogFormat* format, const char* text) {
  if (format == nullptr) return -1;
  return format->filter.Add(text, false);
}

int qdlogging_log_shouldPrintLine(QdLogFormat* format, const char* tag, qd_LogPriority priority) {
  if (format == nullptr || tag == nullptr) return 0;
  return priority >= format->filter.LevelFor(tag);
}

int qdlogging_log_processLogBuffer(struct qd_logger_entry* record, QdLogEntry* entry) {
  if (record == nullptr || entry == nullptr) return -1;
  size_t len = record->len;
  // At least the priority byte and the tag's NUL.
  if (record->hdr_size != sizeof(struct qd_logger_entry) || len < 2 ||
      len > QD_LOGGER_ENTRY_MAX_PAYLOAD || record->nsec >= kNanosPerSecond) {
    return -1;
  }
  const char* payload = reinterpret_cast<const char*>(record) + record->hdr_size;
  const char* end = payload + len;
  const char* tag = payload + 1;
  const char* tagEnd = static_cast<const char*>(memchr(tag, '\0', end - tag));
  if (tagEnd == nullptr) return -1;
  const char* message = tagEnd + 1;
  entry->tv_sec = static_cast<time_t>(record->sec);
  entry->tv_nsec = static_cast<long>(record->nsec);
  // Bytes beyond the known priorities are not values of the enumeration.
  unsigned char priority = static_cast<unsigned char>(payload[0]);
  entry->priority =
      priority <= QD_LOG_SILENT ? static_cast<qd_LogPriority>(priority) : QD_LOG_UNKNOWN;
  entry->uid = static_cast<int32_t>(record->uid);
  entry->pid = record->pid;
  entry->tid = static_cast<int32_t>(record->tid);
  entry->tag = tag;
  entry->tagLen = static_cast<size_t>(tagEnd - tag);
  entry->message = message;
  // A message cut without its NUL runs to the end of the payload.
  entry->messageLen = strnlen(message, static_cast<size_t>(end - message));
  return 0;
}

char* qdlogging_log_formatLogLine(QdLogFormat* format, char* defaultBuffer,
                                  size_t defaultBufferSize, const QdLogEntry* entry,
                                  size_t* outLength) {
  if (format == nullptr || entry == nullptr || outLength == nullptr) return nullptr;
  return format->threadTime.Format(*entry, defaultBuffer, defaultBufferSize, outLength);
}

int qdlogging_log_printLogLine(QdLogFormat* format, int fd, const QdLogEntry* entry) {
  char buffer[kPrintBufferSize];
  size_t length = 0;
  char* line = qdlogging_log_formatLogLine(format, buffer, sizeof(buffer), entry, &length);
  if (line == nullptr) return -1;
  int result = length <= INT_MAX ? WriteAll(fd, line, length) : -EOVERFLOW;
  if (line != buffer) free(line);
  return result;
}

}  // extern "C"
