#ifndef MORVOCAT_READER_OUTPUT_FILE_H_
#define MORVOCAT_READER_OUTPUT_FILE_H_

// The reader's output file (-f): the rotating writer in the process-wide
// slot, or, when it cannot be made, a plain file rotated by renames and
// packed into tar.gz archives.

#include <stddef.h>

#include "filesets/morvocat_utils.h"
#include "reader/logcat_context.h"

namespace qdlogging {

// The slot's writer when it writes in memory-mapped mode, else null.
MorvocatUtils* MmapWriter();

// Sets up the output of a reading run with an output file name.
void SetupOutputFile(android_logcat_context_internal* ctx);
// After each record: recreates a vanished file and rotates by size.
void CheckOutput(android_logcat_context_internal* ctx);
// Empties the slot, destroying its writer.
void DestroyWriter();

// -c with -f: deletes the output file and its rotated copies. False when a
// deletion failed (reported with perror).
bool DeleteOutputFiles(const android_logcat_context_internal* ctx);

int CreateLogFolder(const char* path);
int OpenLogFile(const char* path);

}  // namespace qdlogging

#endif  // MORVOCAT_READER_OUTPUT_FILE_H_
