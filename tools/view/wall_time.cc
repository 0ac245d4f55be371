#include "tools/view/wall_time.h"

#include <string.h>

#include "platform/log_file_names.h"

namespace view {

namespace {

constexpr int64_t kMsPerDay = 86400000;

// Days since 1970-01-01 of a proleptic Gregorian date, and back.
int64_t DaysFromCivil(int64_t y, unsigned m, unsigned d) {
  y -= m <= 2;
  const int64_t era = (y >= 0 ? y : y - 399) / 400;
  const unsigned yoe = static_cast<unsigned>(y - era * 400);
  const unsigned doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + static_cast<int64_t>(doe) - 719468;
}

void CivilFromDays(int64_t z, CivilTime* t) {
  z += 719468;
  const int64_t era = (z >= 0 ? z : z - 146096) / 146097;
  const unsigned doe = static_cast<unsigned>(z - era * 146097);
  const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const unsigned mp = (5 * doy + 2) / 153;
  t->day = static_cast<int>(doy - (153 * mp + 2) / 5 + 1);
  t->month = static_cast<int>(mp < 10 ? mp + 3 : mp - 9);
  t->year = static_cast<int>(static_cast<int64_t>(yoe) + era * 400 + (t->month <= 2));
}

bool Digits(const char* text, size_t count, int* value) {
  int v = 0;
  for (size_t i = 0; i < count; ++i) {
    if (text[i] < '0' || text[i] > '9') return false;
    v = v * 10 + (text[i] - '0');
  }
  *value = v;
  return true;
}

bool Plausible(const CivilTime& t) {
  return t.month >= 1 && t.month <= 12 && t.day >= 1 && t.day <= 31 && t.hour < 24 &&
         t.minute < 60 && t.second <= 60;
}

void Put2(char* out, int v) {
  out[0] = static_cast<char>('0' + v / 10 % 10);
  out[1] = static_cast<char>('0' + v % 10);
}

}  // namespace

int64_t ToWallMs(const CivilTime& t) {
  int64_t days =
      DaysFromCivil(t.year, static_cast<unsigned>(t.month), static_cast<unsigned>(t.day));
  return days * kMsPerDay + ((t.hour * 60 + t.minute) * 60 + t.second) * 1000LL + t.millis;
}

CivilTime FromWallMs(int64_t ms) {
  int64_t days = ms >= 0 ? ms / kMsPerDay : -((-ms + kMsPerDay - 1) / kMsPerDay);
  int64_t rest = ms - days * kMsPerDay;
  CivilTime t;
  CivilFromDays(days, &t);
  t.millis = static_cast<int>(rest % 1000);
  rest /= 1000;
  t.second = static_cast<int>(rest % 60);
  t.minute = static_cast<int>(rest / 60 % 60);
  t.hour = static_cast<int>(rest / 3600);
  return t;
}

int64_t WallMsOfSystemTime(time_t when) {
  struct tm local;
  if (localtime_r(&when, &local) == nullptr) return 0;
  CivilTime t;
  t.year = local.tm_year + 1900;
  t.month = local.tm_mon + 1;
  t.day = local.tm_mday;
  t.hour = local.tm_hour;
  t.minute = local.tm_min;
  t.second = local.tm_sec;
  return ToWallMs(t);
}

bool ParseCompactStamp(const char* s, size_t length, int64_t* ms) {
  platform::StampFields f;
  if (!platform::ParseStamp(s, length, &f)) return false;
  CivilTime t;
  t.year = f.year;
  t.month = f.month;
  t.day = f.day;
  t.hour = f.hour;
  t.minute = f.minute;
  t.second = f.second;
  *ms = ToWallMs(t);
  return true;
}

bool ParseIsoStamp(const char* s, size_t length, int64_t* ms) {
  CivilTime t;
  if (length != 19 || s[4] != '-' || s[7] != '-' || (s[10] != ' ' && s[10] != 'T') ||
      s[13] != ':' || s[16] != ':' || !Digits(s, 4, &t.year) || !Digits(s + 5, 2, &t.month) ||
      !Digits(s + 8, 2, &t.day) || !Digits(s + 11, 2, &t.hour) || !Digits(s + 14, 2, &t.minute) ||
      !Digits(s + 17, 2, &t.second) || !Plausible(t)) {
    return false;
  }
  *ms = ToWallMs(t);
  return true;
}

void FormatShort(int64_t ms, char out[19]) {
  CivilTime t = FromWallMs(ms);
  memcpy(out, "00-00 00:00:00.000", 19);
  Put2(out, t.month);
  Put2(out + 3, t.day);
  Put2(out + 6, t.hour);
  Put2(out + 9, t.minute);
  Put2(out + 12, t.second);
  out[15] = static_cast<char>('0' + t.millis / 100);
  Put2(out + 16, t.millis % 100);
}

void FormatLong(int64_t ms, char out[24], bool isoT) {
  CivilTime t = FromWallMs(ms);
  int year = t.year < 0 ? 0 : t.year % 10000;
  Put2(out, year / 100);
  Put2(out + 2, year % 100);
  out[4] = '-';
  FormatShort(ms, out + 5);
  if (isoT) out[10] = 'T';
}

}  // namespace view
