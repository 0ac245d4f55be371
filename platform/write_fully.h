#ifndef MORVOCAT_PLATFORM_WRITE_FULLY_H_
#define MORVOCAT_PLATFORM_WRITE_FULLY_H_

#include <stddef.h>

namespace platform {

// Writes data in full, going on after interrupted and short writes. Returns
// the bytes written: length, or fewer when a write failed, errno then
// telling why (EIO for a write that took nothing). A non-blocking descriptor
// that is full is waited for, until the thread's cancel flag is set
// (ECANCELED).
size_t WriteFully(int fd, const void* data, size_t length);

}  // namespace platform

#endif  // MORVOCAT_PLATFORM_WRITE_FULLY_H_
