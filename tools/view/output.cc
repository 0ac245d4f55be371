#include "tools/view/output.h"

#include <errno.h>
#include <stdio.h>
#include <unistd.h>

#include <new>

#include "platform/write_fully.h"
#include "tools/view/wall_time.h"

namespace view {

namespace {

constexpr size_t kBufferSize = 1 << 20;

// Bytes of a valid UTF-8 sequence at s (at most end), or 0.
size_t Utf8Length(const unsigned char* s, const unsigned char* end) {
  unsigned char c = s[0];
  size_t n = c >= 0xf0 && c <= 0xf4 ? 4 : c >= 0xe0 ? 3 : c >= 0xc2 && c < 0xe0 ? 2 : 0;
  if (n == 0 || static_cast<size_t>(end - s) < n) return 0;
  for (size_t i = 1; i < n; ++i) {
    if ((s[i] & 0xc0) != 0x80) return 0;
  }
  // Overlong forms, surrogates and values past U+10FFFF.
  if (n == 3 && ((c == 0xe0 && s[1] < 0xa0) || (c == 0xed && s[1] >= 0xa0))) return 0;
  if (n == 4 && ((c == 0xf0 && s[1] < 0x90) || (c == 0xf4 && s[1] >= 0x90))) return 0;
  return n;
}

}  // namespace

Output::Output(int fd, OutputFormat format, RecordFilter* filter)
    : fd_(fd), format_(format), filter_(filter) {}

Output::~Output() {
  Flush();
  delete[] buffer_;
}

bool Output::Flush() {
  if (used_ > 0 && !broken_) {
    broken_ = platform::WriteFully(fd_, buffer_, used_) < 0;
  }
  used_ = 0;
  return !broken_;
}

bool Output::Room(size_t bytes) {
  if (buffer_ == nullptr) {
    buffer_ = new (std::nothrow) char[kBufferSize];
    if (buffer_ == nullptr) {
      fprintf(stderr, "morvo-view: out of memory\n");
      broken_ = true;
      return false;
    }
    capacity_ = kBufferSize;
  }
  if (capacity_ - used_ >= bytes) return true;
  if (!Flush()) return false;
  if (bytes <= capacity_) return true;
  char* bigger = new (std::nothrow) char[bytes];
  if (bigger == nullptr) return false;
  delete[] buffer_;
  buffer_ = bigger;
  capacity_ = bytes;
  return true;
}

bool Output::Put(const Record& record) {
  if (filter_ != nullptr && !filter_->Pass(record)) return true;
  if (format_ == OutputFormat::kJson) return PutJson(record);
  const ParsedLine& p = record.parsed;
  if (p.kind == LineKind::kThreadTime || p.kind == LineKind::kStream) {
    if (!Room(record.length + 1)) return false;
    Append(record.line, record.length);
  } else {
    if (!Room(20 + p.messageLength)) return false;
    char stamp[19];
    FormatShort(record.ms, stamp);
    Append(stamp, 18);
    Append(" ", 1);
    Append(p.message, p.messageLength);
  }
  buffer_[used_++] = '\n';
  return true;
}

void Output::AppendJsonString(const char* text, size_t length) {
  static const char kHex[] = "0123456789abcdef";
  const unsigned char* s = reinterpret_cast<const unsigned char*>(text);
  const unsigned char* end = s + length;
  buffer_[used_++] = '"';
  while (s < end) {
    unsigned char c = *s;
    if (c >= 0x20 && c < 0x80 && c != '"' && c != '\\') {
      buffer_[used_++] = static_cast<char>(c);
      ++s;
    } else if (c == '"' || c == '\\') {
      buffer_[used_++] = '\\';
      buffer_[used_++] = static_cast<char>(c);
      ++s;
    } else if (c < 0x20) {
      Append("\\u00", 4);
      buffer_[used_++] = kHex[c >> 4];
      buffer_[used_++] = kHex[c & 15];
      ++s;
    } else if (size_t n = Utf8Length(s, end)) {
      Append(reinterpret_cast<const char*>(s), n);
      s += n;
    } else {
      Append("\\ufffd", 6);  // not UTF-8: the replacement character
      ++s;
    }
  }
  buffer_[used_++] = '"';
}

bool Output::PutJson(const Record& record) {
  const ParsedLine& p = record.parsed;
  const std::string& set = record.set->name;
  const std::string& file = *record.file;
  // Every byte of a string may grow to six.
  size_t worst = 256 + 6 * (set.size() + file.size() + p.tagLength + p.messageLength);
  if (!Room(worst)) return false;
  char stamp[24];
  FormatLong(record.ms, stamp, true);
  Append("{\"time\":\"", 9);
  Append(stamp, 23);
  Append("\",\"set\":", 8);
  AppendJsonString(set.data(), set.size());
  Append(",\"file\":", 8);
  AppendJsonString(file.data(), file.size());
  if (p.kind == LineKind::kThreadTime) {
    char ids[64];
    int n = snprintf(ids, sizeof(ids), ",\"pid\":%d,\"tid\":%d,\"priority\":\"%c\",\"tag\":", p.pid,
                     p.tid, p.priority);
    Append(ids, static_cast<size_t>(n));
    AppendJsonString(p.tag, p.tagLength);
  } else {
    const char kNone[] = ",\"pid\":null,\"tid\":null,\"priority\":null,\"tag\":null";
    Append(kNone, sizeof(kNone) - 1);
  }
  Append(",\"message\":", 11);
  AppendJsonString(p.message, p.messageLength);
  Append("}\n", 2);
  return true;
}

}  // namespace view
