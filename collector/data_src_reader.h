#ifndef MORVOCAT_COLLECTOR_DATA_SRC_READER_H_
#define MORVOCAT_COLLECTOR_DATA_SRC_READER_H_

// The sources a group copies into its sink: nodes read whole once per poll,
// a stream read line by line for ever, and the output of "dumpsys". A silent
// or failing source is retried until failureCount reaches failureRetry.
// Every fixed path is taken under the root prefix.
//
// The sources sit on the sink's public writes (LogcatWrite and its
// formatted and stamped forms, RetryHeld) and call nothing under them: a
// rotation or a new file is the sink's business. REQUIRES: the group's
// thread, as every write does.

#include <stddef.h>

#include "collector/tavobase.h"
#include "config/tavo_common.h"
#include "platform/root_path.h"

class DataSrcReader : public Tavobase {
 public:
  static constexpr size_t kReadBufSize = 8192;
  // The longest piece of a stream line one time-stamped write can hold: the
  // stamp "MM-DD hh:mm:ss.mmm " and the line end take 20 of its 8191
  // characters. Longer lines are written as several stamped lines.
  static constexpr size_t kLinePiece = kReadBufSize - 1 - 20;

  using Tavobase::Tavobase;
  ~DataSrcReader() override;

  // The node's text as one column of width (0: as wide as the text). An
  // unreadable node writes "Read Fail" padded to width. 0 or 1. A node that
  // never has data (a FIFO without a writer, say) does not block.
  int NodeCatOnce(const char* path, size_t width, bool endsRecord);
  // The same for the first path of the list that opens; read once.
  int NodeCatAlterOnce(const TavoCommon::TavocatStrListT* list, size_t width, bool endsRecord);
  // Opens the stream at path; sets *cshell for the modem's log device.
  int OpenDataSrc(const char* path, int* fd, bool* cshell);
  // Writes each complete line of the text at start with a time stamp and
  // moves a partial last line to buf, its length into *carry. 1 when a line
  // could not be written; the lines after it are written all the same.
  int ParseEachLine(char* start, char* buf, int* carry);
  // Copies the stream's lines for ever. A stream that cannot be opened or
  // read, or that is replaced, is opened again every second; 1 only for a
  // null path.
  int NodeCatStream(const char* path);
  // Writes the stream's partial last line, completed first by what of it
  // can be read without waiting, and closes the stream; for a stream that
  // will not be read again.
  void FlushStreamCarry();
  // A header line, then the output of "dumpsys command" unchanged. dumpsys
  // is taken from CommandChild::kSearchDirs and run without a shell, the
  // command's blank-separated words as its arguments.
  int SystemCmdCat(const char* command);

 private:
  // Strips one trailing line end, pads to width and writes. 0 or 1.
  int WriteNodeText(char* data, size_t width, bool endsRecord);
  // Counts an empty read; true when the limit is reached (counter reset).
  bool FailureLimitReached();
  // ParseEachLine over length bytes, NUL bytes included.
  int ParseLines(char* text, size_t length, char* buf, size_t* carry);
  // Opens the stream, retrying every second until it opens.
  int OpenStreamWaiting(const char* path, bool* cshell);
  // Whether path names another file than the open stream (or none) now.
  bool StreamReplaced(const platform::DevicePath& path) const;
  void CloseStream();
  // Reads the rest of the carried line, byte by byte, as far as it is there.
  void CompleteCarriedLine();
  // After a failed read: false when the stream must be opened again.
  bool RetryRead(bool cshell, size_t room);
  // Runs dumpsys with the words of cmdLine and copies its output.
  int CopyCommandOutput(char* cmdLine);

  // The stream and its partial last line, kept here so the teardown can
  // write that line.
  int streamFd = -1;
  char streamBuf[kReadBufSize];
  size_t streamCarry = 0;
  bool openFailReported = false;
};

#endif  // MORVOCAT_COLLECTOR_DATA_SRC_READER_H_
