#ifndef MORVOCAT_READER_LINE_BATCH_H_
#define MORVOCAT_READER_LINE_BATCH_H_

// Lines gathered for one write. A write costs about as much as formatting
// twenty lines, so a run that reads what is there and stops (-d, -t) writes
// its lines in blocks; a run that waits for records writes each line at
// once, since it cannot know whether the next read will wait.

#include <stddef.h>

#include "platform/log_format.h"

namespace qdlogging {

class LineBatch {
 public:
  explicit LineBatch(int fd) : fd_(fd) {}

  // Formats entry into the batch; returns its length, 0 when it could not
  // be formatted, -1 when writing out the batch failed.
  long Add(QdLogFormat* format, const QdLogEntry& entry);
  // Writes out what is gathered; false when the write failed (the gathered
  // lines are dropped, as a failed single-line write drops its line).
  bool Flush();

 private:
  bool Append(const char* text, size_t length);

  static constexpr size_t kSize = 64 * 1024;
  static constexpr size_t kLineRoom = 512;
  int fd_;
  size_t used_ = 0;
  char buffer_[kSize];
};

}  // namespace qdlogging

#endif  // MORVOCAT_READER_LINE_BATCH_H_
