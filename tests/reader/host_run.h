#ifndef MORVOCAT_TESTS_READER_HOST_RUN_H_
#define MORVOCAT_TESTS_READER_HOST_RUN_H_

// The main of a host program that carries functions of its own under names
// the library uses inside. Each of them calls HostFunctionRan() first: a call
// while the library runs means the library bound to the host's function,
// and the host ends at once with status 3 rather than run on with it.

#include <stdio.h>
#include <unistd.h>

#include "morvocat/morvocat.h"

static int gLibraryRunning;

static void HostFunctionRan(const char* name) {
  if (!gLibraryRunning) return;
  fprintf(stderr, "the library called the host's %s\n", name);
  fflush(stderr);
  _exit(3);
}

// Runs argv with standard output and error as the run's channels.
static int RunAsHost(int argc, char** argv) {
  extern char** environ;
  android_logcat_context ctx = CreateAndroidLogcat();
  if (ctx == NULL) return 2;
  gLibraryRunning = 1;
  AndroidLogcatRunCommand(ctx, dup(STDOUT_FILENO), dup(STDERR_FILENO), argc, argv, environ);
  gLibraryRunning = 0;
  return AndroidLogcatDestroy(&ctx);
}

#endif  // MORVOCAT_TESTS_READER_HOST_RUN_H_
