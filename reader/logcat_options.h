#ifndef MORVOCAT_READER_LOGCAT_OPTIONS_H_
#define MORVOCAT_READER_LOGCAT_OPTIONS_H_

// The reader's command line: the option table, buffer selection and the
// default buffers.

#include <stdint.h>

#include "reader/logcat_context.h"

namespace qdlogging {

// Values of one run that do not live in the context.
struct RunOptions {
  int readMode = 0;
  int tailLines = 0;
  int pid = 0;
  bool clearRequest = false;
  bool sizeReport = false;
  int64_t newSize = 0;
  uint64_t collectorKind = 0;
  const char* collectorName = nullptr;
  bool buffersGiven = false;
  int firstFilterArg = 0;  // index of the first argument after the options
};

// Parses every option into opts and the context. False when an option was
// rejected: the message is reported and the run must end.
bool ParseOptions(android_logcat_context_internal* ctx, RunOptions* opts);

// Adds the default buffers for a run without -b.
void AddDefaultBuffers(android_logcat_context_internal* ctx, const RunOptions& opts);

// Whether the run only operates on the buffers and reads nothing.
inline bool IsBufferOperation(const RunOptions& opts) {
  return opts.clearRequest || opts.sizeReport || opts.newSize != 0;
}

}  // namespace qdlogging

#endif  // MORVOCAT_READER_LOGCAT_OPTIONS_H_
