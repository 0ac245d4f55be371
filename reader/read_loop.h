#ifndef MORVOCAT_READER_READ_LOOP_H_
#define MORVOCAT_READER_READ_LOOP_H_

#include "reader/logcat_context.h"

namespace qdlogging {

// Reads, filters and prints records of the opened buffers until a stop
// request, the end of a non-blocking read or a read error; then frees the
// buffer records and their list. A non-blocking run (one that reads what
// is there and stops) writes its lines to the host's output in blocks.
void ReadLoop(android_logcat_context_internal* ctx, bool nonBlocking);

}  // namespace qdlogging

#endif  // MORVOCAT_READER_READ_LOOP_H_
