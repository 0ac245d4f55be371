#ifndef MORVOCAT_PLATFORM_LOG_FORMAT_H_
#define MORVOCAT_PLATFORM_LOG_FORMAT_H_

// Log-format calls: buffer names, filter rules, record parsing and the
// "threadtime" line format.

#include <stddef.h>
#include <stdint.h>
#include <time.h>

#include "platform/export.h"
#include "platform/logger.h"

extern "C" {

typedef enum QdLogPrintFormat {
  FORMAT_OFF = 0,
  FORMAT_THREADTIME = 1,
} QdLogPrintFormat;

// A parsed record; tag and message point into the record buffer.
typedef struct QdLogEntry {
  time_t tv_sec;
  long tv_nsec;
  qd_LogPriority priority;
  int32_t uid;
  int32_t pid;
  int32_t tid;
  const char* tag;
  size_t tagLen;  // the tag is not NUL-terminated
  const char* message;
  size_t messageLen;
} QdLogEntry;

typedef struct QdLogFormat QdLogFormat;

log_id_t qdlogging_name_to_log_id(const char* name);  // LOG_ID_MAX if unknown
const char* qdlogging_log_id_to_name(log_id_t id);    // "" if out of range

QdLogFormat* qdlogging_log_format_new(void);
void qdlogging_log_format_free(QdLogFormat* format);
QdLogPrintFormat qdlogging_log_formatFromString(const char* text);
int qdlogging_log_setPrintFormat(QdLogFormat* format, QdLogPrintFormat code);

// One rule "tag:P" ("*" for every tag; P one of V D I W E F S; a bare tag
// means V). 0 or negative on a malformed rule.
int qdlogging_log_addFilterRule(QdLogFormat* format, const char* rule);
// Rules separated by white space; negative when any is malformed.
int qdlogging_log_addFilterString(QdLogFormat* format, const char* text);
// Non-zero when a line of tag and priority passes the rules.
int qdlogging_log_shouldPrintLine(QdLogFormat* format, const char* tag, qd_LogPriority priority);

// Parses a record read by qd_logger_list_read; negative when malformed.
int qdlogging_log_processLogBuffer(struct qd_logger_entry* record, QdLogEntry* entry);
// Formats entry; returns defaultBuffer when the text fits in it, else a
// block the caller frees with free(); null on failure. The length goes to
// outLength.
char* qdlogging_log_formatLogLine(QdLogFormat* format, char* defaultBuffer,
                                  size_t defaultBufferSize, const QdLogEntry* entry,
                                  size_t* outLength);
// Formats entry and writes it to fd; bytes written or negative.
int qdlogging_log_printLogLine(QdLogFormat* format, int fd, const QdLogEntry* entry);

}  // extern "C"

#endif  // MORVOCAT_PLATFORM_LOG_FORMAT_H_
