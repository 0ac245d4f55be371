#include "platform/log_line.h"

#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "platform/safe_string.h"

namespace platform {

namespace {

constexpr size_t kStampLen = 14;  // "MM-DD HH:MM:SS"
constexpr size_t kIdWidth = 5;
constexpr size_t kTagWidth = 8;
constexpr long kNanosPerSecond = 1000000000L;

// Characters of v in decimal, sign included.
size_t DecimalLen(int32_t v) {
  uint32_t u = v < 0 ? 0u - static_cast<uint32_t>(v) : static_cast<uint32_t>(v);
  size_t n = v < 0 ? 2 : 1;
  while (u >= 10) {
    u /= 10;
    ++n;
  }
  return n;
}

size_t Max(size_t a, size_t b) { return a > b ? a : b; }

// Writes v right-aligned in width characters, padded with pad (a zero pad
// is only used for non-negative values); returns the end.
char* PutDecimal(char* out, int32_t v, size_t width, char pad) {
  size_t len = DecimalLen(v);
  for (size_t i = len; i < width; ++i) *out++ = pad;
  uint32_t u = v < 0 ? 0u - static_cast<uint32_t>(v) : static_cast<uint32_t>(v);
  char* end = out + len;
  char* w = end;
  do {
    *--w = static_cast<char>('0' + u % 10);
    u /= 10;
  } while (u != 0);
  if (v < 0) *--w = '-';
  return end;
}

char PriorityLetter(qd_LogPriority priority) {
  if (priority < QD_LOG_VERBOSE || priority > QD_LOG_SILENT) return '?';
  return "VDIWEFS"[priority - QD_LOG_VERBOSE];
}

}  // namespace

bool ThreadTimeLine::StampSecond(time_t sec) {
  if (stampValid_ && sec == stampSec_) return true;
  struct tm tm;
  if (localtime_r(&sec, &tm) == nullptr) return false;
  if (snprintf_s(stamp_, sizeof(stamp_), kStampLen, "%02d-%02d %02d:%02d:%02d", tm.tm_mon + 1,
                 tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec) < 0) {
    return false;
  }
  stampSec_ = sec;
  stampValid_ = true;
  return true;
}

void ThreadTimeLine::CacheIds(const QdLogEntry& entry) {
  if (idsValid_ && entry.pid == idsPid_ && entry.tid == idsTid_) return;
  char* ids = ids_;
  *ids++ = ' ';
  ids = PutDecimal(ids, entry.pid, kIdWidth, ' ');
  *ids++ = ' ';
  ids = PutDecimal(ids, entry.tid, kIdWidth, ' ');
  idsLen_ = static_cast<size_t>(ids - ids_);
  idsPid_ = entry.pid;
  idsTid_ = entry.tid;
  idsValid_ = true;
}

// The equivalent of "%s.%03ld %5d %5d %c %-8.*s: ", written by hand: this
// runs for every line and snprintf was the larger part of its cost.
void ThreadTimeLine::WritePrefix(const QdLogEntry& entry, char* out) const {
  memcpy(out, stamp_, kStampLen);
  out += kStampLen;
  unsigned ms = static_cast<unsigned>(entry.tv_nsec / 1000000);
  out[0] = '.';
  out[1] = static_cast<char>('0' + ms / 100);
  out[2] = static_cast<char>('0' + ms / 10 % 10);
  out[3] = static_cast<char>('0' + ms % 10);
  out += 4;
  memcpy(out, ids_, idsLen_);
  out += idsLen_;
  *out++ = ' ';
  *out++ = PriorityLetter(entry.priority);
  *out++ = ' ';
  if (entry.tagLen != 0) memcpy(out, entry.tag, entry.tagLen);
  out += entry.tagLen;
  for (size_t i = entry.tagLen; i < kTagWidth; ++i) *out++ = ' ';
  *out++ = ':';
  *out++ = ' ';
}

char* ThreadTimeLine::Format(const QdLogEntry& entry, char* buffer, size_t size, size_t* length) {
  if ((entry.tag == nullptr && entry.tagLen != 0) ||
      (entry.message == nullptr && entry.messageLen != 0) || entry.tv_nsec < 0 ||
      entry.tv_nsec >= kNanosPerSecond || !StampSecond(entry.tv_sec)) {
    return nullptr;
  }
  // A line end at the very end of the message does not open another line.
  size_t textLen = entry.messageLen;
  if (textLen > 0 && entry.message[textLen - 1] == '\n') --textLen;
  const char* textEnd = entry.message + textLen;
  // Found once: most messages are one line.
  const char* firstEnd =
      textLen > 0 ? static_cast<const char*>(memchr(entry.message, '\n', textLen)) : nullptr;
  size_t lines = 1;
  for (const char* p = firstEnd; p != nullptr;) {
    ++lines;
    ++p;
    p = static_cast<const char*>(memchr(p, '\n', textEnd - p));
  }
  // Each line gets the prefix and "\n"; the message's own line ends are
  // replaced by those.
  CacheIds(entry);
  // stamp ".mmm" ids " P " tag ": "
  size_t prefixLen = kStampLen + 4 + idsLen_ + 3 + Max(kTagWidth, entry.tagLen) + 2;
  size_t total = 0;
  if (__builtin_mul_overflow(lines, prefixLen, &total) ||
      __builtin_add_overflow(total, textLen + 2, &total)) {
    return nullptr;
  }
  char* out = buffer;
  if (buffer == nullptr || total > size) {
    out = static_cast<char*>(malloc(total));
    if (out == nullptr) return nullptr;
  }
  WritePrefix(entry, out);
  char* w = out + prefixLen;
  const char* text = entry.message;
  for (const char* nl = firstEnd;;
       nl = static_cast<const char*>(memchr(text, '\n', textEnd - text))) {
    const char* lineEnd = nl != nullptr ? nl : textEnd;
    if (lineEnd != text) memcpy(w, text, lineEnd - text);
    w += lineEnd - text;
    *w++ = '\n';
    if (nl == nullptr) break;
    memcpy(w, out, prefixLen);
    w += prefixLen;
    text = nl + 1;
  }
  *w = '\0';
  *length = w - out;
  return out;
}

}  // namespace platform
