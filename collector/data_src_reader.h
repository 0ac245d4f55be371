#ifndef MORVOCAT_COLLECTOR_DATA_SRC_READER_H_
#define MORVOCAT_COLLECTOR_DATA_SRC_READER_H_

// The sources a group copies into its sink: nodes read whole once per poll,
// a stream read line by line for ever, and the output of "dumpsys". A silent
// or failing source is retried until failureCount reaches failureRetry.
// Every fixed path is taken under the root prefix.

#include <stddef.h>

#include "collector/tavobase.h"
#include "config/tavo_common.h"

class DataSrcReader : public Tavobase {
 public:
  static constexpr size_t kReadBufSize = 8192;

  using Tavobase::Tavobase;

  // The node's text as one column of width (0: as wide as the text). An
  // unreadable node writes "Read Fail" padded to width. 0 or 1.
  int NodeCatOnce(const char* path, size_t width, bool endsRecord);
  // The same for the first path of the list that opens; read once.
  int NodeCatAlterOnce(const TavoCommon::TavocatStrListT* list, size_t width, bool endsRecord);
  // Opens the stream at path; sets *cshell for the modem's log device.
  int OpenDataSrc(const char* path, int* fd, bool* cshell);
  // Writes each complete line of the text at start with a time stamp and
  // moves a partial last line to buf, its length into *carry.
  int ParseEachLine(char* start, char* buf, int* carry);
  const char* Strchrnul(const char* text, int c) const;
  void OverlappingStrcpy(char* dest, const char* src) const;
  // Copies the stream's lines for ever; returns 1 when the stream fails.
  int NodeCatStream(const char* path);
  // A header line, then the output of "dumpsys command" unchanged.
  int SystemCmdCat(const char* command);

 private:
  // Strips one trailing line end, pads to width and writes. 0 or 1.
  int WriteNodeText(char* data, size_t width, bool endsRecord);
  // Counts an empty read; true when the limit is reached (counter reset).
  bool FailureLimitReached();
};

#endif  // MORVOCAT_COLLECTOR_DATA_SRC_READER_H_
