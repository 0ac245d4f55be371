#ifndef MORVOCAT_READER_BUFFER_OPERATIONS_H_
#define MORVOCAT_READER_BUFFER_OPERATIONS_H_

// From the parsed options to open buffers: filters, the logger list, and
// the operations that end a run without reading (clear, set size, report).

#include "reader/logcat_context.h"
#include "reader/logcat_options.h"

namespace qdlogging {

// Applies the filters, opens the selected buffers and performs the buffer
// operations. True when the run goes on to read the opened buffers; false
// when it has ended (reported, records freed where they were opened).
bool OpenBuffers(android_logcat_context_internal* ctx, const RunOptions& opts);

}  // namespace qdlogging

#endif  // MORVOCAT_READER_BUFFER_OPERATIONS_H_
