#ifndef MORVOCAT_READER_GET_OPT_LONG_H_
#define MORVOCAT_READER_GET_OPT_LONG_H_

// A reentrant getopt_long: all state lives in a caller-owned GetOptContext
// and every message goes to the caller's stream, so several contexts can
// parse at once.

#include <getopt.h>
#include <stdio.h>

#include "platform/export.h"

struct GetOptContext {
  int opterr;            // non-zero: print messages
  int optind;            // next argument; 0 restarts
  int optopt;            // option character of the last error
  int optreset;          // non-zero: restart scanning
  const char* optarg;    // argument of the option just returned
  FILE* errorOut;        // null: the process's standard error
  const char* nextChar;  // scan position inside the current argument
  int skipStart;         // first skipped non-option, -1 when none
  int skipEnd;           // one past the skipped non-options, -1 when unknown
  int prefixKind;        // 0 "-", 1 "--", 2 "-W "
};

// Initial values for a parse that reports to errorOut (null: no messages).
void InitGetOptContext(GetOptContext* ctx, FILE* errorOut);

MORVO_EXPORT int getopt_long_r(int argc, char* const* argv, const char* optstring,
                               const option* longopts, int* longindex, GetOptContext* ctx);

MORVO_EXPORT int GetOptLong(int argc, char* const* argv, const char* optstring,
                            const option* longopts, int* longindex, GetOptContext* ctx);

#endif  // MORVOCAT_READER_GET_OPT_LONG_H_
