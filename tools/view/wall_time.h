#ifndef MORVOCAT_TOOLS_VIEW_WALL_TIME_H_
#define MORVOCAT_TOOLS_VIEW_WALL_TIME_H_

// Local wall-clock times as milliseconds counted as if the wall clock were
// UTC: the logs carry local times without a zone, and only their order and
// their printed form matter, so no zone rule is ever applied.

#include <stddef.h>
#include <stdint.h>
#include <time.h>

namespace view {

struct CivilTime {
  int year = 1970;
  int month = 1;  // 1 to 12
  int day = 1;
  int hour = 0;
  int minute = 0;
  int second = 0;
  int millis = 0;
};

int64_t ToWallMs(const CivilTime& t);
CivilTime FromWallMs(int64_t ms);

// The local time of a system time (a file's modification time).
int64_t WallMsOfSystemTime(time_t t);

// "YYYYMMDD-HHMMSS" (a set file's stamp) or "YYYY-MM-DD HH:MM:SS"; false
// when text is neither.
bool ParseCompactStamp(const char* text, size_t length, int64_t* ms);
bool ParseIsoStamp(const char* text, size_t length, int64_t* ms);

// "MM-DD HH:MM:SS.mmm" (18 bytes plus the NUL), and the same with the
// year in front, "YYYY-MM-DD HH:MM:SS.mmm" (24 bytes with the NUL); with
// isoT a "T" between date and time.
void FormatShort(int64_t ms, char out[19]);
void FormatLong(int64_t ms, char out[24], bool isoT);

}  // namespace view

#endif  // MORVOCAT_TOOLS_VIEW_WALL_TIME_H_
