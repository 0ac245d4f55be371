#include "reader/line_batch.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

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
  if (length > kSize) {
    for (size_t done = 0; done < length;) {
      ssize_t n = write(fd_, text + done, length - done);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return false;
      done += static_cast<size_t>(n);
    }
    return true;
  }
  memcpy(buffer_ + used_, text, length);
  used_ += length;
  return true;
}

bool LineBatch::Flush() {
  size_t done = 0;
  while (done < used_) {
    ssize_t n = write(fd_, buffer_ + done, used_ - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    done += static_cast<size_t>(n);
  }
  bool ok = done == used_;
  used_ = 0;
  return ok;
}

}  // namespace qdlogging
