// Record parsing and the "threadtime" line over arbitrary records.
//
// Input: one byte that sizes the caller's line buffer, then the record:
// its 28-byte header and payload, in a block of exactly that size so that
// any read past the record is caught. The header's length field is set to
// the payload actually there, as the store guarantees.

#include <fcntl.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <vector>

#include "fuzz/fuzz_support.h"
#include "platform/log_format.h"
#include "platform/logger.h"

using morvofuzz::Check;

namespace {

int gNullFd = -1;
QdLogFormat* gFormat = nullptr;

void CheckLine(const char* line, size_t length, const QdLogEntry& entry) {
  Check(length > 0 && line[length - 1] == '\n' && line[length] == '\0', "line not ended");
  Check(memchr(line, '\0', length) == nullptr, "NUL inside a line");
  size_t lines = 0;
  for (size_t i = 0; i < length; ++i) lines += line[i] == '\n' ? 1 : 0;
  // A trailing line end opens no line; line ends in the tag repeat with
  // the prefix.
  size_t messageLines = 1;
  for (size_t i = 0; i + 1 < entry.messageLen; ++i) messageLines += entry.message[i] == '\n';
  size_t prefixLines = 1;
  for (size_t i = 0; i < entry.tagLen; ++i) prefixLines += entry.tag[i] == '\n';
  Check(lines == messageLines * prefixLines, "one line per line of the message");
}

void FormatEntry(const QdLogEntry& entry, size_t bufferSize) {
  std::vector<char> buffer(bufferSize);
  size_t length = 0;
  char* line = qdlogging_log_formatLogLine(gFormat, bufferSize != 0 ? buffer.data() : nullptr,
                                           bufferSize, &entry, &length);
  if (line == nullptr) return;
  CheckLine(line, length, entry);
  if (line != buffer.data()) free(line);
  int written = qdlogging_log_printLogLine(gFormat, gNullFd, &entry);
  Check(written >= 0 && static_cast<size_t>(written) == length, "printed length differs");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  setenv("TZ", "UTC", 1);
  gNullFd = open("/dev/null", O_WRONLY | O_CLOEXEC);
  gFormat = qdlogging_log_format_new();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1 + sizeof(qd_logger_entry) || size > 1 + QD_LOGGER_ENTRY_MAX_LEN) return 0;
  size_t bufferSize = static_cast<size_t>(data[0]) * 8;
  size_t recordSize = size - 1;
  auto* record = static_cast<qd_logger_entry*>(malloc(recordSize));
  if (record == nullptr) return 0;
  memcpy(record, data + 1, recordSize);
  record->len = static_cast<uint16_t>(recordSize - sizeof(qd_logger_entry));
  QdLogEntry entry;
  if (qdlogging_log_processLogBuffer(record, &entry) == 0) {
    Check(entry.tag + entry.tagLen < reinterpret_cast<const char*>(record) + recordSize,
          "tag runs past the record");
    Check(entry.message + entry.messageLen <= reinterpret_cast<const char*>(record) + recordSize,
          "message runs past the record");
    FormatEntry(entry, bufferSize);
  }
  free(record);
  return 0;
}
