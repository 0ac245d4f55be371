#include "platform/write_fully.h"

#include <errno.h>
#include <unistd.h>

namespace platform {

size_t WriteFully(int fd, const void* data, size_t length) {
  const char* bytes = static_cast<const char*>(data);
  size_t done = 0;
  while (done < length) {
    ssize_t n = write(fd, bytes + done, length - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      if (n == 0) errno = EIO;
      break;
    }
    done += static_cast<size_t>(n);
  }
  return done;
}

}  // namespace platform
