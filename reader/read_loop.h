#ifndef MORVOCAT_READER_READ_LOOP_H_
#define MORVOCAT_READER_READ_LOOP_H_

#include "reader/logcat_context.h"

namespace qdlogging {

// Reads, filters and prints records of the opened buffers until a stop
// request, the end of a non-blocking read or a read error; then frees the
// buffer records and their list.
void ReadLoop(android_logcat_context_internal* ctx);

}  // namespace qdlogging

#endif  // MORVOCAT_READER_READ_LOOP_H_
