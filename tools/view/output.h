#ifndef MORVOCAT_TOOLS_VIEW_OUTPUT_H_
#define MORVOCAT_TOOLS_VIEW_OUTPUT_H_

// Prints records, in large writes:
//   threadtime  threadtime and stream lines as they are; other lines after
//               their time, "MM-DD HH:MM:SS.mmm text";
//   json        one object a line: time (ISO 8601 with the year and
//               milliseconds), set, file, pid, tid, priority, tag, message;
//               pid to tag are null on lines that have none.

#include <stddef.h>
#include <string.h>

#include <string>

#include "tools/view/merger.h"
#include "tools/view/record_filter.h"

namespace view {

enum class OutputFormat { kThreadTime, kJson };

class Output : public RecordSink {
 public:
  Output(int fd, OutputFormat format, RecordFilter* filter);
  ~Output() override;
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;

  bool Put(const Record& record) override;
  // Writes what is held; false when the output is gone.
  bool Flush();

 private:
  bool Room(size_t bytes);
  void Append(const char* data, size_t length) {
    memcpy(buffer_ + used_, data, length);
    used_ += length;
  }
  void AppendJsonString(const char* text, size_t length);
  bool PutJson(const Record& record);

  int fd_;
  OutputFormat format_;
  RecordFilter* filter_;
  char* buffer_ = nullptr;
  size_t capacity_ = 0;
  size_t used_ = 0;
  bool broken_ = false;
};

}  // namespace view

#endif  // MORVOCAT_TOOLS_VIEW_OUTPUT_H_
