#ifndef MORVOCAT_ARCHIVE_TARZIP_H_
#define MORVOCAT_ARCHIVE_TARZIP_H_

// Packs log files into one gzip-compressed tar stream: a version 7 header
// block per regular file, its content in whole 512-byte blocks, and a single
// zero block at the end. Directories contribute their files, depth first,
// but no entries of their own; links and special files are left out.

#include <stdint.h>
#include <sys/types.h>
#include <zlib.h>

extern "C" {

// Packs the count paths (files or directories) into the archive at archive,
// owned by the user "system" when there is one. With dirMode non-zero a
// directory's files are stored under its last path component.
void TarzipFiles(int count, const char* const* paths, const char* archive, int dirMode);
// Adds the regular files below dir, named prefix/name (bare names without
// a prefix).
void TarzipDirRecursive(gzFile stream, const char* dir, const char* prefix);
// Fills the name, mode, owner, group, size and checksum fields of a header
// block that the caller zero-filled (512 bytes).
void WriteHeader(char* block, const char* name, uint32_t size);
// Adds ceil(size / 512) content blocks read from path; nothing when path
// is not a regular file (a link is not followed) or cannot be opened.
void WriteZipContent(gzFile stream, const char* path, int64_t size);

}  // extern "C"

// TarzipFiles that tells whether the archive is whole: every block written
// and every member's content read. A caller deletes the members only after
// true; a member that did not exist does not make it false. The archive is
// written under a temporary name in its folder and takes its name only once
// written, so a link or file planted at that name is replaced, never written
// through; an archive that could not be written leaves nothing behind.
// With mode non-zero the archive gets that mode; the errno of a failed
// change goes to *modeError and does not fail the archive.
bool TarzipFilesComplete(int count, const char* const* paths, const char* archive, int dirMode,
                         mode_t mode = 0, int* modeError = nullptr);

#endif  // MORVOCAT_ARCHIVE_TARZIP_H_
