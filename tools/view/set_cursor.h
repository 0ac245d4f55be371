#ifndef MORVOCAT_TOOLS_VIEW_SET_CURSOR_H_
#define MORVOCAT_TOOLS_VIEW_SET_CURSOR_H_

// Walks one set's records in writing order, one line at a time, each with
// its full time. It holds one read buffer and one open file at a time, so
// its memory does not grow with the set.

#include <stddef.h>
#include <stdint.h>

#include <string>

#include "tools/view/line_parser.h"
#include "tools/view/member_reader.h"
#include "tools/view/set_clock.h"
#include "tools/view/set_finder.h"

namespace view {

struct Record {
  int64_t ms = 0;              // wall time (see wall_time.h)
  const char* line = nullptr;  // without its line end; valid until the next
  size_t length = 0;           // record of the same set
  ParsedLine parsed;
  const ViewSet* set = nullptr;
  const std::string* file = nullptr;  // the file, or "archive:member"
};

class SetCursor {
 public:
  explicit SetCursor(const ViewSet& set);
  ~SetCursor();
  SetCursor(const SetCursor&) = delete;
  SetCursor& operator=(const SetCursor&) = delete;

  // Moves to the next record; false at the end of the set. Blank lines are
  // not records.
  bool Next();
  const Record& record() const { return record_; }

 private:
  bool NextPiece();
  bool NextLine(const char** line, size_t* length);
  bool Grow();
  // The time of the first line with a time in what is buffered, for the
  // lines at the top of a set that have none (a title row).
  int64_t TimeAhead(const ParsedLine& plain) const;

  const ViewSet& set_;
  size_t nextFile_ = 0;
  bool fileOpen_ = false;
  bool inPiece_ = false;
  bool pieceDone_ = false;
  MemberReader reader_;
  Piece piece_;
  SetClock clock_;
  char* buffer_ = nullptr;
  size_t capacity_ = 0;
  size_t begin_ = 0;
  size_t end_ = 0;
  Record record_;
};

}  // namespace view

#endif  // MORVOCAT_TOOLS_VIEW_SET_CURSOR_H_
