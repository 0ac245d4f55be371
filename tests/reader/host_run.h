#ifndef MORVOCAT_TESTS_READER_HOST_RUN_H_
#define MORVOCAT_TESTS_READER_HOST_RUN_H_

// A host defining names the library uses inside; each calls HostFunctionRan() first, which ends
// the host with status 3 (the library bound to the host's function).

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
