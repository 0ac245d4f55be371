#ifndef MORVOCAT_PLATFORM_GZIP_MEMBER_H_
#define MORVOCAT_PLATFORM_GZIP_MEMBER_H_

// Tavo's compression: one buffer into one complete gzip member appended to
// a file. The process has one compressor, made at the first member and kept:
// one per writer held deflate's ~260 KiB for each of a collector's groups,
// and one made afresh per member cost a third of the time of the reader's
// small members (a flush before every 16 KiB rotation). Members from several
// writers are compressed one after another.

#include <stddef.h>

namespace platform {

// Writes data to fd as one gzip member. 0, or a negated errno: -ENOMEM when
// the compressor cannot be made or fails, the write's error when a write
// fails; fd may then hold part of the member.
int AppendGzipMember(int fd, const unsigned char* data, size_t length);

}  // namespace platform

#endif  // MORVOCAT_PLATFORM_GZIP_MEMBER_H_
