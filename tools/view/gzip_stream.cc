#include "tools/view/gzip_stream.h"

#include <errno.h>
#include <unistd.h>

#include <new>

namespace view {

namespace {

constexpr size_t kInputSize = 128 * 1024;
constexpr int kGzipOnly = 16 + MAX_WBITS;

}  // namespace

GzipMark::~GzipMark() {
  if (valid_) inflateEnd(&z_);
}

GzipStream::~GzipStream() {
  if (ready_) inflateEnd(&z_);
  if (fd_ >= 0) close(fd_);
  delete[] in_;
}

bool GzipStream::Open(int fd) {
  fd_ = fd;
  in_ = new (std::nothrow) unsigned char[kInputSize];
  if (in_ == nullptr || inflateInit2(&z_, kGzipOnly) != Z_OK) return false;
  ready_ = true;
  z_.next_in = in_;
  z_.avail_in = 0;
  return true;
}

bool GzipStream::Refill() {
  ssize_t n;
  do {
    n = read(fd_, in_, kInputSize);
  } while (n < 0 && errno == EINTR);
  if (n < 0) {
    error_ = errno;
    end_ = StreamEnd::kUnreadable;
    return false;
  }
  if (n == 0) {
    eof_ = true;
    end_ = inMember_ ? StreamEnd::kTruncated : StreamEnd::kClean;
    return false;
  }
  input_ += n;
  z_.next_in = in_;
  z_.avail_in = static_cast<uInt>(n);
  return true;
}

size_t GzipStream::Read(unsigned char* out, size_t size) {
  if (!ready_ || end_ != StreamEnd::kNone) return 0;
  z_.next_out = out;
  z_.avail_out = static_cast<uInt>(size);
  while (z_.avail_out > 0) {
    if (z_.avail_in == 0 && !Refill()) break;
    inMember_ = true;
    int rc = inflate(&z_, Z_NO_FLUSH);
    if (rc == Z_STREAM_END) {
      // The next member, if any, starts right after this one.
      inflateReset(&z_);
      inMember_ = false;
    } else if (rc != Z_OK && rc != Z_BUF_ERROR) {
      end_ = StreamEnd::kCorrupt;
      break;
    }
  }
  return size - z_.avail_out;
}

bool GzipStream::Save(GzipMark* mark) const {
  if (!ready_ || end_ != StreamEnd::kNone || mark->valid_) return false;
  if (inflateCopy(&mark->z_, const_cast<z_stream*>(&z_)) != Z_OK) return false;
  mark->valid_ = true;
  mark->input_ = input_ - static_cast<off_t>(z_.avail_in);
  mark->inMember_ = inMember_;
  return true;
}

bool GzipStream::Restore(const GzipMark& mark) {
  if (!mark.valid_ || !ready_ || lseek(fd_, mark.input_, SEEK_SET) != mark.input_) return false;
  inflateEnd(&z_);
  ready_ = inflateCopy(&z_, const_cast<z_stream*>(&mark.z_)) == Z_OK;
  if (!ready_) return false;
  z_.next_in = in_;
  z_.avail_in = 0;
  input_ = mark.input_;
  inMember_ = mark.inMember_;
  eof_ = false;
  end_ = StreamEnd::kNone;
  return true;
}

}  // namespace view
