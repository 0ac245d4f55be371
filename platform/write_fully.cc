#include "platform/write_fully.h"

#include <errno.h>
#include <poll.h>
#include <unistd.h>

#include "platform/thread_cancel.h"

namespace platform {

size_t WriteFully(int fd, const void* data, size_t length) {
  const char* bytes = static_cast<const char*>(data);
  size_t done = 0;
  while (done < length) {
    ssize_t n = write(fd, bytes + done, length - done);
    if (n < 0 && errno == EINTR) continue;
    // A non-blocking descriptor that is full: wait for room in slices, so
    // that a stop request ends the wait.
    if (n < 0 && errno == EAGAIN) {
      if (CancelRequested()) {
        errno = ECANCELED;
        break;
      }
      pollfd p = {fd, POLLOUT, 0};
      poll(&p, 1, kCancelPollMs);
      continue;
    }
    if (n <= 0) {
      if (n == 0) errno = EIO;
      break;
    }
    done += static_cast<size_t>(n);
  }
  return done;
}

}  // namespace platform
