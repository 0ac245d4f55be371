#include "platform/write_fully.h"

#include <errno.h>
#include <poll.h>
#include <unistd.h>

#include "platform/thread_cancel.h"

namespace platform {

ssize_t WriteFully(int fd, const void* data, size_t length, size_t* written) {
  const char* bytes = static_cast<const char*>(data);
  size_t done = 0;
  int error = 0;
  while (done < length && error == 0) {
    ssize_t n = write(fd, bytes + done, length - done);
    if (n < 0 && errno == EINTR) continue;
    // A non-blocking descriptor that is full: wait for room in slices, so
    // that a stop request ends the wait.
    if (n < 0 && errno == EAGAIN) {
      if (CancelRequested()) {
        error = ECANCELED;
        continue;
      }
      pollfd p = {fd, POLLOUT, 0};
      poll(&p, 1, kCancelPollMs);
      continue;
    }
    if (n <= 0) {
      error = n == 0 ? EIO : errno;
      continue;
    }
    done += static_cast<size_t>(n);
  }
  if (written != nullptr) *written = done;
  if (error == 0) return static_cast<ssize_t>(length);
  errno = error;
  return -error;
}

}  // namespace platform
