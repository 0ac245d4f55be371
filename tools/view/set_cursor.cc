#include "tools/view/set_cursor.h"

#include <string.h>

#include <new>

namespace view {

namespace {

constexpr size_t kFirstCapacity = 256 * 1024;
// A longer line is cut into pieces of this size.
constexpr size_t kMaxCapacity = 4 * 1024 * 1024;
// How far a title row looks for the first time below it.
constexpr int kLookAheadLines = 256;

bool Blank(const char* line, size_t length) {
  for (size_t i = 0; i < length; ++i) {
    if (line[i] != ' ' && line[i] != '\t') return false;
  }
  return true;
}

}  // namespace

SetCursor::SetCursor(const ViewSet& set) : set_(set) { record_.set = &set_; }

SetCursor::~SetCursor() { delete[] buffer_; }

bool SetCursor::Grow() {
  if (capacity_ >= kMaxCapacity) return false;
  size_t capacity = capacity_ == 0 ? kFirstCapacity : capacity_ * 2;
  char* bigger = new (std::nothrow) char[capacity];
  if (bigger == nullptr) return false;
  if (end_ > begin_) memcpy(bigger, buffer_ + begin_, end_ - begin_);
  end_ -= begin_;
  begin_ = 0;
  delete[] buffer_;
  buffer_ = bigger;
  capacity_ = capacity;
  return true;
}

bool SetCursor::NextPiece() {
  for (;;) {
    if (fileOpen_ && reader_.NextPiece(&piece_)) {
      clock_.Anchor(piece_.anchorMs, piece_.anchorIsStart);
      record_.file = &piece_.name;
      begin_ = end_ = 0;
      pieceDone_ = false;
      return true;
    }
    if (fileOpen_) reader_.Close();
    fileOpen_ = false;
    if (nextFile_ >= set_.files.size()) return false;
    fileOpen_ = reader_.Open(set_.files[nextFile_++]);
  }
}

bool SetCursor::NextLine(const char** line, size_t* length) {
  for (;;) {
    const char* start = buffer_ + begin_;
    const char* nl =
        end_ > begin_ ? static_cast<const char*>(memchr(start, '\n', end_ - begin_)) : nullptr;
    if (nl != nullptr) {
      *line = start;
      *length = static_cast<size_t>(nl - start);
      begin_ = static_cast<size_t>(nl + 1 - buffer_);
      return true;
    }
    bool full = begin_ == 0 && end_ == capacity_;
    if (pieceDone_ || (full && !Grow())) {
      // The piece's last line without a line end, or a line too long to
      // hold: handed out as it is.
      if (end_ == begin_) return false;
      *line = start;
      *length = end_ - begin_;
      begin_ = end_;
      return true;
    }
    if (begin_ > 0) {
      memmove(buffer_, buffer_ + begin_, end_ - begin_);
      end_ -= begin_;
      begin_ = 0;
    }
    size_t n = reader_.Read(buffer_ + end_, capacity_ - end_);
    if (n == 0) pieceDone_ = true;
    end_ += n;
  }
}

int64_t SetCursor::TimeAhead(const ParsedLine& plain) const {
  const char* p = buffer_ + begin_;
  const char* end = buffer_ + end_;
  ParsedLine parsed;
  for (int i = 0; i < kLookAheadLines && p < end; ++i) {
    const char* nl = static_cast<const char*>(memchr(p, '\n', end - p));
    if (nl == nullptr) break;
    ParseLine(p, static_cast<size_t>(nl - p), &parsed);
    if (parsed.kind != LineKind::kPlain) return clock_.Peek(parsed);
    p = nl + 1;
  }
  return clock_.Peek(plain);
}

bool SetCursor::Next() {
  if (buffer_ == nullptr && !Grow()) return false;
  for (;;) {
    if (!inPiece_) {
      inPiece_ = NextPiece();
      if (!inPiece_) return false;
    }
    const char* line;
    size_t length;
    if (!NextLine(&line, &length)) {
      inPiece_ = false;
      continue;
    }
    if (length > 0 && line[length - 1] == '\r') --length;
    if (Blank(line, length)) continue;
    record_.line = line;
    record_.length = length;
    ParseLine(line, length, &record_.parsed);
    record_.ms = record_.parsed.kind == LineKind::kPlain && !clock_.HasTime()
                     ? TimeAhead(record_.parsed)
                     : clock_.Place(record_.parsed);
    return true;
  }
}

}  // namespace view
