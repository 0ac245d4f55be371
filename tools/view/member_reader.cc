#include "tools/view/member_reader.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <new>

#include "platform/log_file_names.h"
#include "tools/view/diagnostics.h"
#include "tools/view/wall_time.h"

namespace view {

namespace {

// The n of a member named B.n; -1 for other names.
long MemberNumber(const std::string& name) {
  uint64_t n = 0;
  return platform::ParseNumberedName(name, nullptr, &n) ? static_cast<long>(n) : -1;
}

bool IsGzip(int fd) {
  unsigned char magic[2];
  bool gzip = pread(fd, magic, 2, 0) == 2 && magic[0] == 0x1f && magic[1] == 0x8b;
  return gzip;
}

}  // namespace

MemberReader::~MemberReader() {
  if (fd_ >= 0) close(fd_);
}

bool MemberReader::Open(const ViewFile& file) {
  Close();
  file_ = &file;
  next_ = 0;
  readError_ = 0;
  // Not blocked by a FIFO put in a file's place since the scan.
  int fd = open(file.path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) {
    Fail(file.path, strerror(errno));
    return false;
  }
  struct stat st;
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    close(fd);
    Fail(file.path, "not a regular file");
    return false;
  }
  if (!file.archive && !IsGzip(fd)) {
    fd_ = fd;
    return true;
  }
  gzip_.reset(new (std::nothrow) GzipStream);
  if (gzip_ == nullptr || !gzip_->Open(fd)) {
    if (gzip_ == nullptr) close(fd);
    gzip_.reset();
    Fail(file.path, "out of memory");
    return false;
  }
  if (!file.archive) return true;
  tar_.reset(new (std::nothrow) TarArchive);
  if (tar_ == nullptr || !tar_->Scan(gzip_.get())) {
    Fail(file.path, tar_ == nullptr ? "out of memory" : "not a readable tar.gz archive");
    tar_.reset();
    gzip_.reset();
    return false;
  }
  if (tar_->badHeader()) Fail(file.path, "bad tar header; read the members before it");
  ReportEnd(tar_->scanEnd(), gzip_->error());
  std::vector<TarArchive::Member>& members = tar_->members();
  for (size_t i = 0; i < members.size(); ++i) order_.push_back(i);
  std::stable_sort(order_.begin(), order_.end(), [&members](size_t a, size_t b) {
    return MemberNumber(members[a].header.name) > MemberNumber(members[b].header.name);
  });
  return true;
}

bool MemberReader::NextPiece(Piece* piece) {
  if (file_ == nullptr) return false;
  piece->anchorMs = file_->anchorMs;
  piece->anchorIsStart = file_->anchorIsStart;
  if (tar_ == nullptr) {
    piece->name = file_->path;
    return next_++ == 0;
  }
  while (next_ < order_.size()) {
    size_t index = order_[next_++];
    const TarHeader& header = tar_->members()[index].header;
    if (!tar_->OpenMember(index)) {
      Fail(file_->path + ":" + header.name, "cannot go back to the member");
      continue;
    }
    piece->name = file_->path + ":" + header.name;
    if (header.mtime != 0) piece->anchorMs = WallMsOfSystemTime(static_cast<time_t>(header.mtime));
    return true;
  }
  return false;
}

size_t MemberReader::Read(char* out, size_t size) {
  unsigned char* bytes = reinterpret_cast<unsigned char*>(out);
  if (tar_ != nullptr) return tar_->ReadMember(bytes, size);
  if (gzip_ != nullptr) return gzip_->Read(bytes, size);
  if (fd_ < 0) return 0;
  ssize_t n;
  do {
    n = read(fd_, out, size);
  } while (n < 0 && errno == EINTR);
  if (n < 0) {
    readError_ = errno;
    close(fd_);
    fd_ = -1;
    return 0;
  }
  return static_cast<size_t>(n);
}

void MemberReader::ReportEnd(StreamEnd end, int error) {
  if (file_ == nullptr) return;
  switch (end) {
    case StreamEnd::kTruncated:
      Warn(file_->path, "last gzip member cut short; read as far as it decodes");
      break;
    case StreamEnd::kCorrupt:
      Fail(file_->path, "corrupt gzip data; read as far as it decodes");
      break;
    case StreamEnd::kUnreadable:
      Fail(file_->path, strerror(error));
      break;
    default:
      break;
  }
}

void MemberReader::Close() {
  if (readError_ != 0) ReportEnd(StreamEnd::kUnreadable, readError_);
  if (gzip_ != nullptr && tar_ == nullptr) ReportEnd(gzip_->end(), gzip_->error());
  tar_.reset();
  gzip_.reset();
  order_.clear();
  if (fd_ >= 0) close(fd_);
  fd_ = -1;
  file_ = nullptr;
  readError_ = 0;
}

}  // namespace view
