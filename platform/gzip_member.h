#ifndef MORVOCAT_PLATFORM_GZIP_MEMBER_H_
#define MORVOCAT_PLATFORM_GZIP_MEMBER_H_

// One buffer compressed into one complete gzip member appended to a file.
// deflate's state (about 260 KiB at its default window and memory level)
// and the output buffer are mapped for the call only: a writer that is
// between flushes, which is what a resident collector's writers are nearly
// always, holds no compressor memory.

#include <stddef.h>

namespace platform {

// Writes data to fd as one gzip member at the given deflate level. False
// when memory cannot be mapped or a write fails; fd may then hold part of
// the member.
bool AppendGzipMember(int fd, const unsigned char* data, size_t length, int level);

}  // namespace platform

#endif  // MORVOCAT_PLATFORM_GZIP_MEMBER_H_
