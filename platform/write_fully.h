#ifndef MORVOCAT_PLATFORM_WRITE_FULLY_H_
#define MORVOCAT_PLATFORM_WRITE_FULLY_H_

#include <stddef.h>
#include <sys/types.h>

namespace platform {

// Writes data in full, going on after interrupted and short writes. Returns
// length, or a negated errno (also left in errno) when a write failed: -EIO
// for a write that took nothing. *written, when given, counts the bytes that
// went in either way. A non-blocking descriptor that is full is waited for,
// until the thread's cancel flag is set (-ECANCELED).
ssize_t WriteFully(int fd, const void* data, size_t length, size_t* written = nullptr);

}  // namespace platform

#endif  // MORVOCAT_PLATFORM_WRITE_FULLY_H_
