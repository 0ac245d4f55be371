#ifndef MORVOCAT_TOOLS_VIEW_GZIP_STREAM_H_
#define MORVOCAT_TOOLS_VIEW_GZIP_STREAM_H_

// The text of a file of gzip members, one after another as the writers
// append them. A last member cut short (a writer killed in the middle of
// it) gives what it decodes and ends as truncated. A position can be saved
// and gone back to, so that the members of an archive can be read in
// another order than they are stored in.

#include <stddef.h>
#include <sys/types.h>
#include <zlib.h>

namespace view {

enum class StreamEnd { kNone, kClean, kTruncated, kCorrupt, kUnreadable };

// A saved position: the decompressor's state and where its input resumes.
class GzipMark {
 public:
  GzipMark() = default;
  ~GzipMark();
  GzipMark(const GzipMark&) = delete;
  GzipMark& operator=(const GzipMark&) = delete;

 private:
  friend class GzipStream;
  z_stream z_{};
  bool valid_ = false;
  off_t input_ = 0;
  bool inMember_ = false;
};

class GzipStream {
 public:
  GzipStream() = default;
  ~GzipStream();
  GzipStream(const GzipStream&) = delete;
  GzipStream& operator=(const GzipStream&) = delete;

  // Reads the file open as fd, which it then owns. False when no memory.
  bool Open(int fd);
  // Up to size bytes of text; 0 at the end, which end() tells.
  size_t Read(unsigned char* out, size_t size);
  StreamEnd end() const { return end_; }
  // The number of a failing read's errno, for kUnreadable.
  int error() const { return error_; }

  bool Save(GzipMark* mark) const;
  bool Restore(const GzipMark& mark);

 private:
  bool Refill();

  int fd_ = -1;
  z_stream z_{};
  bool ready_ = false;
  bool inMember_ = false;  // inside a member: its end has not been read
  bool eof_ = false;
  off_t input_ = 0;  // file offset after the bytes read into in_
  StreamEnd end_ = StreamEnd::kNone;
  int error_ = 0;
  unsigned char* in_ = nullptr;
};

}  // namespace view

#endif  // MORVOCAT_TOOLS_VIEW_GZIP_STREAM_H_
