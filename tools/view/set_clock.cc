#include "tools/view/set_clock.h"

#include <initializer_list>

#include "tools/view/wall_time.h"

namespace view {

namespace {

constexpr int64_t kDayMs = 86400000;

int64_t DayStart(int year, const ParsedLine& line) {
  CivilTime t;
  t.year = year;
  t.month = line.month;
  t.day = line.day;
  return ToWallMs(t);
}

int64_t Distance(int64_t a, int64_t b) { return a > b ? a - b : b - a; }

}  // namespace

void SetClock::Anchor(int64_t anchorMs, bool isStart) {
  anchor_ = anchorMs;
  anchorIsStart_ = isStart;
  fresh_ = true;
  lastMonth_ = 0;
}

int64_t SetClock::NearestYear(const ParsedLine& line, int64_t reference) const {
  int year = FromWallMs(reference).year;
  int64_t best = DayStart(year, line) + line.dayMs;
  for (int y : {year - 1, year + 1}) {
    int64_t t = DayStart(y, line) + line.dayMs;
    if (Distance(t, reference) < Distance(best, reference)) best = t;
  }
  return best;
}

int64_t SetClock::NotAfter(const ParsedLine& line, int64_t limit) const {
  // A clock set a little late still counts: a day of slack.
  int year = FromWallMs(limit).year;
  int64_t t = DayStart(year, line) + line.dayMs;
  return t <= limit + kDayMs ? t : DayStart(year - 1, line) + line.dayMs;
}

int64_t SetClock::Peek(const ParsedLine& line) const {
  switch (line.kind) {
    case LineKind::kDated:
      return line.datedMs;
    case LineKind::kPlain:
      return haveLast_ ? last_ : anchor_;
    default:
      break;
  }
  if (!fresh_ && line.month == lastMonth_ && line.day == lastDay_) {
    return lastDayStart_ + line.dayMs;
  }
  if (fresh_ && !anchorIsStart_) return NotAfter(line, anchor_);
  return NearestYear(line, fresh_ ? anchor_ : last_);
}

int64_t SetClock::Place(const ParsedLine& line) {
  int64_t t = Peek(line);
  if (line.kind == LineKind::kPlain) return t;
  if (line.kind == LineKind::kDated) {
    lastMonth_ = 0;  // the year may have changed under the cached day
  } else {
    lastMonth_ = line.month;
    lastDay_ = line.day;
    lastDayStart_ = t - line.dayMs;
  }
  fresh_ = false;
  last_ = t;
  haveLast_ = true;
  return t;
}

}  // namespace view
