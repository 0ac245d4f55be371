#ifndef MORVOCAT_TOOLS_VIEW_SET_CLOCK_H_
#define MORVOCAT_TOOLS_VIEW_SET_CLOCK_H_

// Gives the lines of one set their full times. Most lines carry only month
// and day: the year comes from the file (its name's stamp, when it was
// opened, or its modification time, when it was last written) and then
// from the line before, taking whichever year puts the line nearest to it,
// so a set that runs from Dec 31 into Jan 1 moves on to the next year.

#include <stdint.h>

#include "tools/view/line_parser.h"

namespace view {

class SetClock {
 public:
  // A file or archive member begins: it was opened at anchorMs (isStart),
  // or last written at anchorMs.
  void Anchor(int64_t anchorMs, bool isStart);

  // The time of line; lines without a time of their own take the one
  // before them (or the anchor at first).
  int64_t Place(const ParsedLine& line);
  // What Place would answer, changing nothing.
  int64_t Peek(const ParsedLine& line) const;

  // A line with a time has been placed since the set began.
  bool HasTime() const { return haveLast_; }

 private:
  int64_t NearestYear(const ParsedLine& line, int64_t reference) const;
  int64_t NotAfter(const ParsedLine& line, int64_t limit) const;

  int64_t anchor_ = 0;
  bool anchorIsStart_ = true;
  bool fresh_ = true;  // no line placed since the anchor
  int64_t last_ = 0;
  bool haveLast_ = false;
  // The start of the last month-day placed, in the year it was given.
  int lastMonth_ = 0;
  int lastDay_ = 0;
  int64_t lastDayStart_ = 0;
};

}  // namespace view

#endif  // MORVOCAT_TOOLS_VIEW_SET_CLOCK_H_
