/* A C host built against the installed library: runs one dump of an empty
 * log store and reports the run's status. */
#include <morvocat/morvocat.h>
#include <stdio.h>
#include <unistd.h>

int main(void) {
  android_logcat_context ctx = CreateAndroidLogcat();
  if (ctx == NULL) return 2;
  char arg0[] = "morvocat", arg1[] = "-d", arg2[] = "-b", arg3[] = "morvo_main";
  char* argv[] = {arg0, arg1, arg2, arg3, NULL};
  int status = AndroidLogcatRunCommand(ctx, STDOUT_FILENO, STDERR_FILENO, 4, argv, NULL);
  int destroyed = AndroidLogcatDestroy(&ctx);
  printf("host: run %d, destroy %d\n", status, destroyed);
  return status == 0 && destroyed == 0 ? 0 : 1;
}
