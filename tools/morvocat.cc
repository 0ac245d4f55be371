// morvocat: a host of libmorvocat.so that runs its own command line with
// the process's standard output and standard error as the run's channels.
//
// SIGINT and SIGTERM end the run the way a host should: destroy sets the
// run's stop request and waits for it, so an output file set is flushed
// and complete. A run that does not end in time (a collector hand-over
// never does) is ended by the signal's default action after all.

#include "morvocat/morvocat.h"

#include <pthread.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <atomic>

namespace {

constexpr int kGraceSeconds = 2;

std::atomic<android_logcat_context> gContext{nullptr};
int gSignalPipe[2] = {-1, -1};

void OnStopSignal(int sig) {
  unsigned char byte = static_cast<unsigned char>(sig);
  ssize_t ignored = write(gSignalPipe[1], &byte, 1);
  (void)ignored;
}

void DieOf(int sig) {
  signal(sig, SIG_DFL);
  sigset_t only;
  sigemptyset(&only);
  sigaddset(&only, sig);
  pthread_sigmask(SIG_UNBLOCK, &only, nullptr);
  raise(sig);
  _exit(128 + sig);
}

// Started from the watcher, so it too takes no signal.
void* GraceTimer(void* arg) {
  sleep(kGraceSeconds);
  DieOf(static_cast<int>(reinterpret_cast<intptr_t>(arg)));
  return nullptr;
}

// Waits for the first stop signal, ends the run and dies of that signal.
void* SignalWatcher(void*) {
  unsigned char sig = 0;
  while (read(gSignalPipe[0], &sig, 1) != 1) {
  }
  pthread_t timer;
  pthread_create(&timer, nullptr, GraceTimer, reinterpret_cast<void*>(static_cast<intptr_t>(sig)));
  android_logcat_context ctx = gContext.exchange(nullptr);
  if (ctx != nullptr) AndroidLogcatDestroy(&ctx);
  DieOf(sig);
  return nullptr;
}

bool WatchStopSignals() {
  if (pipe(gSignalPipe) != 0) return false;
  // The watcher takes no signal itself: those the run waits for with
  // sigwait (the collector's SIGUSR2) must not be delivered to it.
  sigset_t all;
  sigset_t previous;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &previous);
  pthread_t watcher;
  bool started = pthread_create(&watcher, nullptr, SignalWatcher, nullptr) == 0;
  pthread_sigmask(SIG_SETMASK, &previous, nullptr);
  if (!started) return false;
  struct sigaction action = {};
  action.sa_handler = OnStopSignal;
  sigemptyset(&action.sa_mask);
  action.sa_flags = SA_RESTART;
  return sigaction(SIGINT, &action, nullptr) == 0 && sigaction(SIGTERM, &action, nullptr) == 0;
}

constexpr const char kUsage[] =
    "usage: morvocat [OPTION]... [FILTERSPEC]... [>FILE] [2>/dev/null|2>&1]\n"
    "Reads, filters and prints the log buffers in the threadtime format.\n"
    "\n"
    "Buffers:\n"
    "  -b, --buffer NAMES       morvo_main, morvo_system, morvo_crash (the default),\n"
    "                           morvo_events, morvo_radio; separated by , : ; or space\n"
    "  -c, --clear              clear the buffers (with -f: delete the output files)\n"
    "  -g, --buffer-size[=SIZE] print the buffers' sizes, or set them (as -G)\n"
    "  -G SIZE                  set the buffers' size in bytes, K for KiB\n"
    "\n"
    "Reading:\n"
    "  -d                       print what is there and end\n"
    "  -t COUNT                 print the last COUNT records and end\n"
    "  --pid PID                only the records of process PID\n"
    "  --wrap                   wait until the buffer is about to wrap, then print\n"
    "  -s                       silence every tag a filter does not name\n"
    "  FILTERSPEC               TAG:PRIORITY (V D I W E F S), as ANDROID_LOG_TAGS\n"
    "\n"
    "Output files:\n"
    "  -f, --file PATH          write to rotating compressed files PATH.Innn.DATE.gz\n"
    "  -r, --rotate-kbytes KB   start a new file every KB kibibytes\n"
    "  -n, --rotate-count N     rotated files (default 4)\n"
    "  -z, --compress-files M   keep M archives of N files each (default: none)\n"
    "\n"
    "Collector:\n"
    "  --tavo 2 -x NAME         become the resident collector of instance NAME\n"
    "\n"
    "  -h, --help               this text;  --version  the version\n"
    "Accepted without effect: --debug, --print, --id ARG.\n";

// The front end answers these itself; the library's command line has no
// help text of its own.
bool AnswerOwnOption(int argc, char** argv, int* status) {
  for (int i = 1; i < argc; ++i) {
    if (strcmp(argv[i], "-h") == 0 || strcmp(argv[i], "--help") == 0) {
      fputs(kUsage, stdout);
      *status = 0;
      return true;
    }
    if (strcmp(argv[i], "--version") == 0) {
      printf("morvocat %s\n", MORVO_VERSION);
      *status = 0;
      return true;
    }
  }
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  int status = 0;
  if (AnswerOwnOption(argc, argv, &status)) return status;
  android_logcat_context ctx = CreateAndroidLogcat();
  if (ctx == nullptr) {
    fprintf(stderr, "morvocat: out of memory\n");
    return 1;
  }
  gContext.store(ctx);
  if (!WatchStopSignals()) fprintf(stderr, "morvocat: stop signals end the run abruptly\n");
  AndroidLogcatRunCommand(ctx, STDOUT_FILENO, STDERR_FILENO, argc, argv, environ);
  ctx = gContext.exchange(nullptr);
  // Null: a stop signal's watcher is destroying the context and ends us.
  if (ctx == nullptr) pause();
  return AndroidLogcatDestroy(&ctx);
}
