#include "tools/view/line_parser.h"

#include <string.h>

#include "tools/view/wall_time.h"

namespace view {

namespace {

constexpr size_t kShortStamp = 14;   // "MM-DD HH:MM:SS"
constexpr size_t kMillisStamp = 18;  // "MM-DD HH:MM:SS.mmm"
constexpr size_t kRowStamp = 19;     // "YYYY-MM-DD HH:MM:SS"
constexpr char kCurrentTime[] = "current time: ";
constexpr size_t kCurrentTimeLength = sizeof(kCurrentTime) - 1;

inline bool IsDigit(char c) { return c >= '0' && c <= '9'; }
inline int Two(const char* s) { return (s[0] - '0') * 10 + (s[1] - '0'); }

// "MM-DD HH:MM:SS" at s, in range.
bool ShortStamp(const char* s, ParsedLine* out) {
  if (!(IsDigit(s[0]) && IsDigit(s[1]) && s[2] == '-' && IsDigit(s[3]) && IsDigit(s[4]) &&
        s[5] == ' ' && IsDigit(s[6]) && IsDigit(s[7]) && s[8] == ':' && IsDigit(s[9]) &&
        IsDigit(s[10]) && s[11] == ':' && IsDigit(s[12]) && IsDigit(s[13]))) {
    return false;
  }
  int month = Two(s), day = Two(s + 3), hour = Two(s + 6), minute = Two(s + 9),
      second = Two(s + 12);
  if (month < 1 || month > 12 || day < 1 || day > 31 || hour > 23 || minute > 59 || second > 60) {
    return false;
  }
  out->month = month;
  out->day = day;
  out->dayMs = ((hour * 60 + minute) * 60 + second) * 1000;
  return true;
}

// A decimal number, possibly negative; advances *p.
bool Number(const char** p, const char* end, int32_t* value) {
  const char* s = *p;
  bool negative = s < end && *s == '-';
  if (negative) ++s;
  if (s == end || !IsDigit(*s)) return false;
  int64_t v = 0;
  while (s < end && IsDigit(*s)) {
    v = v * 10 + (*s++ - '0');
    if (v > 0x7fffffff + static_cast<int64_t>(negative)) return false;
  }
  *value = static_cast<int32_t>(negative ? -v : v);
  *p = s;
  return true;
}

// "  pid   tid P tag     : message" after the stamp and its blank.
bool ThreadTimeFields(const char* s, const char* end, ParsedLine* out) {
  while (s < end && *s == ' ') ++s;
  if (!Number(&s, end, &out->pid) || s == end || *s != ' ') return false;
  while (s < end && *s == ' ') ++s;
  if (!Number(&s, end, &out->tid)) return false;
  if (end - s < 4 || s[0] != ' ' || s[2] != ' ' || strchr("VDIWEFS?", s[1]) == nullptr) {
    return false;
  }
  out->priority = s[1];
  const char* tag = s + 3;
  const char* colon = tag;
  for (;;) {
    colon = static_cast<const char*>(memchr(colon, ':', end - colon));
    if (colon == nullptr) return false;
    if (colon + 1 == end || colon[1] == ' ') break;
    ++colon;
  }
  const char* tagEnd = colon;
  while (tagEnd > tag && tagEnd[-1] == ' ') --tagEnd;  // padded to 8
  out->tag = tag;
  out->tagLength = static_cast<size_t>(tagEnd - tag);
  out->message = colon + 1 < end ? colon + 2 : end;
  return true;
}

// "Y-M-D h:m:s" with numbers of any width, as the collector's headers
// print them.
bool LooseDate(const char* s, const char* end, int64_t* ms) {
  int32_t f[6];
  const char separators[] = "-- ::";
  for (int i = 0; i < 6; ++i) {
    if (!Number(&s, end, &f[i]) || f[i] < 0) return false;
    if (i < 5) {
      if (s == end || *s != separators[i]) return false;
      ++s;
    }
  }
  CivilTime t;
  t.year = f[0];
  t.month = f[1];
  t.day = f[2];
  t.hour = f[3];
  t.minute = f[4];
  t.second = f[5];
  if (t.month < 1 || t.month > 12 || t.day < 1 || t.day > 31 || t.hour > 23 || t.minute > 59 ||
      t.second > 60) {
    return false;
  }
  *ms = ToWallMs(t);
  return true;
}

bool CurrentTimeLine(const char* line, const char* end, ParsedLine* out) {
  if (static_cast<size_t>(end - line) <= kCurrentTimeLength ||
      memcmp(line, kCurrentTime, kCurrentTimeLength) != 0) {
    return false;
  }
  const char* s = line + kCurrentTimeLength;
  if (*s == '<') {
    // The command may itself hold a '>': the date follows the last one.
    const char* close = nullptr;
    for (const char* p = s; p < end; ++p) {
      if (*p == '>') close = p;
    }
    if (close == nullptr) return false;
    s = close + 1;
  }
  return LooseDate(s, end, &out->datedMs);
}

}  // namespace

void ParseLine(const char* line, size_t length, ParsedLine* out) {
  const char* end = line + length;
  out->kind = LineKind::kPlain;
  out->message = line;
  out->messageLength = length;
  out->tag = nullptr;
  out->tagLength = 0;
  if (length >= kShortStamp + 1 && ShortStamp(line, out)) {
    if (length > kMillisStamp && line[14] == '.' && IsDigit(line[15]) && IsDigit(line[16]) &&
        IsDigit(line[17]) && line[18] == ' ') {
      out->dayMs += (line[15] - '0') * 100 + Two(line + 16);
      out->kind = ThreadTimeFields(line + kMillisStamp + 1, end, out) ? LineKind::kThreadTime
                                                                      : LineKind::kStream;
      if (out->kind == LineKind::kStream) out->message = line + kMillisStamp + 1;
      out->messageLength = static_cast<size_t>(end - out->message);
      return;
    }
    if (line[14] == ' ' && length > kShortStamp + 1 && line[15] == '[') {
      out->kind = LineKind::kEvent;
      out->message = line + kShortStamp + 1;
      out->messageLength = length - kShortStamp - 1;
      return;
    }
  }
  // The input monitor starts every line after the first of a batch with
  // one blank.
  if (length > kShortStamp + 2 && line[0] == ' ' && line[15] == ' ' && line[16] == '[' &&
      ShortStamp(line + 1, out)) {
    out->kind = LineKind::kEvent;
    out->message = line + kShortStamp + 2;
    out->messageLength = length - kShortStamp - 2;
    return;
  }
  if (length >= kRowStamp && ParseIsoStamp(line, kRowStamp, &out->datedMs) && line[10] == ' ') {
    out->kind = LineKind::kDated;
    return;
  }
  if (CurrentTimeLine(line, end, out)) out->kind = LineKind::kDated;
}

}  // namespace view
