#ifndef MORVOCAT_READER_OUTPUT_FILE_H_
#define MORVOCAT_READER_OUTPUT_FILE_H_

// The reader's output file (-f): the rotating writer in the process-wide
// slot, or, when it cannot be made, a plain file rotated by renames and
// packed into tar.gz archives.

#include <stddef.h>

#include <string>

#include "filesets/morvocat_utils.h"
#include "reader/logcat_context.h"

namespace qdlogging {

// The slot's writer when ctx's run holds the slot and the writer writes in
// memory-mapped mode, else null.
MorvocatUtils* MmapWriter(const android_logcat_context_internal* ctx);

// How a run makes its writer; a test replaces it to take the plain-file
// path (null restores the allocation). Not for use while a run writes.
typedef MorvocatUtils* (*WriterFactory)(const char* path, uint32_t mode, uint64_t maxFiles);
void SetWriterFactory(WriterFactory factory);

// Sets up the output of a reading run with an output file name. A second
// file-writing run in the process is refused (status 1), and so is a run
// whose output folder cannot be made.
void SetupOutputFile(android_logcat_context_internal* ctx);
// After each record: recreates a vanished file and rotates by size.
void CheckOutput(android_logcat_context_internal* ctx);
// Empties the slot, destroying its writer, when ctx's run holds it.
void DestroyWriter(android_logcat_context_internal* ctx);

// -c with -f: deletes the output file and its rotated copies; anything at
// those names that is no regular file is left and counts as a failure.
// False when a deletion failed (reported with perror).
bool DeleteOutputFiles(const android_logcat_context_internal* ctx);

// Makes or checks the folder of path and gives it mode 0775 and the system
// user when it is the reader's to take (made here, or root's or system's
// already); 0 or -1. Refused with -1 and the reason's line in *refusal
// (standard error without one): a path that exists and is no regular file,
// a folder part that is no folder or is a link, and a folder others may
// write or with the sticky bit. Nothing is changed before the checks pass.
int CreateLogFolder(const char* path, std::string* refusal = nullptr);
// Opens path for appending, never through a link, FIFO, device or second
// name of a file; mode 0664, owner the system user. A descriptor or -1.
int OpenLogFile(const char* path);

}  // namespace qdlogging

#endif  // MORVOCAT_READER_OUTPUT_FILE_H_
