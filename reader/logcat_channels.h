#ifndef MORVOCAT_READER_LOGCAT_CHANNELS_H_
#define MORVOCAT_READER_LOGCAT_CHANNELS_H_

// The output and error channels of a run: the host's descriptors, the
// "2>" and ">" redirections written as arguments, and their closing.

#include "reader/logcat_context.h"

namespace qdlogging {

// Sets up both streams at the start of a run. False when a given descriptor
// cannot be wrapped in a stream: the run then goes straight to its end.
bool SetupChannels(android_logcat_context_internal* ctx);

void CloseOutput(android_logcat_context_internal* ctx);
void CloseError(android_logcat_context_internal* ctx);

// Closes the channels that carry a thread run's pipe, so its reader sees
// end of file.
void ReleasePipeChannels(android_logcat_context_internal* ctx);

}  // namespace qdlogging

#endif  // MORVOCAT_READER_LOGCAT_CHANNELS_H_
