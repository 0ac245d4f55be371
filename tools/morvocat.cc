// morvocat: a host of libmorvocat.so that runs its own command line with
// the process's standard output and standard error as the run's channels.

#include <stdio.h>
#include <unistd.h>

#include "morvocat/morvocat.h"

int main(int argc, char** argv) {
  android_logcat_context ctx = CreateAndroidLogcat();
  if (ctx == nullptr) {
    fprintf(stderr, "morvocat: out of memory\n");
    return 1;
  }
  AndroidLogcatRunCommand(ctx, STDOUT_FILENO, STDERR_FILENO, argc, argv, environ);
  return AndroidLogcatDestroy(&ctx);
}
