#ifndef MORVOCAT_TOOLS_VIEW_TAR_READER_H_
#define MORVOCAT_TOOLS_VIEW_TAR_READER_H_

// The members of a tar.gz archive as the rotations pack them: old (v7) or
// ustar headers, regular files, ended by a zero block (or by the end of the
// data). The archive is scanned once for its members; each is then read
// from a saved position, in any order.

#include <stdint.h>

#include <memory>
#include <string>
#include <vector>

#include "tools/view/gzip_stream.h"

namespace view {

struct TarHeader {
  std::string name;
  uint64_t size = 0;
  int64_t mtime = 0;
  bool regular = false;
};

// False when block is no header (a bad checksum); *end when it is the
// zero block that ends the archive.
bool ParseTarHeader(const unsigned char block[512], TarHeader* header, bool* end);

class TarArchive {
 public:
  struct Member {
    TarHeader header;
    std::unique_ptr<GzipMark> start;
  };

  // Takes the open stream of the archive and scans it. False when it holds
  // no readable header at all, or memory runs out.
  bool Scan(GzipStream* stream);
  // The stream's end after the scan: an archive cut short, or corrupt.
  StreamEnd scanEnd() const { return scanEnd_; }
  bool badHeader() const { return badHeader_; }

  // Regular members, in the order stored.
  std::vector<Member>& members() { return members_; }

  bool OpenMember(size_t index);
  size_t ReadMember(unsigned char* out, size_t size);

 private:
  bool Skip(uint64_t bytes);

  GzipStream* stream_ = nullptr;
  std::vector<Member> members_;
  uint64_t left_ = 0;
  StreamEnd scanEnd_ = StreamEnd::kNone;
  bool badHeader_ = false;
};

}  // namespace view

#endif  // MORVOCAT_TOOLS_VIEW_TAR_READER_H_
