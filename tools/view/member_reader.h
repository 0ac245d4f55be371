#ifndef MORVOCAT_TOOLS_VIEW_MEMBER_READER_H_
#define MORVOCAT_TOOLS_VIEW_MEMBER_READER_H_

// The text of one file of a set, in writing order: a plain file or a file
// of gzip members is one piece; a tar.gz archive gives one piece per
// member, oldest first (the rotations pack B.1, the newest, first).

#include <stddef.h>
#include <stdint.h>

#include <memory>
#include <string>
#include <vector>

#include "tools/view/gzip_stream.h"
#include "tools/view/set_finder.h"
#include "tools/view/tar_reader.h"

namespace view {

struct Piece {
  std::string name;  // the file, or "archive:member"
  int64_t anchorMs = 0;
  bool anchorIsStart = false;
};

class MemberReader {
 public:
  MemberReader() = default;
  ~MemberReader();
  MemberReader(const MemberReader&) = delete;
  MemberReader& operator=(const MemberReader&) = delete;

  // Opens file; false (reported) when it cannot be read.
  bool Open(const ViewFile& file);
  // Moves to the next piece; false when there is none left.
  bool NextPiece(Piece* piece);
  // Up to size bytes of the piece; 0 at its end.
  size_t Read(char* out, size_t size);
  // Ends the file, reporting how its data ended when that was not clean.
  void Close();

 private:
  void ReportEnd(StreamEnd end, int error);

  const ViewFile* file_ = nullptr;
  int fd_ = -1;  // a plain file
  std::unique_ptr<GzipStream> gzip_;
  std::unique_ptr<TarArchive> tar_;
  std::vector<size_t> order_;  // archive members in writing order
  size_t next_ = 0;            // pieces handed out
  int readError_ = 0;
};

}  // namespace view

#endif  // MORVOCAT_TOOLS_VIEW_MEMBER_READER_H_
