#include "collector/owner_change.h"

#include <errno.h>
#include <limits.h>
#include <string.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/safe_string.h"

void ChownRootSystem(const char* path, const char* failFormat) {
  // Everything the child needs is made before the fork: in a process with
  // other threads the child may only exec, write and exit.
  char message[PATH_MAX + 64];
  if (snprintf_s(message, sizeof(message), sizeof(message) - 1, failFormat, path) < 0) {
    message[0] = '\0';
  }
  char program[] = "chown";
  char owner[] = "root:system";
  char* const args[] = {program, owner, const_cast<char*>(path), nullptr};
  pid_t child = fork();
  if (child == 0) {
    execvp(program, args);
    ssize_t ignored = write(STDERR_FILENO, message, strlen(message));
    (void)ignored;
    _exit(-1);
  }
  if (child < 0) return;
  // Our own child only: other groups may be waiting for theirs.
  while (waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
  }
}
