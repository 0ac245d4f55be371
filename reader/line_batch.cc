#include "reader/line_batch.h"

#include <stdlib.h>
#include <string.h>

#include "platform/write_fully.h"

namespace qdlogging {

long LineBatch::Add(QdLogFormat* format, const QdLogEntry& entry) {
  if (kSize - used_ < kLineRoom && !Flush()) return -1;
  size_t length = 0;
  char* room = buffer_ + used_;
  char* line = qdlogging_log_formatLogLine(format, room, kSize - used_, &entry, &length);
  if (line == nullptr) return 0;
  if (line == room) {
    used_ += length;
    return static_cast<long>(length);
  }
  bool ok = Append(line, length);
  free(line);
  return ok ? static_cast<long>(length) : -1;
}

bool LineBatch::Append(const char* text, size_t length) {
  if (kSize - used_ < length && !Flush()) return false;
  if (length > kSize) return platform::WriteFully(fd_, text, length) >= 0;
  memcpy(buffer_ + used_, text, length);
  used_ += length;
  return true;
}

bool LineBatch::Flush() {
  bool ok = platform::WriteFully(fd_, buffer_, used_) >= 0;
  used_ = 0;
  return ok;
}

}  // namespace qdlogging
