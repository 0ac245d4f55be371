#ifndef MORVOCAT_TOOLS_VIEW_LINE_PARSER_H_
#define MORVOCAT_TOOLS_VIEW_LINE_PARSER_H_

// Reads one line of any format the system writes and finds its time and
// fields:
//   threadtime   "MM-DD HH:MM:SS.mmm   pid   tid P tag     : message"
//   stream       "MM-DD HH:MM:SS.mmm text" (a collector's stream lines)
//   input event  "MM-DD HH:MM:SS [sec.usec] ..." (after the first line of a
//                batch, with one blank in front)
//   dated        "YYYY-MM-DD HH:MM:SS > ..." (a polled row) and
//                "current time: [<command>]Y-M-D h:m:s" (a command header or
//                a row's current-time column): a time with its year
//   plain        anything else: title rows, command output, dividers; it
//                takes the time of the line before it

#include <stddef.h>
#include <stdint.h>

namespace view {

enum class LineKind { kThreadTime, kStream, kEvent, kDated, kPlain };

struct ParsedLine {
  LineKind kind = LineKind::kPlain;
  // The month-day stamp of threadtime, stream and event lines.
  int month = 0;
  int day = 0;
  int dayMs = 0;  // milliseconds since midnight
  // The full time of a dated line.
  int64_t datedMs = 0;
  // Threadtime lines only.
  int32_t pid = 0;
  int32_t tid = 0;
  char priority = 0;  // V D I W E F S, or ? as the writer prints an unknown one
  const char* tag = nullptr;
  size_t tagLength = 0;
  // The text after the stamp (threadtime: after "tag: "); the whole line
  // for dated and plain lines.
  const char* message = nullptr;
  size_t messageLength = 0;
};

// line holds length bytes without the line end.
void ParseLine(const char* line, size_t length, ParsedLine* out);

}  // namespace view

#endif  // MORVOCAT_TOOLS_VIEW_LINE_PARSER_H_
